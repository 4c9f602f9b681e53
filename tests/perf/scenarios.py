"""The measured scenarios: a DP daemon (radio on, or SAS off) counted pass by
pass, and a StandAlone daemon kept Authorized by the simulator, each run
traced and plain side by side."""
import collections
import os
import threading
import time

from daemon_watch import PassWatch, cpu_seconds, start_daemon
from perf_setup import SAS_CONFIG, STARTUP_SECONDS, VirtualRouter, sas_config, simulator_in
from trace_summary import read_trace, summarize


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
    # Between passes (its log settled): with a dozen routers side by side a
    # pass can take seconds, and a write in its middle is lost.
    r.edit("sasConfig", "RadioEnable", "1")
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
    with VirtualRouter(sas_config=sas_config("0", "0", "0"), cbsd_bin=run.cbsd) as r:
        sim = simulator_in(r, pki_dir, run.workdir, "cbsd-perf-sim-")
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
        sim.process.terminate()
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
