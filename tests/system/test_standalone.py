"""The StandAlone worker of the real daemon in a virtual router, against the
SAS simulator running inside the router: from enabling SAS to an authorised
device with open gates, heartbeats, refusals and expiry closing the gates,
disabling SAS and configuration changes.  A sampler (fail_closed.py) checks
throughout every test that no gate is open while SAS is on without a
transmitExpireTime the simulator handed out, plus 60 s."""
import fcntl
import os
import subprocess
import sys
import tempfile
import time

import pytest

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(TESTS_DIR, "sas_sim"))

import pki  # noqa: E402
from client import SasSim, relative  # noqa: E402
from fail_closed import FailClosedSampler, StandAloneAuthority  # noqa: E402
from lab import device_config  # noqa: E402

ICMP_DROP = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"
HEARTBEAT_INTERVAL = 4
# One supervision pass (5 s sleep) plus the pass itself.
ONE_PASS = 7
BUILD_DIR = os.environ.get("CBSD_BINARY_DIR") or os.path.join(os.path.dirname(TESTS_DIR), "build")


def sas_config(url, enable_mode="1", call_sign="CALL1"):
    return device_config.sas_config(url, enable_mode=enable_mode, call_sign=call_sign)


def _listing_or_none(read):
    # A listing taken while the daemon changes a rule can fail (nf_tables);
    # such a sample proves nothing either way.
    try:
        return read()
    except subprocess.CalledProcessError:
        return None


def gates_open(r):
    iptables = _listing_or_none(r.iptables_rules)
    ebtables = _listing_or_none(r.ebtables_rules)
    if iptables is None or ebtables is None:
        return False
    return (r.ip_forward() == ("1", "1") and ICMP_DROP not in iptables
            and not any("DROP" in rule for rule in ebtables))


BRIDGE_DROPS = ("-o eth1.112+ -j DROP", "-o usb0.112+ -j DROP")


def gates_closed(r):
    iptables = _listing_or_none(r.iptables_rules)
    ebtables = _listing_or_none(r.ebtables_rules)
    return (iptables is not None and ebtables is not None and r.ip_forward() == ("0", "0")
            and ICMP_DROP in iptables and all(rule in ebtables for rule in BRIDGE_DROPS))


