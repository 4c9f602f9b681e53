# Stand-in for OpenWrt's /etc/rc.common and procd's shell helpers: runs one
# action of a procd init script the way rc.common does and prints every procd
# call instead of sending it to procd, one line per call, the call's name and
# arguments separated by "|".
#   sh procd_standin.sh INIT_SCRIPT start|stop|reload

initscript=$1
action=$2
name=$(basename "$initscript")

record() {
	(IFS='|'; printf '%s\n' "$*")
}

for call in open_service open_instance set_param append_param close_instance \
	add_instance open_trigger close_trigger add_raw_trigger add_config_trigger \
	add_reload_trigger add_reload_data_trigger add_interface_trigger \
	add_reload_interface_trigger add_mount_trigger add_reload_mount_trigger \
	add_restart_mount_trigger add_validation open_validate close_validate \
	add_jail add_jail_mount add_jail_mount_rw open_data close_data \
	set_config_changed kill send_signal; do
	eval "procd_$call() { record $call \"\$@\"; }"
done

# procd sends the service's triggers when the service is closed.
procd_close_service() {
	service_triggers
	record close_service "$@"
}

# rc.common's defaults, which an init script overrides.
start_service() { return 0; }
stop_service() { return 0; }
service_triggers() { return 0; }

. "$initscript"

if [ -z "${USE_PROCD:-}" ]; then
	echo "procd_standin: $initscript does not set USE_PROCD" >&2
	exit 1
fi

start() {
	procd_open_service "$name" "$initscript"
	start_service
	procd_close_service set
}

case $action in
start) start ;;
stop)
	stop_service
	procd_kill "$name"
	;;
reload)
	if type reload_service >/dev/null 2>&1; then reload_service; else start; fi
	;;
*)
	echo "procd_standin: unknown action $action" >&2
	exit 1
	;;
esac
