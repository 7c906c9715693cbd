# zelctl_logs_bench runs the zelctl binary of this build (or one given with --zelctl).
if(ZEL_BUILD_TOOLS)
  target_compile_definitions(${name} PRIVATE ZELCTL_BINARY="$<TARGET_FILE:zelctl>")
  add_dependencies(${name} zelctl)
endif()
