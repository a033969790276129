# Shared by the toolchain files beside it: Debian's cross compilers
# (crossbuild-essential-<arch>) against a sysroot that holds the target
# architecture's packages unpacked from the Debian archive (scripts/cross.sh
# makes it, in build-sysroot/<triplet>, or set PACTIVO_SYSROOT). Programs run
# under qemu-user, which takes its libraries from the same sysroot.
# The including file sets PACTIVO_TRIPLET, PACTIVO_PROCESSOR and PACTIVO_QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${PACTIVO_PROCESSOR})
set(CMAKE_C_COMPILER ${PACTIVO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${PACTIVO_TRIPLET}-g++)

if(NOT PACTIVO_SYSROOT)
  if(DEFINED ENV{PACTIVO_SYSROOT})
    set(PACTIVO_SYSROOT $ENV{PACTIVO_SYSROOT})
  else()
    get_filename_component(PACTIVO_SYSROOT
      ${CMAKE_CURRENT_LIST_DIR}/../../build-sysroot/${PACTIVO_TRIPLET} ABSOLUTE)
  endif()
endif()
if(NOT EXISTS ${PACTIVO_SYSROOT}/usr/lib/${PACTIVO_TRIPLET})
  message(FATAL_ERROR "no ${PACTIVO_TRIPLET} sysroot at ${PACTIVO_SYSROOT}: scripts/cross.sh makes it")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PACTIVO_SYSROOT)

# Not a --sysroot: the cross compiler keeps its own C library and C++
# headers, and the sysroot's headers come after them, as system headers.
set(_pactivo_flags
  "-idirafter ${PACTIVO_SYSROOT}/usr/include/${PACTIVO_TRIPLET} -idirafter ${PACTIVO_SYSROOT}/usr/include")
set(CMAKE_C_FLAGS_INIT "${PACTIVO_EXTRA_FLAGS} ${_pactivo_flags}")
set(CMAKE_CXX_FLAGS_INIT "${PACTIVO_EXTRA_FLAGS} ${_pactivo_flags}")
# The libraries' own dependencies are found in the sysroot at link time.
foreach(_pactivo_kind EXE SHARED MODULE)
  set(CMAKE_${_pactivo_kind}_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${PACTIVO_SYSROOT}/usr/lib/${PACTIVO_TRIPLET}:${PACTIVO_SYSROOT}/lib/${PACTIVO_TRIPLET}")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${PACTIVO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
  "${PACTIVO_SYSROOT}/usr/lib/${PACTIVO_TRIPLET}/pkgconfig:${PACTIVO_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PACTIVO_SYSROOT})
set(ENV{PKG_CONFIG_PATH} "")

# CTest runs the test programs through this, and gtest_discover_tests lists
# their tests through it.
set(CMAKE_CROSSCOMPILING_EMULATOR ${PACTIVO_QEMU} -L ${PACTIVO_SYSROOT})
