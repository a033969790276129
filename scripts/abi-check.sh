#!/usr/bin/env bash
# Compares the C interface of a built libpactivo.so with the committed
# baseline and fails on any change to it (a removed function, a changed
# signature, a struct member moved or retyped): what the header declares never
# changes once released, so even a change abidiff deems compatible (a struct
# growing at its end) is one to make deliberately, with --update.
#   scripts/abi-check.sh [BUILD_DIR]            check (default build-shared)
#   scripts/abi-check.sh --update [BUILD_DIR]   take this build as the baseline
# The library must be a shared build with debug information (RelWithDebInfo).
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
if [[ ${1:-} == --update ]]; then
  update=1
  shift
fi
library=${1:-build-shared}/src/libpactivo.so
baseline=abi/libpactivo.abi.xz
symbols=abi/c_interface.symbols
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The dump keeps only the listed functions and what they reach; the C++ API's
# compatibility is the SONAME's business.
abidw --no-corpus-path --no-show-locs -w "$symbols" --out-file "$work/current.abi" "$library"
if ((update)); then
  xz -9 -c "$work/current.abi" >"$baseline"
  echo "baseline updated from $library"
  exit 0
fi

xz -dc "$baseline" >"$work/baseline.abi"
status=0
abidiff -w "$symbols" "$work/baseline.abi" "$work/current.abi" || status=$?
# abidiff's status is a bit set: 1 error, 2 usage, 4 a change, 8 an
# incompatible change.
if ((status != 0)); then
  echo "the C interface differs from the baseline (abidiff status $status);" \
    "run scripts/abi-check.sh --update only for a deliberate change" >&2
  exit 1
fi
echo "C interface compatible with the baseline"
