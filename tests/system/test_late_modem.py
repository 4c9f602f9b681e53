"""A modem manager that comes up after the daemon (a router that boots its
modem slowly): start-up waits for `ubus_lte` before it takes the device
profile, the first-run tag and the serial number; a stop during that wait
ends the daemon as any stop does; and nothing the daemon's children print on
standard error reaches the daemon's own (under procd: the system log)."""
import os
import signal
import time

import pytest

from lab.device_config import bare_sas_config, dp_config, sas_config
from lab.timing import STOP_LIMIT as STOP_BOUND

WAIT_START = "[SAS] the modem manager (ubus_lte) does not answer, start-up waits for it.\n"
WAIT_END = "[SAS] the modem manager (ubus_lte) answers after "
LATE = 20  # seconds after the start at which the modem manager registers
SERIAL = "SNLATE0042"


def first_run_tag(r):
    return str(int(os.stat(r.cbsd_bin).st_mtime))


def dump(r):
    result = r.run_daemon("-p")
    assert result.returncode == 0, result.stderr
    return dict(line.split("=", 1) for line in result.stdout.splitlines() if "=" in line)


def start_in_foreground(r, workdir):
    """`cbsd -D` as procd starts it: standard error to a file of its own."""
    err = open(os.path.join(workdir, "daemon.err"), "wb")
    out = open(os.path.join(workdir, "daemon.out"), "wb")
    process = r.spawn([r.cbsd_bin, "-D"], daemon=True, stdout=out, stderr=err)
    return process, err.name


def test_profile_first_run_and_registration_wait_for_a_late_modem_manager(lab, tmp_path):
    r, sim = lab
    r.set_modem(registered=False, SN=SERIAL)
    lab.write_config(enable_mode="1")
    # Values a first run replaces with the model's row.
    r.uci_set("cpi", "indoorDeployment", "1")
    r.uci_set("config", "antennaBeamwidth", "90")
    started = time.monotonic()
    daemon, err_path = start_in_foreground(r, str(tmp_path))

    assert r.wait_for_log(WAIT_START, 20), r.log_text()
    # While the modem manager is absent nothing is taken from its silence and
    # the gates stay as start-up left them: closed, SAS being enabled.
    while time.monotonic() - started < LATE:
        assert r.uci_get("config", "fccId") is None
        assert r.uci_get("config", "serialNumber") is None
        assert r.uci_get("config", "cbsdTag") is None
        assert r.gates_closed()
        assert not sim.requests("registration")
        time.sleep(1)
    absent_for = time.monotonic() - started
    syslog_while_absent = r.syslog_records()
    stderr_while_absent = open(err_path, "rb").read()
    r.set_modem(registered=None)

    assert r.wait_for_log(WAIT_END, 5 + 10), r.log_text()[-2000:]
    registration = sim.wait_for_request("registration", timeout=30)
    assert registration, r.log_text()[-3000:]
    request = registration[0]["json"]["registrationRequest"][0]
    assert (request["fccId"], request["cbsdSerialNumber"]) == ("7XK44RQ5518L96", SERIAL)

    values = dump(r)
    assert {k: values[k] for k in ("fccId", "serialNumber", "antennaGain", "maxEirp",
                                   "antennaBeamwidth", "indoorDeployment")} == {
        "fccId": "7XK44RQ5518L96", "serialNumber": SERIAL, "antennaGain": "14",
        "maxEirp": "27", "antennaBeamwidth": "60", "indoorDeployment": "0"}
    assert r.uci_get("config", "cbsdTag") == first_run_tag(r)

    log = r.log_text()
    assert log.count(WAIT_START) == 1 and log.count(WAIT_END) == 1, log
    assert "[SAS] CPE Product Model: RQ5518L-M2\n" in log
    assert log.index(WAIT_END) < log.index("[SAS] CPE Product Model: RQ5518L-M2\n")
    assert "does not support SAS" not in log and "failed to get SN" not in log
    # The refused queries are one streak: a line at its start, one at its end.
    assert log.count("getproductinfo failed (exit 4): Command failed: Not found\n") == 1, log
    assert log.count("getproductinfo works again after ") == 1, log

    # The children's complaints reach neither the daemon's standard error nor
    # the system log; the daemon itself put the wait's start there, once.
    assert stderr_while_absent == b""
    from_children = [t for _, _, t in syslog_while_absent if "Command failed" in t]
    assert from_children == []
    assert [t for _, _, t in syslog_while_absent if "modem manager" in t] == [WAIT_START]
    print(f"\nMEASURE modem manager absent {absent_for:.0f} s: "
          f"{len(stderr_while_absent.splitlines())} lines on the daemon's standard error, "
          f"{len(syslog_while_absent)} system-log lines in all "
          f"({len(syslog_while_absent) * 60 / absent_for:.1f} a minute), "
          f"{len(from_children)} from its children")

    print("system log while absent:", [t for _, _, t in syslog_while_absent])

    assert r.stop_with(signal.SIGTERM, STOP_BOUND, process=daemon)[0] == 0
    assert b"Command failed" not in open(err_path, "rb").read()


