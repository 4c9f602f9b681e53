"""The daemon built with libubus, in routers that run OpenWrt's real ubusd
and the lab's ucode modem manager (tests/lab/ubus_lte.uc), in the nftables
flavour: its modem queries go over its one bus connection, so

  * a change of the LTE link ends the Authorized heartbeat wait within a
    second and a half: the worker watches the link every second;
  * in steady DP mode with the radio on, and with SAS off, it starts no
    process at all (strace -f sees neither a fork nor an exec) while its
    link queries keep arriving at the modem manager.

Skipped when ../shared/openwrt is absent, or when the daemon under test was
built without libubus: its ELF file then does not need libubus.so, and every
query would start the `ubus` CLI (tests/perf/measure_paths.py measures that
build).
"""
import random
import re
import shutil
import subprocess
import time

import pytest

from lab import openwrt_bus
from lab.device_config import dp_config
from lab.router import daemon_binary
from lab.timing import PASS_SECONDS


def needs_libubus(binary):
    """True when the ELF file names libubus.so among the libraries it needs."""
    try:
        dynamic = subprocess.run(["readelf", "-d", binary], capture_output=True, text=True,
                                 timeout=30).stdout
    except (OSError, subprocess.TimeoutExpired):
        return False
    return re.search(r"\(NEEDED\)\s+Shared library: \[libubus\.so", dynamic) is not None


pytestmark = [
    pytest.mark.skipif(not openwrt_bus.available(),
                       reason="../shared/openwrt (OpenWrt's ubusd and libubus) is absent"),
    pytest.mark.skipif(not needs_libubus(daemon_binary()),
                       reason="the daemon under test was built without libubus "
                              "(configure with -DCBSD_OPENWRT_ROOT=../shared/openwrt/rootfs)"),
]

# The goal for a link change to reach the SAS: the worker's one-second watch,
# one query over the bus, and the heartbeat's TLS exchange with the simulator.
LINK_TO_HEARTBEAT_LIMIT = 1.5
LINK_CHANGES = 5
# Steady passes watched for processes.
STEADY_PASSES = 3
TRACE = "/tmp/cbsd.strace"
STRACE = ["strace", "-f", "--seccomp-bpf", "-ttt", "-e",
          "trace=execve,fork,vfork,clone,clone3", "-o", TRACE]


def modem_calls(r):
    """getltestatus calls the modem manager has answered so far."""
    answered = r.run("ubus -S call lab_ubus_lte calls", timeout=10)
    assert answered.returncode == 0, answered.stderr
    match = re.search(r'"getltestatus":(\d+)', answered.stdout)
    return int(match[1]) if match else 0


@pytest.mark.lab_setup(heartbeat_interval=60, flavour="nftables", ubus="real")
def test_a_link_change_reaches_the_sas_as_a_heartbeat_within_a_second_and_a_half(lab):
    r, sim = lab
    lab.authorized(60)
    latencies, netstat = [], 4
    for _ in range(LINK_CHANGES):
        # A new phase against the worker's one-second watch each time; each
        # change's heartbeat puts the next due one 60 s away.
        time.sleep(random.uniform(1.5, 3.5))
        netstat = 1 if netstat == 4 else 4
        seen = len(sim.requests("heartbeat"))
        changed = time.time()
        r.set_modem(netstat=netstat)
        beats = sim.wait_for_request("heartbeat", seen + 1, 10)
        assert len(beats) > seen, (netstat, r.log_text()[-2000:])
        latencies.append(beats[seen]["time"] - changed)
    print(f"\nMEASURE link change to heartbeat over libubus: {sorted(latencies)}")
    assert max(latencies) <= LINK_TO_HEARTBEAT_LIMIT, latencies
    assert r.status() == "Authorized"


def process_starts(trace_text, since):
    """The daemon's forks (clones without CLONE_THREAD) and execs from wall
    time `since` on, as strace lines."""
    found = []
    for line in trace_text.splitlines():
        fields = line.split(None, 2)
        if len(fields) < 3 or "resumed>" in fields[2] or float(fields[1]) < since:
            continue
        call = fields[2].split("(", 1)[0]
        if call == "execve" or (call in ("fork", "vfork", "clone", "clone3")
                                and "CLONE_THREAD" not in fields[2]):
            found.append(line)
    return found


def assert_no_process_over_steady_passes(r):
    time.sleep(PASS_SECONDS)  # the pass that settled the state has ended
    since, calls = time.time(), modem_calls(r)
    # Every pass asks for the link once: the window ends with the third
    # pass's query (a pass is a 5 s sleep plus the pass itself).
    r.wait_for(lambda: modem_calls(r) - calls >= STEADY_PASSES,
               (STEADY_PASSES + 2) * PASS_SECONDS, interval=1)
    queries = modem_calls(r) - calls
    assert r.daemon_alive(), r.daemon_output()[-2000:]
    starts = process_starts(r.read_file(TRACE), since)
    print(f"\nMEASURE {queries} link queries over the bus, {len(starts)} processes "
          f"in {time.time() - since:.0f} s")
    # The daemon was running its passes, its queries reaching the modem manager.
    assert queries >= STEADY_PASSES, queries
    assert starts == [], "\n".join(starts[:20])


@pytest.fixture
def strace_present():
    if not shutil.which("strace"):
        pytest.fail("strace is missing (scripts/install-deps.sh installs it)")


@pytest.mark.parametrize("enable_mode", ["1", "0"], ids=["dp-radio-on", "sas-off"])
def test_steady_daemon_starts_no_process(dp_router, strace_present, enable_mode):
    r = dp_router(sas_config=dp_config(enable_mode=enable_mode), flavour="nftables",
                  ubus="real")
    r.start_daemon(under=STRACE)
    if enable_mode == "1":
        assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", 30)
        mark = r.edit("sasConfig", "RadioEnable", "1")
        assert r.wait_for_log_after(mark, "[SAS] sas radio enable.\n")
    else:
        assert r.wait_for_log("[SAS] device network has been recovered.", 30)
    assert r.wait_for(r.gates_open, 15), r.log_text()[-2000:]
    assert_no_process_over_steady_passes(r)
    assert r.gates_open()
