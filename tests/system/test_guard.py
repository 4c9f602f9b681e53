"""Fail closed: the stop by SIGTERM or SIGINT in each state, and heartbeat
successes that name no usable deadline, against the real daemon and the SAS
simulator."""
import signal
import time

from sas_sim.client import relative


def test_sigterm_while_authorized_gives_back_closes_and_exits_0(lab):
    r, sim = lab
    lab.authorized()
    assert r.gates_open()
    r.stop_cleanly(signal.SIGTERM)
    assert r.gates_closed()
    assert lab.endpoints()[-2:] == ["relinquishment", "deregistration"]
    assert "[SAS] stop requested.\n" in r.log_text()


def test_sigint_while_registering_deregisters_and_exits_0(lab):
    r, sim = lab
    sim.push("spectrumInquiry", delay=3)
    lab.start_enabled()
    assert r.wait_for(lambda: "spectrumInquiry" in lab.endpoints(), 20)
    r.stop_cleanly(signal.SIGINT)
    assert r.gates_closed()
    assert lab.endpoints()[-1] == "deregistration"


def test_sigterm_with_sas_disabled_leaves_traffic_open(lab):
    r, sim = lab
    lab.start_disabled()
    assert r.wait_for(r.gates_open, 20)
    r.stop_cleanly(signal.SIGTERM)
    assert r.gates_open()
    assert lab.endpoints() == []


def test_sigterm_ends_within_10_s_even_when_the_sas_hangs(lab):
    r, sim = lab
    lab.authorized()
    sim.set_default("relinquishment", delay=25)
    sim.set_default("deregistration", delay=25)
    r.stop_cleanly(signal.SIGTERM)
    assert r.gates_closed()


def test_heartbeat_success_without_transmit_expire_time_does_not_open(lab):
    r, sim = lab
    sim.push("heartbeat", remove=["transmitExpireTime"])
    lab.start_enabled()
    assert r.wait_for_log("[SAS] heartbeat success without a valid transmitExpireTime", 40)
    assert not r.gates_open()
    assert r.uci_get("sasConfig", "RadioEnable") != "1"


def test_grant_refused_every_time_is_paced(lab):
    """A SAS answering 401 to every grant: the first conflict is answered
    after 5 s, repeated ones back off; at most 20 requests in the first minute."""
    r, sim = lab
    sim.set_default("grant", responseCode=401, responseData=["grant-conflict"])
    lab.start_enabled()
    assert r.wait_for(lambda: "grant" in lab.endpoints(), 30)
    first = sim.requests()[0]["time"]
    time.sleep(62)
    in_minute = [q for q in sim.requests() if q["time"] - first < 60]
    print(f"requests in the first minute: {len(in_minute)}")
    assert len(in_minute) <= 20, [q["endpoint"] for q in in_minute]
    assert len(sim.requests("grant")) >= 3
    assert not r.gates_open()


def hang_rule_changes(r, name):
    """Makes `name` hang whenever it inserts a rule (a firewall tool stuck on
    its lock); listings still reach the real tool."""
    r.write_file(f"/etc/lab/bin/{name}",
                 "#!/bin/sh\n"
                 'case " $* " in *" -I "*) echo $$ > /tmp/lab-hang-' + name
                 + '.pid; exec sleep 3600;; esac\n'
                 'PATH=$(printf %s "$PATH" | sed "s|/etc/lab/bin:||")\n'
                 f'exec {name} "$@"\n', mode=0o755)


def test_guard_closes_within_the_minute_while_rule_inserts_hang(lab):
    """The SAS stops answering and the firewall tools hang on every insert:
    forwarding (a file write) still closes at the deadline, and the guard's
    attempt on the other gates ends well inside transmitExpireTime + 60 s,
    since each of its commands gets a short limit and it does not queue
    behind the loop's hung commands."""
    r, sim = lab
    lab.authorized()
    count = len(sim.requests("heartbeat"))
    sim.push("heartbeat", set={"transmitExpireTime": relative(5)})
    sim.set_default("heartbeat", delay=120)
    sim.wait_for_request("heartbeat", count=count + 1, timeout=10)
    expire_at = time.monotonic() + 5
    mark = len(r.log_text())
    hang_rule_changes(r, "iptables")
    hang_rule_changes(r, "ebtables")
    try:
        assert r.wait_for(lambda: r.ip_forward() == ("0", "0"), expire_at + 36 - time.monotonic())
        closed = "[SAS] no valid transmit authorization, traffic stopped.\n"
        assert r.wait_for(lambda: closed in r.log_text()[mark:], expire_at + 50 - time.monotonic()), \
            r.log_text()[mark:][-3000:]
        print(f"\nMEASURE hung inserts: guard done {time.monotonic() - expire_at:.1f} s "
              "past transmitExpireTime")
        assert r.ip_forward() == ("0", "0")
    finally:
        r.remove_file("/etc/lab/bin/iptables")
        r.remove_file("/etc/lab/bin/ebtables")
    assert r.wait_for(r.gates_closed, 2 * 10 + 10), r.log_text()[-2000:]
    assert r.daemon.poll() is None


def test_sigterm_while_the_loop_waits_for_a_plausible_cell_ends_within_10_s(lab):
    """A new cell with a width no cell has blocks the loop (it waits without a
    limit for a plausible cell); the guard takes the stop over."""
    r, sim = lab
    lab.authorized()
    mark = len(r.log_text())
    r.set_modem(dlfreq=3630000, bandwidth=0)
    time.sleep(8)  # one pass: it reads the new cell and blocks before reporting it
    assert "frequency change" not in r.log_text()[mark:]
    assert "LTE accesses network success" not in r.log_text()[mark:]
    took = r.stop_cleanly(signal.SIGTERM)
    print(f"\nMEASURE SIGTERM with the loop blocked -> exit: {took:.1f} s")
    assert r.gates_closed()
    assert r.log_text().count("[SAS] stop requested.\n") == 1
    assert lab.endpoints()[-2:] == ["relinquishment", "deregistration"]
