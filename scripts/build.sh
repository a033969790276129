#!/usr/bin/env bash
# Configures and builds Pactivo into BUILD_DIR (default: build); only
# BUILD_TARGET when it is set.
#   scripts/build.sh [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} -DPACTIVO_WERROR=ON "$@" >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" ${BUILD_TARGET:+--target "$BUILD_TARGET"}
