#!/usr/bin/env bash
# Cross builds for the routers with Debian's cross compilers and the sysroots of
# scripts/make-sysroot.sh, optimised for size (-Os) as OpenWrt builds packages
# (s390x too: no router, but big-endian):
#   bash scripts/cross-build.sh [--tests] [arch...]      (default: mipsel armhf)
# Builds build-<arch>/cbsd and prints its size stripped. With --tests the unit
# test binaries are built too; `ctest -L unit` in build-<arch> then runs them
# under qemu-user.
set -uo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
JOBS=${JOBS:-$(nproc)}

tests=OFF
if [ "${1:-}" = "--tests" ]; then
    tests=ON
    shift
fi
[ $# -gt 0 ] || set -- mipsel armhf

build_arch() {  # arch toolchain dir
    cmake -S "$ROOT" -B "$3" -DCMAKE_TOOLCHAIN_FILE="$2" -DCMAKE_BUILD_TYPE=MinSizeRel \
        -DCBSD_WERROR=ON -DCBSD_TESTS="$tests" >/dev/null || return 1
    cmake --build "$3" -j"$JOBS" 2>&1 | grep -v '^\['
    return "${PIPESTATUS[0]}"
}

status=0
for arch in "$@"; do
    toolchain="$ROOT/cmake/toolchain-$arch.cmake"
    [ -f "$toolchain" ] || { echo "cross-build: no toolchain file for $arch"; status=1; continue; }
    dir="$ROOT/build-$arch"
    start=$SECONDS
    if ! build_arch "$arch" "$toolchain" "$dir"; then
        echo "cross-build: $arch build failed"; status=1; continue
    fi
    triplet=$(sed -n 's/^set(CBSD_CROSS_TRIPLET \(.*\))$/\1/p' "$toolchain")
    "$triplet-strip" -o "$dir/cbsd.stripped" "$dir/cbsd"
    printf 'cbsd %s: %d bytes stripped (%d unstripped), built in %d s\n' "$arch" \
        "$(stat -c %s "$dir/cbsd.stripped")" "$(stat -c %s "$dir/cbsd")" $((SECONDS - start))
done
exit "$status"
