# 32-bit ARM Linux with hardware floating point (armhf): see
# debian-cross.cmake. Built with a 64-bit time_t, so that times after 2038
# survive, and 64-bit file offsets, which glibc requires alongside it. The
# Debian 12 libraries were built with 32-bit ones; those the library uses
# pass no time_t or off_t, but cpp-httplib does (armhf-httplib/httplib.h).
set(PACTIVO_TRIPLET arm-linux-gnueabihf)
set(PACTIVO_PROCESSOR armv7l)
set(PACTIVO_QEMU qemu-arm)
set(PACTIVO_EXTRA_FLAGS
  "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -isystem ${CMAKE_CURRENT_LIST_DIR}/armhf-httplib")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
