"""The demo's driver: runs the daemon in a virtual router (tests/lab) and
tells its stories step by step, showing the router's real forwarding switches
and firewall rules after every step.

A story is a function taking a router factory; add new ones to STORIES.
`demo.py` runs every story in order; `demo.py NAME...` only the named ones."""
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(REPO, "tests"))
sys.path.insert(0, os.path.join(REPO, "tests", "sas_sim"))

import pki  # noqa: E402
from client import SasSim  # noqa: E402
from lab import device_config  # noqa: E402
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


# The simulator grants with this heartbeat period, short so the story is quick.
HEARTBEAT_INTERVAL = 5
ICMP_DROP = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"
# Where the simulator's control socket and the test PKI live: inside the
# router /tmp and /root are private, the build tree is shared with the host.
BUILD_DIR = os.path.join(REPO, "build")
# Generous limits: each change needs at most a pass or two of the loop (5 s).
REGISTRATION_LIMIT = 40
RELEASE_LIMIT = 30


def standalone_config(sas_url, enable_mode):
    return device_config.sas_config(sas_url, enable_mode=enable_mode, user_id="demo-user",
                                    call_sign="DEMO")


def install_device_credentials(router, pki_dir):
    """The device's client certificate, key and the SAS CA, where the cert
    section above names them."""
    for folder, name, source in (("clientCert", "cbsd.pem", "client.pem"),
                                 ("clientKey", "cbsd.key", "client.key"),
                                 ("serverCA", "ca.pem", "ca.pem")):
        with open(os.path.join(pki_dir, source)) as f:
            router.write_file(f"/root/sas/cert/{folder}/{name}", f.read(), mode=0o600)


def summarize_request(record):
    """One line saying what the device asked the SAS."""
    endpoint = record.get("endpoint") or record.get("path")
    body = record.get("json")
    items = body.get(f"{endpoint}Request") if isinstance(body, dict) else None
    item = items[0] if isinstance(items, list) and items and isinstance(items[0], dict) else {}
    details = []
    for key in ("cbsdSerialNumber", "fccId", "cbsdId", "grantId", "operationState"):
        if isinstance(item.get(key), (str, int)):
            details.append(f"{key}={item[key]}")
    operation = item.get("operationParam")
    if isinstance(operation, dict):
        band = operation.get("operationFrequencyRange") or {}
        if isinstance(band, dict) and "lowFrequency" in band:
            details.append(f"range={band.get('lowFrequency')}-{band.get('highFrequency')} Hz")
        if "maxEirp" in operation:
            details.append(f"maxEirp={operation['maxEirp']}")
    return f"{endpoint}" + (f" ({', '.join(details)})" if details else "")


def _listing(read):
    # A listing taken while the daemon changes a rule can fail (nf_tables);
    # such a sample is skipped rather than shown as a change.
    try:
        return read()
    except Exception:  # noqa: BLE001
        return None


class StatusTracker(threading.Thread):
    """Reads operation.status every few milliseconds: the worker passes
    through Granted for only as long as one heartbeat exchange takes, far
    shorter than a look at the firewall."""

    def __init__(self, router):
        super().__init__(daemon=True)
        self.r = router
        self.stopping = threading.Event()
        self.changes = []  # (monotonic time, status), appended only by this thread

    def run(self):
        last = object()
        while not self.stopping.wait(0.003):
            try:
                status = self.r.uci_get("operation", "status")
            except Exception:  # noqa: BLE001 - the router is going away
                return
            if status != last:
                self.changes.append((time.monotonic(), status))
                last = status

    def stop(self):
        self.stopping.set()
        self.join(2)


