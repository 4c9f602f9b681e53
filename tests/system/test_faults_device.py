"""Faults on the device itself while it is authorised and then loses its SAS:
a full or read-only configuration store, a restart with the store still
full, a modem manager that hangs, a crash, a wall clock stepped back or
forward by an hour, also while the SAS keeps answering.  The gates close no
later than transmitExpireTime + 60 s, the SAS sees at most 20
requests a minute, and the configuration survives."""
import os
import time

from faults import FaultRun, authorized_with_short_lead
from test_standalone import gates_closed, lab, pki_dir  # noqa: F401

FAKETIME_LIBRARY = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"


def fault_then_sas_down(lab, name, inject):
    """Authorised, then inject(router), then the SAS goes down for good."""
    r, sim = lab
    authorized_with_short_lead(lab)
    run = FaultRun(name, lab)
    inject(r)
    sim.set_down()
    run.finish(run.wait_closed())


def test_store_full_then_sas_down(lab):
    fault_then_sas_down(lab, "store full (ENOSPC), then SAS down", lambda r: r.fill_store())


def test_store_read_only_then_sas_down(lab):
    fault_then_sas_down(lab, "store read-only, then SAS down", lambda r: r.read_only_store())


def test_restart_with_the_store_still_full_does_not_reopen(lab):
    r, sim = lab
    authorized_with_short_lead(lab)
    run = FaultRun("crash with the store full, SAS down, restart", lab)
    r.fill_store()
    sim.set_down()
    r.stop_daemon()
    r.start_daemon()
    past = run.wait_closed()
    # Nothing can authorise it again: it must stay closed for the rest of the minute.
    deadline = run.started + 60
    while time.time() < deadline:
        assert gates_closed(r)
        time.sleep(1)
    run.finish(past)


def test_modem_manager_hangs_then_sas_down(lab):
    fault_then_sas_down(lab, "modem manager hangs, then SAS down", lambda r: r.hang_tool("ubus"))


def test_crash_while_authorized_then_restart_closes_at_once(lab):
    r, sim = lab
    authorized_with_short_lead(lab)
    run = FaultRun("SIGKILL while Authorized, SAS down, restart", lab)
    sim.set_down()
    r.stop_daemon()
    r.start_daemon()
    assert r.wait_for(lambda: gates_closed(r), 10)
    run.finish(run.wait_closed())


def faked_clock_daemon(lab):
    """An authorised daemon whose wall clock (only its own) moves by the
    offset written with the returned function."""
    r, sim = lab
    clock_file = os.path.join(r.host_path("/tmp"), "lab-faketime.rc")

    def step(offset):
        with open(clock_file, "w") as f:
            f.write(offset + "\n")

    step("+0")
    original = r.start_daemon
    r.start_daemon = lambda *args, **kwargs: original(*args, env={
        "LD_PRELOAD": FAKETIME_LIBRARY, "FAKETIME_TIMESTAMP_FILE": "/tmp/lab-faketime.rc",
        "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"})
    authorized_with_short_lead(lab)
    return step


def test_wall_clock_stepped_forward_an_hour(lab):
    step = faked_clock_daemon(lab)
    run = FaultRun("wall clock stepped forward 1 h, then SAS down", lab)
    step("+1h")
    time.sleep(2 * 4)  # two heartbeats with the stepped clock
    lab[1].set_down()
    run.finish(run.wait_closed())


def test_wall_clock_stepped_back_an_hour(lab):
    step = faked_clock_daemon(lab)
    run = FaultRun("SAS down, then wall clock stepped back 1 h", lab)
    lab[1].set_down()
    step("-1h")
    run.finish(run.wait_closed())


def test_wall_clock_behind_the_sas_while_it_keeps_answering(lab):
    """Each new transmitExpireTime looks an hour away to the daemon; its lead
    is still the 20 s the SAS granted (the reply's own Date), not the cap."""
    step = faked_clock_daemon(lab)
    run = FaultRun("wall clock stepped back 1 h, SAS answering, then SAS down", lab)
    step("-1h")
    before = len(lab[1].requests())
    assert lab[0].wait_for(lambda: len(lab[1].requests()) >= before + 2, 20)
    lab[1].set_down()
    run.finish(run.wait_closed())
