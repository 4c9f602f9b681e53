#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need, from Debian's packages.
# (chromium: the LuCI app's tests drive a headless browser over its
# DevTools pipe from Python's standard library, with no npm.)
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends \
    build-essential cmake pkg-config g++ clang libclang-rt-14-dev \
    libcurl4-openssl-dev libjansson-dev libssl-dev libjwt-dev \
    libgtest-dev libgmock-dev \
    python3 python3-pytest openssl ca-certificates \
    iptables ebtables nftables libnftables-dev net-tools iproute2 util-linux procps psmisc kmod \
    g++-mipsel-linux-gnu g++-arm-linux-gnueabihf g++-s390x-linux-gnu qemu-user-static mmdebstrap \
    busybox faketime libfaketime libjson-c5 strace \
    chromium fonts-dejavu-core \
    >/dev/null
# The routers' libraries (and big-endian s390x's), for the cross builds and their unit
# tests under qemu-user.
for arch in mipsel armhf s390x; do
    $SUDO bash "$(dirname "$0")/make-sysroot.sh" "$arch"
done
