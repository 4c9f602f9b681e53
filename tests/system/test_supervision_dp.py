"""The supervision loop of the real daemon in a virtual dp_router, in DP mode:
SAS on and off, the proxy's radio switch, the LTE link, the cell frequency
refresh, the change report and the repair of the traffic gates."""
import time

import pytest

from lab import fail_closed
from lab.device_config import dp_config
from lab.rules import ADD_ICMP_DROP, BRIDGE_DROPS, DELETE_ICMP_DROP, ICMP_DROP
from lab.timing import PASS_SECONDS, WITHIN_ONE_PASS


def start(dp_router, **config):
    r = dp_router(sas_config=dp_config(**config))
    r.start_daemon()
    return r


@pytest.fixture
def dp_enabled(dp_router):
    """A daemon in DP mode with SAS on and the radio off: all gates closed."""
    r = start(dp_router, enable_mode="1")
    assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n")
    assert r.wait_for(r.gates_closed, WITHIN_ONE_PASS)
    # Pass 1 unauthorises twice: on SAS enable and on the radio flag, which
    # counts as changed against the first pass's filler.
    assert r.wait_for_log("[SAS] sas radio disable.\n")
    assert r.wait_for(lambda: r.log_text().count("[SAS] device has been unauthorized.") == 2)
    r.wait_until_quiet()
    return r


