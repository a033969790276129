# Installs the built library into a scratch prefix, then configures, builds
# and runs a consumer with find_package(Pactivo), and checks pkg-config. A
# cross build's consumer is built with its toolchain and run through its emulator.
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
    -DCMAKE_PREFIX_PATH=${PREFIX} -DPactivo_DIR=${PREFIX}/lib/cmake/Pactivo
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
set(ENV{HOME} ${WORK_DIR})
separate_arguments(LAUNCHER UNIX_COMMAND "${LAUNCHER}")
run(${LAUNCHER} ${WORK_DIR}/build/consumer)
if(NOT LAST_OUTPUT MATCHES "SDK CDN is not available!")
  message(FATAL_ERROR "unexpected consumer output: ${LAST_OUTPUT}")
endif()

set(ENV{PKG_CONFIG_PATH} ${PREFIX}/lib/pkgconfig)
run(pkg-config --cflags --libs pactivo)
if(NOT LAST_OUTPUT MATCHES "-lpactivo")
  message(FATAL_ERROR "pkg-config gave: ${LAST_OUTPUT}")
endif()

# A shared install also serves hosts that are not C++: the C example built
# from the installed header and library alone, and the Python package
# imported from beside the library.
if(EXISTS ${PREFIX}/lib/libpactivo.so)
  find_program(CC NAMES cc gcc clang REQUIRED)
  run(${CC} -std=c99 -Wall -Wextra -Wpedantic -Werror -I${PREFIX}/include
      ${SOURCE_DIR}/examples/c_host.c -o ${WORK_DIR}/c_host -L${PREFIX}/lib -lpactivo
      -Wl,-rpath,${PREFIX}/lib)
  run(${WORK_DIR}/c_host)
  if(NOT LAST_OUTPUT MATCHES "readiness: 1")
    message(FATAL_ERROR "unexpected C host output: ${LAST_OUTPUT}")
  endif()
  unset(ENV{PACTIVO_LIBRARY})
  set(ENV{PYTHONPATH} ${PREFIX}/lib/python)
  find_program(PYTHON NAMES python3 REQUIRED)
  run(${PYTHON} ${SOURCE_DIR}/examples/python_host.py)
  if(NOT LAST_OUTPUT MATCHES "no configuration: UNAVAILABLE")
    message(FATAL_ERROR "unexpected Python host output: ${LAST_OUTPUT}")
  endif()
endif()
