"""SIGTERM and SIGKILL in DP mode, with the proxy's radio on or off and with
SAS off, under the fail-closed sampler.  SIGTERM ends the daemon within 10 s
with status 0; with SAS on nobody holds the radio's permission once the
daemon is gone, so the gates close; with SAS off traffic stays as it is.
After SIGKILL a restart with SAS on starts closed, clears the radio flag and
stays closed until the proxy turns the radio on anew."""
import signal
import time

import fail_closed
import pytest

from test_supervision_dp import WITHIN_ONE_PASS, edit, gates_closed, gates_open, sas_config

STOP_LIMIT = 10

# state: (SAS on, the proxy's radio flag, gates once settled)
STATES = {
    "radio on": ("1", "1", "open"),
    "radio off": ("1", "0", "closed"),
    "SAS off": ("0", "0", "open"),
}


@pytest.fixture
def router(router):
    yield from fail_closed.watch_daemons(router, fail_closed.DpAuthority)


def settled(r, expected):
    check = gates_open if expected == "open" else gates_closed
    return r.wait_for(lambda: check(r), WITHIN_ONE_PASS)


def started_in(router, state):
    """The daemon settled in the state.  Turning SAS on clears the radio
    flag, so the proxy turns the radio on only after the daemon started."""
    sas_on, radio, expected = STATES[state]
    r = router(sas_config=sas_config(enable_mode=sas_on, usedp="1"))
    r.start_daemon()
    if radio == "1":
        assert settled(r, "closed"), r.log_text()[-2000:]
        # The first pass clears the flag as it enters DP mode: the proxy's "1"
        # comes after it, not merely after a quiet moment of the log.
        assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", WITHIN_ONE_PASS)
        edit(r, "sasConfig", "RadioEnable", "1")
    assert settled(r, expected), r.log_text()[-2000:]
    return r


@pytest.mark.parametrize("state", STATES)
def test_sigterm(router, state):
    r = started_in(router, state)
    began = time.monotonic()
    r.daemon.send_signal(signal.SIGTERM)
    status = r.daemon.wait(timeout=STOP_LIMIT + 5)
    took = time.monotonic() - began
    print(f"\nMEASURE SIGTERM, DP {state} -> exit {status} after {took:.1f} s")
    assert status == 0
    assert took < STOP_LIMIT
    if state == "SAS off":
        assert gates_open(r)
    else:
        assert gates_closed(r)
    assert "[SAS] stop requested.\n" in r.log_text()


@pytest.mark.parametrize("state", STATES)
def test_sigkill_then_restart(router, state):
    """A restart with SAS on clears the radio flag again: closed until the
    proxy turns the radio on anew."""
    r = started_in(router, state)
    r.stop_daemon()
    r.start_daemon()
    if state == "SAS off":
        assert settled(r, "open"), r.log_text()[-2000:]
        return
    assert r.wait_for_log("[SAS] SAS is enabled at start, traffic stays stopped.\n", 15)
    assert r.wait_for(lambda: r.uci_get("sasConfig", "RadioEnable") == "0", WITHIN_ONE_PASS)
    assert settled(r, "closed"), r.log_text()[-2000:]
