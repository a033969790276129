#!/usr/bin/env bash
# What the library costs a device, for the native build and the ARM builds:
#   scripts/footprint.sh [native|arm64|armhf ...]     (default: all three)
# For each, a Release build of the shared library in build-footprint-<arch>,
# and:
#  - the stripped size of libpactivo.so;
#  - what the library adds to the stripped minimal host (examples/) when
#    linked from the static archive, against the same host loading the
#    shared library;
#  - the run-time dependency closure (every library the loader maps for a
#    host linking libpactivo.so), with sizes, and its total without the C
#    and C++ runtimes, with ICU and without it (a PACTIVO_WITH_ICU=OFF build
#    links the same less ICU's libraries);
#  - natively, the resident memory of a host before setup() and once
#    `available` with a 2.5 MB configuration document (bench/footprint_host).
# The ARM builds use scripts/sysroot.sh's sysroots and Debian's cross
# compilers, installed as scripts/cross.sh does.
set -euo pipefail
cd "$(dirname "$0")/.."
archs=("$@")
((${#archs[@]})) || archs=(native arm64 armhf)

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

size() { stat -c %s "$1"; }
stripped() {  # FILE: its size once stripped
  "$strip" --strip-all -o "$work/stripped" "$1"
  size "$work/stripped"
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
summary=""

for arch in "${archs[@]}"; do
  build=build-footprint-$arch
  args=(-DCMAKE_BUILD_TYPE=Release -DPACTIVO_WERROR=ON -DBUILD_SHARED_LIBS=ON
    -DPACTIVO_BUILD_TESTS=OFF -DPACTIVO_INSTALL=OFF "${launcher[@]}")
  targets=(pactivo minimal_host minimal_host_static)
  if [[ $arch == native ]]; then
    scripts/install-deps.sh >&2
    triplet=$(gcc -dumpmachine)
    root=/
    strip=strip
    args+=(-DPACTIVO_BUILD_BENCHMARKS=ON)
    targets+=(footprint_host)
  else
    triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH)
    scripts/install-deps.sh "crossbuild-essential-$arch" qemu-user >&2
    scripts/sysroot.sh "$arch" >&2
    root=build-sysroot/$triplet
    strip=$triplet-strip
    args+=(-DPACTIVO_BUILD_BENCHMARKS=OFF "-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchains/$triplet.cmake")
  fi
  cmake -S . -B "$build" "${args[@]}" >/dev/null
  cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >&2

  library=$(realpath "$build/src/libpactivo.so")
  shared=$(stripped "$library")
  with_archive=$(stripped "$build/examples/minimal_host_static")
  without=$(stripped "$build/examples/minimal_host")
  echo "## $arch ($triplet)"
  echo
  echo "- libpactivo.so, stripped: $shared bytes"
  echo "- libpactivo.a's objects in the minimal host: $((with_archive - without)) bytes" \
    "(the stripped host linked with the archive: $with_archive; loading libpactivo.so: $without)"
  echo
  python3 - "$root" "$triplet" "$library" "$work/closure" <<'EOF'
import os, re, subprocess, sys
root, triplet, library, summary = sys.argv[1:]
dirs = [os.path.join(root, d, triplet) for d in ("lib", "usr/lib")]
runtimes = re.compile(r"(libc|libm|libdl|librt|libpthread|libresolv|libstdc\+\+|libgcc_s)\.so|ld-linux")
def needed(path):
    dump = subprocess.run(["readelf", "-d", path], capture_output=True, text=True, check=True).stdout
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", dump)
def closure(names):
    found, todo = {}, list(names)
    while todo:
        name = todo.pop()
        if name in found: continue
        path = next(p for p in (os.path.join(d, name) for d in dirs) if os.path.exists(p))
        found[name] = os.path.getsize(os.path.realpath(path))
        todo += needed(path)
    return found
direct = needed(library)
everything = closure(direct)
without_icu = closure(n for n in direct if not n.startswith("libicu"))
mb = lambda n: f"{n / 1e6:.2f} MB"
total = lambda libs: sum(s for n, s in libs.items() if not runtimes.search(n))
count = lambda libs: sum(1 for n in libs if not runtimes.search(n))
print("| dependency | bytes | |")
print("|---|---:|---|")
for name, bytes in sorted(everything.items(), key=lambda item: -item[1]):
    note = "C/C++ runtime" if runtimes.search(name) else "" if name in without_icu else "ICU only"
    print(f"| {name} | {bytes:,} | {note} |")
print()
with_icu = f"{mb(total(everything))} in {count(everything)} libraries"
without = f"{mb(total(without_icu))} in {count(without_icu)}"
print(f"- closure without the C and C++ runtimes: {with_icu} with ICU, {without} without")
open(summary, "w").write(f"{with_icu} | {without}")
EOF
  if [[ $arch == native ]]; then
    echo "- resident memory of a host (bench/footprint_host):"
    "$build/bench/footprint_host" | sed 's/^/  - /'
  fi
  echo
  summary+="| $arch | $shared | $((with_archive - without)) | $(<"$work/closure") |"$'\n'
done

echo "| build | libpactivo.so stripped (bytes) | in a static host (bytes) | closure with ICU | without ICU |"
echo "|---|---:|---:|---|---|"
echo -n "$summary"
