"""OpenWrt's real procd (../shared/openwrt) running the package's init script:
a namespace of lab.openwrt_bus with ubusd, the lab's ucode modem manager and
procd, the init script at /etc/init.d/cbsd, its default /etc/config/sas and
the daemon under test at /usr/sbin/cbsd.

    with procd_namespace(cbsd_bin, directory) as bus:
        rc(bus, "start"); running_pid(bus)

The gates are read inside the namespace, as the kernel shows them there."""
import contextlib
import json
import os
import subprocess

from . import openwrt_bus
from .openwrt_bus import OpenWrtBus
from .rules import ETH_DROP, ICMP_DROP

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FILES = os.path.join(ROOT, "openwrt", "net", "cbsd", "files")
STANDIN = os.path.join(ROOT, "tests", "openwrt", "procd_standin.sh")

MODEM = {"productmodule": "RQ5518E", "SN": "SN-PACKAGE-1", "netstat": 4, "dlfreq": 3625000,
         "bandwidth": 20, "band": 48}


@contextlib.contextmanager
def procd_namespace(cbsd_bin, directory):
    """The namespace with procd up; directory holds the modem's state file
    (where the namespace sees the host's files)."""
    state_path = os.path.join(directory, "modem.json")
    with open(state_path, "w", encoding="utf-8") as state_file:
        json.dump(MODEM, state_file)
    with OpenWrtBus(state_path) as bus:
        install = (
            "set -e; mkdir -p /tmp/sbin/up /tmp/sbin/work /etc/init.d /etc/config; "
            "mount -t overlay overlay -o lowerdir=/usr/sbin,upperdir=/tmp/sbin/up,"
            "workdir=/tmp/sbin/work /usr/sbin; "
            f"cp {cbsd_bin} /usr/sbin/cbsd; cp {FILES}/cbsd.init /etc/init.d/cbsd; "
            f"chmod 755 /etc/init.d/cbsd; cp {FILES}/sas.config /etc/config/sas; "
            # The router's bridge chain, which the bridge gate fills for the
            # VLAN-112 ports that are up.
            "ebtables -N BRIDGE_FORWARD; ip link add eth1.112 type veth peer name pw0; "
            "ip link set eth1.112 up")
        assert bus.run(["sh", "-c", install]).returncode == 0
        bus.start_ubusd()
        bus.start_modem_manager()
        bus.settle(["getlteinfo", "getltestatus", "getproductinfo"])
        bus.spawn(["procd", "-s", openwrt_bus.SOCKET], stdin=subprocess.DEVNULL,
                  stderr=subprocess.DEVNULL)
        assert openwrt_bus.wait_for(
            lambda: bus.run(["ubus", "list", "service"]).returncode == 0, 10)
        yield bus


def rc(bus, action):
    """/etc/init.d/cbsd ACTION as OpenWrt runs it (busybox ash, rc.common's
    message sent to procd on ubus)."""
    return bus.run(["busybox", "sh", STANDIN, "/etc/init.d/cbsd", action],
                   env={"PROCD_STANDIN_UBUS": "1"})


def service_instance(bus):
    """procd's view of the cbsd instance (`ubus call service list`), or None."""
    listed = bus.run(["ubus", "call", "service", "list", '{"name": "cbsd"}'], timeout=10)
    if listed.returncode != 0 or not listed.stdout.strip():
        return None
    return json.loads(listed.stdout).get("cbsd", {}).get("instances", {}).get("instance1")


def running_pid(bus):
    instance = service_instance(bus)
    return instance["pid"] if instance and instance.get("running") else None


def sas_log(bus):
    path = bus.host_path("/root/sas/sas.log")
    return open(path, encoding="utf-8").read() if os.path.exists(path) else ""


def gates_closed(bus):
    """True when every gate is shut as the kernel of the namespace shows it:
    forwarding off, the ICMP echo drop in OUTPUT, the bridge drop of the
    namespace's one VLAN-112 port (eth1.112) in BRIDGE_FORWARD."""
    state = bus.run(["sh", "-c", "cat /proc/sys/net/ipv4/ip_forward "
                     "/proc/sys/net/ipv6/conf/all/forwarding; iptables -S OUTPUT; "
                     "ebtables -L BRIDGE_FORWARD"], timeout=10).stdout.decode()
    lines = [line.rstrip() for line in state.splitlines()]
    return lines[:2] == ["0", "0"] and ICMP_DROP in lines and ETH_DROP in lines


def open_gates_behind_the_daemon(bus):
    """Opens every gate as an authorised daemon leaves them."""
    assert bus.run(["sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward; "
                    "echo 1 > /proc/sys/net/ipv6/conf/all/forwarding; "
                    "while iptables -D OUTPUT -p icmp --icmp-type 8 -j DROP 2>/dev/null; do :; done; "
                    "ebtables -F BRIDGE_FORWARD"]).returncode == 0
