"""Heartbeat refusals of the SAS in the Granted and the Authorized state, seen
through the real daemon: the published status, RadioEnable and the gates."""
import time

import pytest

from test_standalone import (ONE_PASS, authorized, endpoints, gates_closed,  # noqa: F401
                             gates_open, lab, pki_dir, enable, start_enabled)


def wait_status(r, status, timeout=20):
    return r.wait_for(lambda: r.uci_get("operation", "status") == status, timeout)


@pytest.mark.parametrize("code", [500, 502])
def test_granted_heartbeat_500_502_relinquishes_to_registered(lab, code):
    r, sim = lab
    sim.push("grant")                    # the first grant succeeds
    sim.push("grant", responseCode=400)  # the one asked again is refused: stay Registered
    sim.push("heartbeat", responseCode=code)
    start_enabled(r)
    assert r.wait_for(lambda: "relinquishment" in endpoints(sim), 30), r.log_text()[-3000:]
    assert wait_status(r, "Registered")
    assert r.wait_for(lambda: endpoints(sim)[:6] == ["registration", "spectrumInquiry", "grant",
                                                     "heartbeat", "relinquishment", "grant"], 10)
    # A refused exchange is followed by the next request no sooner than 5 s.
    requests = sim.requests()
    assert requests[5]["time"] - requests[4]["time"] >= 4.5
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert gates_closed(r)


def test_granted_heartbeat_501_stays_granted_and_waits(lab):
    r, sim = lab
    sim.push("heartbeat", responseCode=501)
    start_enabled(r)
    assert sim.wait_for_request("heartbeat", 1, 30)
    assert wait_status(r, "Granted")
    time.sleep(5)
    assert len(sim.requests("heartbeat")) == 1
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert gates_closed(r)


def test_granted_heartbeat_other_code_backs_off(lab):
    r, sim = lab
    sim.push("heartbeat", responseCode=103)
    start_enabled(r)
    first = sim.wait_for_request("heartbeat", 1, 30)[0]
    second = sim.wait_for_request("heartbeat", 2, 25)[1]
    assert 14 <= second["time"] - first["time"] <= 18
    assert second["json"]["heartbeatRequest"][0]["operationState"] == "GRANTED"
    assert gates_closed(r) or r.uci_get("sasConfig", "RadioEnable") == "1"


def refuse_authorized_heartbeat(lab, reply, *later_replies):
    """Authorises the device, then scripts its next heartbeat replies; returns
    the number of heartbeats before the refused one."""
    r, sim = lab
    authorized(lab)
    count = len(sim.requests("heartbeat"))
    sim.push("heartbeat", **reply)
    for later in later_replies:
        sim.push("heartbeat", **later)
    sim.wait_for_request("heartbeat", count + 1, 10)
    return count


def test_authorized_500_keeps_radio_enable(lab):
    r, sim = lab
    sim.push("grant")
    sim.push("grant", responseCode=400)
    refuse_authorized_heartbeat(lab, {"responseCode": 500})
    assert wait_status(r, "Registered", 5)
    assert "relinquishment" in endpoints(sim)
    time.sleep(ONE_PASS)
    # Deliberately left as it was: the radio permission stays "1", so the loop keeps the gates open.
    assert r.uci_get("sasConfig", "RadioEnable") == "1"
    assert gates_open(r)


def test_authorized_502_withdraws_radio_enable_and_closes_gates(lab):
    r, sim = lab
    sim.push("grant")
    sim.push("grant", responseCode=400)
    refuse_authorized_heartbeat(lab, {"responseCode": 502})
    refused_at = time.monotonic()
    assert wait_status(r, "Registered", 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(lambda: gates_closed(r), ONE_PASS + 2)
    print(f"\nMEASURE heartbeat 502 -> gates closed: {time.monotonic() - refused_at:.1f} s")


def test_authorized_501_suspends_to_granted(lab):
    r, sim = lab
    count = refuse_authorized_heartbeat(lab, {"responseCode": 501})
    assert wait_status(r, "Granted", 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "1"
    time.sleep(5)
    assert len(sim.requests("heartbeat")) == count + 1


def test_authorized_other_code_sends_granted_heartbeat_after_five_seconds(lab):
    r, sim = lab
    # The GRANTED heartbeat that follows is suspended, holding the device in Granted.
    count = refuse_authorized_heartbeat(lab, {"responseCode": 103}, {"responseCode": 501})
    beats = sim.wait_for_request("heartbeat", count + 2, 10)
    assert len(beats) == count + 2
    assert 4.5 <= beats[-1]["time"] - beats[-2]["time"] < 8
    assert beats[-1]["json"]["heartbeatRequest"][0]["operationState"] == "GRANTED"
    assert wait_status(r, "Granted", 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(lambda: gates_closed(r), ONE_PASS + 2)


def test_authorized_105_relinquishes_deregisters_and_registers_again(lab):
    r, sim = lab
    sim.push("registration")
    sim.push("registration", responseCode=200)  # hold the device unregistered afterwards
    refuse_authorized_heartbeat(lab, {"responseCode": 105})
    assert r.wait_for(lambda: endpoints(sim)[-3:] == ["relinquishment", "deregistration",
                                                      "registration"], 10)
    requests = sim.requests()
    assert requests[-1]["time"] - requests[-2]["time"] >= 4.5
    assert wait_status(r, "Unregistered", 5)
