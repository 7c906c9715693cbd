# The tests of how a process ends run this helper.
if(NOT TARGET log_end_child)
  add_executable(log_end_child ${CMAKE_CURRENT_SOURCE_DIR}/log_end_child.cpp)
  target_link_libraries(log_end_child PRIVATE zel::zel_utils)
endif()
add_dependencies(${name} log_end_child)
target_compile_definitions(${name} PRIVATE ZEL_END_CHILD="$<TARGET_FILE:log_end_child>")
