#!/usr/bin/python3
"""The daemon's two ways to ask the modem, side by side in routers that run
OpenWrt's real ubusd with the lab's ucode modem manager (VirtualRouter
ubus="real"): a build that starts the `ubus` CLI for every query (--cli) and
a build with libubus (--libubus, configured with CBSD_OPENWRT_ROOT): one
connection, no process.

Steady states, each path in the nftables flavour (the daemon's own nftables
tables) and the legacy flavour (iptables and ebtables tools):

  authorized  StandAlone, kept Authorized by the SAS simulator in the router
              (heartbeatInterval 60, transmitExpireTime 240 s ahead)
  radio-on    SAS on, DP mode, RadioEnable 1: every gate open
  sas-off     SAS off

Every daemon runs under strace (execve and the process calls only, through
seccomp, so a daemon that starts nothing is never stopped) for --seconds
after it has settled.  Reported per hour, extrapolated from that window:
processes started (successful execve of the daemon and its descendants; "as
a router" counts a lab stand-in as the one program it stands for, as
measure_backends.py does), CPU seconds of the daemon (utime+stime of the
daemon and of the children it waited for, /proc/<pid>/stat), heartbeats the
simulator received; at the window's end the daemon's VmRSS and VmHWM.

Then --trials link changes per path, each in its own nftables router kept
Authorized (no strace): the modem state's netstat flips (4 to 1, then back)
and the time until the simulator records the next heartbeat is taken.  A
link change ends the worker's heartbeat wait (src/standalone/lte_watch.cpp).

Usage (as root): /usr/bin/python3 tests/perf/measure_paths.py
    --cli build/cbsd --libubus build-openwrt/cbsd [--seconds 240] [--trials 8]
    [--only steady|latency] [--keep DIR]
"""
import argparse
import collections
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import perf_setup  # first: tests/ on the import path
import daemon_watch
import scenarios
import trace_summary
from lab import openwrt_bus
from perf_setup import SAS_CONFIG, STARTUP_SECONDS, VirtualRouter, pki, sas_config, simulator_in

FLAVOURS = ("nftables", "legacy")
STATES = ("authorized", "radio-on", "sas-off")
HEARTBEAT = "heartbeat"


def memory_kb(pid):
    """(VmRSS, VmHWM) of a process, in kB."""
    values = {}
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            name, _, rest = line.partition(":")
            if name in ("VmRSS", "VmHWM"):
                values[name] = int(rest.split()[0])
    return values["VmRSS"], values["VmHWM"]


def start_traced(r, trace_path, out_path):
    argv = ["strace", "-f", "--seccomp-bpf", "-ttt", "-s", "200", "-e",
            "trace=execve,clone,clone3,fork,vfork", "-o", trace_path, r.cbsd_bin, "-d"]
    with open(out_path, "ab") as out:
        spawned = r.spawn(argv, daemon=True, stdout=out, stderr=subprocess.STDOUT)
    return spawned, daemon_watch.find_daemon_pid(spawned, r.cbsd_bin)


def settle_authorized(r, sim_url, pid_holder, trace, out):
    r.write_file(SAS_CONFIG, sas_config("1", "0", "0", address=sim_url))
    spawned, pid = start_traced(r, trace, out)
    pid_holder.append(spawned)
    if not r.wait_for(lambda: r.uci_get("operation", "status") == "Authorized"
                      and r.uci_get("sasConfig", "RadioEnable") == "1", 120):
        raise RuntimeError(f"never Authorized:\n{r.log_text()[-2000:]}")
    return pid


