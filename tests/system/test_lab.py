"""The virtual router itself: interfaces, stand-ins, isolation, tear-down, timing."""
import json
import os
import subprocess
import sys
import textwrap
import threading
import time

import pytest

from lab.places import TESTS_DIR
from lab.router import VirtualRouter
from lab.rules import ADD_ETH_DROP, ADD_ICMP_DROP, DELETE_ICMP_DROP, ETH_DROP, ICMP_DROP

ALL = ("eth1.112", "usb0.112", "br-lan")


def host_mounts():
    with open("/proc/self/mountinfo") as info:
        return info.read()


# ----- interfaces -----------------------------------------------------------

def test_default_interfaces_are_up_and_listed_by_ifconfig(router):
    r = router()
    assert sorted(r.links()) == ["br-lan", "eth1.112", "lo", "usb0.112"]
    assert r.run("ifconfig | grep eth1.112 | wc -l").stdout.strip() == "1"
    assert r.run("ifconfig | grep usb0.112 | wc -l").stdout.strip() == "1"


@pytest.mark.parametrize("chosen", [(), ("eth1.112",), ("usb0.112",), ("eth1.112", "br-lan")])
def test_only_chosen_interfaces_exist(router, chosen):
    r = router(interfaces=chosen)
    assert sorted(r.links()) == sorted(("lo",) + chosen)
    for name in set(ALL) - set(chosen):
        assert r.run(f"ip link show {name}").returncode != 0


def test_vlan_ports_are_bridged_into_br_lan(router):
    r = router()
    out = r.run("ip -o link show master br-lan").stdout
    assert "eth1.112" in out and "usb0.112" in out


def test_loopback_is_up_and_reachable(router):
    r = router(interfaces=())
    server = r.spawn(["/usr/bin/python3", "-c", textwrap.dedent("""
        import socket
        s = socket.socket(); s.bind(("127.0.0.1", 8765)); s.listen(1)
        print("listening", flush=True)
        c, _ = s.accept(); c.sendall(b"pong"); c.close()
    """)], stdout=subprocess.PIPE, text=True)
    assert server.stdout.readline().strip() == "listening"
    reply = r.run("/usr/bin/python3 -c 'import socket; "
                  "print(socket.create_connection((\"127.0.0.1\", 8765)).recv(4).decode())'")
    assert reply.stdout.strip() == "pong"
    server.wait(timeout=5)


# ----- ebtables stand-in ------------------------------------------------------

def test_bridge_forward_chain_exists_and_is_empty(router):
    r = router()
    assert r.ebtables_rules() == []


def test_ebtables_listing_has_one_trailing_blank_on_rule_lines(router):
    r = router(flavour="legacy")
    r.run(ADD_ETH_DROP, check=True)
    listing = r.run("ebtables -L BRIDGE_FORWARD").stdout.splitlines()
    assert listing[-1] == ETH_DROP + " "
    assert all(not line.endswith(" ") for line in listing[:-1])
    matched = r.run("ebtables -L BRIDGE_FORWARD | grep -x '\\-o eth1.112+ \\-j DROP '")
    assert matched.returncode == 0
    assert matched.stdout == ETH_DROP + " \n"
    assert r.ebtables_rules() == [ETH_DROP]


def test_ebtables_nft_flavour_lists_rule_lines_without_the_blank(router):
    r = router(flavour="ebtables-nft")
    r.run(ADD_ETH_DROP, check=True)
    listing = r.run("ebtables -L BRIDGE_FORWARD").stdout.splitlines()
    assert listing[-1] == ETH_DROP
    assert r.ebtables_rules() == [ETH_DROP]


def test_nftables_flavour_has_no_iptables_or_ebtables_for_the_daemon(router):
    r = router(flavour="nftables")
    for tool in ("iptables", "ip6tables", "ebtables", "iptables-nft", "ebtables-nft"):
        assert not r.exists(f"/usr/sbin/{tool}") and not r.exists(f"/sbin/{tool}")
    daemon_path = r.environment(daemon=True)["PATH"]
    found = r.run(f"PATH={daemon_path}; for t in iptables ebtables nft ubus logger; do "
                  "command -v $t; done")
    assert found.stdout.split() == ["/usr/sbin/nft", "/etc/lab/standins/ubus",
                                    "/etc/lab/standins/logger"]
    assert r.run("nft list ruleset", check=True).stdout == ""


