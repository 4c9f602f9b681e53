"""The supervision loop of the real daemon in a virtual router, in DP mode:
SAS on and off, the proxy's radio switch, the LTE link, the cell frequency
refresh, the change report and the repair of the traffic gates."""
import time

import fail_closed
import pytest

from lab import device_config

ICMP_DROP = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"
BRIDGE_DROPS = ("-o eth1.112+ -j DROP", "-o usb0.112+ -j DROP")
PASS_SECONDS = 5
# One steady pass sleeps 5 s; a change is followed within one sleep plus the
# time the pass itself takes (generous: the test machines are shared).
WITHIN_ONE_PASS = PASS_SECONDS + 7


def sas_config(enable_mode="0", usedp="1", radio_enable="0", call_sign="CALL1"):
    # DP mode never contacts the SAS, so the address only has to be well formed.
    return device_config.sas_config("https://127.0.0.1:1/v1.2", enable_mode=enable_mode,
                                    usedp=usedp, radio_enable=radio_enable, call_sign=call_sign)


def gates_closed(r):
    ebtables = r.ebtables_rules()
    return (r.ip_forward() == ("0", "0") and ICMP_DROP in r.iptables_rules()
            and all(rule in ebtables for rule in BRIDGE_DROPS))


def gates_open(r):
    return (r.ip_forward() == ("1", "1") and ICMP_DROP not in r.iptables_rules()
            and not any("DROP" in rule for rule in r.ebtables_rules()))


def gate_state(r):
    """What the gates look like, for failure messages."""
    return (f"ip_forward={r.ip_forward()} iptables={r.iptables_rules()} "
            f"ebtables={r.ebtables_rules()}\n{r.log_text()[-2500:]}")


def log_after(r, mark):
    return r.log_text()[mark:]


def wait_for_log_after(r, mark, text, timeout=WITHIN_ONE_PASS):
    return bool(r.wait_for(lambda: text in log_after(r, mark), timeout))


def wait_until_quiet(r, quiet=1.5, timeout=WITHIN_ONE_PASS):
    """Waits until the log has not grown for `quiet` seconds: the pass that
    logged last has finished its writes to /etc/config/sas, so an edit now
    does not race with the daemon's own read-modify-write of the file."""
    deadline = time.monotonic() + timeout
    size, since = len(r.log_text()), time.monotonic()
    while time.monotonic() < deadline:
        time.sleep(0.1)
        now = len(r.log_text())
        if now != size:
            size, since = now, time.monotonic()
        elif time.monotonic() - since >= quiet:
            return
    raise AssertionError("the daemon's log did not settle")


def edit(r, section, option, value):
    """Changes one option of /etc/config/sas the way the management
    interface would, once the daemon is between passes; returns the log
    position before the change."""
    wait_until_quiet(r)
    mark = len(r.log_text())
    r.uci_set(section, option, value)
    return mark


def assert_alive(r):
    assert r.daemon.poll() is None, r.daemon_output()[-3000:]


def start(router, **config):
    r = router(sas_config=sas_config(**config))
    r.start_daemon()
    return r


@pytest.fixture
def router(router):
    """Every daemon these tests start runs under the fail-closed sampler,
    with the proxy's RadioEnable as the authority."""
    yield from fail_closed.watch_daemons(router, fail_closed.DpAuthority)


@pytest.fixture
def dp_enabled(router):
    """A daemon in DP mode with SAS on and the radio off: all gates closed."""
    r = start(router, enable_mode="1", usedp="1")
    assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n")
    assert r.wait_for(lambda: gates_closed(r), WITHIN_ONE_PASS)
    # Pass 1 unauthorises twice: on SAS enable and on the radio flag, which
    # counts as changed against the first pass's filler.
    assert r.wait_for_log("[SAS] sas radio disable.\n")
    assert r.wait_for(lambda: r.log_text().count("[SAS] device has been unauthorized.") == 2)
    wait_until_quiet(r)
    return r


