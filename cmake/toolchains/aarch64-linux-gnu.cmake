# 64-bit ARM Linux (arm64): see debian-cross.cmake.
set(PACTIVO_TRIPLET aarch64-linux-gnu)
set(PACTIVO_PROCESSOR aarch64)
set(PACTIVO_QEMU qemu-aarch64)
set(PACTIVO_EXTRA_FLAGS "")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