def test_nftables_flavour_speaks_iptables_and_ebtables_to_the_tests(router):
    r = router(flavour="nftables")
    r.run(f"{ADD_ICMP_DROP} && "
          "iptables -A OUTPUT -p tcp --dport 22 -j ACCEPT && "
          f"{ADD_ETH_DROP} && "
          "ebtables -A BRIDGE_FORWARD -o eth0+ -j DROP", check=True)
    assert r.iptables_rules() == ["-P OUTPUT ACCEPT",
                                  ICMP_DROP,
                                  "-A OUTPUT -p tcp -m tcp --dport 22 -j ACCEPT"]
    assert r.ebtables_rules() == [ETH_DROP, "-o eth0+ -j DROP"]
    # The daemon's rules in its tables, the foreign ones in the lab's.
    assert "icmp type echo-request drop" in r.run("nft list table inet cbsd").stdout
    assert "tcp dport 22 accept" in r.run("nft list table inet lab").stdout
    assert 'oifname "eth0*" drop' in r.run("nft list table bridge lab").stdout
    assert r.run(DELETE_ICMP_DROP).returncode == 0
    assert r.run(DELETE_ICMP_DROP).returncode == 1
    assert r.run("iptables -I OUTPUT -p udp -j ACCEPT").returncode == 2
    assert r.iptables_rules() == ["-P OUTPUT ACCEPT",
                                  "-A OUTPUT -p tcp -m tcp --dport 22 -j ACCEPT"]


def test_ebtables_stand_in_keeps_exit_status_and_passes_other_commands(router):
    r = router()
    absent = r.run("ebtables -D BRIDGE_FORWARD -o usb0.112+ -j DROP")
    assert absent.returncode == 1
    assert r.run("ebtables -L NO_SUCH_CHAIN").returncode != 0
    assert r.run("ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP").returncode == 0
    assert r.run("ebtables -D BRIDGE_FORWARD -o usb0.112+ -j DROP").returncode == 0
    assert r.ebtables_rules() == []


def test_router_without_bridge_chain(router):
    r = router(bridge_chain=False)
    assert r.run("ebtables -L BRIDGE_FORWARD").returncode != 0


# ----- ubus stand-in ----------------------------------------------------------

def test_ubus_prints_members_as_the_real_cli_does(router):
    r = router(modem={"productmodule": "QX7710-NA", "SN": "SN42", "netstat": 4,
                      "dlfreq": 3625000, "bandwidth": 20, "band": 48, "sinr": 18.5})
    assert r.run("ubus call  ubus_lte getproductinfo").stdout == \
        '{\n\t"productmodule": "QX7710-NA",\n\t"SN": "SN42"\n}\n'
    assert r.run("ubus call ubus_lte getltestatus").stdout == '{\n\t"netstat": 4\n}\n'
    assert r.run("ubus call ubus_lte getlteinfo").stdout == \
        '{\n\t"dlfreq": 3625000,\n\t"bandwidth": 20,\n\t"band": 48,\n\t"sinr": 18.500000\n}\n'
    assert r.run("ubus call ubus_lte getlteinfo | grep -w band").stdout == '\t"band": 48,\n'
    assert r.run("ubus -S call ubus_lte getltestatus").stdout == '{"netstat":4}\n'


def test_ubus_default_modem_is_an_attached_band_48_device(router):
    r = router()
    assert r.run("ubus call  ubus_lte getproductinfo | grep productmodule").stdout.strip() == \
        '"productmodule": "RQ5518L-M2",'
    assert r.run("ubus call ubus_lte getlteinfo | grep bandwidth").stdout.strip() == \
        '"bandwidth": 20,'


def test_ubus_follows_modem_edits_while_running(router):
    r = router()
    r.set_modem(netstat=2, bandwidth=10, SN=None)
    # The status's only member is its last: no comma.
    assert r.run("ubus call ubus_lte getltestatus | grep netstat").stdout == '\t"netstat": 2\n'
    assert r.run("ubus call ubus_lte getlteinfo | grep bandwidth").stdout == \
        '\t"bandwidth": 10,\n'
    assert r.run("ubus call ubus_lte getproductinfo | grep SN").stdout == ""


@pytest.mark.parametrize("raw", [b"", b'\t"dlfreq": 36', b"dlfreq 362500\n", b"x" * 10240,
                                 bytes(range(256))])
def test_ubus_prints_raw_bytes_on_request(router, raw):
    r = router()
    r.set_modem(raw={"getlteinfo": raw})
    out = subprocess.run(r._enter(["ubus", "call", "ubus_lte", "getlteinfo"]),
                         capture_output=True, env=r.environment())
    assert out.returncode == 0
    assert out.stdout == raw
    assert "productmodule" in r.run("ubus call ubus_lte getproductinfo").stdout


