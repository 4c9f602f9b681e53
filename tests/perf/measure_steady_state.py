#!/usr/bin/python3
"""Measures what the daemon costs while nothing changes, inside a virtual router.

Scenarios (each in its own virtual router, see tests/lab/README.md):

  dp-radio-on    SAS on, DP mode, RadioEnable 1: every gate open, nothing changing.
  sas-off        SAS off: the loop only keeps the network open.
  standalone     StandAlone against the SAS simulator (tests/sas_sim) running in the
                 router, granting with heartbeatInterval 60 and answering every
                 heartbeat with success and a transmitExpireTime 240 s ahead; the
                 device stays Authorized for the whole window.

Each scenario runs twice: once under strace, for the counts, and once without,
for the CPU time (strace's stops would inflate it).  The two runs of a scenario
run side by side, each in its own router.

How it counts:
  * passes: the supervision loop's main thread sleeping in clock_nanosleep,
    read from /proc/<pid>/syscall every 0.05 s; a pass is the time from one
    sleep's start to the next.  The window of the DP scenarios starts and ends
    during a sleep, so the CPU samples taken there fall exactly on pass
    boundaries.
  * processes started: successful execve calls of the daemon and everything
    it starts (strace -f --seccomp-bpf -e trace=execve,openat,rename,...);
    forks without an exec are counted separately (clone/clone3/fork/vfork
    without CLONE_THREAD).
  * loads of /etc/config/sas: openat of that path, split into read-only opens
    (reads) and read-write opens (the store's locked read-modify-write).
  * writes of /etc/config/sas: rename/renameat/renameat2 onto that path.
  * CPU: utime+stime+cutime+cstime of the daemon from /proc/<pid>/stat (the
    children it waits for, popen'd and system()'d shells and what they run,
    are included through cutime/cstime), in the run without strace.
  * heartbeats: requests the simulator recorded in the window.

The router's stand-ins (tests/lab/bin: ubus and logger are Python, ebtables a
bash wrapper around the real one) cost far more CPU than the router's own
small binaries; the table lists which programs run so the cost can be
attributed, and a short benchmark of each steady-pass command line is printed.

Usage (as root, after `cmake --build build --target cbsd`):

  /usr/bin/python3 tests/perf/measure_steady_state.py [--passes 12]
      [--standalone-seconds 600] [--only dp|standalone] [--cbsd build/cbsd]
      [--keep DIR]

--keep keeps the strace logs and the daemon logs in DIR.  A full run takes
about 2 minutes for the DP part plus the StandAlone duration plus a minute.
"""
import argparse
import collections
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO_DIR = os.path.dirname(TESTS_DIR)
sys.path.insert(0, TESTS_DIR)
sys.path.insert(0, os.path.join(TESTS_DIR, "sas_sim"))

import pki  # noqa: E402
from client import SasSim  # noqa: E402
from lab import device_config  # noqa: E402
from lab.router import VirtualRouter  # noqa: E402

SAS_CONFIG = "/etc/config/sas"
CACHE = "/tmp/sas_cache"  # tmpfs on the router, not flash
CLOCK_NANOSLEEP = 230  # x86_64
POLL = 7  # x86_64
STARTUP_SECONDS = 8
TRACED_CALLS = "execve,openat,rename,renameat,renameat2,clone,clone3,fork,vfork"
CLK_TCK = os.sysconf("SC_CLK_TCK")
HEARTBEAT_INTERVAL = 60
TRANSMIT_SECONDS = 240


def sas_config(enable_mode, usedp, radio_enable, address="https://127.0.0.1:1/v1.2"):
    return device_config.sas_config(address, enable_mode=enable_mode, usedp=usedp,
                                    radio_enable=radio_enable)


# ----- the daemon's process ----------------------------------------------------

