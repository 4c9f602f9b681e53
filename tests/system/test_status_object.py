"""The daemon's `cbsd` ubus object read with OpenWrt's real `ubus` CLI on its
real ubusd, in the StandAlone lab: `ubus call cbsd status` and `history`, and
`ubus listen cbsd.state` seeing the state and the gates change.  Needs
../shared/openwrt and a daemon built with libubus
(-DCBSD_OPENWRT_ROOT=../shared/openwrt/rootfs); skipped by name otherwise."""
import json
import os
import signal
import subprocess

import pytest

from lab import openwrt_bus, sas_lab
from lab.router import daemon_binary


def _skip_reason():
    if not openwrt_bus.available():
        return "../shared/openwrt (the real OpenWrt ubusd and ubus CLI) is absent"
    if not os.access(daemon_binary(), os.X_OK):
        return f"no daemon binary at {daemon_binary()}"
    dynamic = subprocess.run(["readelf", "-d", daemon_binary()], capture_output=True,
                             text=True).stdout
    if "libubus" not in dynamic:
        return ("the daemon under test is built without libubus "
                "(configure with -DCBSD_OPENWRT_ROOT=../shared/openwrt/rootfs)")
    return None


SKIP_REASON = _skip_reason()
pytestmark = pytest.mark.skipif(SKIP_REASON is not None, reason=SKIP_REASON or "")

ALL_OPEN = {"forwarding": "open", "icmp": "open", "bridge": "open"}
ALL_CLOSED = {"forwarding": "closed", "icmp": "closed", "bridge": "closed"}


def call(r, method):
    """`ubus call cbsd METHOD` as the real CLI prints it, parsed."""
    done = r.run(f"ubus call cbsd {method}", timeout=10)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


class Listener:
    """`ubus listen cbsd.state` in the router, its lines in a file of the host."""

    def __init__(self, r, path):
        self.path = path
        with open(path, "w") as out:
            self.process = r.spawn(["ubus", "listen", "cbsd.state"], stdout=out)
        # An event sent before the listener has registered is missed: probes
        # go out until one arrives.
        assert r.wait_for(lambda: self._probe_seen(r), 5), "ubus listen saw no probe"

    def _probe_seen(self, r):
        r.run("ubus send cbsd.state '{\"probe\": true}'", timeout=10)
        return any("probe" in data for data in self._all())

    def _all(self):
        with open(self.path) as f:
            lines = [line for line in f.read().splitlines() if line.strip()]
        return [json.loads(line)["cbsd.state"] for line in lines]

    def events(self):
        """The daemon's events so far, oldest first (one JSON object a line)."""
        return [data for data in self._all() if "probe" not in data]

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(timeout=5)


def test_status_answers_through_the_real_cli_and_listen_sees_every_change(real_ubus_lab, tmp_path):
    r, sim = real_ubus_lab
    real_ubus_lab.start_disabled()
    assert r.wait_for(lambda: r.run("ubus list cbsd", timeout=10).returncode == 0, 5)
    listed = r.run("ubus -v list cbsd", timeout=10).stdout
    assert '"status":{}' in listed and '"history":{}' in listed, listed
    listener = Listener(r, str(tmp_path / "events"))
    real_ubus_lab.enable()
    assert r.wait_for(lambda: r.gates_open() and r.status() == "Authorized", 40), \
        r.log_text()[-3000:]
    # A gate is reported once its switch has logged, a moment after the rule
    # went.
    assert r.wait_for(lambda: call(r, "status")["gates"] == ALL_OPEN, 2)
    status = call(r, "status")
    assert status["mode"] == "StandAlone" and status["sas_enabled"] is True
    assert status["state"] == "Authorized" and status["RadioEnable"] is True
    assert status["firewall_backend"] == "iptables"
    assert status["cbsdId"] and status["grantId"]
    for name in ("grantExpireTime", "transmitExpireTime"):
        assert status[name] == r.uci_get("sasConfig", name), (name, status)
    assert 0 < status["transmit_seconds_left"] <= 240 + 33
    exchange = status["last_exchange"]
    assert exchange["request"] == "heartbeat" and exchange["replied"] is True
    assert exchange["responseCode"] == 0 and exchange["response_name"] == "SUCCESS"
    assert exchange["time"].endswith("Z")
    assert status["grant"]["low_mhz"] < status["grant"]["high_mhz"]
    assert status["failures"] == []
    # Every state and each gate that changed was announced; the last event
    # is the status as it stands.
    assert r.wait_for(lambda: listener.events() and listener.events()[-1]["gates"] == ALL_OPEN, 2)
    events = listener.events()
    states = [event["state"] for event in events]
    for state in ("Registered", "Granted", "Authorized"):
        assert state in states, states
    assert states.index("Registered") < states.index("Granted") < states.index("Authorized")
    assert any(event["gates"] == ALL_CLOSED for event in events), events
    count = len(events)
    # A heartbeat that only moves transmitExpireTime announces nothing: once
    # the status shows the next one, two looks of the bus thread pass quietly.
    before = status["transmitExpireTime"]
    assert r.wait_for(lambda: call(r, "status")["transmitExpireTime"] != before,
                      sas_lab.HEARTBEAT_INTERVAL + 5)
    r.wait_for(lambda: False, 0.4)
    assert len(listener.events()) == count, listener.events()[count:]
    # SAS off: the grant is given back with the gates closed, then traffic
    # recovers.
    real_ubus_lab.disable()
    assert r.wait_for(lambda: listener.events()[-1]["state"] == "Unregistered" and
                      listener.events()[-1]["gates"] == ALL_OPEN, 15), listener.events()[-3:]
    off = listener.events()[count:]
    assert off[0]["sas_enabled"] is False, off
    assert any(event["gates"] == ALL_CLOSED for event in off), off
    listener.stop()
    final = call(r, "status")
    assert final["sas_enabled"] is False and final["state"] == "Unregistered"
    assert final["cbsdId"] == "" and final["grant"] == {}


def test_history_tells_the_hour_in_order(real_ubus_lab):
    r, sim = real_ubus_lab
    real_ubus_lab.authorized()

    def last_gates():
        gates = [e["gates"] for e in call(r, "history")["history"] if e["event"] == "gates"]
        return gates[-1] if gates else None
    assert r.wait_for(lambda: last_gates() == ALL_OPEN, 2)
    entries = call(r, "history")["history"]
    assert entries, "no history"
    events = [entry["event"] for entry in entries]
    states = [entry["state"] for entry in entries if entry["event"] == "state"]
    assert states[-3:] == ["Registered", "Granted", "Authorized"], states
    requests = [(entry["request"], entry.get("responseCode")) for entry in entries
                if entry["event"] == "request"]
    assert requests[0] == ("registration", 0), requests
    assert ("grant", 0) in requests and ("heartbeat", 0) in requests, requests
    sas = [entry for entry in entries if entry["event"] == "sas"]
    assert sas[-1]["sas_enabled"] is True and sas[-1]["mode"] == "StandAlone"
    gates = [entry["gates"] for entry in entries if entry["event"] == "gates"]
    assert gates[-1] == ALL_OPEN and ALL_CLOSED in gates, gates
    assert events.index("request") < len(events) - 1
    times = [entry["time"] for entry in entries]
    assert times == sorted(times), times
