"""The traffic gates of a virtual router as the kernel shows them: the
forwarding switches, the ICMP echo drop in OUTPUT and the bridge drops of
the VLAN-112 ports, and the views the tests judge them by."""
import subprocess
import time

from . import nft_view
from .rules import BRIDGE_DROPS, ICMP_DROP

VLAN_PREFIXES = ("eth1.112", "usb0.112")
ALL_GATES = ["forwarding", "icmp", "bridge"]


def listing_or_none(read):
    # A listing taken while the daemon changes a rule can fail (nf_tables)
    # even after the retries; such a sample proves nothing either way.
    try:
        return read()
    except subprocess.CalledProcessError:
        return None


class Gates:
    """Needs Commands (run) and self.flavour, self.interfaces."""

    def ip_forward(self):
        """(IPv4, IPv6) forwarding switches as the kernel shows them."""
        out = self.run("cat /proc/sys/net/ipv4/ip_forward "
                       "/proc/sys/net/ipv6/conf/all/forwarding", check=True).stdout.split()
        return out[0], out[1]

    def set_ip_forward(self, ipv4, ipv6=None):
        ipv6 = ipv4 if ipv6 is None else ipv6
        self.run(f"echo {int(ipv4)} > /proc/sys/net/ipv4/ip_forward;"
                 f"echo {int(ipv6)} > /proc/sys/net/ipv6/conf/all/forwarding", check=True)

    def _listing(self, command, attempts=5):
        """A firewall listing.  nf_tables refuses a listing that races with a
        rule change of the daemon (exit status 4); such a refusal is retried
        a few times before it counts as a failure."""
        for attempt in range(attempts):
            result = self.run(command)
            if result.returncode == 0 or attempt == attempts - 1:
                break
            time.sleep(0.02)
        result.check_returncode()
        return result.stdout

    def _nft_rules(self, family, chain):
        """Rule lines of the chain in our table, then in the lab's (foreign
        rules); a table that is not there has none."""
        tables = (nft_view.OUR_TABLE, nft_view.LAB_TABLE)
        listing = self._listing("; ".join(
            f"nft list chain {family} {t} {chain} 2>/dev/null" for t in tables) + "; true")
        return nft_view.rule_lines(listing)

    def iptables_rules(self):
        """`iptables -S OUTPUT` lines, in chain order.  In the nftables
        flavour, the nft rules of the same meaning in iptables' words."""
        if self.flavour == "nftables":
            return ["-P OUTPUT ACCEPT"] + [nft_view.iptables_line(rule) for rule in
                                            self._nft_rules("inet", "output")]
        return self._listing("iptables -S OUTPUT").splitlines()

    def ebtables_rules(self):
        """The rule lines of `ebtables -L BRIDGE_FORWARD` in chain order,
        without the trailing blank the router's listing adds (in the
        nftables flavour, the nft rules in ebtables' words)."""
        if self.flavour == "nftables":
            return [nft_view.ebtables_line(rule) for rule in self._nft_rules("bridge", "forward")]
        listing = self._listing("ebtables -L BRIDGE_FORWARD")
        return [line.rstrip() for line in listing.splitlines()
                if line.strip() and not line.startswith("Bridge ")]

    def links(self):
        """Names of the interfaces `ifconfig` lists (those that are up)."""
        out = self.run("ifconfig", check=True).stdout
        return [line.split()[0].rstrip(":") for line in out.splitlines()
                if line and not line[0].isspace()]

    def gates_open(self):
        """Every gate open: both forwarding switches on, no ICMP echo drop,
        no drop on the bridge.  False when a listing cannot be taken."""
        iptables = listing_or_none(self.iptables_rules)
        ebtables = listing_or_none(self.ebtables_rules)
        if iptables is None or ebtables is None:
            return False
        return (self.ip_forward() == ("1", "1") and ICMP_DROP not in iptables
                and not any("DROP" in rule for rule in ebtables))

    def gates_closed(self):
        """Every gate closed: both forwarding switches off, the ICMP echo drop
        and both bridge drops listed.  False when a listing cannot be taken."""
        iptables = listing_or_none(self.iptables_rules)
        ebtables = listing_or_none(self.ebtables_rules)
        return (iptables is not None and ebtables is not None
                and self.ip_forward() == ("0", "0") and ICMP_DROP in iptables
                and all(rule in ebtables for rule in BRIDGE_DROPS))

    def radio_off_and_gates_closed(self):
        """RadioEnable "0" and every gate closed."""
        return self.uci_get("sasConfig", "RadioEnable") == "0" and self.gates_closed()

    def open_gates(self):
        """Names of the gates that let traffic through now, of ALL_GATES: the
        forwarding when either switch is on, the ICMP gate without its drop,
        the bridge (where a VLAN-112 port exists) without any drop.  A gate
        whose listing could not be taken this time is left out."""
        opened = []
        if "1" in self.ip_forward():
            opened.append("forwarding")
        iptables = listing_or_none(self.iptables_rules)
        if iptables is not None and ICMP_DROP not in iptables:
            opened.append("icmp")
        if any(name.startswith(VLAN_PREFIXES) for name in self.interfaces):
            ebtables = listing_or_none(self.ebtables_rules)
            if ebtables is not None and not any("DROP" in rule for rule in ebtables):
                opened.append("bridge")
        return opened

    def gate_state(self):
        """What the gates look like, with the end of the log, for failure messages."""
        return (f"ip_forward={self.ip_forward()} iptables={self.iptables_rules()} "
                f"ebtables={self.ebtables_rules()}\n{self.log_text()[-2500:]}")
