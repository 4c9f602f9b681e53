"""The nftables gates next to another firewall of the router, as fw4 keeps
one on current OpenWrt: the daemon touches its own tables only, a reload that
replaces the other firewall's table leaves them alone, a table of ours deleted
behind the daemon's back is back within one pass, and the UCI option forces the
backend where iptables and ebtables are installed."""
import time

import pytest

from lab import fail_closed
from lab.device_config import dp_config
from lab.rules import ADD_ICMP_DROP, ETH_DROP, ICMP_DROP, USB_DROP

# nft lists the bridge drops in the order the daemon added them.
BRIDGE_DROPS = [USB_DROP, ETH_DROP]
# One steady pass sleeps 5 s; the pass itself takes well under a second.
WITHIN_ONE_PASS = 7
FW4 = """table inet fw4 {
	set lab_blocked { type ipv4_addr; elements = { 192.0.2.1 } }
	chain input { type filter hook input priority filter; policy accept; ct state established accept; }
	chain output { type filter hook output priority filter; policy accept; tcp dport 22 accept; ip daddr @lab_blocked drop; }
	chain forward { type filter hook forward priority filter; policy accept; oifname "br-lan" accept; }
}
"""
# `fw4 reload` loads its whole table in one transaction: the old one goes.
FW4_RELOAD = "table inet fw4\ndelete table inet fw4\n" + FW4


def nftables_built_in(binary):
    with open(binary, "rb") as program:
        return b"libnftables.so" in program.read()


@pytest.fixture
def router(router, cbsd_bin):
    if not nftables_built_in(cbsd_bin):
        pytest.skip("the daemon was built without libnftables")
    return router


def sas_config(enable_mode="1", radio_enable="0", backend=None):
    extra = "" if backend is None else f"\toption firewallBackend '{backend}'\n"
    return dp_config(enable_mode, radio_enable, extra_config=extra)


def load_fw4(r, text=FW4):
    r.write_file("/tmp/fw4.nft", text)
    r.run("nft -f /tmp/fw4.nft", check=True)


def listing(r, family, table):
    return r.run(f"nft list table {family} {table}").stdout


def closed_by_nftables(r):
    return (r.ip_forward() == ("0", "0") and ICMP_DROP in r.iptables_rules()
            and r.ebtables_rules() == BRIDGE_DROPS)


def start_closed(r):
    load_fw4(r)
    fw4 = listing(r, "inet", "fw4")
    r.start_daemon()
    # Enabling SAS resets the published state; the radio switch is read after.
    assert r.wait_for_log("[SAS] sas radio disable.\n")
    assert r.wait_for(lambda: closed_by_nftables(r), WITHIN_ONE_PASS), r.iptables_rules()
    return fw4


def test_the_other_firewall_is_never_touched(router, cbsd_bin):
    r = router(flavour="nftables", sas_config=sas_config())
    sampler = fail_closed.FailClosedSampler(r, fail_closed.DpAuthority(r))
    sampler.start()
    fw4 = start_closed(r)
    mark = len(r.log_text())
    r.uci_set("sasConfig", "RadioEnable", "1")
    assert r.wait_for(lambda: "[SAS] device has been authorized.\n\n" in r.log_text()[mark:],
                      WITHIN_ONE_PASS)
    assert r.iptables_rules() == ["-P OUTPUT ACCEPT"] and r.ebtables_rules() == []
    r.uci_set("sasConfig", "RadioEnable", "0")
    assert r.wait_for(lambda: closed_by_nftables(r), WITHIN_ONE_PASS)
    sampler.stop()
    assert sampler.problems() == []
    r.stop_daemon()
    assert r.run_daemon("-n").returncode == 0
    # Our tables are gone, the other firewall's is as it was loaded.
    assert r.run("nft list tables").stdout == "table inet fw4\n"
    assert listing(r, "inet", "fw4") == fw4


def test_a_reload_of_the_other_firewall_leaves_our_tables_alone(router, cbsd_bin):
    r = router(flavour="nftables", sas_config=sas_config())
    start_closed(r)
    ours = listing(r, "inet", "cbsd"), listing(r, "bridge", "cbsd")
    mark = len(r.log_text())
    load_fw4(r, FW4_RELOAD)
    assert (listing(r, "inet", "cbsd"), listing(r, "bridge", "cbsd")) == ours
    time.sleep(WITHIN_ONE_PASS)
    # Nothing to repair: the next pass only inspected.
    assert (listing(r, "inet", "cbsd"), listing(r, "bridge", "cbsd")) == ours
    assert "disable" not in r.log_text()[mark:]


def test_our_tables_deleted_behind_our_back_are_back_within_one_pass(router, cbsd_bin):
    r = router(flavour="nftables", sas_config=sas_config())
    fw4 = start_closed(r)
    mark = len(r.log_text())
    r.run("nft delete table inet cbsd; nft delete table bridge cbsd", check=True)
    deleted = time.monotonic()
    assert r.wait_for(lambda: closed_by_nftables(r), WITHIN_ONE_PASS), r.iptables_rules()
    print(f"tables back after {time.monotonic() - deleted:.1f} s")
    news = r.log_text()[mark:]
    assert news.count("[SAS] firewall ICMP is disable.\n") == 1
    assert news.count("[SAS] bridge forward is disable.\n") == 2
    assert listing(r, "inet", "fw4") == fw4


def test_the_option_forces_nftables_where_iptables_is_installed(router, cbsd_bin):
    r = router(flavour="legacy", sas_config=sas_config(backend="nftables"))
    r.start_daemon()
    assert r.wait_for_log("[SAS] device has been unauthorized.\n\n")
    assert "icmp type echo-request drop" in listing(r, "inet", "cbsd")
    assert 'oifname "eth1.112*" drop' in listing(r, "bridge", "cbsd")
    # The iptables chains stay empty: only one backend holds the gates.
    assert r.run("iptables -S OUTPUT").stdout.splitlines() == ["-P OUTPUT ACCEPT"]
    assert [line for line in r.run("ebtables -L BRIDGE_FORWARD").stdout.splitlines()
            if line.strip() and not line.startswith("Bridge ")] == []
    r.stop_daemon()
    # -n removes the gates' rules of both backends, whichever holds them.
    r.run(ADD_ICMP_DROP, check=True)
    assert r.run_daemon("-n").returncode == 0
    assert r.run("nft list tables").stdout.split("\n").count("table inet cbsd") == 0
    assert r.run("iptables -S OUTPUT").stdout.splitlines() == ["-P OUTPUT ACCEPT"]


def test_the_option_keeps_iptables_where_both_tools_are_installed(router, cbsd_bin):
    r = router(flavour="legacy", sas_config=sas_config(backend="auto"))
    r.start_daemon()
    assert r.wait_for_log("[SAS] device has been unauthorized.\n\n")
    assert ICMP_DROP in r.iptables_rules()
    assert "table inet cbsd" not in r.run("nft list tables").stdout
