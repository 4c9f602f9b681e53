"""Faults on the device itself while it is authorised and then loses its SAS:
a full or read-only configuration store, a restart with the store still
full, a modem manager that hangs, a crash, a wall clock stepped back or
forward by an hour, also while the SAS keeps answering.  The gates close no
later than transmitExpireTime + 60 s, the SAS sees at most 20
requests a minute, and the configuration survives."""
import os
import time

from faults import FaultRun, authorized_with_short_lead

FAKETIME_LIBRARY = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"


def fault_and_sas_down(lab, name, inject=lambda r: None):
    """Authorised, then inject(router), then the SAS goes down for good;
    returns the FaultRun measuring from the injection."""
    authorized_with_short_lead(lab)
    run = FaultRun(name, lab)
    inject(lab.r)
    lab.sim.set_down()
    return run


def fault_then_sas_down(lab, name, inject):
    run = fault_and_sas_down(lab, name, inject)
    run.finish(run.wait_closed())


def restarted_after(lab, name, inject=lambda r: None):
    """fault_and_sas_down, then a crash (SIGKILL) and a restart of the daemon."""
    run = fault_and_sas_down(lab, name, inject)
    lab.r.stop_daemon()
    lab.r.start_daemon()
    return run


def test_store_full_then_sas_down(lab):
    fault_then_sas_down(lab, "store full (ENOSPC), then SAS down", lambda r: r.fill_store())


def test_store_read_only_then_sas_down(lab):
    fault_then_sas_down(lab, "store read-only, then SAS down", lambda r: r.read_only_store())


def test_restart_with_the_store_still_full_does_not_reopen(lab):
    r = lab.r
    run = restarted_after(lab, "crash with the store full, SAS down, restart",
                          lambda r: r.fill_store())
    past = run.wait_closed()
    # Nothing can authorise it again: it must stay closed for the rest of the minute.
    deadline = run.started + 60
    while time.time() < deadline:
        assert r.gates_closed()
        time.sleep(1)
    run.finish(past)


def test_modem_manager_hangs_then_sas_down(lab):
    fault_then_sas_down(lab, "modem manager hangs, then SAS down", lambda r: r.hang_tool("ubus"))


def test_crash_while_authorized_then_restart_closes_at_once(lab):
    run = restarted_after(lab, "SIGKILL while Authorized, SAS down, restart")
    assert lab.r.wait_for(lab.r.gates_closed, 10)
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
    lab.sim.set_down()
    run.finish(run.wait_closed())


def test_wall_clock_stepped_back_an_hour(lab):
    step = faked_clock_daemon(lab)
    run = FaultRun("SAS down, then wall clock stepped back 1 h", lab)
    lab.sim.set_down()
    step("-1h")
    run.finish(run.wait_closed())


def test_wall_clock_behind_the_sas_while_it_keeps_answering(lab):
    """Each new transmitExpireTime looks an hour away to the daemon; its lead
    is still the 20 s the SAS granted (the reply's own Date), not the cap."""
    step = faked_clock_daemon(lab)
    run = FaultRun("wall clock stepped back 1 h, SAS answering, then SAS down", lab)
    step("-1h")
    before = len(lab.sim.requests())
    assert lab.r.wait_for(lambda: len(lab.sim.requests()) >= before + 2, 20)
    lab.sim.set_down()
    run.finish(run.wait_closed())
