#!/usr/bin/python3
"""Processes per supervision pass and the gates' rules after a long steady
state, for each firewall flavour of the virtual router and each state.

Flavours (tests/lab/README.md): legacy and ebtables-nft (the daemon keeps its
gates with iptables and ebtables), nftables (neither tool: the daemon's own
nftables tables through libnftables).  States: DP with the radio on (gates
open), DP with the radio off (gates closed), SAS off (gates open, no SAS).

All nine routers run side by side, each daemon under strace (execve only), for
--seconds; the window runs from one pass's end to another's (the main thread's sleep,
as in measure_steady_state.py) and the passes in it are counted by the one
link query (`getltestatus`) each pass makes in these states.  At the end each router's rules are counted:
the ICMP rules of iptables OUTPUT and the bridge rules of ebtables
BRIDGE_FORWARD, or the rules in the nftables tables inet cbsd and bridge cbsd.

--ubus real runs OpenWrt's own ubusd with the lab's ucode modem manager in
every router (../shared/openwrt), so a daemon built with libubus asks the
modem over its bus connection; the window is then plain time (a pass that
starts no process is too short for the sleep watch), and where no `ubus`
process marks a pass the table gives the processes of the whole window.

Usage (as root): /usr/bin/python3 tests/perf/measure_backends.py [--seconds 600]
    [--cbsd build/cbsd] [--ubus standin|real]
"""
import argparse
import collections
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

import perf_setup  # first: tests/ on the import path
import daemon_watch
import scenarios
import trace_summary
from lab.router import VirtualRouter

FLAVOURS = ("legacy", "ebtables-nft", "nftables")
STATES = {"radio on": ("1", "1"), "radio off": ("1", "0"), "SAS off": ("0", "0")}


# The pass's one link query: an exact pass count.
PASS_MARK = "ubus call ubus_lte"
PASS_METHOD = "getltestatus"


def is_pass_mark(event):
    strings = trace_summary.QUOTED.findall(event.body)
    return trace_summary.program_of(event).endswith(PASS_MARK) and PASS_METHOD in strings


def rule_counts(r):
    """(ICMP rules, bridge rules) of the daemon's gates, and every table there is."""
    icmp = [line for line in r.iptables_rules() if not line.startswith("-P ")]
    bridge = r.ebtables_rules()
    tables = r.run("nft list tables").stdout.split("\n")
    return len(icmp), len(bridge), [t for t in tables if t]


def start_traced(r, trace_path, out_path):
    argv = ["strace", "-f", "--seccomp-bpf", "-ttt", "-s", "200", "-e",
            "trace=execve,clone,clone3,fork,vfork", "-o", trace_path, r.cbsd_bin, "-d"]
    with open(out_path, "ab") as out:
        spawned = r.spawn(argv, daemon=True, stdout=out, stderr=subprocess.STDOUT)
    return spawned, daemon_watch.find_daemon_pid(spawned, r.cbsd_bin)


def window(pid, seconds, ubus):
    """(start, end) of the measured window: from one pass's end to another's,
    or, with the real ubus, a plain time window: a daemon that starts no
    process runs a pass in microseconds, too short for the sleep watch to see
    between its waits."""
    if ubus == "real":
        start = time.time()
        time.sleep(seconds)
        return start, time.time()
    watch = daemon_watch.PassWatch(pid)
    watch.wait_next_sleep()
    start = watch.wait_next_sleep()[0]
    end = start
    while end - start < seconds:
        end = watch.wait_next_sleep()[0]
    return start, end


