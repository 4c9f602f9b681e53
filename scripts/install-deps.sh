#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need, from Debian's packages.
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
    iptables ebtables net-tools iproute2 util-linux procps psmisc kmod \
    >/dev/null
