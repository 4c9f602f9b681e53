"""Device profiles, first run, certificate provisioning and Band 48 automatic
enablement of the real daemon in a virtual router."""
import os
import shutil
import tempfile

import pytest

from lab.device_config import bare_sas_config as sas_config
from lab.timing import PASS_SECONDS

STARTED = "[SAS] auto SAS is "  # the first supervision pass: start-up is done
WITHIN_ONE_PASS = PASS_SECONDS + 4
L_M2_MODEM = {"productmodule": "RQ5518L-M2", "SN": "SNL0000042", "netstat": 4,
              "dlfreq": 3625000, "bandwidth": 20, "band": 48}


def start_and_settle(r, *args):
    """Starts the daemon and waits until start-up handed over to the loop."""
    mark = len(r.log_text())
    r.start_daemon(*args)
    settled = r.wait_for(lambda: STARTED in r.log_after(mark), 30)
    assert settled, (f"daemon status {r.daemon.poll()}, log {len(r.log_text())} bytes "
                     f"(mark {mark})\n{r.daemon_output()[-3000:]}")
    return mark


def test_known_model_gets_its_profile(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config())
    mark = start_and_settle(r)
    expected = {"config.fccId": "7XK44RQ5518L96", "config.antennaGain": "14",
                "sasConfig.maxEirp": "27", "config.serialNumber": "SNL0000042",
                "config.cbsdCategory": "B", "config.radioTechnology": "E_UTRA",
                "config.antennaModel": "Internal", "cpi.heightType": "AGL",
                "cpi.groupType": "INTERFERENCE_COORDINATION", "cpi.indoorDeployment": "0",
                "config.antennaBeamwidth": "60"}
    assert r.uci_values(expected) == expected
    news = r.log_after(mark)
    assert "[SAS] CPE Product Model: RQ5518L-M2\n" in news
    assert "[SAS] set default MaxEIRP(PreferPower): 27\n" in news
    assert "does not support SAS" not in news
    assert r.daemon.poll() is None


def test_silent_modem_gets_the_catch_all_row(router):
    r = router(modem={"netstat": 4, "dlfreq": 3625000, "bandwidth": 20},
               sas_config=sas_config())
    mark = start_and_settle(r)
    expected = {"config.fccId": "unknow_fccid", "config.antennaGain": "0",
                "sasConfig.maxEirp": "0"}
    assert r.uci_values(expected) == expected
    news = r.log_after(mark)
    assert "[SAS] this product model does not support SAS.\n" in news
    assert "[SAS] failed to get SN." in news
    records = r.syslog_records()
    assert ("5", "cbsd", "[SAS] this product model does not support SAS.\n") in records
    assert r.daemon.poll() is None


def test_second_start_keeps_first_run_options(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config())
    start_and_settle(r)
    r.stop_daemon()
    r.uci_set("cpi", "indoorDeployment", "1")
    r.uci_set("config", "antennaBeamwidth", "90")
    r.uci_set("config", "address", "https://sas.example/v1.2")
    r.uci_set("operation", "usedp", "1")
    r.uci_set("operation", "sasServerAddress", "https://old.example")
    r.uci_set("config", "fccId", "edited")
    mark = start_and_settle(r)
    assert r.uci_get("cpi", "indoorDeployment") == "1"
    assert r.uci_get("config", "antennaBeamwidth") == "90"
    assert r.uci_get("config", "usedp") is None
    assert r.uci_get("config", "address") == "https://sas.example/v1.2"
    assert r.uci_get("operation", "usedp") == "1"
    # Everything else is a default again at every start.
    assert r.uci_get("config", "fccId") == "7XK44RQ5518L96"
    news = r.log_after(mark)
    assert "first time" not in news
    assert "indoorDeployment" not in news


@pytest.fixture
def own_binary(cbsd_bin):
    """A private copy of the daemon that a test may touch; it lives beside the
    original because the router's /tmp is its own."""
    workdir = tempfile.mkdtemp(prefix="profiles-", dir=os.path.dirname(cbsd_bin))
    binary = os.path.join(workdir, "cbsd")
    shutil.copy2(cbsd_bin, binary)
    yield binary
    shutil.rmtree(workdir, ignore_errors=True)


def test_touched_executable_is_a_first_run_again(router, own_binary):
    binary = own_binary
    r = router(modem=L_M2_MODEM, sas_config=sas_config(), cbsd_bin=str(binary))
    first = start_and_settle(r)
    assert "[SAS] cbsd is running for the first time.\n" in r.log_after(first)
    tag = r.uci_get("config", "cbsdTag")
    assert tag == str(int(os.stat(binary).st_mtime))
    r.stop_daemon()

    second = start_and_settle(r)
    assert "first time" not in r.log_after(second)
    r.stop_daemon()

    stat = os.stat(binary)
    os.utime(binary, (stat.st_atime, stat.st_mtime + 60))
    r.uci_set("cpi", "indoorDeployment", "1")
    third = start_and_settle(r)
    assert "[SAS] cbsd is running for the first time.\n" in r.log_after(third)
    assert r.uci_get("config", "cbsdTag") == str(int(stat.st_mtime) + 60)
    assert r.uci_get("cpi", "indoorDeployment") == "0"