@pytest.mark.parametrize("absent", [{"registered": False}, {"ubusd": False}])
@pytest.mark.parametrize("signum", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_during_the_wait_ends_with_0_and_gates_closed(router, absent, signum):
    r = router(sas_config=sas_config(enable_mode="1"))
    r.set_modem(**absent)
    r.start_daemon()
    assert r.wait_for_log(WAIT_START, 20), r.daemon_output()[-2000:]
    r.stop_cleanly(signum, limit=STOP_BOUND)
    assert r.gates_closed()
    log = r.log_text()
    assert "[SAS] stop requested.\n" in log and "[SAS] cbsd exit.\n" in log
    assert WAIT_END not in log
    assert r.uci_get("config", "fccId") is None and r.uci_get("config", "cbsdTag") is None


def test_a_stop_while_a_query_of_the_wait_hangs_ends_within_the_bound(router):
    # The wait's query has the usual 10 s limit; the guard takes the stop over.
    r = router(sas_config=sas_config(enable_mode="1"))
    r.set_modem(hang=["getproductinfo"])
    r.start_daemon()
    assert r.wait_for_log(WAIT_START, 10 + 20), r.daemon_output()[-2000:]
    first = r.hung_pid("ubus")
    assert r.wait_for(lambda: r.hung_pid("ubus") not in (None, first), 5 + 10)
    r.stop_cleanly(signal.SIGTERM, limit=STOP_BOUND)
    assert r.gates_closed()
    assert r.uci_get("config", "fccId") is None


def test_sas_enabled_during_the_wait_closes_the_gates(router):
    r = router(sas_config=sas_config(enable_mode="0"))
    r.set_modem(registered=False)
    r.start_daemon()
    assert r.wait_for_log(WAIT_START, 20), r.daemon_output()[-2000:]
    assert r.ip_forward() == ("1", "1")  # SAS off: start-up opened traffic
    r.uci_set("config", "enableMode", "1")
    assert r.wait_for(r.gates_closed, 5 + 15), r.log_text()[-2000:]
    r.set_modem(registered=None)
    assert r.wait_for_log(WAIT_END, 5 + 10)
    assert r.daemon.poll() is None


def test_a_model_the_table_does_not_know_is_not_waited_for(router):
    r = router(modem={"productmodule": "QX-9000", "SN": "Q1", "netstat": 4, "dlfreq": 3625000,
                      "bandwidth": 20, "band": 48},
               sas_config=bare_sas_config())
    r.start_daemon()
    assert r.wait_for_log("[SAS] wait for LTE accessing network...\n", 20)
    log = r.log_text()
    assert "[SAS] this product model does not support SAS.\n" in log
    assert WAIT_START not in log
    assert r.uci_get("config", "fccId") == "unknow_fccid"
    assert r.uci_get("config", "serialNumber") == "Q1"


def test_a_modem_manager_restart_changes_no_decision(router):
    # DP mode with the radio on and Band 48 auto-enable: open gates, SAS on.
    r = router(sas_config=dp_config(auto="1"))
    r.start_daemon()
    assert r.wait_for(lambda: r.log_text().count("[SAS] device has been unauthorized.") == 2, 15)
    r.wait_until_quiet(timeout=20)
    r.uci_set("sasConfig", "RadioEnable", "1")
    assert r.wait_for(r.gates_open, 15), r.log_text()[-2000:]
    r.wait_until_quiet(timeout=20)
    cell = [r.uci_get("cellInfo", o) for o in ("lowFrequency", "highFrequency", "bandwidth")]
    mark = len(r.log_text())

    for round_, absent in enumerate(({"registered": False}, {"ubusd": False}), 1):
        r.set_modem(**absent)
        # Three passes of refused queries.
        end = time.monotonic() + 3 * 5 + 2
        while time.monotonic() < end:
            assert r.gates_open(), r.log_text()[mark:]
            time.sleep(0.5)
        r.set_modem(registered=None, ubusd=None)
        assert r.wait_for(lambda: r.log_text()[mark:].count("getltestatus works again after ")
                          == round_, 5 + 10), r.log_text()[mark:]
    r.wait_until_quiet(timeout=20)

    news = r.log_text()[mark:]
    for decision in (" change: ", "LTE is not in connection", "sas disable", "Band 48",
                     "sas will run", "lowFreq"):
        assert decision not in news, news
    assert [r.uci_get("cellInfo", o) for o in ("lowFrequency", "highFrequency", "bandwidth")] == cell
    assert r.uci_get("config", "enableMode") == "1"
    assert r.gates_open()
    # Each refused query kind is one streak: two lines, however many passes.
    assert news.count("getltestatus failed (exit 4): Command failed: Not found\n") == 1, news
    assert news.count("getltestatus failed (exit 255): Failed to connect to ubus\n") == 1, news
