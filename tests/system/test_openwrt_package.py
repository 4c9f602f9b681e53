"""The OpenWrt package with the real daemon: started with the command line its
procd init script gives procd, on the default /etc/config/sas it installs;
and under OpenWrt's real procd (../shared/openwrt), which starts, respawns and
stops it from the init script."""
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

from lab import openwrt_bus, uci
from lab.openwrt_bus import OpenWrtBus

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FILES = os.path.join(ROOT, "openwrt", "net", "cbsd", "files")
STANDIN = os.path.join(ROOT, "tests", "openwrt", "procd_standin.sh")

MODEM = {"productmodule": "RQ5518E", "SN": "SN-PACKAGE-1", "netstat": 4, "dlfreq": 3625000,
         "bandwidth": 20, "band": 48}


def procd_command(tmp_path):
    """The command line the init script hands to procd."""
    init = tmp_path / "cbsd"
    init.write_text(open(os.path.join(FILES, "cbsd.init")).read())
    record = subprocess.run(["busybox", "sh", STANDIN, str(init), "start"], capture_output=True,
                            text=True, check=True).stdout
    line = next(l for l in record.splitlines() if l.startswith("set_param|command|"))
    return line.split("|")[2:]


def test_procd_command_keeps_the_daemon_in_the_foreground_on_the_packaged_configuration(
        router, tmp_path):
    command = procd_command(tmp_path)
    assert command[0] == "/usr/sbin/cbsd"
    with open(os.path.join(FILES, "sas.config")) as packaged:
        r = router(sas_config=packaged.read(), modem=MODEM)
    with open(tmp_path / "stdout", "wb") as out:
        daemon = r.spawn([r.cbsd_bin, *command[1:]], stdout=out, stderr=subprocess.DEVNULL)
    assert r.wait_for_log("[SAS] sas disable.\n", 20)
    # Still the process procd started: it neither forked nor exited.
    assert daemon.poll() is None
    # Not debug mode: nothing echoed on standard output.
    assert (tmp_path / "stdout").read_text() == ""
    # Every section the daemon writes into was there.
    assert r.uci_get("config", "fccId") == "7XK44RQ5518E96"
    assert r.uci_get("config", "antennaBeamwidth") == "25"
    assert r.uci_get("cpi", "indoorDeployment") == "0"
    assert r.uci_get("operation", "status") == "Unregistered"
    assert r.uci_get("cellInfo", "bandwidth") == "20"
    # SAS is off until the user enables it: traffic open.
    assert r.ip_forward() == ("1", "1")
    assert daemon.poll() is None


# ----- the init script under OpenWrt's real procd -------------------------------

def service_instance(bus):
    """procd's view of the cbsd instance (`ubus call service list`), or None."""
    listed = bus.run(["ubus", "call", "service", "list", '{"name": "cbsd"}'], timeout=10)
    if listed.returncode != 0 or not listed.stdout.strip():
        return None
    return json.loads(listed.stdout).get("cbsd", {}).get("instances", {}).get("instance1")


def running_pid(bus):
    instance = service_instance(bus)
    return instance["pid"] if instance and instance.get("running") else None


@pytest.fixture
def openwrt_procd(cbsd_bin):
    """A namespace with OpenWrt's real ubusd, procd and `ubus` CLI, the lab's
    ucode modem manager, the package's init script at /etc/init.d/cbsd, its
    default /etc/config/sas and the daemon under test at /usr/sbin/cbsd."""
    if not openwrt_bus.available():
        pytest.skip("../shared/openwrt (the real OpenWrt procd, ubusd and ubus CLI) is absent")
    directory = tempfile.mkdtemp(prefix="cbsd-procd-", dir="/var/tmp")
    state_path = os.path.join(directory, "modem.json")
    with open(state_path, "w", encoding="utf-8") as state_file:
        json.dump(MODEM, state_file)
    try:
        with OpenWrtBus(state_path) as bus:
            install = (
                "set -e; mkdir -p /tmp/sbin/up /tmp/sbin/work /etc/init.d /etc/config; "
                "mount -t overlay overlay -o lowerdir=/usr/sbin,upperdir=/tmp/sbin/up,"
                "workdir=/tmp/sbin/work /usr/sbin; "
                f"cp {cbsd_bin} /usr/sbin/cbsd; cp {FILES}/cbsd.init /etc/init.d/cbsd; "
                f"chmod 755 /etc/init.d/cbsd; cp {FILES}/sas.config /etc/config/sas")
            assert bus.run(["sh", "-c", install]).returncode == 0
            bus.start_ubusd()
            bus.start_modem_manager()
            bus.settle(["getlteinfo", "getltestatus", "getproductinfo"])
            bus.spawn(["procd", "-s", openwrt_bus.SOCKET], stdin=subprocess.DEVNULL,
                      stderr=subprocess.DEVNULL)
            assert openwrt_bus.wait_for(
                lambda: bus.run(["ubus", "list", "service"]).returncode == 0, 10)
            yield bus
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def rc(bus, action):
    """/etc/init.d/cbsd ACTION as OpenWrt runs it (busybox ash, rc.common's
    message sent to procd on ubus)."""
    return bus.run(["busybox", "sh", STANDIN, "/etc/init.d/cbsd", action],
                   env={"PROCD_STANDIN_UBUS": "1"})


def test_real_procd_starts_respawns_and_stops_the_daemon(openwrt_procd):
    bus = openwrt_procd
    assert rc(bus, "start").returncode == 0
    assert openwrt_bus.wait_for(lambda: running_pid(bus) is not None, 10)
    instance = service_instance(bus)
    assert instance["command"] == ["/usr/sbin/cbsd", "-D"]
    assert instance["term_timeout"] == 15
    assert instance["respawn"] == {"threshold": 3600, "timeout": 5, "retry": 5}
    # The daemon read the modem through the real `ubus` CLI and the ucode
    # modem manager: the profile of the model's row.
    log = bus.host_path("/root/sas/sas.log")
    assert openwrt_bus.wait_for(
        lambda: os.path.exists(log) and "[SAS] sas disable.\n" in open(log).read(), 20)
    with open(bus.host_path("/etc/config/sas")) as config:
        assert uci.get(config.read(), "config", "fccId") == "7XK44RQ5518E96"

    # Killed: procd starts it again after the respawn timeout (5 s).
    first = running_pid(bus)
    os.kill(first, signal.SIGKILL)
    killed = time.monotonic()
    assert openwrt_bus.wait_for(lambda: running_pid(bus) not in (None, first), 10)
    assert time.monotonic() - killed >= 4.5

    # Stopped: SIGTERM ends it well before procd's SIGKILL (term_timeout 15 s).
    second = running_pid(bus)
    stopped = time.monotonic()
    assert rc(bus, "stop").returncode == 0
    assert openwrt_bus.wait_for(lambda: not os.path.exists(f"/proc/{second}"), 12)
    assert time.monotonic() - stopped < 12
    assert service_instance(bus) is None
