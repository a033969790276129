#!/usr/bin/env bash
# Installs the Debian packages Pactivo builds, tests and runs with, and those
# named as arguments. Packages already present are not fetched again, so a
# second run is quick.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config clang clang-format libclang-rt-14-dev
  libsqlite3-dev uuid-dev libcurl4-openssl-dev libssl-dev openssl python3 libsimdjson-dev rapidjson-dev
  libicu-dev libcpp-httplib-dev nginx-light iproute2
  libgtest-dev libgmock-dev googletest libbenchmark-dev python3-pytest abigail-tools
  "$@"
)

missing=()
for package in "${PACKAGES[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done

if ((${#missing[@]})); then
  SUDO=""
  if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
  echo "Installing: ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
