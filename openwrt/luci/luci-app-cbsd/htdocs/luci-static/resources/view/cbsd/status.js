'use strict';
'require view';
'require rpc';
'require poll';

// What the CBRS device agent is doing, read from its `cbsd` ubus object
// through rpcd every few seconds. Every value came from the daemon, and many
// from the SAS or the modem before it: they are put on the page as text
// nodes only (E() with a bare string would set innerHTML).

var callStatus = rpc.declare({ object: 'cbsd', method: 'status', expect: { '': {} } });

function text(value) {
	return document.createTextNode((value == null || value === '') ? '-' : String(value));
}

function row(label, value) {
	return E('tr', { 'class': 'tr' }, [
		E('td', { 'class': 'td left', 'width': '33%' }, [ text(label) ]),
		E('td', { 'class': 'td left' }, [ value instanceof Node ? value : text(value) ])
	]);
}

function yesNo(value) {
	return value ? _('yes') : _('no');
}

function grantText(grant) {
	if (!grant || grant.low_mhz == null)
		return null;
	return _('%s–%s MHz, at most %s dBm/MHz').format(grant.low_mhz, grant.high_mhz, grant.max_eirp);
}

function exchangeText(last) {
	if (!last || !last.request)
		return null;
	return '%s, %s: %s'.format(last.request, last.time || '-',
		last.replied ? (last.response_name || last.responseCode) : _('no reply'));
}

function gatesText(gates) {
	return Object.keys(gates || {}).map(function(name) {
		return name + ': ' + gates[name];
	}).join(', ');
}

function certificatesText(certs) {
	return Object.keys(certs || {}).map(function(name) {
		return '%s (%s) %s'.format(name, certs[name].file, certs[name].not_after || '-');
	}).join('; ');
}

// A failure streak in progress: its kind (and command), since when, how often.
function failureText(f) {
	return '%s%s since %s%s'.format(f.failure || '-', f.command ? ' (' + f.command + ')' : '',
		f.since || '-', f.count != null ? ', ' + f.count + '×' : '');
}

function failuresText(failures) {
	return (failures || []).map(failureText).join('; ');
}

// Why the radio may not transmit, in a person's words.
function whyNot(s) {
	if (s.RadioEnable)
		return null;
	if (!s.sas_enabled)
		return _('SAS operation is off: traffic is not gated');
	return _('Not authorised by the SAS (state %s)').format(s.state || '-');
}

function statusTable(s) {
	return E('table', { 'class': 'table' }, [
		row(_('Mode'), s.mode),
		row(_('SAS operation'), yesNo(s.sas_enabled)),
		row(_('State'), s.state),
		row(_('May transmit'), yesNo(s.RadioEnable)),
		row(_('Why not'), whyNot(s)),
		row(_('CBSD id'), s.cbsdId),
		row(_('Grant'), grantText(s.grant)),
		row(_('Grant id'), s.grantId),
		row(_('Grant expires'), s.grantExpireTime),
		row(_('Transmission expires'), s.transmitExpireTime),
		row(_('Seconds left to transmit'), s.transmit_seconds_left),
		row(_('Gates'), gatesText(s.gates)),
		row(_('Firewall'), s.firewall_backend),
		row(_('Last exchange with the SAS'), exchangeText(s.last_exchange)),
		row(_('Failures in progress'), failuresText(s.failures)),
		row(_('Certificates'), certificatesText(s.certificates))
	]);
}

function notRunning(err) {
	return E('div', { 'class': 'alert-message warning' }, [
		text(_('The CBRS daemon does not answer on ubus (is cbsd running?): %s').format(String(err && err.message || err).split('\n')[0]))
	]);
}

return view.extend({
	load: function() {
		return callStatus().catch(function(err) { return { error: err }; });
	},

	update: function(box, s) {
		box.replaceChildren(s.error ? notRunning(s.error) : statusTable(s));
	},

	render: function(s) {
		var box = E('div', { 'id': 'cbsd-status' });

		this.update(box, s);
		poll.add(L.bind(function() {
			return this.load().then(L.bind(this.update, this, box));
		}, this), 5);

		return E([], [
			E('h2', {}, [ text(_('CBRS')) ]),
			box
		]);
	},

	handleSave: null,
	handleSaveApply: null,
	handleReset: null
});
