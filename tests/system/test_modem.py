"""The modem side of the real daemon in a virtual router: the serving cell's
frequency range in section cellInfo, and modem output that is missing,
truncated or binary."""
import os

import pytest

from lab import openwrt_bus
from lab.device_config import bare_sas_config
from lab.timing import PASS_SECONDS

WITHIN_ONE_PASS = PASS_SECONDS + 4
MODEM = {"productmodule": "RQ5518L", "SN": "SN1", "netstat": 4,
         "dlfreq": 3625000, "bandwidth": 20, "band": 48}
SAS_CONFIG = bare_sas_config()


def cell(r):
    return (r.uci_get("cellInfo", "lowFrequency"), r.uci_get("cellInfo", "highFrequency"),
            r.uci_get("cellInfo", "bandwidth"))


def test_cell_range_is_stored_and_follows_a_new_cell(router):
    r = router(modem=MODEM, sas_config=SAS_CONFIG)
    r.start_daemon()
    assert r.wait_for(lambda: cell(r) == ("3615.0", "3635.0", "20"), WITHIN_ONE_PASS), \
        r.log_text()[-2000:]
    # The three values are stored first and logged after: wait for the lines.
    assert r.wait_for_log("[SAS] lowFreq = 3615.0\n", 2)
    assert r.wait_for_log("[SAS] higFreq = 3635.0\n", 2)
    assert r.wait_for_log("[SAS] bandWidth = 20\n", 2)
    r.set_modem(dlfreq=3600000, bandwidth=3)
    assert r.wait_for(lambda: cell(r) == ("3598.5", "3601.5", "3"), 2 * WITHIN_ONE_PASS), \
        r.log_text()[-2000:]
    assert r.daemon.poll() is None


def test_garbage_modem_output_never_stops_the_daemon(router):
    r = router(modem=MODEM, sas_config=SAS_CONFIG)
    r.start_daemon()
    assert r.wait_for(lambda: cell(r)[0] == "3615.0", WITHIN_ONE_PASS)
    garbage = [
        b"",
        b'{\n\t"productmodule": RQ5518L,\n\t"dlfreq"',
        b'\t"dlfreq": ' + b"9" * 10240 + b",\n",
        bytes(range(256)) * 40,
    ]
    for raw in garbage:
        r.set_modem(raw={"getproductinfo": raw, "getltestatus": raw, "getlteinfo": raw})
        r.wait_for(lambda: False, 2)
        assert r.daemon.poll() is None, r.daemon_output()[-3000:]
    # A modem that comes back is followed again.
    r.set_modem(raw=None, dlfreq=3700000, bandwidth=10)
    assert r.wait_for(lambda: cell(r) == ("3695.0", "3705.0", "10"), 3 * WITHIN_ONE_PASS), \
        r.log_text()[-3000:]
    assert r.daemon.poll() is None


def test_cell_range_through_the_real_ubus_cli_and_a_modem_manager_that_comes_and_goes(router):
    """The router of the other tests with OpenWrt's own ubusd and `ubus` CLI and
    the lab's ucode modem manager instead of the stand-in (skipped without
    ../shared/openwrt): the daemon reads the cell through the real CLI, keeps
    going while the modem manager is off the bus and follows it when it
    comes back."""
    if not openwrt_bus.available():
        pytest.skip("../shared/openwrt (the real OpenWrt ubusd and ubus CLI) is absent")
    r = router(modem=MODEM, sas_config=SAS_CONFIG, ubus="real")
    assert r.run("command -v ubus").stdout == "/etc/lab/bin/ubus\n"
    assert os.readlink(r.host_path("/etc/lab/bin/ubus")) == "/usr/bin/ubus"
    r.start_daemon()
    # Start-up (profile, first run) comes before the first pass.
    assert r.wait_for(lambda: cell(r) == ("3615.0", "3635.0", "20"), 30), r.log_text()[-2000:]
    assert "[SAS] CPE Product Model: RQ5518L\n" in r.log_text()
    r.set_modem(registered=False)
    assert r.wait_for(lambda: r.run("ubus list ubus_lte").returncode == 4, 5)
    r.wait_for(lambda: False, WITHIN_ONE_PASS)
    assert r.daemon.poll() is None, r.daemon_output()[-3000:]
    r.set_modem(registered=None, dlfreq=3700000, bandwidth=10)
    assert r.wait_for(lambda: cell(r) == ("3695.0", "3705.0", "10"), 3 * WITHIN_ONE_PASS), \
        r.log_text()[-3000:]
    assert r.daemon.poll() is None
