"""The OpenWrt package with the real daemon: started with the command line its
procd init script gives procd, on the default /etc/config/sas it installs;
and under OpenWrt's real procd (../shared/openwrt), which starts, respawns and
stops it from the init script."""
import os
import signal
import subprocess
import time

from lab import openwrt_bus, uci
from lab.openwrt_procd import FILES, MODEM, STANDIN, rc, running_pid, service_instance


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

def test_real_procd_starts_respawns_and_stops_the_daemon(openwrt_procd):
    bus = openwrt_procd
    assert rc(bus, "start").returncode == 0
    assert openwrt_bus.wait_for(lambda: running_pid(bus) is not None, 10)
    instance = service_instance(bus)
    assert instance["command"] == ["/usr/sbin/cbsd", "-D"]
    assert instance["term_timeout"] == 15
    assert instance["respawn"] == {"threshold": 3600, "timeout": 5, "retry": 5}
    assert instance["watchdog"] == {"mode": 1, "timeout": 30}
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
