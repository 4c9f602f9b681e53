# Stand-in for OpenWrt's /etc/rc.common with procd's shell helpers
# (/lib/functions/procd.sh): runs one action of a procd init script as
# rc.common does and prints, instead of sending them to procd, every procd
# helper call (one line: the call's name and arguments separated by "|") and
# the message rc.common sends on the bus, as the line
#   ubus|call|service|set|{"name":"cbsd","script":...,"instances":{...},"triggers":[],"data":{}}
# (compact JSON; `delete` for stop).
#   busybox sh procd_standin.sh INIT_SCRIPT ACTION [ARGS...]   (or bash)
# With PROCD_STANDIN_UBUS=1 the message also goes to a real procd on ubus.
# Like OpenWrt's own, it runs under busybox ash or bash only, never dash.
# tests/openwrt/init_script_test.sh says what of rc.common and procd.sh it
# reproduces and what not.

if [ -z "${BASH_VERSION:-}" ] && ! readlink "/proc/$$/exe" 2>/dev/null | grep -q busybox; then
	echo "procd_standin: run me under busybox ash or bash, as OpenWrt runs rc.common" >&2
	exit 2
fi

initscript=$1
action=${2:-help}
shift 2
# Where enable/disable keep their links, as rc.common's $IPKG_INSTROOT.
IPKG_INSTROOT=${IPKG_INSTROOT:-}

record() {
	(IFS='|'; printf '%s\n' "$*")
}

json_text() {  # a JSON string of $1
	printf '"%s"' "$(printf '%s' "$1" | sed 's/\\/\\\\/g; s/"/\\"/g')"
}

# ----- procd.sh: the message rc.common sends -------------------------------
_message=
_instances=
_instance=
_instance_seq=0
_params=

_add_param() {  # JSON member text
	_params="${_params:+$_params,}$1"
}

_json_list() {  # quoted strings of the arguments, comma separated
	_list=
	for _item in "$@"; do _list="${_list:+$_list,}$(json_text "$_item")"; done
	printf '%s' "$_list"
}

_json_table() {  # var=val arguments as members
	_list=
	for _item in "$@"; do
		_value=${_item#*=}
		[ "$_item" = "$_value" ] && _value=
		_list="${_list:+$_list,}$(json_text "${_item%%=*}"):$(json_text "$_value")"
	done
	printf '%s' "$_list"
}

procd_open_service() {
	record open_service "$@"
	_message="\"name\":$(json_text "$1")"
	[ -n "${2:-}" ] && _message="$_message,\"script\":$(json_text "$2")"
	_instances=
	_instance_seq=0
}

procd_open_instance() {
	record open_instance "$@"
	_instance_seq=$((_instance_seq + 1))
	_instance=${1:-instance$_instance_seq}
	_params=
}

procd_set_param() {
	record set_param "$@"
	_type=$1
	shift
	case $_type in
	env|data|limits) _add_param "\"$_type\":{$(_json_table "$@")}" ;;
	respawn)
		# procd.sh fills an empty respawn with the system's defaults.
		[ $# -eq 0 ] && set -- 3600 5 5
		_add_param "\"$_type\":[$(_json_list "$@")]" ;;
	command|netdev|file|watch|watchdog) _add_param "\"$_type\":[$(_json_list "$@")]" ;;
	nice|term_timeout) _add_param "\"$_type\":$1" ;;
	stdout|stderr|no_new_privs)
		if [ "$1" = 1 ]; then _add_param "\"$_type\":true"; else _add_param "\"$_type\":false"; fi ;;
	pidfile|user|group|seccomp|capabilities|facility|extroot|overlaydir|tmpoverlaysize|vrf)
		_add_param "\"$_type\":$(json_text "$1")" ;;
	esac
}

procd_close_instance() {
	record close_instance "$@"
	_instances="${_instances:+$_instances,}$(json_text "$_instance"):{$_params}"
}