def one(flavour, state, seconds, cbsd, workdir, results, ubus="standin"):
    enable_mode, radio = STATES[state]
    tag = f"{flavour}-{state.replace(' ', '-')}"
    trace = os.path.join(workdir, f"{tag}.strace")
    config = perf_setup.sas_config(enable_mode, "1", "0")
    try:
        with VirtualRouter(sas_config=config, cbsd_bin=cbsd, flavour=flavour, ubus=ubus) as r:
            spawned, pid = start_traced(r, trace, os.path.join(workdir, f"{tag}.out"))
            if radio == "1":
                scenarios.switch_radio_on(r)
            time.sleep(perf_setup.STARTUP_SECONDS)
            start, end = window(pid, seconds, ubus)
            counts = rule_counts(r)
            log = r.log_text()
            spawned.kill()
            spawned.wait()
            events = trace_summary.read_trace(trace)
            execs = [e for e in events if start <= e.time < end and e.call == "execve"
                     and trace_summary.ok(e)]
            programs = collections.Counter(
                os.path.basename(trace_summary.QUOTED.findall(e.body)[0]) for e in execs)
            # One link query per pass in these states: an exact pass count
            # (the sleep watch also sees the start-up's short waits).  Over
            # libubus no process marks a pass: 0, and the table says so.
            passes = sum(1 for e in execs if is_pass_mark(e))
            router_ids = trace_summary.router_exec_ids(events)
            results[tag] = {"flavour": flavour, "state": state, "passes": passes,
                            "seconds": end - start, "execs": len(execs),
                            "router_execs": sum(1 for e in execs if id(e) in router_ids), "programs": programs,
                            "icmp_rules": counts[0], "bridge_rules": counts[1],
                            "tables": counts[2], "gate_changes": sum(
                                log.count(f"[SAS] {g} is {w}.\n") for g in
                                ("firewall ICMP", "bridge forward") for w in ("enable", "disable"))}
    except Exception as error:  # noqa: BLE001 - reported with the others
        results[tag] = {"flavour": flavour, "state": state, "error": repr(error)}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--cbsd", default=os.path.join(perf_setup.REPO_DIR, "build", "cbsd"))
    parser.add_argument("--ubus", choices=("standin", "real"), default="standin")
    args = parser.parse_args()
    if not shutil.which("strace"):
        sys.exit("strace is missing: apt-get install strace")
    cbsd = os.path.abspath(args.cbsd)
    # Beside the binary: a directory the routers see (their /tmp is their own).
    workdir = tempfile.mkdtemp(prefix="cbsd-backends-", dir=os.path.dirname(cbsd))
    results = {}
    threads = [threading.Thread(target=one, args=(f, s, args.seconds, cbsd, workdir, results,
                                                  args.ubus))
               for f in FLAVOURS for s in STATES]
    for thread in threads:
        thread.start()
        time.sleep(1)
    for thread in threads:
        thread.join()
    print(f"{args.seconds:.0f} s per state, every router side by side; logs in {workdir}")
    print("| flavour | state | passes | processes per pass (router / with the lab's wrapper) "
          "| ICMP rules | bridge rules | gate changes after start | nft tables |")
    print("|---|---|---|---|---|---|---|---|")
    for flavour in FLAVOURS:
        for state in STATES:
            res = results[f"{flavour}-{state.replace(' ', '-')}"]
            if "error" in res:
                print(f"| {flavour} | {state} | error: {res['error']} |")
                continue
            per_pass = max(res["passes"], 1)
            processes = (f"{res['router_execs'] / per_pass:.1f} / {res['execs'] / per_pass:.1f}"
                         if res["passes"] else
                         f"no pass marked: {res['router_execs']} / {res['execs']} "
                         f"in {res['seconds']:.0f} s")
            print(f"| {flavour} | {state} | {res['passes']} | {processes} | "
                  f"{res['icmp_rules']} | "
                  f"{res['bridge_rules']} | {res['gate_changes']} | "
                  f"{', '.join(res['tables']) or '-'} |")
    for tag, res in sorted(results.items()):
        if "programs" in res:
            per_pass = {p: round(n / max(res["passes"], 1), 2) for p, n in
                        res["programs"].most_common()}
            print(f"{tag}: {per_pass}")


if __name__ == "__main__":
    main()
