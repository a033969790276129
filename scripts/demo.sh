#!/usr/bin/env bash
# Installs what is missing, builds, and runs `pactivo demo`: the library
# against a content server and an application server of its own on 127.0.0.1.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD_TARGET=pactivo_cli scripts/build.sh
"${BUILD_DIR:-build}"/tools/pactivo/pactivo demo "$@"
