"""Every command the daemon starts has a time limit: a modem manager or a
firewall tool that never answers is killed with its whole process group, the
failure is logged once, and the supervision loop goes on."""
import os

from lab import device_config
from test_supervision_dp import wait_until_quiet

ICMP_DROP = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"
TIME_LIMIT = 10
KILLED_STATUS_QUERY = ("[SAS] command still running after 10 s, killed: "
                       "ubus call ubus_lte getltestatus | grep netstat\n")


def dp_config(radio_enable):
    return device_config.sas_config("https://127.0.0.1:1/v1.2", enable_mode="1", usedp="1",
                                    radio_enable=radio_enable)


def gates_open(r):
    return (r.ip_forward() == ("1", "1") and ICMP_DROP not in r.iptables_rules()
            and not any("DROP" in rule for rule in r.ebtables_rules()))


def gates_closed(r):
    return r.ip_forward() == ("0", "0") and ICMP_DROP in r.iptables_rules()


def bridge_closed(r):
    rules = r.ebtables_rules()
    return all(rule in rules for rule in ("-o eth1.112+ -j DROP", "-o usb0.112+ -j DROP"))


def process_exists(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    return True


def steady_dp_router(router, radio_on):
    """A daemon in DP mode with SAS on, past its first pass (which clears the
    proxy's flag), with the radio as asked and the gates following it."""
    r = router(sas_config=dp_config(radio_enable="0"))
    r.start_daemon()
    assert r.wait_for(lambda: r.log_text().count("[SAS] device has been unauthorized.") == 2, 15)
    wait_until_quiet(r, timeout=20)
    if radio_on:
        r.uci_set("sasConfig", "RadioEnable", "1")
        assert r.wait_for(lambda: gates_open(r), 15), r.log_text()[-2000:]
        wait_until_quiet(r, timeout=20)
    return r


def test_a_modem_query_that_never_answers_is_killed_and_the_loop_goes_on(router):
    r = steady_dp_router(router, radio_on=True)

    r.set_modem(hang=["getltestatus"])
    assert r.wait_for_log(KILLED_STATUS_QUERY, timeout=TIME_LIMIT + 10), r.log_text()[-2000:]
    pid = r.hung_pid("ubus")
    assert pid is not None
    # Every pass starts a new hanging query; whichever one recorded its id is
    # killed when its own time limit runs out.
    assert r.wait_for(lambda: not process_exists(pid), TIME_LIMIT + 2), "the hung ubus lives"
    # The killed query reads as "not attached", and the loop reports it.
    assert r.wait_for_log("[SAS] LTE is not in connection.\n", timeout=TIME_LIMIT + 10)

    # Still supervising: the proxy withdraws the radio and the gates close,
    # although every pass now waits out one time limit.
    r.uci_set("sasConfig", "RadioEnable", "0")
    assert r.wait_for(lambda: gates_closed(r), 3 * TIME_LIMIT + 10), r.log_text()[-2000:]
    assert r.daemon.poll() is None


def test_a_firewall_tool_that_never_answers_is_killed_and_the_loop_goes_on(router):
    # The radio is on, so the passes only inspect: a killed listing reads as
    # "no drop rule", which is what they want to see.
    r = steady_dp_router(router, radio_on=True)

    r.hang_tool("ebtables")
    assert r.wait_for_log("[SAS] command still running after 10 s, killed: ebtables",
                          timeout=TIME_LIMIT + 10), r.log_text()[-2000:]
    pid = r.hung_pid("ebtables")
    assert pid is not None
    assert r.wait_for(lambda: not process_exists(pid), TIME_LIMIT + 2), "the hung tool lives"

    r.restore_tool("ebtables")
    r.uci_set("sasConfig", "RadioEnable", "0")
    assert r.wait_for(lambda: gates_closed(r) and bridge_closed(r), 2 * TIME_LIMIT + 10), \
        f"{r.ip_forward()} {r.iptables_rules()} {r.ebtables_rules()}\n{r.log_text()[-3000:]}"
    assert r.daemon.poll() is None
