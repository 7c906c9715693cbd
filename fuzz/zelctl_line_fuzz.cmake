# zelctl's log readers are compiled into the target, so that they are
# instrumented with it (they are no part of the library).
set(ZELCTL_DIR ${CMAKE_CURRENT_SOURCE_DIR}/../tools/zelctl)
target_sources(${target} PRIVATE
  ${ZELCTL_DIR}/log_prefix.cpp
  ${ZELCTL_DIR}/log_files.cpp
  ${ZELCTL_DIR}/log_stream.cpp
  ${ZELCTL_DIR}/log_merge.cpp)
target_include_directories(${target} PRIVATE ${ZELCTL_DIR})
target_link_libraries(${target} PRIVATE PkgConfig::JSONCPP)
