"""SIGTERM and SIGKILL in every state of the StandAlone procedure, against the
real daemon and the SAS simulator, with the fail-closed sampler watching
throughout.  SIGTERM ends the daemon within 10 s with status 0: with SAS on,
the procedure is given back as far as it got and the gates close; with SAS
off traffic stays as it is.  After SIGKILL nothing runs; a restart with SAS on
does not open traffic first, and closes what the killed daemon left open."""
import signal
import time
from random import Random

import pytest

from lab.sas_lab import HEARTBEAT_INTERVAL
from lab.timing import ONE_PASS, STOP_LIMIT


def reach_disabled(lab):
    lab.start_disabled()
    assert lab.r.wait_for(lab.r.gates_open, 20)


def reach_unregistered(lab):
    """Every registration is left pending: the device stays unregistered."""
    r, sim = lab
    sim.set_default("registration", responseCode=200)
    lab.start_enabled()
    sim.wait_for_request("registration", 1, 20)


def reach_registered(lab):
    """Every grant is refused: the device stays registered."""
    lab.held("grant", "Registered", responseCode=400)


def reach_granted_in_a_heartbeat(lab):
    """Granted, with the first heartbeat held by the SAS: the signal arrives
    while the worker waits for a reply."""
    lab.held("heartbeat", "Granted", delay=25)


def reach_authorized(lab):
    lab.authorized()
    assert lab.r.gates_open()
    # The signal follows a heartbeat's answer at once, so the next heartbeat
    # is a whole period away: one the worker sent a moment before the signal
    # would read as a request after the stop.
    mark = len(lab.r.log_text())
    sent = len(lab.sim.requests("heartbeat"))
    assert len(lab.sim.wait_for_request("heartbeat", sent + 1, 2 * HEARTBEAT_INTERVAL)) > sent
    assert lab.r.wait_for_log_after(mark, "[SAS] Heartbeat successfully\n", 5)


# state: (how to get there, what SIGTERM gives back to the SAS)
STATES = {
    "disabled": (reach_disabled, []),
    "unregistered": (reach_unregistered, []),
    "registered": (reach_registered, ["deregistration"]),
    "granted, heartbeat in flight": (reach_granted_in_a_heartbeat, None),
    "authorized": (reach_authorized, ["relinquishment", "deregistration"]),
}


@pytest.mark.parametrize("state", STATES)
def test_sigterm(lab, state):
    r, sim = lab
    reach, given_back = STATES[state]
    reach(lab)
    before = len(sim.requests())
    r.stop_cleanly(signal.SIGTERM, f"SIGTERM, {state}")
    if state == "disabled":
        assert r.gates_open()
        assert lab.endpoints() == []
        return
    assert r.gates_closed()
    assert "[SAS] stop requested.\n" in r.log_text()
    sent = lab.endpoints()[before:]
    if given_back is not None:
        assert sent == given_back, sent
    # A worker waiting on the SAS gives back what it can; it never asks for more.
    assert not {"registration", "grant", "heartbeat"} & set(sent), sent


@pytest.mark.parametrize("state", STATES)
def test_sigkill_then_restart(lab, state):
    r, sim = lab
    reach, _ = STATES[state]
    reach(lab)
    r.stop_daemon()
    restarted = time.monotonic()
    r.start_daemon()
    if state == "disabled":
        assert r.wait_for_log("[SAS] device network has been recovered.\n", 15)
        assert r.wait_for(r.gates_open, ONE_PASS)
        assert lab.endpoints() == []
        return
    assert r.wait_for_log("[SAS] SAS is enabled at start, traffic stays stopped.\n", 15)
    if state == "authorized":
        # The SAS still answers: the restarted daemon earns a new authorisation
        # (the sampler checks that it never opens without one).
        assert r.wait_for(lambda: r.gates_open() and r.wait_status("Authorized", 1), 60)
        return
    # Nothing can authorise it: closed within a pass of the restart, and it stays so.
    assert r.wait_for(r.gates_closed, ONE_PASS)
    while time.monotonic() < restarted + 2 * ONE_PASS:
        assert r.gates_closed()
        time.sleep(0.5)


ENDPOINTS = ("registration", "spectrumInquiry", "grant", "heartbeat", "relinquishment",
             "deregistration")


# What the SAS does during one run of the random SIGTERM test.
def sas_holds_one_exchange(sim, random):
    sim.set_default(random.choice(["registration", "spectrumInquiry", "grant", "heartbeat"]),
                    delay=25)


def sas_holds_the_give_back(sim):
    sim.set_default("relinquishment", delay=25)
    sim.set_default("deregistration", delay=25)


def one_random_stop(lab, random, run):
    """Starts the daemon with SAS on, lets it run a random while (with a
    configuration change that restarts the worker in some runs, a SAS that
    holds an exchange or the give-back in others) and sends SIGTERM."""
    r, sim = lab
    sim.clear()
    for endpoint in ENDPOINTS:
        sim.set_default(endpoint, {})
    fault = random.choice(["none", "none", "exchange", "give-back"])
    if fault == "exchange":
        sas_holds_one_exchange(sim, random)
    elif fault == "give-back":
        sas_holds_the_give_back(sim)
    lab.write_config(enable_mode="1")
    r.start_daemon()
    assert r.wait_for_log("[SAS] create standalone thread[", 15), r.log_text()[-2000:]
    restart = random.random() < 0.5
    time.sleep(random.uniform(0, 5))
    if restart:
        r.set_option("config", "callSign", f"CALL{run}")
        time.sleep(random.uniform(0, 2))
    mark = len(r.log_text())
    status, took = r.stop_with(signal.SIGTERM)
    r.stop_daemon()  # forgets the ended process
    return fault, restart, status, took, r.log_text()[mark:]


def test_sigterm_at_random_moments_ends_within_10_s_with_the_gates_closed(lab):
    r, sim = lab
    random = Random(20261125)
    longest = 0.0
    for run in range(8):
        fault, restart, status, took, log = one_random_stop(lab, random, run)
        what = f"run {run}: {fault}, restart {restart}"
        print(f"\nMEASURE SIGTERM at a random moment, {what} -> exit {status} after {took:.1f} s")
        longest = max(longest, took)
        assert status == 0, what
        assert took < STOP_LIMIT, what
        assert "[SAS] stop requested.\n" in log, what + "\n" + log
        assert r.gates_closed(), what
    print(f"\nMEASURE SIGTERM at random moments: 8 runs, longest {longest:.1f} s")
