# The midnight tests run this helper under faketime.
if(NOT TARGET log_midnight_child)
  add_executable(log_midnight_child ${CMAKE_CURRENT_SOURCE_DIR}/log_midnight_child.cpp)
  target_link_libraries(log_midnight_child PRIVATE zel::zel_utils)
endif()
add_dependencies(${name} log_midnight_child)
target_compile_definitions(${name} PRIVATE
  ZEL_MIDNIGHT_CHILD="$<TARGET_FILE:log_midnight_child>")
