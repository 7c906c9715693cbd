# Installs the build tree into a scratch prefix, builds the consumer project
# against it (CMake package and pkg-config file), and runs what it built.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/steps.cmake)

run_step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/build
         -DCMAKE_PREFIX_PATH=${prefix})
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run_step(${WORK_DIR}/build/consumer)

# The pkg-config file must describe the same install: build the consumer
# again with nothing but its flags.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs zel_utils
                OUTPUT_VARIABLE flags RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know zel_utils")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run_step(c++ -std=c++17 ${CONSUMER_SOURCE}/main.cpp ${flags} -pthread
         -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/consumer_pc)
run_step(${WORK_DIR}/consumer_pc)

# The runtime component alone: the shared library, its documents and the
# support tool, no headers, link name, CMake package, pkg-config file or
# stand-in.
set(runtime ${WORK_DIR}/runtime)
run_step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${runtime} --component Runtime)
file(GLOB_RECURSE installed RELATIVE ${runtime} ${runtime}/*)
foreach(path ${installed})
  if(NOT path MATCHES "/libzel_utils\\.so\\.[0-9.]+$" AND NOT path MATCHES "^share/doc/zel_utils/"
     AND NOT path STREQUAL "bin/zelctl")
    message(FATAL_ERROR "the Runtime component installs ${path}")
  endif()
endforeach()
if(NOT installed MATCHES "libzel_utils\\.so\\.")
  message(FATAL_ERROR "the Runtime component installs no libzel_utils: ${installed}")
endif()
# The installed tool finds the library (and here the stand-ins) through its
# RUNPATH.
if(EXISTS ${BUILD_DIR}/tools/zelctl/zelctl)
  execute_process(COMMAND ${prefix}/bin/zelctl version OUTPUT_VARIABLE answer RESULT_VARIABLE result)
  if(NOT result EQUAL 0 OR NOT answer MATCHES "[0-9]+\\.[0-9]+\\.[0-9]+")
    message(FATAL_ERROR "the installed zelctl does not run (${result}): ${answer}")
  endif()
endif()