def test_ubus_can_fail(router):
    r = router()
    r.set_modem(fail=["getlteinfo"])
    failed = r.run("ubus call ubus_lte getlteinfo")
    assert (failed.returncode, failed.stdout, failed.stderr) == \
        (247, "", "Command failed: ubus call ubus_lte getlteinfo (Unknown error)\n")
    assert r.run("ubus call ubus_lte getltestatus").returncode == 0
    r.set_modem(fail=True, fail_status=5)
    assert r.run("ubus call ubus_lte getproductinfo").returncode == 251
    r.set_modem(cli="pre2022")
    failed = r.run("ubus call ubus_lte getproductinfo")
    assert (failed.returncode, failed.stderr) == (5, "Command failed: No response\n")
    r.set_modem(fail=None, cli=None)
    assert r.run("ubus call ubus_lte getproductinfo").returncode == 0
    assert r.run("ubus call ubus_lte nosuchmethod").returncode == 253


def test_ubus_models_a_modem_manager_that_is_away(router):
    r = router()
    r.set_modem(registered=False)
    away = r.run("ubus call ubus_lte getlteinfo")
    assert (away.returncode, away.stdout, away.stderr) == (4, "", "Command failed: Not found\n")
    r.set_modem(registered=None, ubusd=False)
    away = r.run("ubus call ubus_lte getlteinfo")
    assert (away.returncode, away.stdout, away.stderr) == (255, "", "Failed to connect to ubus\n")
    r.set_modem(ubusd=None, nodata=["getlteinfo"])
    quiet = r.run("ubus call ubus_lte getlteinfo")
    assert (quiet.returncode, quiet.stdout, quiet.stderr) == (0, "", "")


def test_ubus_times_out_as_told(router):
    r = router()
    r.set_modem(hang=True)
    started = time.monotonic()
    late = r.run("ubus -t 1 call ubus_lte getltestatus")
    assert 1 <= time.monotonic() - started < 2.5
    assert (late.returncode, late.stderr) == \
        (249, "Command failed: ubus call ubus_lte getltestatus (Request timed out)\n")


# ----- logger, TZ, files --------------------------------------------------------

def test_logger_records_arbitrary_text(router):
    r = router()
    text = 'line one\nline "two" \'quoted\' \\ $HOME\n\n'
    r.spawn(["logger", "-p", "5", "-t", "cbsd", text]).wait(timeout=10)
    r.spawn(["logger", "-p", "3", "-t", "cbsd", "second"]).wait(timeout=10)
    assert r.syslog_records() == [("5", "cbsd", text), ("3", "cbsd", "second")]


def test_time_zone_file_and_environment(router):
    r = router(tz="CST6CDT,M3.2.0,M11.1.0")
    assert r.read_file("/etc/TZ") == "CST6CDT,M3.2.0,M11.1.0\n"
    assert r.run("date +%Z").stdout.strip() in ("CST", "CDT")


def test_sas_config_and_uci_helpers(router):
    r = router(sas_config="config sas 'config'\n\toption enableMode '0'\n")
    assert r.uci_get("config", "enableMode") == "0"
    r.uci_set("config", "enableMode", "1")
    r.uci_set("operation", "status", "Unregistered")
    assert r.run("cat /etc/config/sas").stdout == (
        "config sas 'config'\n\toption enableMode '1'\n\n"
        "config operation 'operation'\n\toption status 'Unregistered'\n")
    assert r.uci_get("operation", "status") == "Unregistered"
    assert r.uci_get("operation", "missing") is None


def test_no_sas_config_unless_asked(router):
    assert router().read_file("/etc/config/sas") is None


def test_certificates_are_provisioned_into_the_drop_directory(router, tmp_path):
    (tmp_path / "clientCert").mkdir()
    (tmp_path / "clientCert" / "client.pem").write_text("CERT")
    r = router(provision_certs=str(tmp_path))
    assert r.run("cat /tmp/logger/sas/cert/clientCert/client.pem").stdout == "CERT"


def test_broken_and_missing_tools(router):
    r = router()
    r.break_tool("iptables", status=2)
    assert r.run("iptables -S").returncode == 2
    r.remove_tool("iptables")
    missing = r.run("iptables -S")
    assert missing.returncode == 127 and "not found" in missing.stderr
    r.restore_tool("iptables")
    assert r.run("iptables -S").returncode == 0


def test_daemon_start_and_stop(router):
    r = router(interfaces=(), cbsd_bin="/etc/lab/fake-cbsd")
    r.write_file("/etc/lab/fake-cbsd", "#!/bin/sh\necho \"args: $*\"\nmkdir -p /root/sas\n"
                 "echo started > /root/sas/sas.log\nexec sleep 60\n", mode=0o755)
    daemon = r.start_daemon("-v", "3")
    assert r.wait_for_log("started", timeout=5)
    assert r.wait_for(lambda: "args: -d -v 3" in r.daemon_output(), timeout=5)
    assert r.stop_daemon() == -9
    assert daemon.poll() == -9


