# The time-zone test runs the Logger tests' helper under faketime.
include(${CMAKE_CURRENT_LIST_DIR}/logger_test.cmake)
