"""The command line of the real daemon in a router: what the one-shot options
do to the real store and gates, the single-instance lock, daemonising, the
working directory, and the options as the log file shows them.  How options
are parsed (order, bounds, the usage and error texts) is asserted once, in
tests/daemon/cli_test.cpp."""
import os
import re
import time

from lab.rules import ADD_ICMP_DROP

LINE_PREFIX = re.compile(r"^\[\d+, \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]")
VERSION = "[SAS] SAS Version 3.1\n"
WAIT_LTE = "[SAS] wait for LTE accessing network..."

DUMP_KEYS = [
    "enableMode", "usedp", "address", "sasStepChoice", "userId", "fccId", "serialNumber",
    "callSign", "cbsdCategory", "radioTechnology", "longitude", "latitude", "height",
    "heightType", "indoorDeployment", "antennaGain", "antennaModel", "antennaBeamwidth",
    "antennaDowntilt", "antennaAzimuth", "cpiId", "cpiName", "cpiInstallTime", "measCapability",
    "groupType", "groupId", "bandwidth", "cellLowFrequency", "cellHighFrequency", "RadioEnable",
    "maxEirp", "lowFrequency", "highFrequency", "powerSpectralDensity", "status", "trigger",
    "GrantRenew", "clientCertFileName", "clientKeyFileName", "serverCAFileName",
    "cpiKeyFileName", "cpiKeyFilePassword", "ipforward", "firewallICMP",
]

CONFIGURED = """config config 'config'
\toption enableMode '0'
\toption usedp '1'
\toption address 'https://sas.example/v1.2'
\toption userId 'user-1'
\toption callSign 'CALL'

config cpi 'cpi'
\toption height '12'
\toption installCertificationTime '2024-01-01T00:00:00Z'

config operation 'operation'
\toption status 'Unregistered'
\toption measCapability 'RECEIVED_POWER_WITHOUT_GRANT'

config cert 'cert'
\toption cpiKeyFileName 'cpi.p12'
\toption cpiKeyFilePassword 'se cret'

config cellInfo 'cellInfo'
\toption bandwidth '20'
"""

CACHE = """config cache 'cache'
\toption SAS_IP_FORWARD '0'
\toption SAS_FIREWALL_ICMP '1'
\toption SAS_BRIDGE_FORWARD '0'
\toption SAS_OPERATION_TRIGGER 'go'
"""


def daemon_pids(r):
    """Daemons running in this router (the router shares the host's process
    ids, so other routers' daemons are told apart by network namespace)."""
    own = os.readlink(f"/proc/{r.pid}/ns/net")
    pids = []
    for pid in r.run("pgrep -x cbsd").stdout.split():
        try:
            if os.readlink(f"/proc/{pid}/ns/net") == own:
                pids.append(int(pid))
        except OSError:
            pass  # ended meanwhile
    return pids


def started_up(r):
    """True once a daemon that logs nothing has passed its gate reset (the
    last step writes the bridge flag of the runtime cache) and had a moment
    to write its later start-up lines."""
    ok = r.wait_for(lambda: "SAS_BRIDGE_FORWARD" in (r.read_file("/tmp/sas_cache") or ""), 20)
    time.sleep(1)
    return ok


def test_an_option_error_exits_0_before_taking_the_lock(router, cbsd_bin):
    r = router()
    for wrong in ("-x", "-s"):  # unknown, missing argument (texts: cli_test.cpp)
        assert r.run_daemon(wrong).returncode == 0
    assert not r.exists("/tmp/cbsd_lock")


def test_clear_option_is_inert(router, cbsd_bin):
    r = router(sas_config=CONFIGURED)
    r.write_file("/tmp/sas_cache", CACHE)
    before = (r.read_file("/etc/config/sas", binary=True), r.read_file("/tmp/sas_cache", binary=True))
    result = r.run_daemon("-c")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    after = (r.read_file("/etc/config/sas", binary=True), r.read_file("/tmp/sas_cache", binary=True))
    assert after == before
    assert not r.exists("/root/sas")


def test_dump_without_any_file(router, cbsd_bin):
    r = router()
    result = r.run_daemon("-p")
    assert result.returncode == 0
    expected = "current cbsd configuration:\n" + "".join(f"{k}=\n" for k in DUMP_KEYS) + "\n"
    assert result.stdout == expected
    assert len(DUMP_KEYS) == 44


def test_dump_of_a_configured_device(router, cbsd_bin):
    r = router(sas_config=CONFIGURED)
    r.write_file("/tmp/sas_cache", CACHE)
    result = r.run_daemon("-p")
    assert result.returncode == 0
    lines = result.stdout.split("\n")
    assert lines[0] == "current cbsd configuration:"
    assert [line.split("=", 1)[0] for line in lines[1:45]] == DUMP_KEYS
    assert lines[45:] == ["", ""]
    values = dict(line.split("=", 1) for line in lines[1:45])
    assert values["address"] == "https://sas.example/v1.2"
    assert values["cpiInstallTime"] == "2024-01-01T00:00:00Z"
    assert values["cpiKeyFilePassword"] == "se cret"  # shown in clear for the technician
    assert values["bandwidth"] == "20"
    assert values["trigger"] == "go"
    assert values["ipforward"] == "0"
    assert values["firewallICMP"] == "1"
    assert "SAS_BRIDGE_FORWARD" not in result.stdout
    assert values["fccId"] == ""


def test_recover_option_ignores_earlier_overrides(router, cbsd_bin):
    r = router()
    r.run(ADD_ICMP_DROP, check=True)
    result = r.run_daemon("-S", "123", "-n")
    assert result.returncode == 0
    assert r.ip_forward() == ("1", "1")
    assert not any("DROP" in rule for rule in r.iptables_rules())
    assert not daemon_pids(r)
    assert not r.exists("/tmp/cbsd_lock")  # runs without the lock


