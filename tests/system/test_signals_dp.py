"""SIGTERM and SIGKILL in DP mode, with the proxy's radio on or off and with
SAS off, under the fail-closed sampler.  SIGTERM ends the daemon within 10 s
with status 0; with SAS on nobody holds the radio's permission once the
daemon is gone, so the gates close; with SAS off traffic stays as it is.
After SIGKILL a restart with SAS on starts closed, clears the radio flag and
stays closed until the proxy turns the radio on anew."""
import signal

import pytest

from lab.device_config import dp_config
from lab.timing import WITHIN_ONE_PASS

# state: (SAS on, the proxy's radio flag, gates once settled)
STATES = {
    "radio on": ("1", "1", "open"),
    "radio off": ("1", "0", "closed"),
    "SAS off": ("0", "0", "open"),
}


def settled(r, expected):
    return r.wait_for(r.gates_open if expected == "open" else r.gates_closed, WITHIN_ONE_PASS)


def started_in(dp_router, state):
    """The daemon settled in the state.  Turning SAS on clears the radio
    flag, so the proxy turns the radio on only after the daemon started."""
    sas_on, radio, expected = STATES[state]
    r = dp_router(sas_config=dp_config(enable_mode=sas_on))
    r.start_daemon()
    if radio == "1":
        assert settled(r, "closed"), r.log_text()[-2000:]
        # The first pass clears the flag as it enters DP mode: the proxy's "1"
        # comes after it, not merely after a quiet moment of the log.
        assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", WITHIN_ONE_PASS)
        r.edit("sasConfig", "RadioEnable", "1")
    assert settled(r, expected), r.log_text()[-2000:]
    return r


@pytest.mark.parametrize("state", STATES)
def test_sigterm(dp_router, state):
    r = started_in(dp_router, state)
    r.stop_cleanly(signal.SIGTERM, f"SIGTERM, DP {state}")
    if state == "SAS off":
        assert r.gates_open()
    else:
        assert r.gates_closed()
    assert "[SAS] stop requested.\n" in r.log_text()


@pytest.mark.parametrize("state", STATES)
def test_sigkill_then_restart(dp_router, state):
    """A restart with SAS on clears the radio flag again: closed until the
    proxy turns the radio on anew."""
    r = started_in(dp_router, state)
    r.stop_daemon()
    r.start_daemon()
    if state == "SAS off":
        assert settled(r, "open"), r.log_text()[-2000:]
        return
    assert r.wait_for_log("[SAS] SAS is enabled at start, traffic stays stopped.\n", 15)
    assert r.wait_for(lambda: r.uci_get("sasConfig", "RadioEnable") == "0", WITHIN_ONE_PASS)
    assert settled(r, "closed"), r.log_text()[-2000:]