def steady_window(path, binary, flavour, state, seconds, workdir, pki_dir):
    """One daemon in one real-ubus router; its counts over the window."""
    tag = f"{path}-{flavour}-{state}"
    trace, out = (os.path.join(workdir, f"{tag}.{ext}") for ext in ("strace", "out"))
    # Authorized: SAS on once the simulator's address is in (settle_authorized).
    config = sas_config("1" if state == "radio-on" else "0", "0" if state == "authorized" else "1",
                        "0")
    with VirtualRouter(sas_config=config, cbsd_bin=binary, flavour=flavour, ubus="real") as r:
        sim, spawned = None, []
        if state == "authorized":
            sim = simulator_in(r, pki_dir, workdir, f"sim-{tag[0]}{flavour[0]}-")
            pid = settle_authorized(r, sim.url, spawned, trace, out)
        else:
            first, pid = start_traced(r, trace, out)
            spawned.append(first)
            if state == "radio-on":
                scenarios.switch_radio_on(r)
        time.sleep(STARTUP_SECONDS)
        # The start-up's last lines (each copied to the system log by a
        # `logger` process) must be behind the window's start.
        r.wait_until_quiet(quiet=3, timeout=60)
        start, cpu0 = time.time(), sum(daemon_watch.cpu_seconds(pid))
        calls0 = modem_calls(r)
        time.sleep(seconds)
        end, cpu1 = time.time(), sum(daemon_watch.cpu_seconds(pid))
        rss, hwm = memory_kb(pid)
        calls1 = modem_calls(r)
        beats = [q for q in sim.requests() if start <= q["time"] < end] if sim else []
        status = r.uci_get("operation", "status")
        spawned[0].kill()
        spawned[0].wait()
        if sim:
            sim.process.terminate()
    return summarize_window(trace, start, end, cpu1 - cpu0, rss, hwm, beats, status,
                            {m: calls1.get(m, 0) - calls0.get(m, 0) for m in calls1})


def modem_calls(r):
    """The ubus_lte calls the lab's modem manager has answered, per method."""
    listing = r.run("ubus -S call lab_ubus_lte calls", timeout=10)
    return json.loads(listing.stdout) if listing.returncode == 0 and listing.stdout else {}


def summarize_window(trace, start, end, cpu, rss, hwm, beats, status, calls):
    events = trace_summary.read_trace(trace)
    execs = [e for e in events if start <= e.time < end and e.call == "execve"
             and trace_summary.ok(e)]
    router_ids = trace_summary.router_exec_ids(events)
    hours = (end - start) / 3600
    return {"seconds": end - start, "execs_h": len(execs) / hours,
            "router_execs_h": sum(1 for e in execs if id(e) in router_ids) / hours,
            "cpu_h": cpu / hours, "rss_kb": rss, "hwm_kb": hwm,
            "heartbeats_h": sum(1 for q in beats if q["endpoint"] == HEARTBEAT) / hours,
            "status": status, "modem_calls_h": {m: n / hours for m, n in calls.items()},
            "programs": collections.Counter(
                trace_summary.program_of(e) for e in execs).most_common(8)}


def link_latencies(binary, trials, workdir, pki_dir, tag):
    """Seconds from each netstat flip to the next heartbeat the simulator got."""
    with VirtualRouter(sas_config=sas_config("0", "0", "0"), cbsd_bin=binary,
                       flavour="nftables", ubus="real") as r:
        sim = simulator_in(r, pki_dir, workdir, f"sim-{tag[0]}-")
        r.write_file(SAS_CONFIG, sas_config("1", "0", "0", address=sim.url))
        r.start_daemon()
        if not r.wait_for(lambda: r.status() == "Authorized" and r.gates_open(), 120):
            raise RuntimeError(f"{tag}: never Authorized:\n{r.log_text()[-2000:]}")
        time.sleep(STARTUP_SECONDS)
        latencies, netstat = [], 4
        for _ in range(trials):
            netstat = 1 if netstat == 4 else 4
            seen = len(sim.requests(HEARTBEAT))
            changed = time.time()
            r.set_modem(netstat=netstat)
            beats = sim.wait_for_request(HEARTBEAT, seen + 1, 30)
            latencies.append(beats[seen]["time"] - changed if len(beats) > seen else None)
            # A new phase against the worker's one-second watch every time.
            time.sleep(random.uniform(1.5, 3.5))
        sim.process.terminate()
        return latencies


