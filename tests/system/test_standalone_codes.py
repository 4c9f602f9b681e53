"""Heartbeat refusals of the SAS in the Granted and the Authorized state, seen
through the real daemon: the published status, RadioEnable and the gates."""
import time

import pytest

from lab.timing import ONE_PASS


@pytest.mark.parametrize("code", [500, 502])
def test_granted_heartbeat_500_502_relinquishes_to_registered(lab, code):
    r, sim = lab
    sim.push("grant")                    # the first grant succeeds
    sim.push("grant", responseCode=400)  # the one asked again is refused: stay Registered
    sim.push("heartbeat", responseCode=code)
    lab.start_enabled()
    assert r.wait_for(lambda: "relinquishment" in lab.endpoints(), 30), r.log_text()[-3000:]
    assert r.wait_status("Registered")
    assert r.wait_for(lambda: lab.endpoints()[:6] == ["registration", "spectrumInquiry", "grant",
                                                     "heartbeat", "relinquishment", "grant"], 10)
    # A refused exchange is followed by the next request no sooner than 5 s.
    requests = sim.requests()
    assert requests[5]["time"] - requests[4]["time"] >= 4.5
    assert r.radio_off_and_gates_closed()


def test_granted_heartbeat_501_stays_granted_and_waits(lab):
    r, sim = lab
    sim.push("heartbeat", responseCode=501)
    lab.start_enabled()
    assert sim.wait_for_request("heartbeat", 1, 30)
    assert r.wait_status("Granted")
    time.sleep(5)
    assert len(sim.requests("heartbeat")) == 1
    assert r.radio_off_and_gates_closed()


def test_granted_heartbeat_other_code_backs_off(lab):
    r, sim = lab
    sim.push("heartbeat", responseCode=103)
    lab.start_enabled()
    first = sim.wait_for_request("heartbeat", 1, 30)[0]
    second = sim.wait_for_request("heartbeat", 2, 25)[1]
    assert 14 <= second["time"] - first["time"] <= 18
    assert second["json"]["heartbeatRequest"][0]["operationState"] == "GRANTED"
    assert r.gates_closed() or r.uci_get("sasConfig", "RadioEnable") == "1"


def refuse_authorized_heartbeat(lab, reply, *later_replies):
    """Authorises the device, then scripts its next heartbeat replies; returns
    the number of heartbeats before the refused one."""
    r, sim = lab
    lab.authorized()
    count = len(sim.requests("heartbeat"))
    sim.push("heartbeat", **reply)
    for later in later_replies:
        sim.push("heartbeat", **later)
    sim.wait_for_request("heartbeat", count + 1, 10)
    return count


# RadioEnable "0" and forwarding off within this of the answer; every gate
# (the firewall drops take processes, in the lab through wrappers) within
# ALL_GATES.
CEASED = 1.0
ALL_GATES = 10.0


def withdrawal_times(r, sim, refused_count, limit=6.0):
    """Seconds from the refused heartbeat's arrival at the simulator to
    RadioEnable "0" with forwarding off, and to every gate closed, as seen
    from outside (None when not seen within `limit`)."""
    refused_at = sim.wait_for_request("heartbeat", refused_count, 10)[refused_count - 1]["time"]
    ceased = closed = None
    while time.time() - refused_at < limit and closed is None:
        stopped = r.uci_get("sasConfig", "RadioEnable") == "0" and r.ip_forward() == ("0", "0")
        if stopped and ceased is None:
            ceased = time.time() - refused_at
        if stopped and r.gates_closed():
            closed = time.time() - refused_at
        time.sleep(0.02)
    return ceased, closed


def assert_withdrawal_in_time(r, sim, refused_count, code):
    ceased, closed = withdrawal_times(r, sim, refused_count)
    print(f"\nMEASURE heartbeat {code} -> RadioEnable 0 and forwarding off: {ceased}, "
          f"every gate closed: {closed}")
    assert ceased is not None and ceased <= CEASED, (ceased, r.log_text()[-3000:])
    assert closed is not None and closed <= ALL_GATES, (closed, r.log_text()[-3000:])


def assert_withdrawn_in_order(r, code):
    """The refusal, then the loop's reaction, then whatever is given back.
    When the loop took longer than its turn (a loaded machine) the guard
    closed first, and only the stop in time is required."""
    log = r.log_text()
    refusal = log.index(f"[SAS] Heartbeat unsuccessfully, responseCode:{code}(")
    if "no valid transmit authorization" in log[refusal:]:
        return
    disable = log.index("[SAS] sas radio disable.\n", refusal)
    unauthorized = log.index("[SAS] device has been unauthorized.\n", disable)
    for given_back in ("[SAS] send relinquishment_request", "[SAS] send deregistration_request"):
        at = log.find(given_back, refusal)
        assert at == -1 or at > unauthorized, log[refusal:]


@pytest.mark.parametrize("code", [500, 501, 105])
def test_authorized_refusal_stops_transmission_at_once(lab, code):
    r, sim = lab
    sim.push("grant")
    sim.push("grant", responseCode=400)
    sim.push("registration")
    sim.push("registration", responseCode=200)
    count = refuse_authorized_heartbeat(lab, {"responseCode": code})
    assert_withdrawal_in_time(r, sim, count + 1, code)
    expected = {500: "Registered", 501: "Granted", 105: "Unregistered"}[code]
    assert r.wait_status(expected, 5)
    if code != 501:
        assert r.wait_for(lambda: "relinquishment" in lab.endpoints(), 5)
    assert_withdrawn_in_order(r, code)


def test_authorized_502_withdraws_radio_enable_and_closes_gates(lab):
    r, sim = lab
    sim.push("grant")
    sim.push("grant", responseCode=400)
    count = refuse_authorized_heartbeat(lab, {"responseCode": 502})
    assert_withdrawal_in_time(r, sim, count + 1, 502)
    assert r.wait_status("Registered", 5)
    assert_withdrawn_in_order(r, 502)


def test_authorized_501_suspends_to_granted(lab):
    r, sim = lab
    count = refuse_authorized_heartbeat(lab, {"responseCode": 501})
    assert r.wait_status("Granted", 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    time.sleep(5)
    assert len(sim.requests("heartbeat")) == count + 1
    assert r.gates_closed()


def test_authorized_other_code_sends_granted_heartbeat_after_five_seconds(lab):
    r, sim = lab
    # The GRANTED heartbeat that follows is suspended, holding the device in Granted.
    count = refuse_authorized_heartbeat(lab, {"responseCode": 103}, {"responseCode": 501})
    beats = sim.wait_for_request("heartbeat", count + 2, 10)
    assert len(beats) == count + 2
    assert 4.5 <= beats[-1]["time"] - beats[-2]["time"] < 8
    assert beats[-1]["json"]["heartbeatRequest"][0]["operationState"] == "GRANTED"
    assert r.wait_status("Granted", 5)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(r.gates_closed, ONE_PASS + 2)


def test_authorized_105_relinquishes_deregisters_and_registers_again(lab):
    r, sim = lab
    sim.push("registration")
    sim.push("registration", responseCode=200)  # hold the device unregistered afterwards
    refuse_authorized_heartbeat(lab, {"responseCode": 105})
    assert r.wait_for(lambda: lab.endpoints()[-3:] == ["relinquishment", "deregistration",
                                                      "registration"], 10)
    requests = sim.requests()
    assert requests[-1]["time"] - requests[-2]["time"] >= 4.5
    assert r.wait_status("Unregistered", 5)
