# Configures the library for --prefix /usr (a distribution's layout: on Debian
# the library folder is lib/<multiarch>), installs it into a scratch DESTDIR,
# asks pkg-config there, and builds and runs the consumer with nothing but
# pkg-config's flags and an rpath.
set(root ${WORK_DIR}/root)
file(REMOVE_RECURSE ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/steps.cmake)

function(pkg_config_answer out)
  execute_process(COMMAND pkg-config ${ARGN} zel_utils OUTPUT_VARIABLE answer
                  RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config ${ARGN} zel_utils failed")
  endif()
  set(${out} "${answer}" PARENT_SCOPE)
endfunction()

run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -DCMAKE_INSTALL_PREFIX=/usr
         -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF
         -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_TOOLS=OFF)
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/build -j2)
set(ENV{DESTDIR} ${root})
run_step(${CMAKE_COMMAND} --install ${WORK_DIR}/build)
unset(ENV{DESTDIR})

# Where GNUInstallDirs put the library for /usr on this system.
file(STRINGS ${WORK_DIR}/build/CMakeCache.txt libdir_entry REGEX "^CMAKE_INSTALL_LIBDIR:")
string(REGEX REPLACE "^[^=]*=" "" libdir "${libdir_entry}")
set(ENV{PKG_CONFIG_PATH} ${root}/usr/${libdir}/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${root}/usr/${libdir}/pkgconfig:/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig:/usr/lib/pkgconfig)

pkg_config_answer(pc_libdir --variable=libdir)
pkg_config_answer(pc_includedir --variable=includedir)
file(REAL_PATH ${pc_libdir} pc_libdir)
file(REAL_PATH ${pc_includedir} pc_includedir)
if(NOT pc_libdir STREQUAL "${root}/usr/${libdir}")
  message(FATAL_ERROR "libdir is ${pc_libdir}, expected ${root}/usr/${libdir}")
endif()
if(NOT EXISTS ${pc_libdir}/libzel_utils.so)
  message(FATAL_ERROR "no libzel_utils.so in ${pc_libdir}")
endif()
if(NOT EXISTS ${pc_includedir}/utils/looper.h OR NOT EXISTS ${pc_includedir}/utils/zel_version.h)
  message(FATAL_ERROR "the headers are not in ${pc_includedir}")
endif()

pkg_config_answer(flags --cflags --libs)
separate_arguments(flags UNIX_COMMAND "${flags}")
run_step(c++ -std=c++17 ${CONSUMER_SOURCE}/main.cpp ${flags} -pthread
         -Wl,-rpath,${pc_libdir} -o ${WORK_DIR}/consumer_pc)
run_step(${WORK_DIR}/consumer_pc)
