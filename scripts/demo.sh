#!/usr/bin/env bash
# Installs what is missing, builds, and runs the example host.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
"${BUILD_DIR:-build}"/examples/minimal_host
