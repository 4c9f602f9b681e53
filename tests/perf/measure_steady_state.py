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
import json
import os
import shutil
import sys
import tempfile
import threading

from perf_setup import REPO_DIR, pki, sas_config
from scenarios import Run, dp_run, run_pair, standalone_run
from steady_report import report_dp, report_standalone


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