def regular_files(r, *folders):
    listed = r.run("find " + " ".join(folders) + " -xdev -type f 2>/dev/null").stdout.split()
    return {path: r.read_file(path, binary=True) for path in listed}


def test_recover_option_leaves_no_trace_of_an_earlier_serial_number(router, cbsd_bin):
    configured = CONFIGURED.replace("\toption callSign 'CALL'\n",
                                    "\toption callSign 'CALL'\n\toption serialNumber 'SN-LAB-7'\n")
    r = router(sas_config=configured)
    r.set_ip_forward("0")
    r.run(ADD_ICMP_DROP, check=True)
    before = regular_files(r, "/etc/config", "/tmp", "/root")
    result = r.run_daemon("-S", "123", "-n")
    assert result.returncode == 0
    assert "123" not in result.stdout + result.stderr
    # -n did its job: every gate open, no rule left, no daemon.
    assert r.ip_forward() == ("1", "1")
    assert not any("DROP" in rule for rule in r.iptables_rules())
    assert not daemon_pids(r)
    assert r.read_file("/etc/config/sas", binary=True) == before["/etc/config/sas"]
    assert r.uci_get("config", "serialNumber") == "SN-LAB-7"
    after = regular_files(r, "/etc/config", "/tmp", "/root")
    written = {path: text for path, text in after.items() if before.get(path) != text}
    assert not [path for path, text in written.items() if b"123" in text], written


def test_debug_mode_stays_in_foreground_and_prints_given_overrides(router, cbsd_bin):
    r = router()
    r.start_daemon("-S", "SN-42", "-M", "30")
    assert r.wait_for_log(WAIT_LTE, timeout=20), r.daemon_output()
    assert r.daemon.poll() is None
    output = r.daemon_output()
    assert output.startswith("  SN=SN-42\n  maxEIRP=30\n")
    assert "fccId=" not in output.split("\n[")[0]
    assert "category=" not in output


def test_version_line_starts_the_log_with_a_blank_line(router, cbsd_bin):
    r = router()
    r.start_daemon()
    assert r.wait_for_log(WAIT_LTE, timeout=20)
    log = r.log_text()
    assert log.startswith("\n[")
    first = log[1:].split("\n", 1)[0] + "\n"
    assert LINE_PREFIX.match(first)
    assert first[first.index("]") + 1:] == VERSION
    st = os.stat(r.host_path("/root/sas"))
    assert oct(st.st_mode & 0o777) == "0o755"


def test_the_chosen_level_filters_the_log_file(router, cbsd_bin):
    quiet = router()
    quiet.start_daemon("-v", "3")  # after the lab's -d: level 3
    assert started_up(quiet)
    # The level-5 version line and the level-7 wait are not written.
    assert VERSION not in (quiet.log_text() or "")
    assert WAIT_LTE not in (quiet.log_text() or "")


def test_rotation_size_option_rotates_the_log_file(router, cbsd_bin):
    # -s 5000: a 5001-byte log is rotated by the first message; the backup
    # repeats the last byte, and the start-up lines stay well below 5000 bytes.
    r = router()
    r.write_file("/root/sas/sas.log", "z" * 5001)
    r.start_daemon("-s", "5000")
    assert r.wait_for_log(WAIT_LTE, timeout=20)
    assert r.read_file("/root/sas/sas.log0") == "z" * 5002
    assert r.log_text().startswith("\n[")


def test_log_file_option(router, cbsd_bin):
    r = router()
    r.start_daemon("-f", "/tmp/other.log")
    assert r.wait_for(lambda: WAIT_LTE in (r.read_file("/tmp/other.log") or ""), timeout=20)
    assert not r.exists("/root/sas/sas.log")


def test_second_instance_exits_255_silently(router, cbsd_bin):
    r = router()
    r.start_daemon()
    assert r.wait_for_log(WAIT_LTE, timeout=20)
    second = r.run_daemon("-d")
    assert (second.returncode, second.stdout, second.stderr) == (255, "", "")
    assert r.daemon.poll() is None


def test_lock_file_that_cannot_be_opened(router, cbsd_bin):
    r = router()
    r.run("mkdir /tmp/cbsd_lock", check=True)
    result = r.run_daemon("-d")
    assert result.returncode == 255
    assert result.stdout == "open /tmp/cbsd_lock failed.\n"


def test_daemonises_without_debug(router, cbsd_bin):
    r = router()
    started = time.monotonic()
    launcher = r.run_daemon()
    assert launcher.returncode == 0
    assert launcher.stdout == ""
    assert time.monotonic() - started < 10
    assert r.wait_for(lambda: len(daemon_pids(r)) == 1, timeout=10)
    pid = daemon_pids(r)[0]
    assert r.wait_for_log(WAIT_LTE, timeout=20)
    for fd in (0, 1, 2):
        assert r.run(f"readlink /proc/{pid}/fd/{fd}").stdout.strip() == "/dev/null"
    stat = r.run(f"cat /proc/{pid}/stat").stdout
    fields = stat[stat.rindex(")") + 2:].split()
    session = int(fields[3])
    assert session != pid  # the second fork leaves no session leader to reacquire a terminal
    assert r.run(f"grep -c . /proc/{pid}/status").returncode == 0
    umask = [line for line in r.run(f"cat /proc/{pid}/status").stdout.splitlines()
             if line.startswith("Umask:")]
    assert umask == ["Umask:\t0000"]
    # The lock is held: another start leaves silently.
    assert r.run_daemon().returncode == 255