procd_close_service() {
	service_triggers
	record close_service "$@"
	_send "${1:-set}" "{$_message,\"instances\":{$_instances},\"triggers\":[],\"data\":{}}"
}

procd_kill() {
	record kill "$@"
	_kill="\"name\":$(json_text "$1")"
	[ -n "${2:-}" ] && _kill="$_kill,\"instance\":$(json_text "$2")"
	_send delete "{$_kill}"
}

# With PROCD_STANDIN_UBUS=1 the message also goes to the real procd, as
# rc.common sends it: `ubus call service METHOD MESSAGE`.
_send() {  # method message
	record ubus call service "$1" "$2"
	[ "${PROCD_STANDIN_UBUS:-}" = 1 ] && ubus call service "$1" "$2"
	return 0
}

# Recorded only: neither procd nor the message is modelled for these.
for call in append_param add_instance open_trigger close_trigger add_raw_trigger \
	add_config_trigger add_reload_trigger add_reload_data_trigger add_interface_trigger \
	add_reload_interface_trigger add_mount_trigger add_reload_mount_trigger \
	add_restart_mount_trigger add_validation open_validate close_validate add_jail \
	add_jail_mount add_jail_mount_rw open_data close_data set_config_changed send_signal; do
	eval "procd_$call() { record $call \"\$@\"; }"
done

# ----- rc.common ------------------------------------------------------------
start() { return 0; }
stop() { return 0; }
reload() { restart; }
restart() {
	trap '' TERM
	stop "$@"
	start "$@"
}
boot() { start "$@"; }
shutdown() { stop; }
disable() {
	name="$(basename "${initscript}")"
	rm -f "$IPKG_INSTROOT"/etc/rc.d/S??$name
	rm -f "$IPKG_INSTROOT"/etc/rc.d/K??$name
}
enable() {
	err=1
	name="$(basename "${initscript}")"
	[ "$START" ] && ln -sf "../init.d/$name" "$IPKG_INSTROOT/etc/rc.d/S${START}${name##S[0-9][0-9]}" && err=0
	[ "$STOP" ] && ln -sf "../init.d/$name" "$IPKG_INSTROOT/etc/rc.d/K${STOP}${name##K[0-9][0-9]}" && err=0
	return $err
}
enabled() {
	name="$(basename "${initscript}")"
	[ -x "$IPKG_INSTROOT/etc/rc.d/S${START}${name##S[0-9][0-9]}" ]
}
depends() { return 0; }
help() { echo "Syntax: $initscript [command]"; }

start_service() { return 0; }
stop_service() { return 0; }
service_triggers() { return 0; }
service_data() { return 0; }
service_running() { return 0; }

. "$initscript"

if [ -z "${USE_PROCD:-}" ]; then
	echo "procd_standin: $initscript does not set USE_PROCD" >&2
	exit 1
fi

EXTRA_COMMANDS="${EXTRA_COMMANDS:-} running trace"
basescript=$(readlink "$initscript")
rc_procd() {
	method=set
	[ -n "${2:-}" ] && method=add
	procd_open_service "$(basename "${basescript:-$initscript}")" "$initscript"
	"$@"
	procd_close_service "$method"
}
start() {
	rc_procd start_service "$@"
	if eval "type service_started" 2>/dev/null >/dev/null; then
		service_started
	fi
}
trace() {
	TRACE_SYSCALLS=1
	start "$@"
}
stop() {
	stop_service "$@"
	procd_kill "$(basename "${basescript:-$initscript}")" "${1:-}"
}
reload() {
	if eval "type reload_service" 2>/dev/null >/dev/null; then
		reload_service "$@"
	else
		start
	fi
}
running() { service_running "$@"; }

case " start stop reload restart boot shutdown enable disable enabled depends $EXTRA_COMMANDS " in
*" $action "*) ;;
*) action=help ;;
esac
$action "$@"
