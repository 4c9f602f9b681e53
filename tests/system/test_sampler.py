"""The fail-closed sampler itself: it must fire on what it is there to catch
(a partial opening, flapping, an expired authorisation, a router it cannot
read), and stay quiet while the authority allows traffic."""
import time

import pytest

from lab.device_config import dp_config
from lab.fail_closed import DpAuthority, FailClosedSampler, StandAloneAuthority
from lab.rules import ADD_ETH_DROP, ADD_ICMP_DROP
from sas_sim.replies import transmit_expire_of

REACTION = 0.5


class HandedOut:
    """Stands for the simulator's record of the latest authorisation."""

    def __init__(self, expire):
        self.expire = expire

    def transmit_expire(self):
        return self.expire


def closed_router(router, enable_mode="1", radio_enable="0"):
    """A router without a daemon whose gates are closed by hand."""
    r = router(sas_config=dp_config(enable_mode=enable_mode, radio_enable=radio_enable))
    r.run(f"{ADD_ICMP_DROP}; {ADD_ETH_DROP}", check=True)
    return r


def watch(r, authority, seconds):
    sampler = FailClosedSampler(r, authority, reaction=REACTION)
    sampler.start()
    time.sleep(seconds)
    sampler.stop()
    return sampler


def test_closed_gates_pass(router):
    r = closed_router(router)
    sampler = watch(r, DpAuthority(r), 2)
    assert sampler.problems() == []
    assert sampler.samples >= 4


def test_forwarding_alone_open_is_caught(router):
    r = closed_router(router)
    r.set_ip_forward(1, 0)
    sampler = watch(r, DpAuthority(r), 2)
    assert sampler.violations and sampler.violations[-1][1] == ["forwarding"]
    with pytest.raises(AssertionError, match="gates open without authority"):
        sampler.finish()


def test_a_missing_bridge_drop_is_caught(router):
    r = closed_router(router)
    r.run("ebtables -F BRIDGE_FORWARD", check=True)
    sampler = watch(r, DpAuthority(r), 2)
    assert sampler.violations and sampler.violations[-1][1] == ["bridge"]


def test_flapping_adds_up(router):
    r = closed_router(router)
    sampler = FailClosedSampler(r, DpAuthority(r), reaction=REACTION)
    sampler.start()
    time.sleep(REACTION)
    for _ in range(3):
        r.set_ip_forward(1)
        time.sleep(0.6)
        r.set_ip_forward(0)
        time.sleep(0.6)
    sampler.stop()
    # Three openings of 0.6 s, none long on its own, add up.
    assert 1.0 <= sampler.open_seconds <= 3.0, sampler.open_seconds


def test_radio_enable_allows_open_gates_in_dp_mode(router):
    r = closed_router(router, radio_enable="1")
    r.set_ip_forward(1)
    assert watch(r, DpAuthority(r), 1.5).problems() == []


def test_standalone_gates_close_at_the_latest_transmit_expiry_plus_60_s(router):
    r = closed_router(router)
    r.set_ip_forward(1)
    assert watch(r, StandAloneAuthority(r, HandedOut(time.time() - 50)), 1.5).problems() == []
    assert watch(r, StandAloneAuthority(r, HandedOut(time.time() - 61)), 1.5).violations
    assert watch(r, StandAloneAuthority(r, HandedOut(None)), 1.5).violations


def test_a_router_that_cannot_be_read_fails_the_sampler(router):
    r = closed_router(router)
    sampler = FailClosedSampler(r, DpAuthority(r), reaction=REACTION)
    sampler.start()
    r.close()
    time.sleep(1)
    with pytest.raises(AssertionError, match="could not read the gates"):
        sampler.finish()


def test_a_starved_sampler_fails():
    sampler = FailClosedSampler(None, None)
    sampler.started_at = time.monotonic() - 10
    assert any("only 0 samples" in line for line in sampler.problems())


@pytest.mark.parametrize("body, expected", [
    ('{"heartbeatResponse": [{"transmitExpireTime": "2040-01-02T03:04:05Z",'
     ' "response": {"responseCode": 0}}]}', 2209086245),
    ('{"heartbeatResponse": [{"transmitExpireTime": "2040-01-02T03:04:05Z",'
     ' "response": {"responseCode": 500}}]}', None),
    ('{"heartbeatResponse": [{"transmitExpireTime": "soon",'
     ' "response": {"responseCode": 0}}]}', None),
    ('{"heartbeatResponse": [{"transmitExpireTime": "2040-01-02T03:04:05Z",'
     ' "response": {"responseCode": "0"}}]}', None),
    ('<html>503</html>', None),
    ('{"heartbeatResponse": {}}', None),
])
def test_the_simulator_counts_only_a_heartbeat_success_as_an_authorisation(body, expected):
    assert transmit_expire_of(body.encode()) == expected
