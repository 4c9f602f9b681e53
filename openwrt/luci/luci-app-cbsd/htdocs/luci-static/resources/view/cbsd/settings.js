'use strict';
'require view';
'require form';
'require ui';

// The settings of the CBRS device agent in /etc/config/sas. Every field is
// checked as it is typed; a form with an invalid field is not saved at all
// (LuCI's Map refuses the whole save). The daemon watches the committed file
// and acts within a pass, so nothing here restarts it. Values the daemon
// writes itself are shown as text and never written back.

// A decimal number in [min, max] with at most `decimals` digits after the
// point; `message` otherwise. Written out rather than LuCI's 'float' type,
// which takes exponents and any number of decimals.
function decimalIn(min, max, decimals, message) {
	var pattern = new RegExp('^-?[0-9]+(\\.[0-9]{1,' + decimals + '})?$');

	return function(section_id, value) {
		if (value == null || value === '')
			return true;
		if (!pattern.test(value) || +value < min || +value > max)
			return message;
		return true;
	};
}

function wholeIn(min, max, message) {
	return function(section_id, value) {
		if (value == null || value === '')
			return true;
		if (!/^-?[0-9]+$/.test(value) || +value < min || +value > max)
			return message;
		return true;
	};
}

// The SAS is reached over TLS only: a plain http:// address would send the
// device's identity and installation data in the clear.
function httpsAddress(section_id, value) {
	if (value == null || value === '')
		return true;
	if (!/^https:\/\/[^\s\/?#@]+(\/[^\s]*)?$/.test(value))
		return _('Enter the https:// address of the SAS (plain http is refused), e.g. https://sas.example.net/v1.2');
	return true;
}

function utcTime(section_id, value) {
	if (value == null || value === '')
		return true;
	if (!/^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z$/.test(value))
		return _('Enter a UTC time such as 2025-06-01T12:00:00Z');
	return true;
}

// A file name under the credentials folder, never a path.
function fileName(section_id, value) {
	if (value == null || value === '')
		return true;
	if (!/^[A-Za-z0-9._+-]+$/.test(value) || value == '.' || value == '..')
		return _('Enter a file name only (letters, digits, . _ + -), not a path');
	return true;
}

// Shown, never saved: the daemon (or its product profile) owns the value.
function shown(s, tab, option, title) {
	var o = tab ? s.taboption(tab, form.DummyValue, option, title)
	            : s.option(form.DummyValue, option, title);
	o.default = '-';
	return o;
}

function sasTab(s) {
	var o;

	s.tab('sas', _('SAS'));
	o = s.taboption('sas', form.Flag, 'enableMode', _('SAS operation'),
		_('On: traffic stays gated until the SAS (or the domain proxy) authorises transmission.'));
	o = s.taboption('sas', form.Flag, 'auto', _('Follow the LTE band'),
		_('On: SAS operation is switched on in Band 48 (CBRS) and off elsewhere.'));
	o = s.taboption('sas', form.ListValue, 'usedp', _('Mode'),
		_('StandAlone: the device talks to the SAS itself; DP: a domain proxy does and sets RadioEnable.'));
	o.value('0', _('StandAlone'));
	o.value('1', _('DP (domain proxy)'));
	o = s.taboption('sas', form.Value, 'address', _('SAS address'));
	o.placeholder = 'https://sas.example.net/v1.2';
	o.validate = httpsAddress;
	o = s.taboption('sas', form.Value, 'userId', _('User id'));
	o = s.taboption('sas', form.Value, 'callSign', _('Call sign'));
	o = s.taboption('sas', form.ListValue, 'sasStepChoice', _('Registration'));
	o.value('0', _('Multi-step'));
	o.value('1', _('Single-step (installation data signed with the CPI key)'));
	o = s.taboption('sas', form.Value, 'maxTransmitLead', _('Longest transmit lead (s)'),
		_('How far ahead a transmitExpireTime counts in full; 1 to 86400, default 240.'));
	o.placeholder = '240';
	o.validate = wholeIn(1, 86400, _('Enter whole seconds from 1 to 86400'));
	o = s.taboption('sas', form.ListValue, 'firewallBackend', _('Firewall for the gates'),
		_('Read when the daemon starts.'));
	o.value('auto', _('Automatic'));
	o.value('iptables', 'iptables / ebtables');
	o.value('nftables', 'nftables');
	o.default = 'auto';
	o = s.taboption('sas', form.Flag, 'verifySasHost', _('Check the SAS host name'));
	o = s.taboption('sas', form.Flag, 'requireSasCa', _('Require the SAS CA'),
		_('On: nothing is sent while no CA file is named or the named file is missing.'));
}

function antennaTab(s) {
	var o;

	s.tab('antenna', _('Antenna'));
	o = s.taboption('antenna', form.Value, 'antennaAzimuth', _('Azimuth (°)'));
	o.validate = wholeIn(0, 359, _('Enter whole degrees from true north, 0 to 359'));
	o = s.taboption('antenna', form.Value, 'antennaDowntilt', _('Downtilt (°)'));
	o.validate = wholeIn(-90, 90, _('Enter whole degrees from -90 to 90'));
	o = s.taboption('antenna', form.Value, 'antennaBeamwidth', _('Beamwidth (°)'));
	o.validate = wholeIn(0, 360, _('Enter whole degrees from 0 to 360'));
	shown(s, 'antenna', 'antennaGain', _('Gain (dBi, from the product profile)'));
	shown(s, 'antenna', 'antennaModel', _('Model (from the product profile)'));
}

function deviceTab(s) {
	s.tab('device', _('Device'));
	shown(s, 'device', 'fccId', _('FCC id'));
	shown(s, 'device', 'serialNumber', _('Serial number'));
	shown(s, 'device', 'cbsdCategory', _('Category'));
	shown(s, 'device', 'radioTechnology', _('Radio technology'));
}

function installationSection(m) {
	var s = m.section(form.NamedSection, 'cpi', 'cpi', _('Installation'),
		_('Entered by the Certified Professional Installer.')), o;

	s.addremove = false;
	o = s.option(form.Value, 'latitude', _('Latitude (°)'));
	o.placeholder = '37.425000';
	o.validate = decimalIn(-90, 90, 6, _('Enter decimal degrees from -90 to 90, at most six decimals'));
	o = s.option(form.Value, 'longitude', _('Longitude (°)'));
	o.placeholder = '-122.084000';
	o.validate = decimalIn(-180, 180, 6, _('Enter decimal degrees from -180 to 180, at most six decimals'));
	o = s.option(form.Value, 'height', _('Height'));
	o.validate = decimalIn(-500, 10000, 2, _('Enter a height from -500 to 10000, at most two decimals'));
	o = s.option(form.ListValue, 'heightUnit', _('Height unit'));
	o.value('0', _('Metres'));
	o.value('1', _('Feet (sent to the SAS in metres)'));
	shown(s, null, 'heightType', _('Height type (from the product profile)'));
	o = s.option(form.Flag, 'indoorDeployment', _('Indoors'));
	o = s.option(form.Value, 'groupId', _('Group id'));
	shown(s, null, 'groupType', _('Group type (from the product profile)'));
	o = s.option(form.Value, 'cpiId', _('CPI id'));
	o = s.option(form.Value, 'cpiName', _('CPI name'));
	o = s.option(form.Value, 'installCertificationTime', _('Certified at (UTC)'));
	o.placeholder = '2025-06-01T12:00:00Z';
	o.validate = utcTime;
}

function certificateSection(m) {
	var s = m.section(form.NamedSection, 'cert', 'cert', _('Certificates'),
		_('File names under /root/sas/cert: clientCert/, clientKey/, serverCA/ and cpiKey/.')), o;

	s.addremove = false;
	[ [ 'clientCertFileName', _('Client certificate') ],
	  [ 'clientKeyFileName', _('Client key') ],
	  [ 'serverCAFileName', _('SAS CA') ],
	  [ 'cpiKeyFileName', _('CPI key (PEM or PKCS#12)') ] ].forEach(function(field) {
		o = s.option(form.Value, field[0], field[1]);
		o.validate = fileName;
	});
	o = s.option(form.Value, 'cpiKeyFilePassword', _('CPI key password'));
	o.password = true;
}

function publishedSections(m) {
	var s = m.section(form.NamedSection, 'operation', 'operation', _('State'));
	s.addremove = false;
	shown(s, null, 'status', _('CBSD state'));
	var o = s.option(form.Value, 'measCapability', _('Measurement capability'),
		_('Sent at registration only when it contains RECEIVED.'));
	o.placeholder = 'RECEIVED_POWER_WITHOUT_GRANT';

	s = m.section(form.NamedSection, 'sasConfig', 'sasConfig', _('Grant (written by the device)'));
	s.addremove = false;
	shown(s, null, 'RadioEnable', _('Radio enabled'));
	shown(s, null, 'lowFrequency', _('Low frequency (Hz)'));
	shown(s, null, 'highFrequency', _('High frequency (Hz)'));
	shown(s, null, 'maxEirp', _('Maximum EIRP (dBm/MHz)'));
	shown(s, null, 'grantExpireTime', _('Grant expires'));
	shown(s, null, 'transmitExpireTime', _('Transmission expires'));

	s = m.section(form.NamedSection, 'cellInfo', 'cellInfo', _('Serving cell (written by the device)'));
	s.addremove = false;
	shown(s, null, 'lowFrequency', _('Low frequency'));
	shown(s, null, 'highFrequency', _('High frequency'));
	shown(s, null, 'bandwidth', _('Bandwidth'));
}

return view.extend({
	render: function() {
		var m = new form.Map('sas', _('CBRS'),
			_('Settings of the CBRS device agent. The daemon picks up saved changes within a pass (about 5 s).')),
		    s = m.section(form.NamedSection, 'config', 'config', _('Service'));

		s.addremove = false;
		sasTab(s);
		antennaTab(s);
		deviceTab(s);
		installationSection(m);
		certificateSection(m);
		publishedSections(m);

		return m.render();
	},

	// Map.save has already shown the reason in a dialog; the rejection
	// stops the apply and must not reach the console as an uncaught error.
	handleSave: function(ev) {
		return this.super('handleSave', [ ev ]).catch(function() {});
	},

	handleSaveApply: function(ev, mode) {
		return this.super('handleSave', [ ev ]).then(function() {
			ui.changes.apply(mode == '0');
		}).catch(function() {});
	}
});
