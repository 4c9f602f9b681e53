"""procd's instance watchdog under OpenWrt's real procd (../shared/openwrt):
the daemon started from the package's init script pings procd while its
supervision loop and its transmit guard make progress.  Stopped as a whole
(SIGSTOP), or with only its loop or only its guard stuck while the bus thread
still runs, it is stopped and started again by procd, and the new instance
closes the gates first; a daemon that works is never restarted.

A single thread is stuck for real by ptrace: PTRACE_INTERRUPT holds that
thread alone in a ptrace-stop, as a deadlock would, while the others run
on.  (A hanging tool is no stall: every command is cut at its time limit.)"""
import ctypes
import errno
import os
import re
import signal
import subprocess
import time

import pytest

from lab import openwrt_bus
from lab.openwrt_procd import (gates_closed, open_gates_behind_the_daemon, rc, running_pid,
                               sas_log, service_instance)

# The init script's numbers.
WATCHDOG_TIMEOUT = 30
TERM_TIMEOUT = 15
# The daemon's: its ping period and how long the loop and the guard may go
# without a step before they count as stalled.
PING_PERIOD = 5
LOOP_STALL = 45
GUARD_STALL = 15
# What the machine may add to a bound (scheduling, procd's own turn, start-up).
SLACK = 8

WATCHED = ("[SAS] procd's watchdog watches cbsd/instance1 (30 s): fed every 5 s while the "
           "supervision loop and the transmit guard make progress.\n")
STARTED_CLOSED = "[SAS] SAS is enabled at start, traffic stays stopped.\n"

PTRACE_SEIZE = 0x4206
PTRACE_INTERRUPT = 0x4207
WALL = 0x40000000  # __WALL: wait for a traced thread that is not a process of ours


def has_libubus(binary):
    needed = subprocess.run(["readelf", "-d", binary], capture_output=True, text=True).stdout
    return "libubus.so" in needed


@pytest.fixture
def watched(openwrt_procd, cbsd_bin):
    """The daemon under procd with SAS on (StandAlone, no SAS reachable, so
    its gates stay closed), once it knows that procd watches it."""
    if not has_libubus(cbsd_bin):
        pytest.skip("the daemon is built without libubus: nothing feeds procd's watchdog")
    bus = openwrt_procd
    assert bus.run(["sh", "-c", "uci set sas.config.enableMode=1; uci commit sas"]).returncode == 0
    assert rc(bus, "start").returncode == 0
    assert openwrt_bus.wait_for(lambda: running_pid(bus) is not None, 10)
    assert openwrt_bus.wait_for(lambda: WATCHED in sas_log(bus), 3 * PING_PERIOD)
    assert openwrt_bus.wait_for(lambda: gates_closed(bus), 10)
    yield bus
    rc(bus, "stop")


def count_pings(monitor_text):
    """The daemon's pings as ubusd received them (`ubus monitor`)."""
    return sum(1 for line in monitor_text.splitlines()
               if line.startswith("<-") and '"method":"watchdog"' in line)


def thread_id(pid, name):
    for tid in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{tid}/comm", encoding="utf-8") as comm:
            if comm.read().strip() == name:
                return int(tid)
    raise AssertionError(f"no thread {name} in {pid}")


class ThreadStall:
    """Holds one thread of another process in a ptrace-stop; the others run
    on.  The tracer must collect the thread once the process ends, or procd
    would never hear of the end."""
    libc = ctypes.CDLL(None, use_errno=True)

    def __init__(self, tid):
        self.tid = tid
        self.libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p,
                                     ctypes.c_void_p]
        for request in (PTRACE_SEIZE, PTRACE_INTERRUPT):
            if self.libc.ptrace(request, tid, None, None) != 0:
                raise OSError(ctypes.get_errno(), f"ptrace {request:#x} of {tid}")
        self.ended = False

    def state(self):
        with open(f"/proc/{self.tid}/stat", encoding="utf-8") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0]

    def collect(self):
        """True once the thread has ended (and is collected)."""
        while not self.ended:
            try:
                done, _ = os.waitpid(self.tid, os.WNOHANG | WALL)
            except ChildProcessError:
                self.ended = True
                break
            if done == 0:
                break
            # A stop report of the interrupt itself: the thread stays held.
            if not os.path.exists(f"/proc/{self.tid}"):
                self.ended = True
        return self.ended


def wait_for_new_instance(bus, old, limit, started, stall=None):
    """Seconds from started (monotonic) until procd runs a new instance
    (None: not within limit)."""
    while time.monotonic() - started < limit:
        if stall:
            stall.collect()
        pid = running_pid(bus)
        if pid not in (None, old):
            return time.monotonic() - started
        time.sleep(0.1)
    return None


