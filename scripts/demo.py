"""The demo's driver: runs the daemon in a virtual router (tests/lab) and
tells its stories step by step, showing the router's real forwarding switches
and firewall rules after every step.

A story is a function taking a `Demo`; add new ones to STORIES."""
import os
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(REPO, "tests"))

from lab.router import VirtualRouter  # noqa: E402

DAEMON = os.path.join(REPO, "build", "cbsd")
# A steady pass of the daemon's loop sleeps 5 s; give a change one pass and
# some slack on a busy machine.
ONE_PASS = 12

DP_CONFIG = (
    "config config 'config'\n"
    "\toption enableMode '0'\n"
    "\toption usedp '1'\n"
    "\toption callSign 'DEMO'\n"
    "\n"
    "config cpi 'cpi'\n"
    "\n"
    "config sasConfig 'sasConfig'\n"
    "\toption RadioEnable '0'\n"
    "\n"
    "config operation 'operation'\n"
    "\toption status 'Unregistered'\n"
    "\n"
    "config cellInfo 'cellInfo'\n"
)


class Demo:
    """One virtual router with the daemon running in it, and the printing."""

    def __init__(self, router):
        self.r = router
        self.step_number = 0
        self.mark = 0

    def step(self, title):
        self.step_number += 1
        print(f"\n=== Step {self.step_number}: {title}", flush=True)
        self.mark = len(self.r.log_text())

    def say(self, text):
        print(f"    {text}", flush=True)

    def wait_for_log(self, text, timeout=ONE_PASS):
        if not self.r.wait_for(lambda: text in self.r.log_text()[self.mark:], timeout):
            raise SystemExit(f"demo failed: the daemon did not log {text!r}")

    def wait_until(self, what, predicate, timeout=ONE_PASS):
        if not self.r.wait_for(predicate, timeout):
            raise SystemExit(f"demo failed: {what}")

    def wait_until_quiet(self, quiet=1.5):
        """Lets the daemon finish its pass before the next edit."""
        size, since = len(self.r.log_text()), time.monotonic()
        while time.monotonic() - since < quiet:
            time.sleep(0.1)
            now = len(self.r.log_text())
            if now != size:
                size, since = now, time.monotonic()

    def set_option(self, section, option, value):
        self.say(f"uci set sas.{section}.{option}='{value}'")
        self.r.uci_set(section, option, value)

    def show_daemon_log(self):
        print("  daemon log:")
        for line in self.r.log_text()[self.mark:].splitlines():
            text = line.split("]", 1)[1] if line.startswith("[") and "]" in line else line
            if text.strip():
                print(f"    | {text}")

    def show_traffic_state(self):
        ipv4, ipv6 = self.r.ip_forward()
        rules = [rule for rule in self.r.iptables_rules() if not rule.startswith("-P ")]
        bridge = self.r.ebtables_rules()
        status = self.r.uci_get("operation", "status")
        radio = self.r.uci_get("sasConfig", "RadioEnable")
        print("  router state:")
        print(f"    ip_forward: IPv4 {ipv4}, IPv6 {ipv6}")
        print("    iptables -S OUTPUT:" + ("" if rules else " (no rules)"))
        for rule in rules:
            print(f"      {rule}")
        print("    ebtables -L BRIDGE_FORWARD:" + ("" if bridge else " (no rules)"))
        for rule in bridge:
            print(f"      {rule}")
        print(f"    sas.operation.status={status}  sas.sasConfig.RadioEnable={radio}")
        verdict = "OPEN" if self.gates_open() else "CLOSED" if self.gates_closed() else "MIXED"
        print(f"  => LAN traffic gates: {verdict}", flush=True)

    def gates_closed(self):
        return (self.r.ip_forward() == ("0", "0")
                and "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP" in self.r.iptables_rules()
                and len(self.r.ebtables_rules()) == 2)

    def gates_open(self):
        return (self.r.ip_forward() == ("1", "1")
                and not any("DROP" in rule for rule in self.r.iptables_rules())
                and not self.r.ebtables_rules())

    def finish_step(self):
        self.wait_until_quiet()
        self.show_daemon_log()
        self.show_traffic_state()


def dp_story(router_factory):
    """DP mode: a domain proxy talks to the SAS and writes the radio switch;
    the daemon turns it into the router's traffic gates."""
    print("\n##### DP mode: the domain proxy decides, the daemon gates the traffic")
    with router_factory(sas_config=DP_CONFIG) as router:
        demo = Demo(router)

        demo.step("start cbsd with SAS disabled (traffic must stay open)")
        router.start_daemon()
        demo.wait_for_log("[SAS] device network has been recovered.", 30)
        demo.finish_step()

        demo.step("the management interface enables SAS in DP mode: all gates close")
        demo.set_option("config", "enableMode", "1")
        demo.wait_for_log("[SAS] CPE is communicating with SAS using DP.\n")
        demo.wait_until("the gates did not close", demo.gates_closed)
        demo.finish_step()

        demo.step("the domain proxy reports the SAS authorised transmission: gates open")
        demo.set_option("sasConfig", "RadioEnable", "1")
        demo.wait_for_log("[SAS] device has been authorized.")
        demo.wait_until("the gates did not open", demo.gates_open)
        demo.finish_step()

        demo.step("someone closes forwarding behind the daemon's back: repaired within one pass")
        router.set_ip_forward(0)
        demo.say("echo 0 > /proc/sys/net/ipv4/ip_forward (and IPv6)")
        demo.wait_until("forwarding was not repaired", lambda: router.ip_forward()[0] == "1")
        demo.finish_step()

        demo.step("the domain proxy withdraws the authorisation: gates close again")
        demo.set_option("sasConfig", "RadioEnable", "0")
        demo.wait_for_log("[SAS] device has been unauthorized.")
        demo.wait_until("the gates did not close", demo.gates_closed)
        demo.finish_step()

        demo.step("the management interface disables SAS: traffic is recovered")
        demo.set_option("config", "enableMode", "0")
        demo.wait_for_log("[SAS] device network has been recovered.")
        demo.wait_until("the gates did not open", demo.gates_open)
        demo.finish_step()

        router.stop_daemon()
    print("\nDP story done: the router is torn down.")


STORIES = [dp_story]


def main():
    if os.geteuid() != 0:
        raise SystemExit("the demo needs root (it builds network namespaces)")
    if not os.access(DAEMON, os.X_OK):
        raise SystemExit(f"{DAEMON} is missing: build the cbsd target first")

    def router_factory(**kwargs):
        return VirtualRouter(cbsd_bin=DAEMON, **kwargs)

    for story in STORIES:
        story(router_factory)
    print("\nDemo finished.")


if __name__ == "__main__":
    main()