# ----- isolation and tear-down --------------------------------------------------

def test_router_changes_do_not_reach_the_host(router):
    r = router()
    r.write_file("/etc/lab-isolation-probe", "x")
    r.run("mkdir -p /root/sas && echo x > /root/sas/probe && echo x > /tmp/probe", check=True)
    r.set_ip_forward(1)
    r.run("iptables -I OUTPUT -m comment --comment lab-isolation-probe -j ACCEPT", check=True)
    assert r.ip_forward() == ("1", "1")
    assert not os.path.exists("/etc/lab-isolation-probe")
    assert not os.path.exists("/etc/lab/modem.json")
    assert not os.path.exists("/tmp/probe")
    host_rules = subprocess.run(["iptables", "-S"], capture_output=True, text=True).stdout
    assert "lab-isolation-probe" not in host_rules


def test_two_routers_are_independent(router):
    a, b = router(), router(interfaces=("usb0.112",))
    a.set_ip_forward(1)
    a.run(ADD_ETH_DROP, check=True)
    a.set_modem(band=5)
    assert b.ip_forward() == ("0", "0")
    assert b.ebtables_rules() == []
    # The default modem's band is its cell's last member: no comma, as the real CLI prints it.
    assert b.run("ubus call ubus_lte getlteinfo | grep -w band").stdout == '\t"band": 48\n'
    assert sorted(b.links()) == ["lo", "usb0.112"]


def assert_nothing_left(workdir, pids):
    assert not os.path.exists(workdir)
    assert workdir not in host_mounts()
    for pid in pids:
        assert not os.path.exists(f"/proc/{pid}") or \
            open(f"/proc/{pid}/stat").read().split()[2] == "Z"


def test_close_leaves_nothing_behind():
    r = VirtualRouter()
    workdir, holder_pid = r._workdir, r.pid
    sleeper = r.spawn(["sleep", "300"])
    # A process that escaped into the background (as a forking daemon does).
    r.run("setsid sleep 301 >/dev/null 2>&1 &")
    escaped = r.wait_for(lambda: [p for p in os.listdir("/proc") if p.isdigit() and
                                  _cmdline(p) == "sleep\x00301\x00"], timeout=5)
    assert escaped
    r.close()
    assert_nothing_left(workdir, [holder_pid, sleeper.pid] + [int(p) for p in escaped])


def _cmdline(pid):
    try:
        with open(f"/proc/{pid}/cmdline") as f:
            return f.read()
    except OSError:
        return ""


def test_crashed_test_process_leaves_nothing_behind():
    script = textwrap.dedent("""
        import json, os
        from lab.router import VirtualRouter
        r = VirtualRouter()
        s = r.spawn(["sleep", "300"])
        r.run("setsid sleep 302 >/dev/null 2>&1 &")
        print(json.dumps([r._workdir, r.pid, s.pid]), flush=True)
        os.kill(os.getpid(), 9)
    """)
    crashed = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                             timeout=30, env=dict(os.environ, PYTHONPATH=TESTS_DIR))
    assert crashed.returncode == -9
    workdir, holder_pid, sleeper_pid = json.loads(crashed.stdout)
    deadline = time.monotonic() + 5
    while os.path.exists(workdir) and time.monotonic() < deadline:
        time.sleep(0.05)
    time.sleep(0.1)
    escaped = [p for p in os.listdir("/proc") if p.isdigit() and
               _cmdline(p) == "sleep\x00302\x00"]
    assert escaped == []
    assert_nothing_left(workdir, [holder_pid, sleeper_pid])


# ----- timing -----------------------------------------------------------------------

def timed_router_cycle(results, index):
    start = time.monotonic()
    with VirtualRouter() as r:
        up = time.monotonic()
        assert r.run("ifconfig | grep -c eth1.112").stdout.strip() == "1"
        ready = time.monotonic()
    results[index] = (up - start, time.monotonic() - ready)


def test_one_router_sets_up_and_tears_down_in_under_two_seconds():
    results = {}
    timed_router_cycle(results, 0)
    up, down = results[0]
    print(f"set-up {up:.3f} s, tear-down {down:.3f} s")
    assert up + down < 2.0


def test_several_routers_side_by_side():
    results = {}
    threads = [threading.Thread(target=timed_router_cycle, args=(results, i)) for i in range(4)]
    start = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    total = time.monotonic() - start
    print(f"4 routers side by side: {total:.3f} s; per router {results}")
    assert len(results) == 4
    assert all(up + down < 2.0 for up, down in results.values())
