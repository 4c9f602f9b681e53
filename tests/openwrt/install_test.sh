#!/bin/sh
# Installs a build into a scratch DESTDIR as OpenWrt's package build does
# (prefix /usr) and checks the file list and modes that the package Makefile
# picks up: the binary, the procd init script and the default configuration.
#   sh tests/openwrt/install_test.sh BUILD_DIR SOURCE_DIR
set -u
build=${1:?usage: install_test.sh BUILD_DIR SOURCE_DIR}
source=${2:?usage: install_test.sh BUILD_DIR SOURCE_DIR}
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT

DESTDIR=$dest cmake --install "$build" --prefix /usr >/dev/null || { echo "FAIL: cmake --install"; exit 1; }

expected="etc/config/sas 644
etc/init.d/cbsd 755
usr/sbin/cbsd 755"
actual=$(cd "$dest" && find . ! -type d | sed 's|^\./||' | sort | while read -r f; do
	echo "$f $(stat -c %a "$f")"
done)
status=0
if [ "$actual" != "$expected" ]; then
	echo "FAIL: installed files differ from the package's list"
	echo "expected:"; echo "$expected"; echo "installed:"; echo "$actual"
	status=1
fi
cmp -s "$dest/etc/init.d/cbsd" "$source/openwrt/net/cbsd/files/cbsd.init" ||
	{ echo "FAIL: init script differs from openwrt/net/cbsd/files/cbsd.init"; status=1; }
cmp -s "$dest/etc/config/sas" "$source/openwrt/net/cbsd/files/sas.config" ||
	{ echo "FAIL: configuration differs from openwrt/net/cbsd/files/sas.config"; status=1; }
[ "$status" -eq 0 ] && echo "installed: $(echo "$actual" | tr '\n' ';')"
exit "$status"
