"""The daemon's start-up order, as its log shows it, up to the first pass of
the supervision loop."""
from lab.device_config import left_authorized_config
from lab.rules import ADD_ETH_DROP, ADD_ICMP_DROP, ADD_USB_DROP, ICMP_DROP

MODEM = {"productmodule": "RQ5518E", "SN": "SN-STARTUP-1", "netstat": 4, "dlfreq": 3625000,
         "bandwidth": 20, "band": 48}

CONFIG = left_authorized_config()

# The start-up lines in their order, then the first pass of the loop.
STARTUP_ORDER = [
    "[SAS] SAS Version 3.1\n",
    "[SAS] clear cbsd state.\n",
    "[SAS] set RadioEnable=0\n",
    "[SAS] reset IP forward enable.\n",
    "[SAS] clear firewall ICMP rules.\n",
    "[SAS] clear bridge forward rules.\n",
    "[SAS] CPE Product Model: RQ5518E\n",
    "[SAS] set default SN: SN-STARTUP-1\n",
    "[SAS] set default MaxEIRP(PreferPower): ",
    "[SAS] wait for LTE accessing network...\n",
    "[SAS] LTE accesses network success.\n",
    "[SAS] sas disable.\n",
    "[SAS] device network has been recovered.",
]


def positions_in_order(text, lines):
    at = 0
    for line in lines:
        found = text.find(line, at)
        assert found >= 0, f"missing or out of order: {line!r}\n{text}"
        at = found + len(line)


def test_start_up_runs_its_steps_in_order_then_enters_the_loop(router, tmp_path):
    cert_drop = tmp_path / "cert"
    (cert_drop / "clientCert").mkdir(parents=True)
    (cert_drop / "clientCert" / "client.pem").write_text("not a real certificate\n")
    r = router(sas_config=CONFIG, modem=MODEM, provision_certs=str(cert_drop))
    # Rules and a closed switch left over from an earlier run.
    r.run(f"{ADD_ICMP_DROP}; {ADD_ICMP_DROP}; {ADD_ETH_DROP}; {ADD_USB_DROP}", check=True)
    assert r.ip_forward() == ("0", "0")

    r.start_daemon()
    assert r.wait_for_log("[SAS] device network has been recovered.", 20)
    text = r.log_text()
    positions_in_order(text, STARTUP_ORDER)
    # The certificates were handed over before the profile defaults.
    assert r.exists("/root/sas/cert/clientCert/client.pem")
    assert not r.exists("/tmp/logger/sas")
    # The state reset of start-up ran before the loop; the loop's own reset
    # on "sas disable" follows it.
    assert text.count("[SAS] clear cbsd state.\n") == 2
    assert r.uci_get("operation", "status") == "Unregistered"
    assert r.uci_get("sasConfig", "RadioEnable") == "0"
    # Traffic open, every earlier rule gone.
    assert r.ip_forward() == ("1", "1")
    assert ICMP_DROP not in r.iptables_rules()
    assert r.ebtables_rules() == []
    assert r.daemon.poll() is None


def test_first_pass_waits_for_the_lte_network(router):
    r = router(sas_config=CONFIG, modem={"productmodule": "RQ5518L-M2", "SN": "S1",
                                        "netstat": 1, "dlfreq": 3625000, "bandwidth": 20,
                                        "band": 48})
    r.start_daemon()
    assert r.wait_for_log("[SAS] wait for LTE accessing network...\n", 20)
    # Not attached: the first pass stays in the cell refresh.
    assert not r.wait_for_log("[SAS] sas disable.\n", 3)
    assert r.daemon.poll() is None
    r.set_modem(netstat=4)
    assert r.wait_for_log("[SAS] LTE accesses network success.\n", 5)
    assert r.wait_for_log("[SAS] sas disable.\n", 5)
    text = r.log_text()
    positions_in_order(text, ["[SAS] CPE Product Model: RQ5518L-M2\n",
                              "[SAS] set default fccId: 7XK44RQ5518L96\n",
                              "[SAS] wait for LTE accessing network...\n",
                              "[SAS] lowFreq = 3615.0\n",
                              "[SAS] sas disable.\n"])
    assert r.uci_get("cellInfo", "bandwidth") == "20"


def test_start_with_sas_enabled_in_dp_mode_ends_with_gates_closed(router):
    r = router(sas_config=left_authorized_config(enable_mode="1"), modem=MODEM)
    r.start_daemon()
    assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", 20)
    text = r.log_text()
    # With SAS enabled nobody holds an authorisation at start: traffic is
    # closed, never opened first.
    assert "[SAS] reset IP forward enable.\n" not in text
    positions_in_order(text, ["[SAS] SAS is enabled at start, traffic stays stopped.\n",
                              "[SAS] wait for LTE accessing network...\n",
                              "[SAS] sas enable.\n",
                              "[SAS] device has been unauthorized.",
                              "[SAS] CPE is communicating with SAS using DP.\n"])
    assert r.wait_for(lambda: r.ip_forward() == ("0", "0") and ICMP_DROP in r.iptables_rules()
                      and len(r.ebtables_rules()) == 2, 5)
    assert "lasted configuration" not in r.log_text()
    assert r.daemon.poll() is None


def test_start_with_sas_enabled_never_opens_a_gate(router):
    """Gates sampled from before the start: forwarding is never switched on
    and the drop rules are in place before the loop's first pass."""
    import threading
    r = router(sas_config=left_authorized_config(enable_mode="1"), modem=MODEM)
    r.run("echo 0 > /proc/sys/net/ipv4/ip_forward; echo 0 > /proc/sys/net/ipv6/conf/all/forwarding")
    seen, stop = [], threading.Event()

    def sample():
        while not stop.is_set():
            seen.append(r.ip_forward())
            stop.wait(0.02)

    sampler = threading.Thread(target=sample)
    sampler.start()
    try:
        r.start_daemon()
        assert r.wait_for_log("[SAS] wait for LTE accessing network...\n", 20)
        assert ICMP_DROP in r.iptables_rules()
        assert r.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n", 20)
    finally:
        stop.set()
        sampler.join()
    assert len(seen) >= 10
    assert all(value == ("0", "0") for value in seen), seen
