#!/bin/sh
# Checks the procd init script without OpenWrt: its syntax, then every rc.common
# action a router uses (start, stop, reload, restart, enable, enabled, disable,
# running) against procd_standin.sh, a recording stand-in of rc.common and
# procd's shell helpers, under busybox ash (OpenWrt's /bin/sh) and bash: the
# two shells rc.common and procd.sh run under (they use `let`, `&>` and
# `exec 1000>`). Never dash: the stand-in refuses it, as OpenWrt never runs it.
#   sh tests/openwrt/init_script_test.sh openwrt/net/cbsd/files/cbsd.init
#
# What the stand-in reproduces of OpenWrt's rc.common and procd.sh (read from
# openwrt/openwrt: package/base-files/files/etc/rc.common and
# package/system/procd/files/procd.sh):
# - rc.common's actions and their order: start = open_service(name, script),
#   start_service, close_service "set" ("add" when start has an argument),
#   service_started if defined; stop = stop_service, then procd_kill(name,
#   "$1") (an empty instance argument included); reload = reload_service if
#   defined, else start; restart = trap '' TERM, stop, start; boot = start;
#   shutdown = stop; enable/disable/enabled with the S<START>/K<STOP> links in
#   $IPKG_INSTROOT/etc/rc.d; running = service_running (rc.common's default
#   returns 0); an unknown action runs help; the service is named after the
#   init script (or the file its link points to);
# - rc.common's default start_service, stop_service, service_triggers,
#   service_data and service_running, which the init script overrides;
# - the message procd.sh sends: `ubus call service set` with name, script,
#   instances (instanceN unless named) holding command/netdev/file/watch
#   arrays, respawn (strings; an empty one filled with 3600 5 5), env/data/
#   limits tables, nice/term_timeout numbers, stdout/stderr/no_new_privs
#   booleans, pidfile/user/group/... strings; then "triggers":[] and
#   "data":{} (rc.common's service_data always exists, so procd.sh always
#   opens data); stop sends `ubus call service delete` with name (and
#   instance).
# What it does not: jshn's whitespace (the stand-in's JSON is compact), the
# content of triggers, validation, jails, append_param, data and signals
# (recorded as calls only), procd_lock's flock, the `trace`/`status`
# extras' procd side, and procd itself (tests/system/test_openwrt_package.py
# hands the message to the real procd).
set -u
script=${1:?usage: init_script_test.sh INIT_SCRIPT}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Installed as /etc/init.d/cbsd (mode 755): the service takes its name from the file.
mkdir -p "$work/etc/init.d" "$work/etc/rc.d"
cp "$script" "$work/etc/init.d/cbsd"
chmod 755 "$work/etc/init.d/cbsd"
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

not() {  # command...: succeeds when the command fails
	! "$@"
}

lines() {  # pattern file: how many lines match
	grep -c -E "$1" "$2"
}

message() {  # method record: the message sent with `ubus call service METHOD`
	sed -n "s/^ubus|call|service|$1|//p" "$2"
}

expected_set="{\"name\":\"cbsd\",\"script\":\"$init\",\"instances\":{\"instance1\":{\"command\":[\"/usr/sbin/cbsd\",\"-D\"],\"respawn\":[\"3600\",\"5\",\"5\"],\"term_timeout\":15,\"watchdog\":[\"1\",\"30\"],\"stderr\":true}},\"triggers\":[],\"data\":{}}"

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
		[ "$(grep -v '^ubus|' "$1" | grep -c trigger)" = 0 ]
	check "instance closed, service closed with set" \
		[ "$(grep -v '^ubus|' "$1" | tail -n 2 | tr '\n' ' ')" = "close_instance close_service|set " ]
	check "service.set message, data member included" [ "$(message set "$1")" = "$expected_set" ]
}

run_with() {  # shell...
	check "syntax ($*)" "$@" -n "$init"
	record="$work/record"
	check "start runs ($*)" "$@" "$here/procd_standin.sh" "$init" start >"$record"
	check_start "$record"
	check "stop runs ($*)" "$@" "$here/procd_standin.sh" "$init" stop >"$record"
	# Nothing but procd's own stop: SIGTERM, then SIGKILL after term_timeout.
	check "stop is procd's kill of the service" \
		[ "$(cat "$record")" = "kill|cbsd|
ubus|call|service|delete|{\"name\":\"cbsd\"}" ]
	# Without reload_service, rc.common's reload sends the same instance again,
	# which procd leaves running.
	check "reload runs ($*)" "$@" "$here/procd_standin.sh" "$init" reload >"$record"
	check "reload sends the unchanged instance" [ "$(message set "$record")" = "$expected_set" ]
	check "restart runs ($*)" "$@" "$here/procd_standin.sh" "$init" restart >"$record"
	check "restart deletes, then sets the instance" \
		[ "$(grep '^ubus|' "$record" | cut -d'|' -f4 | tr '\n' ' ')" = "delete set " ]
	check "restart sends the same instance" [ "$(message set "$record")" = "$expected_set" ]
	check "running runs ($*)" "$@" "$here/procd_standin.sh" "$init" running >"$record"
	check "running sends nothing" [ ! -s "$record" ]

	check "not enabled before enable ($*)" \
		not env IPKG_INSTROOT="$work" "$@" "$here/procd_standin.sh" "$init" enabled
	check "enable runs ($*)" env IPKG_INSTROOT="$work" "$@" "$here/procd_standin.sh" "$init" enable
	check "enable links S95cbsd and K10cbsd" \
		[ "$(readlink "$work/etc/rc.d/S95cbsd"):$(readlink "$work/etc/rc.d/K10cbsd")" = \
			"../init.d/cbsd:../init.d/cbsd" ]
	check "enabled after enable ($*)" env IPKG_INSTROOT="$work" "$@" "$here/procd_standin.sh" "$init" enabled
	check "disable runs ($*)" env IPKG_INSTROOT="$work" "$@" "$here/procd_standin.sh" "$init" disable
	check "disable removes the links" [ -z "$(ls "$work/etc/rc.d")" ]
}

check "START is set" grep -q -E '^START=[0-9]+$' "$init"
check "STOP is set" grep -q -E '^STOP=[0-9]+$' "$init"
check "USE_PROCD=1" grep -q -x 'USE_PROCD=1' "$init"
run_with busybox sh
run_with bash
if command -v dash >/dev/null 2>&1; then
	check "the stand-in refuses dash" \
		[ "$(dash "$here/procd_standin.sh" "$init" start 2>/dev/null; echo $?)" = 2 ]
fi

echo "init script: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