class LiveView:
    """Polls the router, the daemon's log and the simulator's record, and
    prints every change the moment it is seen, stamped with the seconds since
    the story began."""

    def __init__(self, router, sim):
        self.r = router
        self.sim = sim
        self.started = time.monotonic()
        self.log_offset = 0
        self.logged = ""  # the log lines seen so far, for the waits
        self.requests_seen = 0
        self.state = {}
        self.tracker = StatusTracker(router)
        self.status_changes_seen = 0
        self.tracker.start()

    def stamp(self, when=None):
        return f"[{(when or time.monotonic()) - self.started:5.1f}s]"

    def log_mark(self):
        return len(self.logged)

    def logged_since(self, mark, text):
        return text in self.logged[mark:]

    def gates(self):
        """ip_forward, whether the ICMP drop is in OUTPUT, the bridge drop
        rules; None for a listing that failed this time."""
        iptables = _listing(self.r.iptables_rules)
        bridge = _listing(self.r.ebtables_rules)
        return {
            "ip_forward": "IPv4 {} IPv6 {}".format(*self.r.ip_forward()),
            "iptables OUTPUT": None if iptables is None else
            ("ICMP echo DROP" if ICMP_DROP in iptables else "no DROP rule"),
            "ebtables BRIDGE_FORWARD": None if bridge is None else
            (", ".join(bridge) if bridge else "no rules"),
        }

    def gates_open(self):
        return (self.state.get("ip_forward") == "IPv4 1 IPv6 1"
                and self.state.get("iptables OUTPUT") == "no DROP rule"
                and self.state.get("ebtables BRIDGE_FORWARD") == "no rules")

    def poll(self):
        """Prints, in time order, what changed since the last poll."""
        events = self._new_requests() + self._new_log_lines() + self._status_changes()
        now = time.monotonic()
        sample = {"sasConfig.RadioEnable": self.r.uci_get("sasConfig", "RadioEnable")}
        sample.update(self.gates())
        for name, value in sample.items():
            if value is None:
                continue
            if name not in self.state:
                events.append((now, f"  {name}: {value}"))
            elif self.state[name] != value:
                events.append((now, f"* {name}: {self.state[name]} -> {value}"))
            self.state[name] = value
        for when, text in sorted(events, key=lambda event: event[0]):
            print(f"  {self.stamp(when)} {text}")
        sys.stdout.flush()

    def _status_changes(self):
        changes = self.tracker.changes[:]
        events = []
        for when, status in changes[self.status_changes_seen:]:
            before = self.state.get("operation.status")
            if self.status_changes_seen == 0 and not events:
                events.append((when, f"  operation.status: {status}"))
            else:
                events.append((when, f"* operation.status: {before} -> {status}"))
            self.state["operation.status"] = status
        self.status_changes_seen = len(changes)
        return events

    def close(self):
        self.tracker.stop()

    def summary(self):
        verdict = "OPEN" if self.gates_open() else "not open"
        print(f"  => operation.status={self.state.get('operation.status')}, "
              f"RadioEnable={self.state.get('sasConfig.RadioEnable')}, "
              f"LAN traffic gates {verdict}", flush=True)

    def _new_requests(self):
        # The simulator stamps each request with the wall clock.
        to_monotonic = time.monotonic() - time.time()
        requests = self.sim.requests()
        events = [(record["time"] + to_monotonic, f"> SAS received: {summarize_request(record)}")
                  for record in requests[self.requests_seen:]]
        self.requests_seen = len(requests)
        return events

    def _new_log_lines(self):
        read_at = time.monotonic()
        text = self.r.log_text()
        if len(text) < self.log_offset:  # the log was rotated
            self.log_offset = 0
        fresh = text[self.log_offset:]
        complete = fresh.rfind("\n") + 1  # keep a half-written line for the next poll
        self.log_offset += complete
        self.logged += fresh[:complete]
        events = []
        for line in fresh[:complete].splitlines():
            # Only the daemon's own lines: the request and reply bodies it
            # also writes are summed up by the simulator's record.
            if not line.startswith("[") or "][SAS] " not in line:
                continue
            message = line.split("]", 1)[1]
            if message.startswith("[SAS] URL = ") or message.strip() == "[SAS] {":
                continue
            shown = message if len(message) <= 110 else message[:107] + "..."
            events.append((read_at, f"| {shown}"))
        return events

    def until(self, what, predicate, timeout):
        deadline = time.monotonic() + timeout
        while True:
            self.poll()
            if predicate():
                return
            if time.monotonic() > deadline:
                tail = "\n".join(self.r.log_text().splitlines()[-15:])
                raise SystemExit(f"demo failed: {what} within {timeout} s\n"
                                 f"last lines of the daemon's log:\n{tail}")
            time.sleep(0.2)

    def endpoints(self):
        return [record["endpoint"] for record in self.sim.requests()]


def set_option_surely(router, section, option, value):
    """Writes one option as the management interface would.  The daemon
    rewrites the whole file on each of its own writes, so a write racing with
    one of them can be lost; it is made again until it has stuck."""
    print(f"    uci set sas.{section}.{option}='{value}'", flush=True)
    for _ in range(10):
        router.uci_set(section, option, value)
        time.sleep(0.3)
        if router.uci_get(section, option) == value:
            return
    raise SystemExit(f"demo failed: sas.{section}.{option} did not keep {value!r}")


