// A stand-in of the daemon's `cbsd` ubus object for the LuCI app's tests:
// publishes `status` and `history` on a real ubusd and answers each call with
// the members of a JSON file read anew every time ($CBSD_LAB_STATUS, default
// /etc/lab/cbsd-status.json; its "history" member answers `history`).  The
// page under test then shows exactly what the file says.
//
// Run: ucode tests/lab/cbsd_object.uc  (with ubusd up).

let ubus = require('ubus');
let uloop = require('uloop');
let fs = require('fs');

const STATUS_PATH = getenv('CBSD_LAB_STATUS') || '/etc/lab/cbsd-status.json';

function load() {
	let text = fs.readfile(STATUS_PATH);
	try {
		let value = json(text ?? '{}');
		return type(value) == 'object' ? value : {};
	}
	catch (e) {
		warn(`cbsd stand-in: unreadable ${STATUS_PATH}: ${e}\n`);
		return {};
	}
}

function filter_history(status) {
	let reply = {};
	for (let name in keys(status))
		if (name != 'history')
			reply[name] = status[name];
	return reply;
}

uloop.init();
let conn = ubus.connect();
if (!conn) {
	warn(`cbsd stand-in: ${ubus.error()}\n`);
	exit(1);
}
// Calls through rpcd (uhttpd's /ubus) carry the caller's session id as an
// argument, which a method without that argument in its policy refuses.
const ARGS = { ubus_rpc_session: '' };
let object = conn.publish('cbsd', {
	status: { args: ARGS, call: (request) => request.reply(filter_history(load())) },
	history: { args: ARGS, call: (request) => request.reply({ history: load().history ?? [] }) },
});
if (!object) {
	warn(`cbsd stand-in: cannot publish: ${ubus.error()}\n`);
	exit(1);
}

uloop.run();
