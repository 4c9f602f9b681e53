#!/usr/bin/env bash
# Makes a sysroot of Debian's libraries for a router architecture, for the cross
# builds (cmake/toolchain-*.cmake) and for running their unit tests under qemu-user:
#   bash scripts/make-sysroot.sh mipsel|armhf|s390x [dir]   (default /opt/sysroots/<arch>)
#
# The packages are unpacked into a directory of their own rather than installed
# beside the native ones with dpkg's multiarch: multiarch needs every shared library
# at exactly the same version on all architectures, and the native OpenSSL comes
# from the security suite, which has no mipsel at all. The sysroot takes the
# release and its updates from the mirrors this machine's apt already uses.
set -euo pipefail
ARCH=${1:?usage: make-sysroot.sh mipsel|armhf|s390x [dir]}
DIR=${2:-/opt/sysroots/$ARCH}
PACKAGES="libc6-dev libstdc++-12-dev libcurl4-openssl-dev libjansson-dev libjwt-dev libssl-dev libnftables-dev libgtest-dev libgmock-dev"
STAMP="$DIR/.cbsd-sysroot"

if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$PACKAGES" ]; then
    exit 0
fi

# "deb URI SUITE main" for the release and its updates, as configured for apt here.
SUITE=$(. /etc/os-release && echo "$VERSION_CODENAME")
sources=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
          sort -u | awk -v s="$SUITE" '$2 == s || $2 == s "-updates" { print "deb " $1 " " $2 " main" }')
[ -n "$sources" ] || { echo "make-sysroot: no apt source for $SUITE (run apt-get update)" >&2; exit 1; }

rm -rf "$DIR"
mkdir -p "$(dirname "$DIR")"
echo "$sources" | mmdebstrap --quiet --variant=extract --arch="$ARCH" \
    --include="${PACKAGES// /,}" "$SUITE" "$DIR" -
echo "$PACKAGES" > "$STAMP"
