"""The demo's driver: runs the daemon in a virtual router (tests/lab) and
tells its stories step by step, showing the router's real forwarding switches
and firewall rules after every step.

A story is a function taking a router factory; add new ones to STORIES.
`demo.py` runs every story in order; `demo.py NAME...` only the named ones."""
import os
import shutil
import subprocess
import sys
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The demo runs as a program: tests/ is the root of the lab's imports.
sys.path.insert(0, os.path.join(REPO, "tests"))

from lab import device_config, sas_lab  # noqa: E402
from lab.gates import listing_or_none  # noqa: E402
from lab.router import RouterError, VirtualRouter  # noqa: E402
from lab.rules import ICMP_DROP  # noqa: E402

DAEMON = os.path.join(REPO, "build", "cbsd")
# A steady pass of the daemon's loop sleeps 5 s; give a change one pass and
# some slack on a busy machine.
ONE_PASS = 12


def demo_config(address=device_config.UNREACHABLE_SAS, enable_mode="0", usedp="1"):
    return device_config.sas_config(address, enable_mode=enable_mode, usedp=usedp,
                                    user_id="demo-user", call_sign="DEMO")


def set_option(router, section, option, value):
    """Writes one option as the management interface would, again until it
    has stuck (the daemon rewrites the whole file on its own writes)."""
    print(f"    uci set sas.{section}.{option}='{value}'", flush=True)
    try:
        router.set_option(section, option, value, attempts=10)
    except RouterError as error:
        raise SystemExit(f"demo failed: {error}")


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
        if not self.r.wait_for_log_after(self.mark, text, timeout):
            raise SystemExit(f"demo failed: the daemon did not log {text!r}")

    def wait_until(self, what, predicate, timeout=ONE_PASS):
        if not self.r.wait_for(predicate, timeout):
            raise SystemExit(f"demo failed: {what}")

    def show_daemon_log(self):
        print("  daemon log:")
        for line in self.r.log_after(self.mark).splitlines():
            text = line.split("]", 1)[1] if line.startswith("[") and "]" in line else line
            if text.strip():
                print(f"    | {text}")

    def show_traffic_state(self):
        ipv4, ipv6 = self.r.ip_forward()
        rules = [rule for rule in self.r.iptables_rules() if not rule.startswith("-P ")]
        bridge = self.r.ebtables_rules()
        print("  router state:")
        print(f"    ip_forward: IPv4 {ipv4}, IPv6 {ipv6}")
        print("    iptables -S OUTPUT:" + ("" if rules else " (no rules)"))
        for rule in rules:
            print(f"      {rule}")
        print("    ebtables -L BRIDGE_FORWARD:" + ("" if bridge else " (no rules)"))
        for rule in bridge:
            print(f"      {rule}")
        print(f"    sas.operation.status={self.r.status()}  "
              f"sas.sasConfig.RadioEnable={self.r.uci_get('sasConfig', 'RadioEnable')}")
        verdict = ("OPEN" if self.r.gates_open() else
                   "CLOSED" if self.r.gates_closed() else "MIXED")
        print(f"  => LAN traffic gates: {verdict}", flush=True)

    def finish_step(self):
        try:
            self.r.wait_until_quiet(timeout=30)
        except RouterError as error:
            raise SystemExit(f"demo failed: {error}")
        self.show_daemon_log()
        self.show_traffic_state()

    def change(self, title, option, log_line, gates):
        """One step of the DP story: the management interface or the proxy
        writes an option, the daemon logs log_line and the gates follow."""
        self.step(title)
        set_option(self.r, *option)
        self.wait_for_log(log_line)
        if gates == "open":
            self.wait_until("the gates did not open", self.r.gates_open)
        else:
            self.wait_until("the gates did not close", self.r.gates_closed)
        self.finish_step()


def dp_story(router_factory):
    """DP mode: a domain proxy talks to the SAS and writes the radio switch;
    the daemon turns it into the router's traffic gates."""
    print("\n##### DP mode: the domain proxy decides, the daemon gates the traffic")
    with router_factory(sas_config=demo_config()) as router:
        demo = Demo(router)

        demo.step("start cbsd with SAS disabled (traffic must stay open)")
        router.start_daemon()
        demo.wait_for_log("[SAS] device network has been recovered.", 30)
        demo.finish_step()

        demo.change("the management interface enables SAS in DP mode: all gates close",
                    ("config", "enableMode", "1"),
                    "[SAS] CPE is communicating with SAS using DP.\n", "closed")
        demo.change("the domain proxy reports the SAS authorised transmission: gates open",
                    ("sasConfig", "RadioEnable", "1"), "[SAS] device has been authorized.",
                    "open")

        demo.step("someone closes forwarding behind the daemon's back: repaired within one pass")
        router.set_ip_forward(0)
        demo.say("echo 0 > /proc/sys/net/ipv4/ip_forward (and IPv6)")
        demo.wait_until("forwarding was not repaired", lambda: router.ip_forward()[0] == "1")
        demo.finish_step()

        demo.change("the domain proxy withdraws the authorisation: gates close again",
                    ("sasConfig", "RadioEnable", "0"), "[SAS] device has been unauthorized.",
                    "closed")
        demo.change("the management interface disables SAS: traffic is recovered",
                    ("config", "enableMode", "0"), "[SAS] device network has been recovered.",
                    "open")

        router.stop_daemon()
    print("\nDP story done: the router is torn down.")


