"""The firewall rules of the traffic gates: as the router's tools list them
(`iptables -S OUTPUT`, `ebtables -L BRIDGE_FORWARD`) and as the tests' own
commands add or delete them behind the daemon's back."""

ICMP_DROP = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"
LAN_ECHO_ACCEPT = "-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT"
ETH_DROP = "-o eth1.112+ -j DROP"
USB_DROP = "-o usb0.112+ -j DROP"
BRIDGE_DROPS = (ETH_DROP, USB_DROP)

# The same rules as given to iptables -I/-A/-D.
ICMP_DROP_SPEC = "-p icmp --icmp-type 8 -j DROP"
LAN_ECHO_ACCEPT_SPEC = "-o br-lan -p icmp --icmp-type 8/0 -j ACCEPT"

ADD_ICMP_DROP = f"iptables -I OUTPUT {ICMP_DROP_SPEC}"
DELETE_ICMP_DROP = f"iptables -D OUTPUT {ICMP_DROP_SPEC}"
ADD_LAN_ECHO_ACCEPT = f"iptables -I OUTPUT {LAN_ECHO_ACCEPT_SPEC}"
ADD_ETH_DROP = "ebtables -I BRIDGE_FORWARD -o eth1.112+ -j DROP"
ADD_USB_DROP = "ebtables -I BRIDGE_FORWARD -o usb0.112+ -j DROP"
DELETE_ETH_DROP = "ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP"
