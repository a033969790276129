#!/usr/bin/env bash
# Builds the benchmarks (optimised) and runs every one of them.
#   bench/run.sh [extra Google Benchmark flags]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD_DIR=${BUILD_DIR:-build-bench}
BUILD_DIR=$BUILD_DIR BUILD_TYPE=Release scripts/build.sh -DPACTIVO_BUILD_TESTS=OFF
for bench in store_bench json_bench evaluation_bench setup_bench cycle_bench; do
  echo "== $bench"
  "$BUILD_DIR/bench/$bench" "$@"
done
echo "== observer_bench"
"$BUILD_DIR/bench/observer_bench"
echo "== startup_bench"
"$BUILD_DIR/bench/startup_bench"