@pytest.fixture(scope="module")
def pki_dir():
    # Several test files run at once; the first makes the PKI, the others wait.
    path = os.path.join(BUILD_DIR, "standalone-system-pki")
    with open(path + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        return pki.generate(path)


@pytest.fixture
def lab(router, pki_dir):
    """(router, simulator) with the device credentials installed and the
    daemon not yet started; the sampler runs for the whole test."""
    control_dir = tempfile.mkdtemp(prefix="cbsd-sim-", dir=BUILD_DIR)
    r = router(sas_config=sas_config("https://127.0.0.1:1/v1.2", enable_mode="0"))
    for sub, name, source in (("clientCert", "cbsd.pem", "client.pem"),
                              ("clientKey", "cbsd.key", "client.key"),
                              ("serverCA", "ca.pem", "ca.pem")):
        with open(os.path.join(pki_dir, source)) as f:
            r.write_file(f"/root/sas/cert/{sub}/{name}", f.read(), mode=0o600)
    proc = r.spawn(SasSim.command(control_dir, pki_dir,
                                  extra=["--heartbeat-interval", str(HEARTBEAT_INTERVAL)]))
    sim = SasSim(control_dir, proc)
    sim.wait_ready()
    r.write_file("/etc/config/sas", sas_config(sim.url, enable_mode="0"))
    sampler = FailClosedSampler(r, StandAloneAuthority(r, sim))
    sampler.start()
    yield r, sim
    sampler.finish()
    proc.terminate()


def set_option(r, section, option, value):
    """Writes one option the way the management interface would.  The daemon
    rewrites the whole file on each of its own writes, so a write that races
    with one of them can be lost; it is made again until it has stuck."""
    for _ in range(5):
        r.uci_set(section, option, value)
        time.sleep(0.3)
        if r.uci_get(section, option) == value:
            return
    raise AssertionError(f"{section}.{option} did not keep {value!r}")


def enable(r):
    set_option(r, "config", "enableMode", "1")


def disable(r):
    set_option(r, "config", "enableMode", "0")


def start_disabled(r):
    """Starts the daemon with SAS off and waits until its first pass has
    finished writing the reset state."""
    r.start_daemon()
    assert r.wait_for_log("[SAS] device network has been recovered.\n", 15), \
        r.daemon_output()[-2000:]


def start_enabled(r):
    start_disabled(r)
    enable(r)


def authorized(lab_pair, timeout=40):
    r, sim = lab_pair
    start_disabled(r)
    started = time.monotonic()
    enable(r)
    assert r.wait_for(lambda: gates_open(r) and r.uci_get("operation", "status") == "Authorized",
                      timeout), r.log_text()[-3000:]
    return time.monotonic() - started


def endpoints(sim):
    return [q["endpoint"] for q in sim.requests()]


def test_enable_registers_grants_authorizes_and_opens_gates(lab):
    r, sim = lab
    seconds = authorized(lab)
    print(f"\nMEASURE enable -> all gates open: {seconds:.1f} s")
    # The enabling pass closes the gates itself before it arms the guard.
    log = r.log_text()
    assert "no valid transmit authorization" not in log
    assert log.index("[SAS] device has been unauthorized.\n", log.index("[SAS] sas enable.\n"))
    assert endpoints(sim)[:4] == ["registration", "spectrumInquiry", "grant", "heartbeat"]
    first = sim.requests()[:3]
    # Registration, inquiry and grant follow each other without waiting.
    assert first[2]["time"] - first[0]["time"] < 3
    assert r.uci_get("sasConfig", "RadioEnable") == "1"
    assert r.wait_for_log("[SAS] device has been authorized.\n", 5)


def test_heartbeats_every_heartbeat_interval(lab):
    r, sim = lab
    authorized(lab)
    beats = sim.wait_for_request("heartbeat", count=4, timeout=4 * HEARTBEAT_INTERVAL + 5)
    assert len(beats) >= 4
    gaps = [b["time"] - a["time"] for a, b in zip(beats[1:], beats[2:])]
    # The thread counts whole monotonic seconds, so a wait may end up to a second early.
    assert all(HEARTBEAT_INTERVAL - 1 <= g <= HEARTBEAT_INTERVAL + 1.5 for g in gaps), gaps
    assert beats[1]["json"]["heartbeatRequest"][0]["operationState"] == "AUTHORIZED"


def test_refused_heartbeat_closes_gates(lab):
    r, sim = lab
    authorized(lab)
    sim.push("grant", responseCode=400)  # keep the device without a grant afterwards
    sim.push("heartbeat", responseCode=502)
    refused_at = None
    count = len(sim.requests("heartbeat"))
    sim.wait_for_request("heartbeat", count=count + 1, timeout=HEARTBEAT_INTERVAL + 5)
    refused_at = time.monotonic()
    assert r.wait_for(lambda: gates_closed(r), ONE_PASS + 2)
    print(f"\nMEASURE refused heartbeat -> gates closed: {time.monotonic() - refused_at:.1f} s")
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    # The grant is given back once the gates are closed, and the status follows.
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Registered", 5)
    assert "relinquishment" in endpoints(sim)


def test_transmit_expiry_closes_gates(lab):
    r, sim = lab
    sim.push("heartbeat", set={"transmitExpireTime": relative(-31)})
    sim.set_default("heartbeat", responseCode=501)
    start_enabled(r)
    assert r.wait_for_log("is expired.\n", 30), r.log_text()[-3000:]
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Granted", 10)
    # The expiry writes the status first, then RadioEnable and the cleared time.
    assert r.wait_for(lambda: r.uci_get("sasConfig", "transmitExpireTime") in ("", None), 2)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(lambda: gates_closed(r), ONE_PASS + 2)


GATES_CLOSING = ("[SAS] IP forward is disable.\n", "[SAS] firewall ICMP is disable.\n",
                 "[SAS] bridge forward is disable.\n")


def assert_stopped_before_giving_back(log):
    """Every gate is closed (each close logs its line) before the grant is
    given back; the worker also writes RadioEnable "0" first (unit-tested)."""
    given_back = log.index("[SAS] send relinquishment_request")
    assert log.index("[SAS] send deregistration_request") > given_back
    for closing in GATES_CLOSING:
        assert closing in log[:given_back], (closing, log[-3000:])


def test_disable_relinquishes_deregisters_and_recovers_network(lab):
    r, sim = lab
    authorized(lab)
    mark = len(r.log_text())
    disable(r)
    assert r.wait_for(lambda: "[SAS] sas disable.\n" in r.log_text()[mark:], ONE_PASS + 2)
    assert r.wait_for(lambda: endpoints(sim)[-2:] == ["relinquishment", "deregistration"], 10)
    log = r.log_text()[mark:]
    assert_stopped_before_giving_back(log[log.index("[SAS] sas disable.\n"):])
    # The loop clears the state after joining the worker, then recovers the network.
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Unregistered", 5)
    assert r.wait_for(lambda: gates_open(r), 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"


def test_configuration_change_restarts_worker(lab):
    r, sim = lab
    authorized(lab)
    registrations = len(sim.requests("registration"))
    mark = len(r.log_text())
    set_option(r, "config", "callSign", "CALL2")
    assert r.wait_for_log("[SAS] sas configuration is changed.\n", ONE_PASS + 2)
    assert r.wait_for(lambda: len(sim.requests("deregistration")) > 0, 15)
    log = r.log_text()[mark:]
    assert_stopped_before_giving_back(log[log.index("[SAS] sas configuration is changed.\n"):])
    assert r.wait_for(lambda: len(sim.requests("registration")) > registrations, 15)
    seen = endpoints(sim)
    restart = seen.index("registration", 1)
    assert seen[restart - 2:restart] == ["relinquishment", "deregistration"]
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Authorized", 20)
