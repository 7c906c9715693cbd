# Optional comparison: spdlog's asynchronous file logger, when installed.
find_package(spdlog QUIET)
if(spdlog_FOUND)
  target_link_libraries(${name} PRIVATE spdlog::spdlog)
  target_compile_definitions(${name} PRIVATE ZEL_BENCH_HAVE_SPDLOG=1)
endif()