# The simulator grants with this heartbeat period, short so the story is quick.
HEARTBEAT_INTERVAL = 5
# Where the simulator's control socket and the test PKI live: inside the
# router /tmp and /root are private, the build tree is shared with the host.
BUILD_DIR = os.path.join(REPO, "build")
# Generous limits: each change needs at most a pass or two of the loop (5 s).
REGISTRATION_LIMIT = 40
RELEASE_LIMIT = 30


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
        iptables = listing_or_none(self.r.iptables_rules)
        bridge = listing_or_none(self.r.ebtables_rules)
        return {
            "ip_forward": "IPv4 {} IPv6 {}".format(*self.r.ip_forward()),
            "iptables OUTPUT": None if iptables is None else
            ("ICMP echo DROP" if ICMP_DROP in iptables else "no DROP rule"),
            "ebtables BRIDGE_FORWARD": None if bridge is None else
            (", ".join(bridge) if bridge else "no rules"),
        }

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
        verdict = "OPEN" if self.r.gates_open() else "not open"
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


def standalone_story(router_factory):
    """StandAlone mode: the daemon itself talks to the SAS (the bundled
    simulator inside the router) and opens the gates only while authorised."""
    print("\n##### StandAlone mode: the daemon talks to the SAS itself")
    story_started = time.monotonic()
    pki_dir = sas_lab.shared_pki(os.path.join(BUILD_DIR, "demo-pki"))
    view = sim = None
    try:
        with router_factory(sas_config=demo_config(usedp="0")) as router:
            print("\n=== Step 1: a SAS in the router (the simulator, heartbeatInterval "
                  f"{HEARTBEAT_INTERVAL} s) and the device's TLS credentials in /root/sas/cert")
            sas_lab.install_credentials(router, pki_dir)
            sim = sas_lab.start_simulator(
                router, pki_dir, ["--heartbeat-interval", str(HEARTBEAT_INTERVAL)],
                prefix="demo-sas-sim-", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            router.write_file("/etc/config/sas", demo_config(sim.url, usedp="0"))
            print(f"    SAS listening at {sim.url} (mutual TLS); sas.config.address set to it")

            print("\n=== Step 2: start cbsd with SAS disabled (traffic stays open)")
            router.start_daemon()
            view = LiveView(router, sim)
            view.until("the daemon did not recover the network at start",
                       lambda: view.logged_since(0, "[SAS] device network has been recovered."), 20)
            view.until("the gates did not open", router.gates_open, 10)
            view.summary()

            print("\n=== Step 3: the management interface enables SAS in StandAlone mode")
            set_option(router, "config", "usedp", "0")
            set_option(router, "config", "enableMode", "1")
            view.until("the daemon did not register, get a grant and get authorised",
                       lambda: view.state.get("operation.status") == "Authorized"
                       and router.gates_open()
                       and view.logged_since(0, "[SAS] device has been authorized."),
                       REGISTRATION_LIMIT)
            beats = len(sim.requests("heartbeat"))
            print(f"\n    authorised: now two more heartbeats, every {HEARTBEAT_INTERVAL} s")
            view.until("two more heartbeats did not arrive",
                       lambda: len(sim.requests("heartbeat")) >= beats + 2,
                       3 * HEARTBEAT_INTERVAL + 10)
            view.until("the gates did not stay open", router.gates_open, 1)
            view.summary()

            print("\n=== Step 4: the management interface disables SAS")
            view.poll()
            mark = view.log_mark()
            set_option(router, "config", "enableMode", "0")
            view.until("the grant was not relinquished and the device not deregistered",
                       lambda: view.endpoints()[-2:] == ["relinquishment", "deregistration"],
                       RELEASE_LIMIT)
            view.until("the traffic was not recovered (state Unregistered, gates open)",
                       lambda: view.logged_since(mark, "[SAS] device network has been recovered.")
                       and view.state.get("operation.status") == "Unregistered"
                       and router.gates_open(), RELEASE_LIMIT)
            view.summary()
            print(f"\n    the SAS saw: {', '.join(view.endpoints())}")
            view.close()
    finally:
        if view is not None:
            view.close()
        if sim is not None:
            shutil.rmtree(sim.control_dir, ignore_errors=True)
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
