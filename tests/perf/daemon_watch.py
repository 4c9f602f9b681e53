"""The measured daemon's process: starting it (under strace or not), finding
its pid, its CPU time, and the sleep between its supervision passes."""
import os
import struct
import subprocess
import time

from perf_setup import CLK_TCK, CLOCK_NANOSLEEP, POLL, TRACED_CALLS


def cpu_seconds(pid):
    """(own, children) CPU seconds of a process, children it has waited for."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # fields[0] is the state (field 3): utime is field 14, so index 11.
    utime, stime, cutime, cstime = (int(v) for v in fields[11:15])
    return (utime + stime) / CLK_TCK, (cutime + cstime) / CLK_TCK


STEADY_STEP_MS = 250


def sleep_request_ms(pid, syscall):
    """The length a clock_nanosleep asks for, read from the sleeper's memory:
    the steady sleep's 250 ms steps, not the command runner's naps of a few
    ms while it waits for a child to exit."""
    try:
        with open(f"/proc/{pid}/mem", "rb") as mem:
            mem.seek(int(syscall[3], 16))
            seconds, nanoseconds = struct.unpack("qq", mem.read(16))
    except (OSError, IndexError, ValueError, struct.error):
        return 0
    return seconds * 1000 + nanoseconds // 1000000


def in_sleep(pid):
    """The main thread sleeping between passes: a plain sleep of a steady
    step, or a wait on the configuration watch (poll of one descriptor for at
    most 250 ms; the command runner's polls wait for the whole time limit).
    None while it is on a CPU: between two steps of the steady sleep it runs
    for a moment, which is no pass."""
    try:
        with open(f"/proc/{pid}/syscall") as f:
            first = f.read().split()
    except OSError:
        return False
    if not first or first[0] == "running":
        return None
    if first[0] == str(CLOCK_NANOSLEEP):
        return sleep_request_ms(pid, first) >= STEADY_STEP_MS
    try:
        return first[0] == str(POLL) and int(first[2], 16) == 1 and int(first[3], 16) <= 250
    except (IndexError, ValueError):
        return False


def find_daemon_pid(spawned, binary, timeout=10):
    """The daemon's pid: the spawned process itself, or (under strace) its child."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        candidates = [spawned.pid]
        for tid in os.listdir(f"/proc/{spawned.pid}/task"):
            try:
                with open(f"/proc/{spawned.pid}/task/{tid}/children") as f:
                    candidates += [int(c) for c in f.read().split()]
            except OSError:
                pass
        for pid in candidates:
            try:
                if os.readlink(f"/proc/{pid}/exe") == binary:
                    return pid
            except OSError:
                pass
        time.sleep(0.05)
    raise RuntimeError("the daemon did not start")


class PassWatch:
    """Notices each start of the main thread's sleep between passes."""

    def __init__(self, pid):
        self.pid = pid
        self.sleeping = bool(in_sleep(pid))

    def wait_next_sleep(self, timeout=60):
        """Returns (wall time, cpu) as soon as a new sleep has begun."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            now = in_sleep(self.pid)
            if now is None:
                now = self.sleeping
            if now and not self.sleeping:
                self.sleeping = True
                return time.time(), cpu_seconds(self.pid)
            self.sleeping = now
            time.sleep(0.05)
        raise RuntimeError("no supervision pass ended in time")


def start_daemon(r, traced, trace_path, out_path):
    argv = [r.cbsd_bin, "-d"]
    if traced:
        argv = ["strace", "-f", "--seccomp-bpf", "-ttt", "-s", "400", "-e",
                f"trace={TRACED_CALLS}", "-o", trace_path] + argv
    with open(out_path, "ab") as out:
        spawned = r.spawn(argv, daemon=True, stdout=out, stderr=subprocess.STDOUT)
    return spawned, find_daemon_pid(spawned, r.cbsd_bin)
