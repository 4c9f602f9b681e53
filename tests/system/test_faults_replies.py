"""Heartbeat "successes" the daemon must not take as an authorisation while
it is authorised: the gates close no later than transmitExpireTime + 60 s,
the SAS sees at most 20 requests a minute, the configuration stays whole."""
import pytest

from faults import FaultRun, authorized_with_short_lead


@pytest.mark.parametrize("name, spec", [
    ("success without transmitExpireTime", {"remove": ["transmitExpireTime"]}),
    ("success with responseCode \"0\"", {"set": {"response": {"responseCode": "0"}}}),
])
def test_malformed_heartbeat_success(lab, name, spec):
    authorized_with_short_lead(lab)
    run = FaultRun(name, lab)
    lab.sim.set_default("heartbeat", **spec)
    run.finish(run.wait_closed())
