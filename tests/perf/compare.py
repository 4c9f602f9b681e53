#!/usr/bin/python3
"""Measures two builds of the daemon side by side in the same run on the same
machine and writes the table to docs/PERFORMANCE.md.

For each build: the three steady states (measure_steady_state.py, both builds
at once) and two latencies against the SAS simulator inside the router:

  enableMode "1" -> all three gates open: from the write of enableMode until
      IP forwarding is on and neither the ICMP drop nor a bridge drop rule is
      listed, after they were first seen closed (enabling SAS closes them
      until the grant's first heartbeat authorises transmission).
  RadioEnable "0" -> all three gates closed: written while Authorized.

Usage (as root): /usr/bin/python3 tests/perf/compare.py --before OLD/cbsd
    --after build/cbsd [--passes 24] [--standalone-seconds 240] [--trials 3]
    [--label-before main] [--label-after this] [--out docs/PERFORMANCE.md]
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import perf_setup as perf
from lab.gates import ALL_GATES

PERF_DIR = os.path.dirname(os.path.abspath(__file__))

ENABLED_LOG = "[SAS] sas enable.\n"


def all_open(r):
    return r.open_gates() == ALL_GATES


def none_open(r):
    return not r.open_gates()


def one_latency_trial(cbsd, pki_dir, workdir):
    with perf.VirtualRouter(sas_config=perf.sas_config("0", "0", "0"), cbsd_bin=cbsd) as r:
        sim = perf.simulator_in(r, pki_dir, workdir, "cbsd-lat-sim-")
        r.write_file(perf.SAS_CONFIG, perf.sas_config("0", "0", "0", address=sim.url))
        spawned = r.spawn([r.cbsd_bin, "-d"], daemon=True, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
        try:
            if not r.wait_for(lambda: all_open(r), 30):
                raise RuntimeError("gates never open with SAS off")
            time.sleep(6)  # past the first passes: a steady sleep is under way
            start = time.monotonic()
            r.uci_set("config", "enableMode", "1")
            if not r.wait_for(lambda: none_open(r), 60, interval=0.02):
                raise RuntimeError("gates never closed after enabling SAS")
            if not r.wait_for(lambda: all_open(r), 90, interval=0.02):
                raise RuntimeError("gates never opened after enabling SAS")
            enable_to_open = time.monotonic() - start
            time.sleep(2)
            start = time.monotonic()
            r.uci_set("sasConfig", "RadioEnable", "0")
            if not r.wait_for(lambda: none_open(r), 30, interval=0.02):
                raise RuntimeError("gates never closed after RadioEnable 0")
            radio_off_to_closed = time.monotonic() - start
        finally:
            spawned.kill()
            spawned.wait()
            sim.process.terminate()
    return enable_to_open, radio_off_to_closed


def latencies(cbsd, trials, workdir):
    pki_dir = perf.pki.generate(os.path.join(workdir, "pki"))
    results = [one_latency_trial(cbsd, pki_dir, workdir) for _ in range(trials)]
    return [r[0] for r in results], [r[1] for r in results]


def per_hour(dp, key):
    traced = dp["traced"]
    return traced[key] / traced["passes"] * 3600 / (traced["seconds"] / traced["passes"])


def rows_of(result, lat):
    sa = result["standalone"]["traced"]
    dp_on = result["SAS on, DP mode, radio on"]
    off = result["SAS off"]
    hours = sa["hours"]
    return [
        ("processes started per hour, steady Authorized, heartbeatInterval 60",
         f"{sa['router_execs'] / hours:,.0f}", "<= 4,000"),
        ("processes started per hour, steady DP with radio on",
         f"{per_hour(dp_on, 'router_execs'):,.0f}", "<= 3,000"),
        ("processes started per hour, SAS off", f"{per_hour(off, 'router_execs'):,.0f}",
         "<= 2,000"),
        ("the same with the stand-ins' own helpers, Authorized / DP radio on / SAS off",
         f"{sa['execs'] / hours:,.0f} / {per_hour(dp_on, 'execs'):,.0f} / "
         f"{per_hour(off, 'execs'):,.0f}", "-"),
        ("writes of /etc/config/sas per hour, steady Authorized",
         f"{sa['sas_writes'] / hours:,.0f}", "<= 61"),
        ("writes of /etc/config/sas per hour, DP radio on / SAS off",
         f"{per_hour(dp_on, 'sas_writes'):,.0f} / {per_hour(off, 'sas_writes'):,.0f}", "0 / 0"),
        ("writes of /tmp/sas_cache per hour, Authorized / DP radio on / SAS off",
         f"{sa['cache_writes'] / hours:,.0f} / {per_hour(dp_on, 'cache_writes'):,.0f} / "
         f"{per_hour(off, 'cache_writes'):,.0f}", "-"),
        ("enableMode \"1\" -> all three gates open (median, min-max s)",
         f"{statistics.median(lat[0]):.1f} ({min(lat[0]):.1f}-{max(lat[0]):.1f})", "<= 1 s"),
        ("RadioEnable \"0\" -> all three gates closed (median, min-max s)",
         f"{statistics.median(lat[1]):.1f} ({min(lat[1]):.1f}-{max(lat[1]):.1f})", "<= 1 s"),
        ("CPU s per hour, steady Authorized (untraced run)",
         f"{result['standalone']['plain']['cpu_own'] + result['standalone']['plain']['cpu_children']:.1f}",
         "-"),
    ]


def write_table(path, labels, before, after, note):
    lines = ["| figure | " + labels[0] + " | " + labels[1] + " | target |",
             "|---|---|---|---|"]
    for (figure, old, target), (_, new, _) in zip(before, after):
        lines.append(f"| {figure} | {old} | {new} | {target} |")
    begin, end = "<!-- measured table: begin -->", "<!-- measured table: end -->"
    block = "\n".join([begin, note, "", *lines, end])
    text = open(path).read() if os.path.exists(path) else ""
    if begin in text and end in text:
        text = text[:text.index(begin)] + block + text[text.index(end) + len(end):]
    else:
        text += ("\n" if text else "") + block + "\n"
    with open(path, "w") as f:
        f.write(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--before", required=True)
    parser.add_argument("--after", required=True)
    parser.add_argument("--label-before", default="before")
    parser.add_argument("--label-after", default="after")
    parser.add_argument("--passes", type=int, default=24)
    parser.add_argument("--standalone-seconds", type=float, default=240)
    parser.add_argument("--trials", type=int, default=3)
    parser.add_argument("--workdir", default=None)
    parser.add_argument("--out", default=os.path.join(perf.REPO_DIR, "docs", "PERFORMANCE.md"))
    args = parser.parse_args()
    workdir = os.path.abspath(args.workdir or tempfile.mkdtemp(
        prefix="cbsd-compare-", dir=os.path.join(perf.REPO_DIR, "build")))
    os.makedirs(workdir, exist_ok=True)
    builds = {"before": os.path.abspath(args.before), "after": os.path.abspath(args.after)}
    steady_runs = {}
    for tag, cbsd in builds.items():
        out = os.path.join(workdir, f"{tag}.json")
        log = open(os.path.join(workdir, f"{tag}.txt"), "w")
        steady_runs[tag] = (out, subprocess.Popen(
            [sys.executable, os.path.join(PERF_DIR, "measure_steady_state.py"), "--cbsd", cbsd,
             "--passes", str(args.passes), "--standalone-seconds", str(args.standalone_seconds),
             "--keep", os.path.join(workdir, tag), "--json", out], stdout=log,
            stderr=subprocess.STDOUT))
    for tag, (_, proc) in steady_runs.items():
        if proc.wait() != 0:
            sys.exit(f"steady-state run of {tag} failed: see {workdir}/{tag}.txt")
    lat = {tag: latencies(cbsd, args.trials, os.path.join(workdir, tag)) for tag, cbsd in builds.items()}
    rows = {}
    for tag in builds:
        with open(steady_runs[tag][0]) as f:
            rows[tag] = rows_of(json.load(f), lat[tag])
    note = (f"Measured {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())} on one machine in one "
            f"run: {args.passes} steady passes per DP state, {args.standalone_seconds:.0f} s "
            f"Authorized, {args.trials} latency trials per build (virtual router, local SAS "
            "simulator).")
    write_table(args.out, (args.label_before, args.label_after), rows["before"], rows["after"], note)
    print(open(args.out).read())
    print(f"logs: {workdir}")


if __name__ == "__main__":
    main()
