#!/bin/sh
# Checks the procd init script without OpenWrt: its syntax, then its start,
# stop and reload run against a recording stand-in of rc.common and procd's
# shell helpers (procd_standin.sh), under dash and, where installed, under
# busybox ash, OpenWrt's shell.
#   sh tests/openwrt/init_script_test.sh openwrt/net/cbsd/files/cbsd.init
set -u
script=${1:?usage: init_script_test.sh INIT_SCRIPT}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Installed as /etc/init.d/cbsd: the service takes its name from the file.
mkdir -p "$work/etc/init.d"
cp "$script" "$work/etc/init.d/cbsd"
init="$work/etc/init.d/cbsd"

passed=0
failed=0
check() {  # description command...
	description=$1
	shift
	if "$@"; then
		passed=$((passed + 1))
	else
		failed=$((failed + 1))
		echo "FAIL: $description"
	fi
}

lines() {  # pattern file: how many lines match
	grep -c -E "$1" "$2"
}

check_start() {  # record
	check "one instance" [ "$(lines '^open_instance' "$1")" = 1 ]
	check "the service is named cbsd" grep -q -x "open_service|cbsd|$init" "$1"
	# Foreground (-D) so that procd owns the process; never debug mode (-d).
	check "command line is /usr/sbin/cbsd -D" \
		[ "$(grep '^set_param|command|' "$1")" = "set_param|command|/usr/sbin/cbsd|-D" ]
	check "respawn with threshold, delay and retries" \
		grep -q -x -E 'set_param\|respawn\|[1-9][0-9]*\|[1-9][0-9]*\|[1-9][0-9]*' "$1"
	# procd stops an instance with SIGTERM and kills it term_timeout seconds
	# later; the daemon's stop ends within 10 s, so SIGKILL must come later
	# than that, with a margin, but not so late that a hung stop lingers.
	timeout=$(sed -n 's/^set_param|term_timeout|//p' "$1")
	check "term_timeout above the 10 s stop bound" [ "${timeout:-0}" -gt 10 ]
	check "term_timeout of at most 30 s" [ "${timeout:-0}" -le 30 ]
	check "no reload trigger on the daemon's own configuration" \
		[ "$(lines 'trigger' "$1")" = 0 ]
	check "instance closed, service sent" [ "$(tail -n 2 "$1" | tr '\n' ' ')" = "close_instance close_service|set " ]
}

run_with() {  # shell...
	check "syntax ($*)" "$@" -n "$init"
	record="$work/record"
	check "start runs ($*)" "$@" "$here/procd_standin.sh" "$init" start >"$record"
	check_start "$record"
	check "stop runs ($*)" "$@" "$here/procd_standin.sh" "$init" stop >"$record"
	# Nothing but procd's own stop: SIGTERM, then SIGKILL after term_timeout.
	check "stop is procd's kill of the service" [ "$(cat "$record")" = "kill|cbsd" ]
	# Without reload_service, rc.common's reload sends the same instance again,
	# which procd leaves running.
	check "reload runs ($*)" "$@" "$here/procd_standin.sh" "$init" reload >"$record"
	check "reload sends the unchanged instance" grep -q '^set_param|command|/usr/sbin/cbsd|-D$' "$record"
}

check "START is set" grep -q -E '^START=[0-9]+$' "$init"
check "STOP is set" grep -q -E '^STOP=[0-9]+$' "$init"
check "USE_PROCD=1" grep -q -x 'USE_PROCD=1' "$init"
run_with sh
if command -v busybox >/dev/null 2>&1; then
	run_with busybox sh
else
	echo "busybox not installed: not checked under busybox ash"
fi

echo "init script: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
