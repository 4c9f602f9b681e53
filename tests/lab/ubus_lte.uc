// A modem manager for a real ubusd: publishes the object `ubus_lte` with the
// methods getproductinfo, getltestatus and getlteinfo and answers them from
// the same modem-state file as the lab's `ubus` stand-in (default
// /etc/lab/modem.json, or $CBSD_LAB_MODEM), read anew on every call.  With it
// the real `ubus` CLI can be compared with the stand-in byte for byte.
//
// Run: ucode tests/lab/ubus_lte.uc  (with ubusd up; /usr/lib/ucode's ubus,
// uloop and fs modules).  Members of the state file, as in tests/lab/README.md:
// the reply members of each method, "extra", "fail" with "fail_status",
// "nodata", "hang" (the request is kept and never answered), "missing" (those
// methods are not published) and "registered": false (the object is not on
// the bus).  The state's object and method set is polled every 100 ms, so a
// test can make the modem manager appear or go away while a caller runs.
// "raw" and "ubusd" have no meaning here: the real CLI never prints raw
// bytes, and the bus is the test's to stop.
//
// With $CBSD_LAB_COUNT_CALLS set (the virtual router sets it), a second
// object, `lab_ubus_lte`, has one method `calls` that answers how many calls
// of each ubus_lte method arrived so far: a test sees the daemon's queries
// reach the modem manager over the bus, whether or not it started a process
// for them.  Without it the bus lists ubus_lte alone, as a router's does.

let ubus = require('ubus');
let uloop = require('uloop');
let fs = require('fs');

const STATE_PATH = getenv('CBSD_LAB_MODEM') || '/etc/lab/modem.json';
const UNKNOWN_ERROR = 9;
const LAST_STATUS = 13;

// Members of each method, in the order they are sent.
const METHODS = {
	getproductinfo: [ 'manufacturer', 'productmodule', 'SN', 'imei', 'swversion' ],
	getltestatus: [ 'netstat', 'simstatus', 'operator' ],
	getlteinfo: [ 'earfcn', 'dlfreq', 'ulfreq', 'bandwidth', 'band', 'pci', 'rsrp', 'rsrq',
	              'sinr' ],
};

function load_state() {
	let text = fs.readfile(STATE_PATH);
	if (text == null)
		return {};
	let state = null;
	try {
		state = json(text);
	}
	catch (e) {
		warn(`ubus_lte: unreadable modem state ${STATE_PATH}: ${e}\n`);
	}
	return type(state) == 'object' ? state : {};
}

function chosen(state, key, method) {
	let value = state[key];
	return value === true || (type(value) == 'array' && index(value, method) >= 0);
}

function members(state, method) {
	let reply = {};
	for (let name in METHODS[method])
		if (state[name] != null)
			reply[name] = state[name];
	let extra = state.extra?.[method];
	if (type(extra) == 'object')
		for (let name in extra)
			reply[name] = extra[name];
	return reply;
}

// Requests that are never answered, kept so that they are not collected
// (a collected request is answered with a time-out at once).
let unanswered = [];

// Calls that arrived, per method (lab_ubus_lte's `calls`).
let calls = {};

function answer(method, request) {
	calls[method] = (calls[method] ?? 0) + 1;
	let state = load_state();
	if (chosen(state, 'hang', method)) {
		push(unanswered, request);
		request.defer();
		return;
	}
	if (chosen(state, 'fail', method)) {
		let status = state.fail_status ?? UNKNOWN_ERROR;
		if (type(status) != 'int' || status < 0 || status > LAST_STATUS)
			status = UNKNOWN_ERROR;
		return status;   // 0: success without data
	}
	if (chosen(state, 'nodata', method))
		return 0;
	return members(state, method);
}

uloop.init();
let conn = ubus.connect();
if (!conn) {
	warn(`ubus_lte: ${ubus.error()}\n`);
	exit(1);
}

let published = null;     // the object, while it is on the bus
let published_as = null;  // its method list, as published

function wanted_methods(state) {
	if (state.registered === false)
		return null;
	return join(',', filter(keys(METHODS), (m) => !chosen(state, 'missing', m)));
}

// One closure per method (a loop's closures would share its last name).
function method(name) {
	return { call: (request) => answer(name, request) };
}

function publish(method_list) {
	let methods = {};
	for (let name in split(method_list, ','))
		if (name != '')
			methods[name] = method(name);
	published = conn.publish('ubus_lte', methods);
	if (!published)
		warn(`ubus_lte: cannot publish: ${ubus.error()}\n`);
}

function follow_state() {
	let wanted = wanted_methods(load_state());
	if (wanted === published_as)
		return;
	if (published) {
		published.remove();
		published = null;
	}
	if (wanted != null)
		publish(wanted);
	published_as = wanted;
}

function poll() {
	follow_state();
	uloop.timer(100, poll);
}

if (getenv('CBSD_LAB_COUNT_CALLS') &&
    !conn.publish('lab_ubus_lte', { calls: { call: () => calls } }))
	warn(`ubus_lte: cannot publish lab_ubus_lte: ${ubus.error()}\n`);
poll();
uloop.run();