def standalone_story(router_factory):
    """StandAlone mode: the daemon itself talks to the SAS (the bundled
    simulator inside the router) and opens the gates only while authorised."""
    print("\n##### StandAlone mode: the daemon talks to the SAS itself")
    story_started = time.monotonic()
    pki_dir = pki.generate(os.path.join(BUILD_DIR, "demo-pki"))
    control_dir = tempfile.mkdtemp(prefix="demo-sas-sim-", dir=BUILD_DIR)
    view = None
    try:
        with router_factory(sas_config=standalone_config("https://127.0.0.1:1/v1.2", "0")) as router:
            print("\n=== Step 1: a SAS in the router (the simulator, heartbeatInterval "
                  f"{HEARTBEAT_INTERVAL} s) and the device's TLS credentials in /root/sas/cert")
            install_device_credentials(router, pki_dir)
            router.spawn(SasSim.command(control_dir, pki_dir,
                                        extra=["--heartbeat-interval", str(HEARTBEAT_INTERVAL)]),
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            sim = SasSim(control_dir)
            sim.wait_ready()
            router.write_file("/etc/config/sas", standalone_config(sim.url, "0"))
            print(f"    SAS listening at {sim.url} (mutual TLS); sas.config.address set to it")

            print("\n=== Step 2: start cbsd with SAS disabled (traffic stays open)")
            router.start_daemon()
            view = LiveView(router, sim)
            view.until("the daemon did not recover the network at start",
                       lambda: view.logged_since(0, "[SAS] device network has been recovered."), 20)
            view.until("the gates did not open", view.gates_open, 10)
            view.summary()

            print("\n=== Step 3: the management interface enables SAS in StandAlone mode")
            set_option_surely(router, "config", "usedp", "0")
            set_option_surely(router, "config", "enableMode", "1")
            view.until("the daemon did not register, get a grant and get authorised",
                       lambda: view.state.get("operation.status") == "Authorized"
                       and view.gates_open()
                       and view.logged_since(0, "[SAS] device has been authorized."),
                       REGISTRATION_LIMIT)
            beats = len(sim.requests("heartbeat"))
            print(f"\n    authorised: now two more heartbeats, every {HEARTBEAT_INTERVAL} s")
            view.until("two more heartbeats did not arrive",
                       lambda: len(sim.requests("heartbeat")) >= beats + 2,
                       3 * HEARTBEAT_INTERVAL + 10)
            view.until("the gates did not stay open", view.gates_open, 1)
            view.summary()

            print("\n=== Step 4: the management interface disables SAS")
            view.poll()
            mark = view.log_mark()
            set_option_surely(router, "config", "enableMode", "0")
            view.until("the grant was not relinquished and the device not deregistered",
                       lambda: view.endpoints()[-2:] == ["relinquishment", "deregistration"],
                       RELEASE_LIMIT)
            view.until("the traffic was not recovered (state Unregistered, gates open)",
                       lambda: view.logged_since(mark, "[SAS] device network has been recovered.")
                       and view.state.get("operation.status") == "Unregistered"
                       and view.gates_open(), RELEASE_LIMIT)
            view.summary()
            print(f"\n    the SAS saw: {', '.join(view.endpoints())}")
            view.close()
    finally:
        if view is not None:
            view.close()
        shutil.rmtree(control_dir, ignore_errors=True)
    print(f"\nStandAlone story done in {time.monotonic() - story_started:.0f} s: "
          "the router and the simulator are torn down.")


STORIES = {"standalone": standalone_story, "dp": dp_story}


def main():
    if os.geteuid() != 0:
        raise SystemExit("the demo needs root (it builds network namespaces)")
    if not os.access(DAEMON, os.X_OK):
        raise SystemExit(f"{DAEMON} is missing: build the cbsd target first")
    chosen = sys.argv[1:] or list(STORIES)
    unknown = [name for name in chosen if name not in STORIES]
    if unknown:
        raise SystemExit(f"unknown story {unknown[0]!r}; the stories are: {', '.join(STORIES)}")

    def router_factory(**kwargs):
        return VirtualRouter(cbsd_bin=DAEMON, **kwargs)

    started = time.monotonic()
    for name in chosen:
        STORIES[name](router_factory)
    print(f"\nDemo finished in {time.monotonic() - started:.0f} s.")


if __name__ == "__main__":
    main()
