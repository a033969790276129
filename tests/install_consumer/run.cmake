# Installs the built library into a scratch prefix, then configures, builds
# and runs a consumer with find_package(Pactivo), and checks pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install_consumer -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${PREFIX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
set(ENV{HOME} ${WORK_DIR})
run(${WORK_DIR}/build/consumer)
if(NOT LAST_OUTPUT MATCHES "SDK CDN is not available!")
  message(FATAL_ERROR "unexpected consumer output: ${LAST_OUTPUT}")
endif()

set(ENV{PKG_CONFIG_PATH} ${PREFIX}/lib/pkgconfig)
run(pkg-config --cflags --libs pactivo)
if(NOT LAST_OUTPUT MATCHES "-lpactivo")
  message(FATAL_ERROR "pkg-config gave: ${LAST_OUTPUT}")
endif()
