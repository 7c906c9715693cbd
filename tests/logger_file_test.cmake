# Same midnight helper as the Logger's tests.
include(${CMAKE_CURRENT_LIST_DIR}/logger_test.cmake)
