"""The SAS side of the conformance cases: a virtual router with the device's
credentials, the SAS simulator inside it, and what the cases check from
outside the daemon.

The simulator runs in the router's own namespaces, so it records the gates
(forwarding, the ICMP drop, the bridge drops) and sasConfig.RadioEnable itself
the moment a relinquishment or a deregistration arrives, and, for a scripted
answer that withdraws the grant, every 0.1 s or so for a few seconds after it sent
that answer (tests/sas_sim/gate_sample.py).  The fail-closed sampler
(fail_closed.py) watches every case as well."""
import json
import os
import time

from lab import device_config
from lab.fail_closed import FailClosedSampler, StandAloneAuthority
from lab.gates import ALL_GATES
from lab.places import BUILD_DIR
from lab.sas_lab import SasLab, install_credentials, shared_pki, start_simulator

# Short heartbeat period and transmit lead: a case takes seconds, not minutes.
HEARTBEAT_INTERVAL = 2
TRANSMIT_LEAD = 20
# A withdrawn grant: RadioEnable "0" and forwarding off within this of the answer.
WITHDRAWAL_LIMIT = 1.0
# ... and every gate closed within this: the ICMP and bridge drops are firewall
# processes, and the lab's ebtables runs through a wrapper and a lock shared
# with the samplers (0.7-0.85 s measured alone on a quiet machine, 1.5-2.8 s
# with two suites at once, over 4 s with four).
ALL_GATES_LIMIT = 10.0
# How long the simulator samples the gates after such an answer.
WATCH_SECONDS = ALL_GATES_LIMIT + 1.5
SAMPLED = "relinquishment,deregistration"


class Case:
    """One conformance case: router r, simulator sim, and the daemon once started."""

    def __init__(self, router, sim_args=(), server_ca="ca.pem", crl=None):
        self.pki = shared_pki()
        self.r = router(sas_config=device_config.sas_config(enable_mode="0"))
        install_credentials(self.r, self.pki, server_ca=server_ca, crl=crl)
        extra = ["--heartbeat-interval", str(HEARTBEAT_INTERVAL),
                 "--transmit-seconds", str(TRANSMIT_LEAD), "--sample-gates", SAMPLED, *sim_args]
        self.sim = start_simulator(self.r, self.pki, extra, prefix="cbsd-conformance-")
        self.lab = SasLab(self.r, self.sim)
        self.lab.write_config(enable_mode="0")
        self.sampler = None

    def configure(self, **options):
        """Sets options of section config before the daemon starts."""
        for option, value in options.items():
            self.r.uci_set("config", option, value)

    def start(self, env=None):
        """Starts the daemon with SAS off, then switches SAS on after its first pass."""
        self.r.start_daemon(env=env)
        assert self.r.wait_for_log("[SAS] device network has been recovered.\n", 15), \
            self.r.daemon_output()[-2000:]
        self.sampler = FailClosedSampler(self.r, StandAloneAuthority(self.r, self.sim))
        self.sampler.start()
        self.lab.enable()

    def authorized(self):
        """Starts the daemon, switches SAS on, waits until it transmits, Authorized."""
        self.start()
        self.wait_authorized()

    def set(self, section, option, value):
        self.r.set_option(section, option, value)

    def finish(self):
        if self.sampler is not None:
            self.sampler.finish()
        self.sim.process.terminate()

    # ----- what the cases read -------------------------------------------------

    def radio_enable(self):
        return self.r.uci_get("sasConfig", "RadioEnable")

    def status(self):
        return self.r.status()

    def silent(self):
        """Not transmitting: every gate closed and RadioEnable not "1"."""
        return not self.r.open_gates() and self.radio_enable() != "1"

    def transmitting(self):
        return self.r.open_gates() == ALL_GATES and self.radio_enable() == "1"

    def endpoints(self):
        return self.lab.endpoints()

    def wait_authorized(self, timeout=60):
        assert self.r.wait_for(lambda: self.transmitting() and self.status() == "Authorized",
                               timeout), self.r.log_text()[-3000:]

    def heartbeats(self):
        return [q["json"]["heartbeatRequest"][0] for q in self.sim.requests("heartbeat")]

    def stays_silent(self, seconds):
        """True when the device does not transmit at any check for `seconds`."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not self.silent():
                return False
            time.sleep(0.2)
        return True

    def log_count(self, text):
        return self.r.log_text().count(text)


def withdraw_on_authorized(case, code, **later):
    """Authorises the device, then answers its next heartbeat with `code` and
    has the simulator watch the gates after that answer.  `later`: default
    replies per endpoint from then on (so that the device is not authorised
    again by the next grant or heartbeat).  Returns the answered heartbeat's
    record once its watch is over."""
    case.start()
    case.wait_authorized()
    count = len(case.sim.requests("heartbeat"))
    case.sim.push("heartbeat", responseCode=code, watch_gates=WATCH_SECONDS)
    for endpoint, reply in later.items():
        case.sim.set_default(endpoint, **reply)
    beats = case.sim.wait_for_request("heartbeat", count + 1, HEARTBEAT_INTERVAL + 10)
    assert len(beats) > count, case.r.log_text()[-3000:]
    assert case.r.wait_for(lambda: case.sim.requests("heartbeat")[count].get("gate_watch_done"),
                           WATCH_SECONDS + 20, 0.2), "the simulator's watch did not end"
    return case.sim.requests("heartbeat")[count]


def ceased_after_answer(answered):
    """Seconds from the answer to the first sample with RadioEnable "0" and
    forwarding off that stayed so for the rest of the watch; None when the
    watch never saw that."""
    return closed_after_answer(answered, lambda s: s["radio_enable"] == "0"
                               and s["forwarding"] == ["0", "0"])


def closed_after_answer(answered, stopped=lambda s: s["closed"]):
    """Seconds from the answer to the first sample with every gate closed and
    RadioEnable "0" that stayed so for the rest of the watch; None when the
    watch never saw that."""
    samples = answered.get("gate_watch") or []
    # Evidence past the limit, or "stayed closed" would prove nothing.
    assert samples and samples[-1]["time"] > answered["replied"] + ALL_GATES_LIMIT + 0.5, \
        f"the simulator's {len(samples)} samples end too soon"
    for index, sample in enumerate(samples):
        if all(stopped(later) for later in samples[index:]):
            # The sample's end: the gates may have closed while it was taken.
            return sample["time"] - answered["replied"]
    return None


def closing_steps(answered):
    """(seconds after the answer, what changed) for each change the simulator
    saw: when RadioEnable, forwarding, the ICMP drop and the bridge drops went."""
    steps, previous = [], None
    for sample in answered.get("gate_watch") or []:
        state = (sample["radio_enable"], "".join(sample["forwarding"]), sample["icmp_drop"],
                 sample["bridge_drops"])
        if state != previous:
            steps.append((round(sample["time"] - answered["replied"], 2),
                          dict(zip(("RadioEnable", "forwarding", "icmp_drop", "bridge_drops"),
                                   state))))
            previous = state
    return steps


def gates_when_asked(case, endpoint):
    """The simulator's sample of the device as each request of `endpoint` arrived."""
    return [q["gates"] for q in case.sim.requests(endpoint)]


def record_measure(what, value):
    """Prints a measurement and appends it to <build>/conformance-measures.jsonl
    (printed output of a passing test is not shown when the cases run in parallel)."""
    row = {"measure": what, "value": value, "time": round(time.time())}
    print(f"\nMEASURE {json.dumps(row)}")
    with open(os.path.join(BUILD_DIR, "conformance-measures.jsonl"), "a") as table:
        table.write(json.dumps(row) + "\n")