def test_first_run_moves_usedp_and_its_value_lands_in_address(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config(
        extra_config="\toption address 'https://keep.example'\n",
        extra_operation="\toption usedp '1'\n"))
    start_and_settle(r)
    assert r.uci_get("config", "usedp") == "1"
    assert r.uci_get("config", "address") == "1"
    assert r.uci_get("operation", "usedp") is None
    assert r.uci_get("operation", "sasServerAddress") is None


def test_first_run_without_old_options_empties_address(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config(
        extra_config="\toption address 'https://sas.example/v1.2'\n"))
    start_and_settle(r)
    assert r.uci_get("config", "address") is None
    assert r.uci_get("config", "usedp") is None


def test_debug_overrides_replace_profile_values(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config())
    start_and_settle(r, "-S", "DEBUGSN", "-F", "DEBUGFCC", "-M", "30", "-C", "ABCDEF")
    assert r.uci_get("config", "serialNumber") == "DEBUGSN"
    assert r.uci_get("config", "fccId") == "DEBUGFCC"
    assert r.uci_get("sasConfig", "maxEirp") == "30"
    assert r.uci_get("config", "cbsdCategory") == "ABCD"
    assert r.uci_get("config", "antennaGain") == "14"


def test_certificates_are_provisioned_from_the_drop_off(router, tmp_path):
    drop = tmp_path / "cert"
    (drop / "clientCert").mkdir(parents=True)
    (drop / "clientCert" / "client.pem").write_text("CLIENT CERT\n")
    (drop / "serverCA").mkdir()
    (drop / "serverCA" / "ca.pem").write_text("CA\n")
    r = router(modem=L_M2_MODEM, sas_config=sas_config(), provision_certs=str(drop))
    start_and_settle(r)
    assert r.read_file("/root/sas/cert/clientCert/client.pem") == "CLIENT CERT\n"
    assert r.read_file("/root/sas/cert/serverCA/ca.pem") == "CA\n"
    assert not r.exists("/tmp/logger/sas")


def test_auto_follows_band_48(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config(auto="1"))
    mark = start_and_settle(r)
    assert r.wait_for(lambda: r.uci_get("config", "enableMode") == "1", WITHIN_ONE_PASS)
    news = r.log_after(mark)
    assert "[SAS] auto SAS is On.\n" in news
    assert "[SAS] LTE is in Band 48, so turn on SAS automatically.\n" in news
    r.set_modem(band=41)
    assert r.wait_for(lambda: r.uci_get("config", "enableMode") == "0", 3 * WITHIN_ONE_PASS)
    assert r.wait_for_log("[SAS] LTE is not in Band 48, so turn off SAS automatically.\n")
    assert r.log_text().count("[SAS] auto SAS is On.\n") == 1
    assert r.daemon.poll() is None


def test_auto_with_failing_band_query_keeps_sas_as_it_was(router):
    """A failed band query is "unknown", not "not Band 48": SAS is not
    switched off, and the unknown band is logged once, not every pass."""
    r = router(modem=L_M2_MODEM, sas_config=sas_config(auto="1"))
    start_and_settle(r)
    assert r.wait_for(lambda: r.uci_get("config", "enableMode") == "1", WITHIN_ONE_PASS)
    mark = len(r.log_text())
    r.set_modem(band=None)  # the modem manager's reply lacks the band: the query fails
    assert r.wait_for(lambda: r.log_after(mark).count("get band error:") >= 3,
                      4 * WITHIN_ONE_PASS), r.log_after(mark)
    news = r.log_after(mark)
    assert r.uci_get("config", "enableMode") == "1"
    assert news.count("[SAS] LTE band unknown, SAS stays as it was.\n") == 1
    assert "not in Band 48" not in news and "sas disable" not in news
    r.set_modem(band=41)
    assert r.wait_for(lambda: r.uci_get("config", "enableMode") == "0", 3 * WITHIN_ONE_PASS)
    assert r.daemon.poll() is None


def test_manual_mode_leaves_enable_mode_to_the_user(router):
    r = router(modem=L_M2_MODEM, sas_config=sas_config(auto="0"))
    start_and_settle(r)
    r.uci_set("config", "enableMode", "0")
    mark = len(r.log_text())
    r.wait_for(lambda: False, WITHIN_ONE_PASS)  # let at least one pass go by
    assert r.uci_get("config", "enableMode") == "0"
    assert "Band 48" not in r.log_after(mark)
    assert r.log_text().count("[SAS] auto SAS is Off.\n") == 1
