"""The printed report of a steady-state measurement."""
from perf_setup import HEARTBEAT_INTERVAL


def merged(runs):
    traced = next(r for r in runs if r.traced)
    plain = next(r for r in runs if not r.traced)
    for run in runs:
        if run.error:
            print(f"!! {run.name} ({'traced' if run.traced else 'plain'}) failed: {run.error}")
    return traced.result, plain.result


def report(print_results, runs, *args):
    """print_results(traced, plain, *args) when both runs of a pair have a result."""
    traced, plain = merged(runs)
    if traced and plain:
        print_results(traced, plain, *args)


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
    report(print_dp, runs, name)


def print_dp(traced, plain, name):
    n = traced["passes"]
    print(f"\n== {name}: {n} steady passes ({traced['seconds']:.1f} s traced, "
          f"{plain['seconds']:.1f} s plain)")
    print(f"  enableMode, RadioEnable, ip_forward at the end: {traced['state']}")
    print(f"  {'per pass':<44}{'value':>10}")
    rows = [
        ("processes started (execve)", traced["execs"] / n),
        ("  of them a router's (stand-ins as one)", traced["router_execs"] / n),
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
    report(print_standalone, runs)


def print_standalone(traced, plain):
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
        ("  of them a router's (stand-ins as one)", f"{traced['router_execs'] / h:.0f}"),
        ("forks per hour", f"{traced['forks'] / h:.0f}"),
        ("/etc/config/sas loads per hour (read-only opens)", f"{traced['sas_reads'] / h:.0f}"),
        ("/etc/config/sas read-write opens per hour", f"{traced['sas_rdwr'] / h:.0f}"),
        ("/etc/config/sas writes per hour (renames onto it)", f"{traced['sas_writes'] / h:.0f}"),
        ("/tmp/sas_cache writes per hour (renames onto it)", f"{traced['cache_writes'] / h:.0f}"),
    ]
    for label, value in rows:
        print(f"  {label:<52}{value:>14}")
    print_programs(traced, h, "per hour")