def test_starting_with_sas_disabled_opens_traffic_and_says_so_once(router):
    r = router(sas_config=sas_config(enable_mode="0"))
    r.run("iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP")
    r.start_daemon()
    assert r.wait_for_log("[SAS] sas disable.\n")
    assert r.wait_for_log("[SAS] device network has been recovered.")
    assert r.wait_for(lambda: gates_open(r), 3)
    mark = len(r.log_text())
    # Later passes only re-assert and sleep: a rule added behind the daemon's
    # back is removed again without any new announcement.
    r.run("iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP")
    assert wait_for_log_after(r, mark, "[SAS] firewall ICMP is enable.\n")
    assert ICMP_DROP not in r.iptables_rules()
    text = r.log_text()
    assert text.count("[SAS] sas disable.\n") == 1
    assert "lasted configuration" not in text
    assert ("5", "cbsd", "[SAS] sas disable.\n") in r.syslog_records()
    assert_alive(r)


def test_enabling_sas_in_dp_mode_closes_all_three_gates(router):
    r = start(router, enable_mode="0", usedp="1")
    assert r.wait_for_log("[SAS] sas disable.\n")
    assert r.wait_for(lambda: gates_open(r), 3)
    mark = edit(r, "config", "enableMode", "1")
    assert wait_for_log_after(r, mark, "[SAS] CPE is communicating with SAS using DP.\n")
    assert wait_for_log_after(r, mark, '[SAS] set powerSpectralDensity=""\n', 3)
    assert r.wait_for(lambda: gates_closed(r), 3)
    news = log_after(r, mark)
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
    assert_alive(r)


def test_proxy_radio_switch_opens_and_closes_the_gates(dp_enabled):
    r = dp_enabled
    mark = edit(r, "sasConfig", "RadioEnable", "1")
    assert wait_for_log_after(r, mark, "[SAS] device has been authorized.")
    assert r.wait_for(lambda: gates_open(r), 3)
    assert "[SAS] sas radio enable.\n" in log_after(r, mark)
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Authorized", 3)

    mark = edit(r, "sasConfig", "RadioEnable", "0")
    assert wait_for_log_after(r, mark, "[SAS] device has been unauthorized.")
    assert r.wait_for(lambda: gates_closed(r), 3)
    assert "[SAS] sas radio disable.\n" in log_after(r, mark)
    assert r.wait_for(lambda: r.uci_get("operation", "status") == "Unregistered", 3)
    assert_alive(r)


def test_radio_changes_while_sas_is_off_change_nothing(router):
    r = start(router, enable_mode="0", usedp="1")
    assert r.wait_for_log("[SAS] sas disable.\n")
    mark = edit(r, "sasConfig", "RadioEnable", "1")
    assert wait_for_log_after(r, mark, "[SAS] radioEnable change: 0 -> 1\n")
    edit(r, "sasConfig", "RadioEnable", "0")
    assert wait_for_log_after(r, mark, "[SAS] radioEnable change: 1 -> 0\n")
    news = log_after(r, mark)
    assert "sas radio" not in news
    assert "authorized" not in news
    assert r.uci_get("operation", "status") == "Unregistered"
    assert gates_open(r)
    assert_alive(r)


