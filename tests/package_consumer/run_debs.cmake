# Makes the Debian packages of the build tree, unpacks them with dpkg -x into
# a scratch root, and builds and runs the consumer against that root only.
set(root ${WORK_DIR}/root)
file(REMOVE_RECURSE ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/steps.cmake)

run_step(cpack -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}/packages)
file(GLOB debs ${WORK_DIR}/packages/*.deb)
foreach(name libzel-utils1 libzel-utils-dev)
  if(NOT debs MATCHES "/${name}_")
    message(FATAL_ERROR "no ${name} package among ${debs}")
  endif()
endforeach()
foreach(deb ${debs})
  run_step(dpkg -x ${deb} ${root})
endforeach()

run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/consumer
         -Dzel_utils_DIR=${root}/usr/lib/cmake/zel_utils)
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run_step(${WORK_DIR}/consumer/consumer)