def test_starting_with_sas_disabled_opens_traffic_and_says_so_once(dp_router):
    r = dp_router(sas_config=dp_config(enable_mode="0"))
    r.run(ADD_ICMP_DROP)
    r.start_daemon()
    assert r.wait_for_log("[SAS] sas disable.\n")
    assert r.wait_for_log("[SAS] device network has been recovered.")
    assert r.wait_for(r.gates_open, 3)
    mark = len(r.log_text())
    # Later passes only re-assert and sleep: a rule added behind the daemon's
    # back is removed again without any new announcement.
    r.run(ADD_ICMP_DROP)
    assert r.wait_for_log_after(mark, "[SAS] firewall ICMP is enable.\n")
    assert ICMP_DROP not in r.iptables_rules()
    text = r.log_text()
    assert text.count("[SAS] sas disable.\n") == 1
    assert "lasted configuration" not in text
    assert ("5", "cbsd", "[SAS] sas disable.\n") in r.syslog_records()
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_enabling_sas_in_dp_mode_closes_all_three_gates(dp_router):
    r = start(dp_router, enable_mode="0")
    assert r.wait_for_log("[SAS] sas disable.\n")
    assert r.wait_for(r.gates_open, 3)
    mark = r.edit("config", "enableMode", "1")
    assert r.wait_for_log_after(mark, "[SAS] CPE is communicating with SAS using DP.\n")
    assert r.wait_for_log_after(mark, '[SAS] set powerSpectralDensity=""\n', 3)
    assert r.wait_for(r.gates_closed, 3)
    news = r.log_after(mark)
    assert "[SAS] sasEnable change: 0 -> 1\n" in news
    assert news.index("[SAS] sas enable.\n") < news.index("[SAS] device has been unauthorized.")
    assert "[SAS] clear cbsd state.\n" in news
    assert "standalone thread" not in news.lower()
    assert r.ip_forward() == ("0", "0")
    rules = r.iptables_rules()
    assert ICMP_DROP in rules
    assert any("-o br-lan" in rule and "ACCEPT" in rule for rule in rules)
    assert rules.index(next(x for x in rules if "-o br-lan" in x)) < rules.index(ICMP_DROP)
    assert set(BRIDGE_DROPS) <= set(r.ebtables_rules())
    assert r.uci_get("operation", "status") == "Unregistered"
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_proxy_radio_switch_opens_and_closes_the_gates(dp_enabled):
    r = dp_enabled
    mark = r.edit("sasConfig", "RadioEnable", "1")
    assert r.wait_for_log_after(mark, "[SAS] device has been authorized.")
    assert r.wait_for(r.gates_open, 3)
    assert "[SAS] sas radio enable.\n" in r.log_after(mark)
    assert r.wait_status("Authorized", 3)

    mark = r.edit("sasConfig", "RadioEnable", "0")
    assert r.wait_for_log_after(mark, "[SAS] device has been unauthorized.")
    assert r.wait_for(r.gates_closed, 3)
    assert "[SAS] sas radio disable.\n" in r.log_after(mark)
    assert r.wait_status("Unregistered", 3)
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_radio_changes_while_sas_is_off_change_nothing(dp_router):
    r = start(dp_router, enable_mode="0")
    assert r.wait_for_log("[SAS] sas disable.\n")
    mark = r.edit("sasConfig", "RadioEnable", "1")
    assert r.wait_for_log_after(mark, "[SAS] radioEnable change: 0 -> 1\n")
    r.edit("sasConfig", "RadioEnable", "0")
    assert r.wait_for_log_after(mark, "[SAS] radioEnable change: 1 -> 0\n")
    news = r.log_after(mark)
    assert "sas radio" not in news
    assert "authorized" not in news
    assert r.uci_get("operation", "status") == "Unregistered"
    assert r.gates_open()
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_lte_link_down_and_up(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    r.set_modem(netstat=1)
    assert r.wait_for_log_after(mark, "[SAS] LTE is not in connection.\n")
    assert "[SAS] lteConnected change: 1 -> 0\n" in r.log_after(mark)
    # The system-log copy follows the file line.
    assert r.wait_for(lambda: ("5", "cbsd", "[SAS] LTE is not in connection.\n")
                      in r.syslog_records(), 3)

    r.edit("cellInfo", "lowFrequency", "")
    mark = len(r.log_text())
    r.set_modem(netstat=4)
    assert r.wait_for_log_after(mark, "[SAS] LTE is in connection.\n")
    assert r.wait_for_log_after(mark, "[SAS] bandWidth = 20\n", 8)
    assert "frequence information timeout" not in r.log_after(mark)
    assert r.uci_get("cellInfo", "lowFrequency") == "3615.0"
    assert r.uci_get("cellInfo", "highFrequency") == "3635.0"
    assert r.gates_closed()
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_frequency_change_blocks_until_the_modem_reports_a_plausible_cell(dp_enabled):
    r = dp_enabled
    time.sleep(0.5)
    mark = len(r.log_text())
    # 25 MHz is never accepted: the loop waits in the refresh, without limit.
    r.set_modem(dlfreq=3600000, bandwidth=25)
    time.sleep(WITHIN_ONE_PASS)
    # While it waits, no pass runs: a rule removed now is not put back.
    fail_closed.tampered(r)
    r.run(DELETE_ICMP_DROP)
    time.sleep(PASS_SECONDS + 1)
    assert ICMP_DROP not in r.iptables_rules()
    assert "lasted configuration" not in r.log_after(mark)
    assert r.daemon_alive(), r.daemon_output()[-3000:]

    r.set_modem(bandwidth=10)
    # The loop can put the rule back only from now on: its one pass starts here.
    fail_closed.tampered(r)
    assert r.wait_for_log_after(mark, "[SAS] LTE accesses network success.\n", 5)
    # The report compares the readings the pass loaded before it waited; the
    # next pass then follows the accepted bandwidth.
    assert r.wait_for_log_after(mark, "[SAS] frequency change: 36250 -> 36000\n", 5)
    assert "[SAS] bandwidth change: 20 -> 25\n" in r.log_after(mark)
    assert r.wait_for_log_after(mark, "[SAS] bandwidth change: 25 -> 10\n", 5)
    assert r.uci_get("cellInfo", "lowFrequency") == "3595.0"
    assert r.uci_get("cellInfo", "highFrequency") == "3605.0"
    assert r.uci_get("cellInfo", "bandwidth") == "10"
    assert r.wait_for(lambda: ICMP_DROP in r.iptables_rules(), WITHIN_ONE_PASS)


def test_call_sign_change_in_dp_mode_is_reported_and_restarts_nothing(dp_enabled):
    r = dp_enabled
    mark = r.edit("config", "callSign", "CALL2")
    assert r.wait_for_log_after(mark, "[SAS] callSign change: CALL1 -> CALL2\n")
    assert r.wait_for_log_after(mark, "[SAS] sas will run with lasted configuration.\n", 2)
    time.sleep(1)
    news = r.log_after(mark)
    assert "sas configuration is changed" not in news
    assert "clear cbsd state" not in news
    assert "thread" not in news
    assert r.gates_closed()
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_change_report_lines_follow_the_field_order(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    text = r.read_file("/etc/config/sas")
    text = (text.replace("option userId 'lab-user'", "option userId 'lab-user-2'")
                .replace("option height '10'", "option height '12345678'")
                .replace("option antennaDowntilt '2'", "option antennaDowntilt '4'"))
    r.write_file("/etc/config/sas", text)
    assert r.wait_for_log_after(mark, "[SAS] sas will run with lasted configuration.\n")
    news = r.log_after(mark)
    lines = ["[SAS] userId change: lab-user -> lab-user-2\n",
             "[SAS] height change: 10 -> 123456\n",
             "[SAS] antennaDowntilt change: 2 -> 4\n"]
    positions = [news.index(line) for line in lines]
    assert positions == sorted(positions)
    assert positions[-1] < news.index("[SAS] sas will run with lasted configuration.\n")


def test_rules_deleted_behind_the_daemons_back_are_restored_within_one_pass(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    fail_closed.tampered(r)
    r.run("iptables -F OUTPUT; ebtables -F BRIDGE_FORWARD; "
          "echo 1 > /proc/sys/net/ipv4/ip_forward; echo 1 > /proc/sys/net/ipv6/conf/all/forwarding")
    # Steady passes log only what they repair; each gate is closed again.
    for line in ("[SAS] IP forward is disable.\n", "[SAS] firewall ICMP is disable.\n",
                 "[SAS] bridge forward is disable.\n"):
        assert r.wait_for_log_after(mark, line), r.gate_state()
    assert r.wait_for(r.gates_closed, 3), r.gate_state()
    assert "device has been unauthorized" not in r.log_after(mark)
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_power_change_while_radio_is_disabled_is_recorded_silently(dp_enabled):
    r = dp_enabled
    mark = r.edit("sasConfig", "powerSpectralDensity", "20")
    assert r.wait_for_log_after(mark, "[SAS] powerSptDensity change: 0 -> 20\n")
    time.sleep(1)
    assert "powerSptDensity is changed" not in r.log_after(mark)

    r.edit("sasConfig", "RadioEnable", "1")
    assert r.wait_for_log_after(mark, "[SAS] device has been authorized.")
    mark = r.edit("sasConfig", "powerSpectralDensity", "17")
    assert r.wait_for_log_after(mark, "[SAS] powerSptDensity is changed(SAS_CONFIG_POWER=17).\n")
    assert r.daemon_alive(), r.daemon_output()[-3000:]


UNREADABLE = "[SAS] /etc/config/sas cannot be read, the last readable configuration stays in force.\n"


def test_missing_configuration_file_keeps_traffic_stopped(dp_router):
    """Unreadable is not "SAS disabled": with nothing readable the gates stay
    closed (logged once), and a readable file is followed from the next pass."""
    r = dp_router(sas_config=None)
    r.start_daemon()
    assert r.wait_for_log("[SAS] /etc/config/sas cannot be read at start, traffic stays stopped.\n")
    assert r.wait_for_log(UNREADABLE)
    assert r.wait_for(r.gates_closed, 3), r.gate_state()
    r.run("echo 1 > /proc/sys/net/ipv4/ip_forward")
    assert r.wait_for(lambda: r.ip_forward()[0] == "0", WITHIN_ONE_PASS), r.gate_state()
    text = r.log_text()
    assert text.count(UNREADABLE) == 1
    assert "sas disable" not in text and "no value" not in text

    mark = len(text)
    r.write_file("/etc/config/sas", dp_config(enable_mode="0"))
    assert r.wait_for_log_after(mark, "[SAS] /etc/config/sas can be read again.\n")
    assert r.wait_for_log_after(mark, "[SAS] sas disable.\n")
    assert r.wait_for(r.gates_open, 3), r.gate_state()
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_configuration_emptied_while_authorized_closes_the_gates(dp_enabled):
    """A commit cut short by a full store used to leave an empty file, read as
    "SAS disabled": gates opened. Now the proxy's withdrawal could no longer be
    seen, so the gates close, without a disable and logged once."""
    r = dp_enabled
    mark = r.edit("sasConfig", "RadioEnable", "1")
    assert r.wait_for(r.gates_open, WITHIN_ONE_PASS), r.gate_state()
    r.wait_until_quiet()
    r.write_file("/etc/config/sas", "")
    assert r.wait_for_log_after(mark, UNREADABLE)
    assert r.wait_for(r.gates_closed, 3), r.gate_state()
    r.run("echo 1 > /proc/sys/net/ipv4/ip_forward")
    assert r.wait_for(lambda: r.ip_forward()[0] == "0", WITHIN_ONE_PASS), r.gate_state()
    text = r.log_after(mark)
    assert text.count(UNREADABLE) == 1
    assert "sas disable" not in text and "recovered" not in text
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_garbage_from_the_modem_does_not_kill_the_loop(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    r.set_modem(raw={"getltestatus": b"\x00\xff\x04garbage \"netstat\": {{{\n",
                     "getlteinfo": b"dlfreq\nbandwidth: ,\n:\n" + b"\xfe" * 5000})
    time.sleep(WITHIN_ONE_PASS)
    assert r.daemon_alive(), r.daemon_output()[-3000:]
    r.set_modem(raw=None)
    assert r.wait_for_log_after(mark, "[SAS] sas will run with lasted configuration.\n", 8)
    r.edit("config", "callSign", "AFTER")
    assert r.wait_for_log_after(mark, "[SAS] callSign change: CALL1 -> AFTER\n")
    assert r.wait_for(r.gates_closed, WITHIN_ONE_PASS)
    assert r.daemon_alive(), r.daemon_output()[-3000:]


def test_disabling_sas_reopens_traffic(dp_enabled):
    r = dp_enabled
    mark = r.edit("config", "enableMode", "0")
    assert r.wait_for_log_after(mark, "[SAS] sas disable.\n")
    assert r.wait_for_log_after(mark, "[SAS] device network has been recovered.", 5)
    assert r.gates_open()
    assert r.daemon_alive(), r.daemon_output()[-3000:]