def assert_new_instance_closed_the_gates_first(bus):
    """The new instance's start-up closed the gates (left open behind the old
    one's back) before anything else."""
    assert openwrt_bus.wait_for(lambda: sas_log(bus).count(STARTED_CLOSED) == 2, 10)
    assert openwrt_bus.wait_for(lambda: gates_closed(bus), 5)
    new_start = sas_log(bus).rsplit("[SAS] SAS Version", 1)[1]
    assert "[SAS] device has been authorized" not in new_start
    assert "device network has been recovered" not in new_start


def test_a_working_daemon_is_never_restarted_and_pings_every_five_seconds(watched, tmp_path):
    bus = watched
    pid = running_pid(bus)
    with open(tmp_path / "monitor", "wb") as out:
        monitor = bus.spawn(["ubus", "monitor", "-m", "invoke"], stdout=out,
                            stderr=subprocess.DEVNULL)
        watched_from = time.monotonic()
        # Longer than procd's timeout and more: any missing feed shows.
        time.sleep(WATCHDOG_TIMEOUT + 2 * PING_PERIOD)
        elapsed = time.monotonic() - watched_from
        monitor.send_signal(signal.SIGTERM)
        monitor.wait(timeout=5)
    assert running_pid(bus) == pid
    pings = count_pings((tmp_path / "monitor").read_text())
    expected = elapsed / PING_PERIOD
    print(f"pings: {pings} in {elapsed:.1f} s = {pings * 3600 / elapsed:.0f} an hour")
    assert expected - 2 <= pings <= expected + 1
    assert "no progress" not in sas_log(bus)
    assert service_instance(bus)["watchdog"] == {"mode": 1, "timeout": WATCHDOG_TIMEOUT}


def test_a_stopped_daemon_is_killed_and_started_again_with_its_gates_closed_first(watched):
    bus = watched
    old = running_pid(bus)
    stopped = time.monotonic()
    os.kill(old, signal.SIGSTOP)
    # As a hung daemon may leave them: open.
    open_gates_behind_the_daemon(bus)
    # procd's timer runs out 25 to 30 s after the stop (the last ping came at
    # most 5 s before it); SIGTERM stays pending on a stopped process, and
    # procd sends SIGKILL term_timeout later, then starts the daemon at once.
    took = wait_for_new_instance(bus, old, WATCHDOG_TIMEOUT + TERM_TIMEOUT + SLACK, stopped)
    print(f"SIGSTOP to new instance: {took} s")
    assert took is not None
    assert took >= WATCHDOG_TIMEOUT - PING_PERIOD + TERM_TIMEOUT - 1
    assert not os.path.exists(f"/proc/{old}")
    assert_new_instance_closed_the_gates_first(bus)


def stall_and_wait(bus, name, bound):
    """Holds the daemon's thread `name` and returns the seconds until procd
    runs a new instance, with what the old one logged."""
    old = running_pid(bus)
    stalled = time.monotonic()
    stall = ThreadStall(old if name == "main" else thread_id(old, "cbsd-guard"))
    try:
        assert openwrt_bus.wait_for(lambda: stall.state() == "t", 2)
        open_gates_behind_the_daemon(bus)
        # Pings go on until the thread's mark is older than its bound, then
        # procd waits its timeout; the SIGTERM stop takes a few seconds.
        took = wait_for_new_instance(bus, old, bound + PING_PERIOD + WATCHDOG_TIMEOUT + 10 + SLACK,
                                     stalled, stall)
    finally:
        if not stall.collect():
            os.kill(old, signal.SIGKILL)
            stall.collect()
    return took


def test_a_daemon_whose_loop_is_stuck_is_restarted_with_its_gates_closed_first(watched):
    bus = watched
    took = stall_and_wait(bus, "main", LOOP_STALL)
    print(f"loop stuck to new instance: {took} s")
    assert took is not None
    # The last ping came while the mark was at most 45 s old, so at least
    # 40 s after the stall; procd waits 30 s more.
    assert took >= LOOP_STALL - PING_PERIOD + WATCHDOG_TIMEOUT - 1
    log = sas_log(bus)
    assert re.search(r"\[SAS\] the supervision loop made no progress for 4[5-9] s, procd's "
                     r"watchdog is no longer fed\.\n", log), log
    assert_new_instance_closed_the_gates_first(bus)


def test_a_daemon_whose_guard_is_stuck_is_restarted_with_its_gates_closed_first(watched):
    bus = watched
    took = stall_and_wait(bus, "guard", GUARD_STALL)
    print(f"guard stuck to new instance: {took} s")
    assert took is not None
    assert took >= GUARD_STALL - PING_PERIOD + WATCHDOG_TIMEOUT - 1
    log = sas_log(bus)
    assert re.search(r"\[SAS\] the transmit guard made no progress for (1[5-9]|20) s, procd's "
                     r"watchdog is no longer fed\.\n", log), log
    assert_new_instance_closed_the_gates_first(bus)
