"""The OpenWrt package with the real daemon: started with the command line its
procd init script gives procd, on the default /etc/config/sas it installs."""
import os
import subprocess

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
