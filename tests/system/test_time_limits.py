"""Every command the daemon starts has a time limit: a modem manager or a
firewall tool that never answers is killed with its whole process group, the
failure is logged once, and the supervision loop goes on."""
import os

from lab.device_config import dp_config

TIME_LIMIT = 10
KILLED_STATUS_QUERY = ("[SAS] command still running after 10 s, killed: "
                       "ubus call ubus_lte getltestatus | grep netstat\n")


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
    r.wait_until_quiet(timeout=20)
    if radio_on:
        r.uci_set("sasConfig", "RadioEnable", "1")
        assert r.wait_for(r.gates_open, 15), r.log_text()[-2000:]
        r.wait_until_quiet(timeout=20)
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
    assert r.wait_for(r.gates_closed, 3 * TIME_LIMIT + 10), r.log_text()[-2000:]
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
    assert r.wait_for(r.gates_closed, 2 * TIME_LIMIT + 10), r.gate_state()
    assert r.daemon.poll() is None
