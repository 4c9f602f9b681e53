"""The StandAlone procedure of the real daemon against the SAS simulator:
deregistration and grant conflicts, the inquiry's power cap, the grant's
renewal window and expiry, transport failures with their back-off, the LTE
link ending the back-off, and what a stop sends in each state."""
import time

from lab.timing import ONE_PASS
from sas_sim.client import relative


def test_inquiry_105_deregisters_and_registers_again(lab):
    r, sim = lab
    sim.push("spectrumInquiry", responseCode=105)
    lab.start_enabled()
    assert r.wait_for(lambda: lab.endpoints()[:4] == ["registration", "spectrumInquiry",
                                                     "deregistration", "registration"], 30)
    assert r.wait_for_log("[SAS] SpectrumInquiry unsuccessfully, responseCode:105(DEREGISTER)\n", 5)


def test_grant_401_relinquishes_the_named_grant_and_asks_again_after_five_seconds(lab):
    r, sim = lab
    sim.push("grant", responseCode=401, responseData=["grant-conflict"])
    lab.authorized()
    grants = sim.requests("grant")
    relinquished = sim.requests("relinquishment")
    assert lab.endpoints()[:6] == ["registration", "spectrumInquiry", "grant", "relinquishment",
                                  "grant", "heartbeat"]
    assert relinquished[0]["json"]["relinquishmentRequest"][0]["grantId"] == "grant-conflict"
    assert 4.5 <= grants[1]["time"] - grants[0]["time"] < 8


def test_inquiry_power_cap_reaches_grant_and_power_spectral_density(lab):
    r, sim = lab
    lab.start_disabled()
    configured = int(r.uci_get("sasConfig", "maxEirp") or "0")
    cap = min(configured, 20) - 3
    sim.push("spectrumInquiry", set={"availableChannel": [{
        "frequencyRange": {"lowFrequency": 3550000000, "highFrequency": 3700000000},
        "channelType": "GAA", "ruleApplied": "FCC_PART_96", "maxEirp": cap}]})
    lab.enable()
    assert r.wait_status("Authorized", 30)
    grant = sim.requests("grant")[0]["json"]["grantRequest"][0]
    assert grant["operationParam"]["maxEirp"] == cap
    assert r.uci_get("sasConfig", "powerSpectralDensity") == str(cap)


def test_inquiry_without_max_eirp_keeps_the_configured_power(lab):
    r, sim = lab
    lab.start_disabled()
    configured = r.uci_get("sasConfig", "maxEirp")
    assert configured, "the profile sets a maxEirp at start"
    sim.push("spectrumInquiry", set={"availableChannel": [{
        "frequencyRange": {"lowFrequency": 3550000000, "highFrequency": 3700000000},
        "channelType": "GAA", "ruleApplied": "FCC_PART_96"}]})
    lab.enable()
    assert r.wait_status("Authorized", 30)
    grant = sim.requests("grant")[0]["json"]["grantRequest"][0]
    assert grant["operationParam"]["maxEirp"] == int(configured)
    assert r.uci_get("sasConfig", "maxEirp") == configured
    assert r.uci_get("sasConfig", "powerSpectralDensity") == configured


def test_renewal_window_marks_grant_renew_and_heartbeat_asks_for_it(lab):
    r, sim = lab
    sim.push("grant", set={"grantExpireTime": relative(3600)})
    lab.authorized()
    assert r.uci_get("operation", "GrantRenew") == "1"
    beat = sim.requests("heartbeat")[0]["json"]["heartbeatRequest"][0]
    assert beat["grantRenew"] is True


def test_grant_expiry_returns_to_registered_and_closes_gates(lab):
    r, sim = lab
    lab.authorized()
    grants = len(sim.requests("grant"))
    sim.push("heartbeat", set={"grantExpireTime": relative(2)})
    # The pass that finds the grant expired still sends the heartbeat of the
    # state it read; leaving that one unanswered keeps the status it wrote.
    sim.push("heartbeat", close=True)
    sim.push("grant", responseCode=400)  # no new grant: stay Registered
    assert r.wait_for_log("[SAS] grantExpireTime[", 15)
    assert r.wait_status("Registered", 5)
    assert r.wait_for(lambda: r.uci_get("sasConfig", "grantExpireTime") in ("", None), 2)
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    assert r.wait_for(lambda: len(sim.requests("grant")) == grants + 1, 10)
    assert r.wait_for(r.gates_closed, ONE_PASS + 2)


def test_transport_failure_waits_fifteen_seconds(lab):
    r, sim = lab
    sim.push("registration", close=True)
    lab.start_enabled()
    first = sim.wait_for_request("registration", 1, 20)[0]
    assert r.wait_for_log("[SAS] failed to do registeration_request()\n", 5)
    registrations = sim.wait_for_request("registration", 2, 25)
    assert len(registrations) == 2, r.log_text()[-3000:]
    second = registrations[1]
    # The worker counts whole monotonic seconds, so a 15 s wait can end up to
    # a second early in real time.
    assert 13.9 <= second["time"] - first["time"] <= 17


def test_lte_change_ends_the_back_off(lab):
    r, sim = lab
    sim.push("registration", close=True)
    lab.start_enabled()
    sim.wait_for_request("registration", 1, 20)
    assert r.wait_for_log("[SAS] failed to do registeration_request()\n", 5)
    time.sleep(2)
    changed_at = time.time()
    r.set_modem(netstat=1)
    second = sim.wait_for_request("registration", 2, 10)[1]
    assert second["time"] - changed_at < 4


def test_stop_while_registered_only_deregisters(lab):
    r, sim = lab
    lab.held("grant", "Registered", responseCode=400)
    before = len(sim.requests())
    lab.disable()
    assert r.wait_for_log("[SAS] StandAlone thread[", ONE_PASS + 3)
    assert r.wait_for(lambda: r.wait_status("Unregistered", 1), 5)
    assert lab.endpoints()[before:] == ["deregistration"]


def test_stop_while_unregistered_sends_nothing(lab):
    r, sim = lab
    sim.set_default("registration", responseCode=200)
    lab.start_enabled()
    sim.wait_for_request("registration", 1, 20)
    before = len(sim.requests())
    lab.disable()
    assert r.wait_for_log("] is stopped\n", ONE_PASS + 3)
    time.sleep(1)
    assert len(sim.requests()) == before