def run_all(jobs):
    """Runs (key, function, args) side by side; {key: result or error text}."""
    results = {}

    def body(key, function, args):
        try:
            results[key] = function(*args)
        except Exception as exc:  # reported in the table
            results[key] = f"{type(exc).__name__}: {exc}"
    threads = [threading.Thread(target=body, args=job) for job in jobs]
    for thread in threads:
        thread.start()
        time.sleep(1)
    for thread in threads:
        thread.join()
    return results


def report_steady(results, seconds):
    print(f"\nSteady states, {seconds:.0f} s window each, every router side by side, "
          "real ubusd; per hour")
    print("| path | flavour | state | processes/h (router / with lab wrappers) | CPU s/h "
          "| VmRSS kB | VmHWM kB | heartbeats/h | modem calls/h |")
    print("|---|---|---|---|---|---|---|---|---|")
    for (path, flavour, state), res in sorted(results.items()):
        if isinstance(res, str):
            print(f"| {path} | {flavour} | {state} | error: {res} |")
            continue
        calls = sum(res["modem_calls_h"].values())
        print(f"| {path} | {flavour} | {state} | {res['router_execs_h']:.0f} / "
              f"{res['execs_h']:.0f} | {res['cpu_h']:.2f} | {res['rss_kb']} | {res['hwm_kb']} | "
              f"{res['heartbeats_h']:.0f} | {calls:.0f} |")
    for key, res in sorted(results.items()):
        if not isinstance(res, str) and res["programs"]:
            print(f"{'-'.join(key)}: status {res['status']}, programs {res['programs']}")


def report_latency(results):
    print("\nLink change to the next heartbeat at the simulator (nftables flavour, real ubusd)")
    print("| path | trials | median s | max s | every trial s |")
    print("|---|---|---|---|---|")
    for path, res in sorted(results.items()):
        if isinstance(res, str):
            print(f"| {path} | error: {res} |")
            continue
        seen = [x for x in res if x is not None]
        missed = len(res) - len(seen)
        print(f"| {path} | {len(res)}{f' ({missed} without a heartbeat)' if missed else ''} | "
              f"{statistics.median(seen):.2f} | {max(seen):.2f} | "
              f"{', '.join(f'{x:.2f}' for x in seen)} |")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--cli", required=True, help="a daemon built without libubus")
    parser.add_argument("--libubus", required=True, help="a daemon built with libubus")
    parser.add_argument("--seconds", type=float, default=240)
    parser.add_argument("--trials", type=int, default=8)
    parser.add_argument("--only", choices=("steady", "latency"))
    parser.add_argument("--keep", help="directory for the strace logs and daemon output")
    args = parser.parse_args()
    if not openwrt_bus.available():
        sys.exit("../shared/openwrt (OpenWrt's ubusd) is absent")
    if not shutil.which("strace"):
        sys.exit("strace is missing: apt-get install strace")
    paths = {"cli": os.path.abspath(args.cli), "libubus": os.path.abspath(args.libubus)}
    # The routers see the source tree and the binaries' folders, not /tmp.
    workdir = os.path.abspath(args.keep or tempfile.mkdtemp(
        prefix="cbsd-paths-", dir=os.path.dirname(paths["libubus"])))
    os.makedirs(workdir, exist_ok=True)
    pki_dir = pki.generate(os.path.join(workdir, "pki"))
    if args.only != "latency":
        report_steady(run_all([((p, f, s), steady_window, (p, b, f, s, args.seconds, workdir,
                                                            pki_dir))
                               for p, b in paths.items() for f in FLAVOURS for s in STATES]),
                      args.seconds)
        sys.stdout.flush()
    if args.only != "steady":
        report_latency(run_all([(p, link_latencies, (b, args.trials, workdir, pki_dir, p))
                                for p, b in paths.items()]))
    print(f"\nlogs: {workdir}" if args.keep else "")
    if not args.keep:
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
