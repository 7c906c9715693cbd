# A client that links its own logging and tracing libraries: builds
# placeholders under the real names in a folder of their own, configures and
# installs the library against them, checks that no stand-in was installed,
# then builds and runs the consumer with find_package finding both.
set(client ${WORK_DIR}/client)
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/steps.cmake)

file(MAKE_DIRECTORY ${client}/lib ${client}/include/client)
file(COPY ${SOURCE_DIR}/client/orvane_log.h ${SOURCE_DIR}/client/tracer.h
     DESTINATION ${client}/include/client)
run_step(c++ -std=c++17 -shared -fPIC -I${client}/include ${SOURCE_DIR}/client/orvane_log.cpp
         -o ${client}/lib/liborvane_log.so)
run_step(c++ -std=c++17 -shared -fPIC -I${client}/include ${SOURCE_DIR}/client/tracer.cpp
         -o ${client}/lib/libclient_tracer.so)

run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -DCMAKE_BUILD_TYPE=Release
         -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_TOOLS=OFF
         -DZEL_USE_STANDIN_ORVANE_LOG=OFF -DZEL_USE_STANDIN_TRACER=OFF
         -DORVANE_LOG_LIBRARY=${client}/lib/liborvane_log.so
         -DORVANE_LOG_INCLUDE_DIR=${client}/include
         -DCLIENT_TRACER_LIBRARY=${client}/lib/libclient_tracer.so
         -DCLIENT_TRACER_INCLUDE_DIR=${client}/include)
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/build -j2)
run_step(${CMAKE_COMMAND} --install ${WORK_DIR}/build --prefix ${prefix})

file(GLOB_RECURSE standins ${prefix}/*orvane_log* ${prefix}/*client_tracer* ${prefix}/*/client/*)
if(standins)
  message(FATAL_ERROR "a build against the client's libraries installed stand-ins: ${standins}")
endif()

run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/consumer
         "-DCMAKE_PREFIX_PATH=${prefix}\;${client}")
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
# The client's process finds its own libraries on its load path.
set(ENV{LD_LIBRARY_PATH} ${client}/lib)
run_step(${WORK_DIR}/consumer/consumer)
