"""The nftables flavour's view of the gates, in the words of the iptables and
ebtables listings the tests already speak.

In a router of the `nftables` flavour there is no iptables or ebtables: the
daemon keeps its rules in its own tables (`inet cbsd` chain `output`,
`bridge cbsd` chain `forward`).  The tests' foreign rules (the ones they put
next to the daemon's to see that they survive) live in the lab's own tables
`inet lab` and `bridge lab`, as another firewall's would.  This module maps
each rule the tests use between its iptables/ebtables spelling and its nft
one, both ways: `VirtualRouter.iptables_rules()`/`ebtables_rules()` list the
nft rules as iptables/ebtables lines, and the `iptables`/`ebtables`
commands in tests/lab/nft-tools (on the PATH of the tests' commands, never on
the daemon's) change them."""
import re

from .rules import ICMP_DROP, ICMP_DROP_SPEC, LAN_ECHO_ACCEPT, LAN_ECHO_ACCEPT_SPEC

OUR_TABLE = "cbsd"
LAB_TABLE = "lab"
OUTPUT_CHAIN = ("inet", "output", "type filter hook output priority 0; policy accept;")
BRIDGE_CHAIN = ("bridge", "forward", "type filter hook forward priority 0; policy accept;")
OUR_VLANS = ("eth1.112", "usb0.112")

# (iptables -S line, rule spec as given to -I/-A/-D, nft rule to add,
#  nft rule as listed, table)
ICMP_RULES = [
    (LAN_ECHO_ACCEPT, LAN_ECHO_ACCEPT_SPEC,
     'oifname "br-lan" icmp type echo-request icmp code 0 accept',
     'oifname "br-lan" icmp type echo-request icmp code net-unreachable accept', OUR_TABLE),
    (ICMP_DROP, ICMP_DROP_SPEC,
     "icmp type echo-request drop", "icmp type echo-request drop", OUR_TABLE),
    ("-A OUTPUT -p tcp -m tcp --dport 22 -j ACCEPT", "-p tcp --dport 22 -j ACCEPT",
     "tcp dport 22 accept", "tcp dport 22 accept", LAB_TABLE),
]
BRIDGE_SPEC = re.compile(r"^-o (\S+)\+ -j DROP$")
BRIDGE_LISTED = re.compile(r'^oifname "(\S+)\*" drop$')


def rule_lines(listing):
    """The rule lines of an `nft list chain` listing, without handles."""
    rules = []
    for line in listing.splitlines():
        text = line.strip()
        if not text or text.endswith("{") or text == "}" or text.startswith("type "):
            continue
        rules.append(re.sub(r" # handle \d+$", "", text))
    return rules


def iptables_line(nft_rule):
    for listed, _spec, _add, as_listed, _table in ICMP_RULES:
        if nft_rule == as_listed:
            return listed
    return f"# nft: {nft_rule}"


def ebtables_line(nft_rule):
    match = BRIDGE_LISTED.match(nft_rule)
    return f"-o {match.group(1)}+ -j DROP" if match else f"# nft: {nft_rule}"


def icmp_rule_for(spec):
    """(table, rule to add, rule as listed) of an iptables rule spec."""
    for _listed, known, add, as_listed, table in ICMP_RULES:
        if spec == known:
            return table, add, as_listed
    raise ValueError(f"no nft equivalent of iptables rule {spec!r}")


def bridge_rule_for(spec):
    match = BRIDGE_SPEC.match(spec)
    if not match:
        raise ValueError(f"no nft equivalent of ebtables rule {spec!r}")
    port = match.group(1)
    rule = f'oifname "{port}*" drop'
    return (OUR_TABLE if port in OUR_VLANS else LAB_TABLE), rule, rule
