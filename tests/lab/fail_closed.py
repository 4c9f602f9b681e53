"""The fail-closed sampler: watches a virtual router's real traffic gates from
outside the daemon, four times a second, and records every moment one of them
is open without an authority that allows it.

A gate is open as the router's open_gates() names it: forwarding on (either
switch), the ICMP echo drop missing from OUTPUT, or a VLAN-112 interface and
no bridge drop listed.  The authority is what allows traffic:
  - SAS off in the configuration allows everything (after the pass that reads
    the change: `ONE_PASS`);
  - in StandAlone mode, the latest heartbeat success the SAS simulator sent
    allows transmission until its transmitExpireTime + 60 s;
  - in DP mode, the proxy's `RadioEnable` "1" allows it (again one pass to
    react to a change).
Violations are counted in total (flapping adds up), not only in a row.  A
sample that cannot be taken at all is a sampler error, and too few samples
fail the test too: a sampler that saw nothing proves nothing."""
import threading
import time

from .timing import ONE_PASS

PERIOD = 0.25
# The gates close no later than transmitExpireTime + 60 s.
EXPIRY_ALLOWANCE = 60
# At least one sample every this many seconds, or the sampler was starved.
SLOWEST_SAMPLE = 2.0


class StandAloneAuthority:
    """SAS off, or the simulator's latest transmitExpireTime + 60 s."""

    def __init__(self, r, sim):
        self.r, self.sim = r, sim

    def switched_off(self):
        return self.r.uci_get("config", "enableMode") != "1"

    def deadline(self):
        expire = self.sim.transmit_expire()
        return None if expire is None else expire + EXPIRY_ALLOWANCE


class DpAuthority:
    """SAS off, or the proxy's RadioEnable "1"."""

    def __init__(self, r):
        self.r = r

    def switched_off(self):
        return (self.r.uci_get("config", "enableMode") != "1"
                or self.r.uci_get("sasConfig", "RadioEnable") == "1")

    def deadline(self):
        return None


class FailClosedSampler(threading.Thread):

    def __init__(self, r, authority, reaction=ONE_PASS):
        super().__init__(daemon=True)
        self.r, self.authority, self.reaction = r, authority, reaction
        self.stop_event = threading.Event()
        self.samples = 0
        self.open_seconds = 0.0     # total time open without authority
        self.violations = []        # (wall time, gates, status) per offending sample
        self.errors = []
        self.started_at = None
        self.excused_until = 0.0

    def excuse(self):
        """A test opened a gate behind the daemon's back: the daemon has one
        pass to close it again."""
        self.excused_until = time.time() + self.reaction

    def run(self):
        self.started_at = time.monotonic()
        allowed_until = time.time() + self.reaction
        previous = time.monotonic()
        while not self.stop_event.wait(PERIOD):
            # The gates are judged against the time the sample began: taking
            # it starts a few processes in the router, which can take a while.
            now = time.time()
            try:
                if self.authority.switched_off():
                    allowed_until = now + self.reaction
                deadline = self.authority.deadline()
                opened = self.r.open_gates()
            except Exception as error:  # noqa: BLE001 - any failure is reported
                self.errors.append(repr(error))
                continue
            step = time.monotonic() - previous
            previous = time.monotonic()
            self.samples += 1
            if opened and now > max(allowed_until, self.excused_until, deadline or 0):
                self.open_seconds += min(step, SLOWEST_SAMPLE)
                self.violations.append((round(now, 1), opened,
                                        self.r.uci_get("operation", "status")))

    def stop(self):
        self.stop_event.set()
        self.join(10)

    def problems(self):
        """What is wrong, as text lines; empty when the gates stayed closed."""
        found = []
        if self.violations:
            found.append(f"gates open without authority for {self.open_seconds:.1f} s in "
                         f"total: {self.violations[:5]}")
        if self.errors:
            found.append(f"the sampler could not read the gates: {self.errors[:3]}")
        watched = time.monotonic() - (self.started_at or time.monotonic())
        if self.samples < int(watched / SLOWEST_SAMPLE):
            found.append(f"only {self.samples} samples in {watched:.0f} s")
        return found

    def finish(self):
        self.stop()
        problems = self.problems()
        assert not problems, "\n".join(problems)


def watch_daemons(router, authority_for):
    """Wraps the `router` fixture's factory so that every daemon a test
    starts runs under a sampler with authority_for(r); every sampler is
    checked when the test ends, before the routers are closed."""
    samplers = []

    def make(**kwargs):
        r = router(**kwargs)
        start_daemon = r.start_daemon

        def start_watched(*args, **start_kwargs):
            started = start_daemon(*args, **start_kwargs)
            sampler = FailClosedSampler(r, authority_for(r))
            sampler.start()
            samplers.append(sampler)
            r.fail_closed_samplers = getattr(r, "fail_closed_samplers", []) + [sampler]
            return started

        r.start_daemon = start_watched
        return r

    yield make
    for sampler in samplers:
        sampler.finish()


def tampered(r):
    """Tells the samplers of router r that the test itself is about to open a
    gate behind the daemon's back."""
    for sampler in getattr(r, "fail_closed_samplers", []):
        sampler.excuse()
