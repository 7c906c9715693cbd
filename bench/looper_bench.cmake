# Optional comparison: Boost.Asio's io_context (header-only), when installed.
find_package(Boost QUIET)
if(Boost_FOUND)
  target_link_libraries(${name} PRIVATE Boost::headers)
  target_compile_definitions(${name} PRIVATE ZEL_BENCH_HAVE_ASIO=1)
endif()
