#!/usr/bin/env bash
# Cross-builds Pactivo for ARM and runs its tests under qemu-user:
#   scripts/cross.sh arm64|armhf [extra cmake arguments...]
# On a fresh Debian 12 machine as root (or with sudo) it installs the cross
# compiler and qemu-user, unpacks the architecture's libraries from the
# Debian archive into build-sysroot/<triplet> (scripts/sysroot.sh, once),
# builds into build-<arch> (BUILD_DIR; BUILD_TYPE, default Release) and runs
# every test through qemu; CROSS_TEST=0 only builds. armhf is built with a
# 64-bit time_t (cmake/toolchains/arm-linux-gnueabihf.cmake).
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:?usage: scripts/cross.sh arm64|armhf [cmake arguments...]}
shift
case $arch in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  *)
    echo "scripts/cross.sh: unknown architecture $arch (arm64 or armhf)" >&2
    exit 2
    ;;
esac
build=${BUILD_DIR:-build-$arch}

scripts/install-deps.sh "crossbuild-essential-$arch" qemu-user
scripts/sysroot.sh "$arch"

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# The benchmarks and the ABI baseline are the native build's business.
BUILD_DIR=$build BUILD_TYPE=${BUILD_TYPE:-Release} scripts/build.sh \
  "-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchains/$triplet.cmake" -DPACTIVO_BUILD_BENCHMARKS=OFF \
  "${launcher[@]}" "$@"
if [[ ${CROSS_TEST:-1} != 0 ]]; then
  ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
fi
