"""A SAS that is down, slow, wrong or refusing while the device is
authorised: the gates close no later than transmitExpireTime + 60 s, the SAS
sees at most 20 requests a minute, the configuration stays whole.  Checked
from outside: the gates as the kernel shows them, the connections as the
simulator counted them."""
import pytest

from faults import FaultRun, authorized_with_short_lead


def test_sas_down(lab):
    authorized_with_short_lead(lab)
    run = FaultRun("SAS down", lab)
    lab.sim.set_down()
    run.finish(run.wait_closed())


def test_sas_slower_than_the_deadline(lab):
    authorized_with_short_lead(lab)
    run = FaultRun("SAS answers after 45 s", lab)
    lab.sim.set_default("heartbeat", delay=45)
    run.finish(run.wait_closed())


def test_html_503_page(lab):
    authorized_with_short_lead(lab)
    run = FaultRun("HTTP 503 with an HTML page", lab)
    lab.sim.set_default("heartbeat", html_error=True, status=503)
    run.finish(run.wait_closed())


@pytest.mark.parametrize("code", [500, 502, 105])
def test_heartbeat_refused_every_time(lab, code):
    authorized_with_short_lead(lab)
    run = FaultRun(f"heartbeat answered {code} every time", lab)
    sim = lab.sim
    sim.set_default("heartbeat", responseCode=code)
    run.finish(run.wait_closed())