def cpu_seconds(pid):
    """(own, children) CPU seconds of a process, children it has waited for."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # fields[0] is the state (field 3): utime is field 14, so index 11.
    utime, stime, cutime, cstime = (int(v) for v in fields[11:15])
    return (utime + stime) / CLK_TCK, (cutime + cstime) / CLK_TCK


def in_sleep(pid):
    """The main thread sleeping between passes: a plain sleep, or a wait on
    the configuration watch (poll of one descriptor for at most 250 ms; the
    command runner's polls wait for the whole time limit)."""
    try:
        with open(f"/proc/{pid}/syscall") as f:
            first = f.read().split()
    except OSError:
        return False
    if not first:
        return False
    if first[0] == str(CLOCK_NANOSLEEP):
        return True
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
        self.sleeping = in_sleep(pid)

    def wait_next_sleep(self, timeout=60):
        """Returns (wall time, cpu) as soon as a new sleep has begun."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            now = in_sleep(self.pid)
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


# ----- reading the strace log --------------------------------------------------

LINE = re.compile(r"^(\d+)\s+(\d+\.\d+)\s+(.*)$")
RESUMED = re.compile(r"^<\.\.\. (\w+) resumed>(.*)$")
QUOTED = re.compile(r'"((?:[^"\\]|\\.)*)"')
TEMPORARY = re.compile(r"uci-\w{6}$")

Event = collections.namedtuple("Event", "pid time call body result")


def read_trace(path):
    """Complete calls of an `strace -f -ttt` log (unfinished/resumed joined)."""
    pending = {}
    events = []
    with open(path, errors="replace") as f:
        for raw in f:
            match = LINE.match(raw.rstrip("\n"))
            if not match:
                continue
            pid, stamp, body = int(match[1]), float(match[2]), match[3]
            if body.startswith(("+++", "---")):
                continue
            resumed = RESUMED.match(body)
            if resumed:
                if pid not in pending:
                    continue
                stamp, head = pending.pop(pid)
                body = head + resumed[2]
            elif body.endswith("<unfinished ...>"):
                pending[pid] = (stamp, body[: -len("<unfinished ...>")])
                continue
            call = body.split("(", 1)[0]
            result = body.rsplit(") = ", 1)[1] if ") = " in body else ""
            events.append(Event(pid, stamp, call, body, result))
    return events


def ok(event):
    return event.result.split(" ")[0].lstrip("-").isdigit() and not event.result.startswith("-")


def program_of(event):
    """What an execve ran: the shell's command line for `sh -c`, else argv."""
    strings = QUOTED.findall(event.body)
    argv = strings[1:]
    if len(argv) >= 3 and argv[1] == "-c" and os.path.basename(strings[0]) == "sh":
        return "sh -c '" + argv[2].encode().decode("unicode_escape") + "'"
    return strings[0] + (" " + " ".join(argv[1:3]) if len(argv) > 1 else "")


def summarize(events, start, end, daemon_pid):
    """Counts of the traced calls between two wall times."""
    window = [e for e in events if start <= e.time < end]
    daemon_threads = {daemon_pid} | {
        int(e.result.split()[0]) for e in events
        if e.call.startswith("clone") and "CLONE_THREAD" in e.body and ok(e)}
    execs = [e for e in window if e.call == "execve" and ok(e)]
    forks = [e for e in window if e.call in ("clone", "clone3", "fork", "vfork") and ok(e)
             and "CLONE_THREAD" not in e.body]
    sas_opens = [e for e in window if e.call == "openat" and f'"{SAS_CONFIG}"' in e.body and ok(e)]
    sas_reads = [e for e in sas_opens if "O_RDONLY" in e.body]
    renames = [e for e in window if e.call.startswith("rename") and ok(e)
               and QUOTED.findall(e.body)[-1:] == [SAS_CONFIG]]
    daemon_opens = collections.Counter(
        TEMPORARY.sub("uci-XXXXXX", QUOTED.findall(e.body)[0]) for e in window
        if e.call == "openat" and e.pid in daemon_threads and QUOTED.findall(e.body))
    return {
        "execs": len(execs),
        "forks": len(forks),
        "sas_reads": len(sas_reads),
        "sas_rdwr": len(sas_opens) - len(sas_reads),
        "sas_writes": len(renames),
        "cache_writes": sum(1 for e in window if e.call.startswith("rename") and ok(e)
                            and QUOTED.findall(e.body)[-1:] == [CACHE]),
        "programs": collections.Counter(program_of(e) for e in execs),
        "daemon_opens": daemon_opens,
    }


# ----- scenarios ---------------------------------------------------------------

class Run:
    """One daemon in one router, traced or not."""

    def __init__(self, name, traced, workdir, cbsd):
        self.name, self.traced, self.workdir, self.cbsd = name, traced, workdir, cbsd
        tag = f"{name}-{'traced' if traced else 'plain'}"
        self.trace_path = os.path.join(workdir, f"{tag}.strace")
        self.out_path = os.path.join(workdir, f"{tag}.out")
        self.log_path = os.path.join(workdir, f"{tag}.sas.log")
        self.result = {}
        self.error = None

    def keep_log(self, r):
        text = r.log_text()
        if text:
            with open(self.log_path, "w") as f:
                f.write(text)


def switch_radio_on(r):
    """The proxy's part: RadioEnable 1 once the daemon is in DP mode (entering
    it clears the flag)."""
    if not r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", 30):
        raise RuntimeError("the daemon did not enter DP mode")
    time.sleep(1)
    r.uci_set("sasConfig", "RadioEnable", "1")
    if not r.wait_for_log("[SAS] sas radio enable.\n", 30):
        raise RuntimeError("the daemon did not notice RadioEnable 1")


def dp_run(run, config, passes, radio_on, warmup_passes=2):
    with VirtualRouter(sas_config=config, cbsd_bin=run.cbsd) as r:
        spawned, pid = start_daemon(r, run.traced, run.trace_path, run.out_path)
        if radio_on:
            switch_radio_on(r)
        # Start-up waits for its commands in short sleeps too: let it end
        # before passes are counted.
        time.sleep(STARTUP_SECONDS)
        watch = PassWatch(pid)
        for _ in range(warmup_passes):
            watch.wait_next_sleep()
        marks = [watch.wait_next_sleep()]
        for _ in range(passes):
            marks.append(watch.wait_next_sleep())
        run.keep_log(r)
        state = (r.uci_get("config", "enableMode"), r.uci_get("sasConfig", "RadioEnable"),
                 r.ip_forward())
        spawned.kill()
        spawned.wait()
        start, end = marks[0][0], marks[-1][0]
        (own0, kids0), (own1, kids1) = marks[0][1], marks[-1][1]
        run.result = {"passes": passes, "seconds": end - start, "state": state,
                      "cpu_own": (own1 - own0) / passes, "cpu_children": (kids1 - kids0) / passes}
        if run.traced:
            events = read_trace(run.trace_path)
            run.result.update(summarize(events, start, end, pid))
            per_pass = [summarize(events, a[0], b[0], pid)["execs"]
                        for a, b in zip(marks, marks[1:])]
            run.result["execs_per_pass"] = per_pass
            run.result["bench"] = bench_commands(r, run.result["programs"])


def bench_commands(r, programs, repeats=5):
    """CPU seconds (children of this script: nsenter + sh + the command) per
    run of every `sh -c` command line seen, minus an empty command line."""
    def cost(cmd):
        before = os.times()
        for _ in range(repeats):
            r.run(cmd)
        after = os.times()
        return ((after.children_user + after.children_system)
                - (before.children_user + before.children_system)) / repeats
    base = cost("true")
    costs = {}
    for program in programs:
        if program.startswith("sh -c '"):
            costs[program] = max(0.0, cost(program[len("sh -c '"):-1]) - base)
    return costs


def standalone_run(run, pki_dir, seconds):
    control_dir = tempfile.mkdtemp(prefix="cbsd-perf-sim-", dir=run.workdir)
    with VirtualRouter(sas_config=sas_config("0", "0", "0"), cbsd_bin=run.cbsd) as r:
        for sub, name, source in (("clientCert", "cbsd.pem", "client.pem"),
                                  ("clientKey", "cbsd.key", "client.key"),
                                  ("serverCA", "ca.pem", "ca.pem")):
            with open(os.path.join(pki_dir, source)) as f:
                r.write_file(f"/root/sas/cert/{sub}/{name}", f.read(), mode=0o600)
        SasSim.prepare(control_dir)
        proc = r.spawn(SasSim.command(control_dir, pki_dir, extra=[
            "--heartbeat-interval", str(HEARTBEAT_INTERVAL),
            "--transmit-seconds", str(TRANSMIT_SECONDS)]))
        sim = SasSim(control_dir, proc)
        sim.wait_ready()
        r.write_file(SAS_CONFIG, sas_config("1", "0", "0", address=sim.url))
        spawned, pid = start_daemon(r, run.traced, run.trace_path, run.out_path)
        if not r.wait_for(lambda: r.uci_get("operation", "status") == "Authorized"
                          and r.uci_get("sasConfig", "RadioEnable") == "1", 90):
            raise RuntimeError(f"{run.name}: never Authorized:\n{r.log_text()[-2000:]}")
        # Let the pass that follows the authorisation open the gates.
        watch = PassWatch(pid)
        for _ in range(2):
            watch.wait_next_sleep()
        start, (own0, kids0) = time.time(), cpu_seconds(pid)
        deadline = time.monotonic() + seconds
        statuses = collections.Counter()
        while time.monotonic() < deadline:
            statuses[r.uci_get("operation", "status")] += 1
            time.sleep(min(10, max(0, deadline - time.monotonic())))
        end, (own1, kids1) = time.time(), cpu_seconds(pid)
        beats = [q for q in sim.requests() if start <= q["time"] < end]
        run.keep_log(r)
        spawned.kill()
        spawned.wait()
        proc.terminate()
        hours = (end - start) / 3600
        run.result = {
            "seconds": end - start, "hours": hours,
            "cpu_own": (own1 - own0) / hours, "cpu_children": (kids1 - kids0) / hours,
            "heartbeats": sum(1 for q in beats if q["endpoint"] == "heartbeat"),
            "other_requests": collections.Counter(
                q["endpoint"] for q in beats if q["endpoint"] != "heartbeat"),
            "statuses": dict(statuses),
        }
        if run.traced:
            counts = summarize(read_trace(run.trace_path), start, end, pid)
            run.result.update(counts)


def run_pair(target, *args):
    """Runs the traced and the plain run of a scenario side by side."""
    runs = args[0]
    threads = []
    for run in runs:
        def body(run=run):
            try:
                target(run, *args[1:])
            except Exception as exc:  # reported in the summary
                run.error = f"{type(exc).__name__}: {exc}"
        threads.append(threading.Thread(target=body))
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return runs


# ----- report ------------------------------------------------------------------

def merged(runs):
    traced = next(r for r in runs if r.traced)
    plain = next(r for r in runs if not r.traced)
    for run in runs:
        if run.error:
            print(f"!! {run.name} ({'traced' if run.traced else 'plain'}) failed: {run.error}")
    return traced.result, plain.result


def print_programs(result, divisor, unit):
    print(f"    processes started ({unit}), by program (execve):")
    for program, count in result.get("programs", {}).most_common():
        print(f"      {count / divisor:8.2f}  {program}")
    bench = result.get("bench")
    if bench:
        print("    CPU of one run of each command line (measured alone, ms):")
        for program, seconds in sorted(bench.items(), key=lambda kv: -kv[1]):
            print(f"      {seconds * 1000:8.1f}  {program}")
    opens = result.get("daemon_opens")
    if opens:
        print(f"    files the daemon itself opened ({unit}):")
        for path, count in opens.most_common(12):
            print(f"      {count / divisor:8.2f}  {path}")


def report_dp(name, runs):
    traced, plain = merged(runs)
    if not traced or not plain:
        return
    n = traced["passes"]
    print(f"\n== {name}: {n} steady passes ({traced['seconds']:.1f} s traced, "
          f"{plain['seconds']:.1f} s plain)")
    print(f"  enableMode, RadioEnable, ip_forward at the end: {traced['state']}")
    print(f"  {'per pass':<44}{'value':>10}")
    rows = [
        ("processes started (execve)", traced["execs"] / n),
        ("  min / max over passes", f"{min(traced['execs_per_pass'])} / {max(traced['execs_per_pass'])}"),
        ("forks (clone without CLONE_THREAD)", traced["forks"] / n),
        ("/etc/config/sas opened read-only (loads)", traced["sas_reads"] / n),
        ("/etc/config/sas opened read-write", traced["sas_rdwr"] / n),
        ("/etc/config/sas replaced (rename)", traced["sas_writes"] / n),
        ("/tmp/sas_cache replaced (rename)", traced["cache_writes"] / n),
        ("CPU ms, daemon itself (plain run)", plain["cpu_own"] * 1000),
        ("CPU ms, its children (plain run)", plain["cpu_children"] * 1000),
        ("CPU ms, total (plain run)", (plain["cpu_own"] + plain["cpu_children"]) * 1000),
        ("CPU ms, total (traced run)", (traced["cpu_own"] + traced["cpu_children"]) * 1000),
    ]
    for label, value in rows:
        print(f"  {label:<44}{value:>10.2f}" if isinstance(value, float) else f"  {label:<44}{value:>10}")
    print_programs(traced, n, "per pass")


def report_standalone(runs):
    traced, plain = merged(runs)
    if not traced or not plain:
        return
    h = traced["hours"]
    print(f"\n== StandAlone Authorized, heartbeatInterval {HEARTBEAT_INTERVAL}: "
          f"{traced['seconds']:.0f} s traced, {plain['seconds']:.0f} s plain")
    rows = [
        ("heartbeats seen by the simulator (traced run)", f"{traced['heartbeats']}"),
        ("heartbeats seen by the simulator (plain run)", f"{plain['heartbeats']}"),
        ("expected (duration / 60)", f"{traced['seconds'] / HEARTBEAT_INTERVAL:.1f}"),
        ("other requests in the window", f"{dict(traced['other_requests']) or '-'}"),
        ("status samples", f"{traced['statuses']}"),
        ("CPU s per hour, daemon itself (plain run)", f"{plain['cpu_own']:.2f}"),
        ("CPU s per hour, its children (plain run)", f"{plain['cpu_children']:.2f}"),
        ("CPU s per hour, total (plain run)", f"{plain['cpu_own'] + plain['cpu_children']:.2f}"),
        ("CPU s per hour, total (traced run)", f"{traced['cpu_own'] + traced['cpu_children']:.2f}"),
        ("processes started per hour (execve)", f"{traced['execs'] / h:.0f}"),
        ("forks per hour", f"{traced['forks'] / h:.0f}"),
        ("/etc/config/sas loads per hour (read-only opens)", f"{traced['sas_reads'] / h:.0f}"),
        ("/etc/config/sas read-write opens per hour", f"{traced['sas_rdwr'] / h:.0f}"),
        ("/etc/config/sas writes per hour (renames onto it)", f"{traced['sas_writes'] / h:.0f}"),
        ("/tmp/sas_cache writes per hour (renames onto it)", f"{traced['cache_writes'] / h:.0f}"),
    ]
    for label, value in rows:
        print(f"  {label:<52}{value:>14}")
    print_programs(traced, h, "per hour")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--passes", type=int, default=12)
    parser.add_argument("--standalone-seconds", type=float, default=600)
    parser.add_argument("--only", choices=("dp", "standalone"))
    parser.add_argument("--cbsd", default=os.environ.get("CBSD_BIN")
                        or os.path.join(REPO_DIR, "build", "cbsd"))
    parser.add_argument("--keep", help="directory for the strace and daemon logs")
    parser.add_argument("--json", help="also write every scenario's results to this file")
    args = parser.parse_args()
    cbsd = os.path.abspath(args.cbsd)
    if not os.access(cbsd, os.X_OK):
        sys.exit(f"no daemon at {cbsd}: build the cbsd target or give --cbsd")
    if not shutil.which("strace"):
        sys.exit("strace is missing: apt-get install strace")
    # Inside the router /tmp is private: keep the logs and the PKI in the build tree.
    workdir = args.keep or tempfile.mkdtemp(prefix="cbsd-perf-", dir=os.path.dirname(cbsd))
    os.makedirs(workdir, exist_ok=True)
    workdir = os.path.abspath(workdir)

    def pair(name):
        return [Run(name, True, workdir, cbsd), Run(name, False, workdir, cbsd)]

    standalone = None
    if args.only != "dp":
        pki_dir = pki.generate(os.path.join(workdir, "pki"))
        standalone = pair("standalone")
        holder = threading.Thread(target=run_pair,
                                  args=(standalone_run, standalone, pki_dir, args.standalone_seconds))
        holder.start()
    dp_results = []
    if args.only != "standalone":
        for name, config, radio_on in (
                ("SAS on, DP mode, radio on", sas_config("1", "1", "0"), True),
                ("SAS off", sas_config("0", "1", "0"), False)):
            dp_results.append((name, run_pair(dp_run, pair(name.split(",")[0].replace(" ", "-")),
                                              config, args.passes, radio_on)))
            report_dp(name, dp_results[-1][1])
            sys.stdout.flush()
    if standalone:
        holder.join()
        report_standalone(standalone)
    if args.json:
        everything = {name: {("traced" if r.traced else "plain"): r.result for r in runs}
                      for name, runs in dp_results}
        if standalone:
            everything["standalone"] = {("traced" if r.traced else "plain"): r.result
                                        for r in standalone}
        with open(args.json, "w") as f:
            json.dump(everything, f, indent=1, default=str)
    print(f"\nlogs: {workdir}" if args.keep else "")
    if not args.keep:
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
