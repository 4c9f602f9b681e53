"""The StandAlone worker of the real daemon in a virtual router, against the
SAS simulator running inside the router: from enabling SAS to an authorised
device with open gates, heartbeats, refusals and expiry closing the gates,
disabling SAS and configuration changes.  A sampler (fail_closed.py) checks
throughout every test that no gate is open while SAS is on without a
transmitExpireTime the simulator handed out, plus 60 s."""
import time

from lab.sas_lab import HEARTBEAT_INTERVAL
from lab.timing import ONE_PASS
from sas_sim.client import relative


def test_enable_registers_grants_authorizes_and_opens_gates(lab):
    r, sim = lab
    seconds = lab.authorized()
    print(f"\nMEASURE enable -> all gates open: {seconds:.1f} s")
    # The enabling pass closes the gates itself before it arms the guard.
    log = r.log_text()
    assert "no valid transmit authorization" not in log
    assert log.index("[SAS] device has been unauthorized.\n", log.index("[SAS] sas enable.\n"))
    assert lab.endpoints()[:4] == ["registration", "spectrumInquiry", "grant", "heartbeat"]
    first = sim.requests()[:3]
    # Registration, inquiry and grant follow each other without waiting.
    assert first[2]["time"] - first[0]["time"] < 3
    assert r.uci_get("sasConfig", "RadioEnable") == "1"
    assert r.wait_for_log("[SAS] device has been authorized.\n", 5)


def test_heartbeats_every_heartbeat_interval(lab):
    r, sim = lab
    lab.authorized()
    beats = sim.wait_for_request("heartbeat", count=4, timeout=4 * HEARTBEAT_INTERVAL + 5)
    assert len(beats) >= 4
    gaps = [b["time"] - a["time"] for a, b in zip(beats[1:], beats[2:])]
    # The thread counts whole monotonic seconds, so a wait may end up to a second early.
    assert all(HEARTBEAT_INTERVAL - 1 <= g <= HEARTBEAT_INTERVAL + 1.5 for g in gaps), gaps
    assert beats[1]["json"]["heartbeatRequest"][0]["operationState"] == "AUTHORIZED"


def test_refused_heartbeat_closes_gates(lab):
    r, sim = lab
    lab.authorized()
    sim.push("grant", responseCode=400)  # keep the device without a grant afterwards
    sim.push("heartbeat", responseCode=502)
    refused_at = None
    count = len(sim.requests("heartbeat"))
    sim.wait_for_request("heartbeat", count=count + 1, timeout=HEARTBEAT_INTERVAL + 5)
    refused_at = time.monotonic()
    assert r.wait_for(r.gates_closed, ONE_PASS + 2)
    print(f"\nMEASURE refused heartbeat -> gates closed: {time.monotonic() - refused_at:.1f} s")
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    # The grant is given back once the gates are closed, and the status follows.
    assert r.wait_for(lambda: r.status() == "Registered", 5)
    assert "relinquishment" in lab.endpoints()


def test_transmit_expiry_closes_gates(lab):
    r, sim = lab
    sim.push("heartbeat", set={"transmitExpireTime": relative(-31)})
    sim.set_default("heartbeat", responseCode=501)
    lab.start_enabled()
    assert r.wait_for_log("is expired.\n", 30), r.log_text()[-3000:]
    assert r.wait_status("Granted", 10)
    # The expiry writes the status first, then RadioEnable and the cleared time.
    assert r.wait_for(lambda: r.uci_get("sasConfig", "transmitExpireTime") in ("", None), 2)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(r.gates_closed, ONE_PASS + 2)


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
    lab.authorized()
    mark = len(r.log_text())
    lab.disable()
    assert r.wait_for(lambda: "[SAS] sas disable.\n" in r.log_text()[mark:], ONE_PASS + 2)
    assert r.wait_for(lambda: lab.endpoints()[-2:] == ["relinquishment", "deregistration"], 10)
    log = r.log_text()[mark:]
    assert_stopped_before_giving_back(log[log.index("[SAS] sas disable.\n"):])
    # The loop clears the state after joining the worker, then recovers the network.
    assert r.wait_status("Unregistered", 5)
    assert r.wait_for(r.gates_open, 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"


def test_configuration_change_restarts_worker(lab):
    r, sim = lab
    lab.authorized()
    registrations = len(sim.requests("registration"))
    mark = len(r.log_text())
    r.set_option("config", "callSign", "CALL2")
    assert r.wait_for_log("[SAS] sas configuration is changed.\n", ONE_PASS + 2)
    assert r.wait_for(lambda: len(sim.requests("deregistration")) > 0, 15)
    log = r.log_text()[mark:]
    assert_stopped_before_giving_back(log[log.index("[SAS] sas configuration is changed.\n"):])
    assert r.wait_for(lambda: len(sim.requests("registration")) > registrations, 15)
    seen = lab.endpoints()
    restart = seen.index("registration", 1)
    assert seen[restart - 2:restart] == ["relinquishment", "deregistration"]
    assert r.wait_status("Authorized", 20)
