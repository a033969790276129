#!/usr/bin/env bash
# Unpacks the Debian packages Pactivo builds and runs with, for a foreign
# architecture, into a sysroot for the cross toolchain files in
# cmake/toolchains/ and for qemu-user:
#   scripts/sysroot.sh arm64|armhf [DIR]     (default build-sysroot/<triplet>)
# apt resolves the dependencies in a private state of its own (lists,
# cache, an empty status), so the machine's package database and
# architectures stay as they are, and any package can be had this way,
# libsimdjson-dev too, which cannot be installed beside its amd64 build. A
# sysroot already made from the same list is kept.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:?usage: scripts/sysroot.sh arm64|armhf [DIR]}
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
root=$(realpath -m "${2:-build-sysroot/$triplet}")

PACKAGES=(
  libc6-dev libstdc++6 libsqlite3-dev uuid-dev libcurl4-openssl-dev libssl-dev libsimdjson-dev
  rapidjson-dev libicu-dev libcpp-httplib-dev libgtest-dev
)
stamp="$arch ${PACKAGES[*]}"
if [[ -f $root/.packages && $(<"$root/.packages") == "$stamp" ]]; then
  exit 0
fi

apt_dir=$root.apt
rm -rf "$root" "$apt_dir"
mkdir -p "$apt_dir"/{lists/partial,cache/archives/partial} "$root"
touch "$apt_dir/status"
apt_options=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
  -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
  -o "Dir::State::extended_states=$apt_dir/extended_states" -o "Dir::Cache=$apt_dir/cache"
  -o Debug::NoLocking=1 -qq)
echo "Making the $arch sysroot in $root"
# A mirror being synced answers with lists that do not match its release
# file for a while. After the last try the lists that did come are used (the
# download below fails if the main one is missing): without a suite's
# updates, a package is the release's version, which serves as well.
for attempt in 1 2 3; do
  apt-get "${apt_options[@]}" update && break
  if ((attempt == 3)); then
    echo "scripts/sysroot.sh: going on with the package lists that could be fetched" >&2
  else
    sleep $((attempt * 10))
  fi
done
apt-get "${apt_options[@]}" install --download-only -y --no-install-recommends "${PACKAGES[@]}" \
  >/dev/null
for deb in "$apt_dir"/cache/archives/*.deb; do
  dpkg-deb -x "$deb" "$root"
done
# Links that point at /usr/... would leave the sysroot for the build machine.
find "$root" -type l -lname '/*' | while read -r link; do
  ln -sfnr "$root$(readlink "$link")" "$link"
done
# qemu-user looks for every absolute path in the sysroot first: programs
# left there would stand in for the build machine's own, which the tests
# start (nginx, openssl, python3, sh), and could not be started.
rm -rf "$apt_dir" "$root"/{bin,sbin,usr/bin,usr/sbin}
echo "$stamp" >"$root/.packages"