def test_lte_link_down_and_up(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    r.set_modem(netstat=1)
    assert wait_for_log_after(r, mark, "[SAS] LTE is not in connection.\n")
    assert "[SAS] lteConnected change: 1 -> 0\n" in log_after(r, mark)
    # The system-log copy follows the file line.
    assert r.wait_for(lambda: ("5", "cbsd", "[SAS] LTE is not in connection.\n")
                      in r.syslog_records(), 3)

    edit(r, "cellInfo", "lowFrequency", "")
    mark = len(r.log_text())
    r.set_modem(netstat=4)
    assert wait_for_log_after(r, mark, "[SAS] LTE is in connection.\n")
    assert wait_for_log_after(r, mark, "[SAS] bandWidth = 20\n", 8)
    assert "frequence information timeout" not in log_after(r, mark)
    assert r.uci_get("cellInfo", "lowFrequency") == "3615.0"
    assert r.uci_get("cellInfo", "highFrequency") == "3635.0"
    assert gates_closed(r)
    assert_alive(r)


def test_frequency_change_blocks_until_the_modem_reports_a_plausible_cell(dp_enabled):
    r = dp_enabled
    time.sleep(0.5)
    mark = len(r.log_text())
    # 25 MHz is never accepted: the loop waits in the refresh, without limit.
    r.set_modem(dlfreq=3600000, bandwidth=25)
    time.sleep(WITHIN_ONE_PASS)
    # While it waits, no pass runs: a rule removed now is not put back.
    fail_closed.tampered(r)
    r.run("iptables -D OUTPUT -p icmp --icmp-type 8 -j DROP")
    time.sleep(PASS_SECONDS + 1)
    assert ICMP_DROP not in r.iptables_rules()
    assert "lasted configuration" not in log_after(r, mark)
    assert_alive(r)

    r.set_modem(bandwidth=10)
    # The loop can put the rule back only from now on: its one pass starts here.
    fail_closed.tampered(r)
    assert wait_for_log_after(r, mark, "[SAS] LTE accesses network success.\n", 5)
    # The report compares the readings the pass loaded before it waited; the
    # next pass then follows the accepted bandwidth.
    assert wait_for_log_after(r, mark, "[SAS] frequency change: 36250 -> 36000\n", 5)
    assert "[SAS] bandwidth change: 20 -> 25\n" in log_after(r, mark)
    assert wait_for_log_after(r, mark, "[SAS] bandwidth change: 25 -> 10\n", 5)
    assert r.uci_get("cellInfo", "lowFrequency") == "3595.0"
    assert r.uci_get("cellInfo", "highFrequency") == "3605.0"
    assert r.uci_get("cellInfo", "bandwidth") == "10"
    assert r.wait_for(lambda: ICMP_DROP in r.iptables_rules(), WITHIN_ONE_PASS)


def test_call_sign_change_in_dp_mode_is_reported_and_restarts_nothing(dp_enabled):
    r = dp_enabled
    mark = edit(r, "config", "callSign", "CALL2")
    assert wait_for_log_after(r, mark, "[SAS] callSign change: CALL1 -> CALL2\n")
    assert wait_for_log_after(r, mark, "[SAS] sas will run with lasted configuration.\n", 2)
    time.sleep(1)
    news = log_after(r, mark)
    assert "sas configuration is changed" not in news
    assert "clear cbsd state" not in news
    assert "thread" not in news
    assert gates_closed(r)
    assert_alive(r)


def test_change_report_lines_follow_the_field_order(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    text = r.read_file("/etc/config/sas")
    text = (text.replace("option userId 'lab-user'", "option userId 'lab-user-2'")
                .replace("option height '10'", "option height '12345678'")
                .replace("option antennaDowntilt '2'", "option antennaDowntilt '4'"))
    r.write_file("/etc/config/sas", text)
    assert wait_for_log_after(r, mark, "[SAS] sas will run with lasted configuration.\n")
    news = log_after(r, mark)
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
        assert wait_for_log_after(r, mark, line), gate_state(r)
    assert r.wait_for(lambda: gates_closed(r), 3), gate_state(r)
    assert "device has been unauthorized" not in log_after(r, mark)
    assert_alive(r)


def test_power_change_while_radio_is_disabled_is_recorded_silently(dp_enabled):
    r = dp_enabled
    mark = edit(r, "sasConfig", "powerSpectralDensity", "20")
    assert wait_for_log_after(r, mark, "[SAS] powerSptDensity change: 0 -> 20\n")
    time.sleep(1)
    assert "powerSptDensity is changed" not in log_after(r, mark)

    edit(r, "sasConfig", "RadioEnable", "1")
    assert wait_for_log_after(r, mark, "[SAS] device has been authorized.")
    mark = edit(r, "sasConfig", "powerSpectralDensity", "17")
    assert wait_for_log_after(r, mark, "[SAS] powerSptDensity is changed(SAS_CONFIG_POWER=17).\n")
    assert_alive(r)


UNREADABLE = "[SAS] /etc/config/sas cannot be read, the last readable configuration stays in force.\n"


def test_missing_configuration_file_keeps_traffic_stopped(router):
    """Unreadable is not "SAS disabled": with nothing readable the gates stay
    closed (logged once), and a readable file is followed from the next pass."""
    r = router(sas_config=None)
    r.start_daemon()
    assert r.wait_for_log("[SAS] /etc/config/sas cannot be read at start, traffic stays stopped.\n")
    assert r.wait_for_log(UNREADABLE)
    assert r.wait_for(lambda: gates_closed(r), 3), gate_state(r)
    r.run("echo 1 > /proc/sys/net/ipv4/ip_forward")
    assert r.wait_for(lambda: r.ip_forward()[0] == "0", WITHIN_ONE_PASS), gate_state(r)
    text = r.log_text()
    assert text.count(UNREADABLE) == 1
    assert "sas disable" not in text and "no value" not in text

    mark = len(text)
    r.write_file("/etc/config/sas", sas_config(enable_mode="0"))
    assert wait_for_log_after(r, mark, "[SAS] /etc/config/sas can be read again.\n")
    assert wait_for_log_after(r, mark, "[SAS] sas disable.\n")
    assert r.wait_for(lambda: gates_open(r), 3), gate_state(r)
    assert_alive(r)


def test_configuration_emptied_while_authorized_closes_the_gates(dp_enabled):
    """A commit cut short by a full store used to leave an empty file, read as
    "SAS disabled": gates opened. Now the proxy's withdrawal could no longer be
    seen, so the gates close, without a disable and logged once."""
    r = dp_enabled
    mark = edit(r, "sasConfig", "RadioEnable", "1")
    assert r.wait_for(lambda: gates_open(r), WITHIN_ONE_PASS), gate_state(r)
    wait_until_quiet(r)
    r.write_file("/etc/config/sas", "")
    assert wait_for_log_after(r, mark, UNREADABLE)
    assert r.wait_for(lambda: gates_closed(r), 3), gate_state(r)
    r.run("echo 1 > /proc/sys/net/ipv4/ip_forward")
    assert r.wait_for(lambda: r.ip_forward()[0] == "0", WITHIN_ONE_PASS), gate_state(r)
    text = log_after(r, mark)
    assert text.count(UNREADABLE) == 1
    assert "sas disable" not in text and "recovered" not in text
    assert_alive(r)


def test_garbage_from_the_modem_does_not_kill_the_loop(dp_enabled):
    r = dp_enabled
    mark = len(r.log_text())
    r.set_modem(raw={"getltestatus": b"\x00\xff\x04garbage \"netstat\": {{{\n",
                     "getlteinfo": b"dlfreq\nbandwidth: ,\n:\n" + b"\xfe" * 5000})
    time.sleep(WITHIN_ONE_PASS)
    assert_alive(r)
    r.set_modem(raw=None)
    assert wait_for_log_after(r, mark, "[SAS] sas will run with lasted configuration.\n", 8)
    edit(r, "config", "callSign", "AFTER")
    assert wait_for_log_after(r, mark, "[SAS] callSign change: CALL1 -> AFTER\n")
    assert r.wait_for(lambda: gates_closed(r), WITHIN_ONE_PASS)
    assert_alive(r)


def test_disabling_sas_reopens_traffic(dp_enabled):
    r = dp_enabled
    mark = edit(r, "config", "enableMode", "0")
    assert wait_for_log_after(r, mark, "[SAS] sas disable.\n")
    assert wait_for_log_after(r, mark, "[SAS] device network has been recovered.", 5)
    assert gates_open(r)
    assert_alive(r)
