"""Shared steps of the fault tests: an authorised device whose every heartbeat
success hands out a short lead, and the measurement of one fault from
outside the daemon (when the gates closed against the latest
transmitExpireTime the simulator handed out, how many connections per minute
the simulator saw, whether the user's configuration survived).  Each
measurement is also appended to <build>/fault-table.jsonl."""
import json
import os
import time

from lab.fail_closed import EXPIRY_ALLOWANCE
from lab.places import BUILD_DIR
from sas_sim.client import relative

# Every heartbeat success hands out now + TRANSMIT_LEAD as transmitExpireTime.
TRANSMIT_LEAD = 20
MOST_PER_MINUTE = 20
# The sections a user (or the installer) writes; the daemon must never lose them.
USER_SECTIONS = ("config", "cpi", "cert", "cellInfo")


def authorized_with_short_lead(lab):
    lab.sim.set_default("heartbeat", set={"transmitExpireTime": relative(TRANSMIT_LEAD)})
    lab.authorized()


def user_sections(text):
    """The lines of the user's sections in a UCI text, in order."""
    kept, keep = [], False
    for line in (text or "").splitlines():
        if line.startswith("config "):
            keep = line.split()[1] in USER_SECTIONS
        if keep and line.strip():
            kept.append(line.strip())
    return kept


class FaultRun:
    """Measures one fault from the moment it is injected."""

    def __init__(self, name, lab):
        self.name, (self.r, self.sim) = name, lab
        self.config_before = user_sections(self.r.read_file("/etc/config/sas"))
        self.started = time.time()

    def wait_closed(self):
        """Waits until every gate is closed, at most until the latest
        transmitExpireTime + 60 s (+ a little to see a late close); returns
        the seconds past transmitExpireTime at which they were found closed."""
        expire = self.sim.transmit_expire()
        limit = (expire or self.started) + EXPIRY_ALLOWANCE + 5
        while time.time() < limit and not self.r.gates_closed():
            time.sleep(0.25)
        closed_at = time.time()
        assert self.r.gates_closed(), f"{self.name}: gates still open {closed_at - expire:.0f} s past expiry"
        return closed_at - self.sim.transmit_expire()

    def finish(self, past_expiry, config_path="/etc/config/sas", **extra):
        """Keeps the fault on for a whole minute, then records the row and
        checks the pacing and the configuration."""
        time.sleep(max(0.0, self.started + 60 - time.time()))
        rate = self.sim.most_connections_in_a_minute(since=self.started)
        intact = user_sections(self.r.read_file(config_path)) == self.config_before
        row = {"fault": self.name, "closed_past_expiry_s": round(past_expiry, 1),
               "requests_per_minute": rate, "configuration_intact": intact,
               "observed_s": round(time.time() - self.started), **extra}
        with open(os.path.join(BUILD_DIR, "fault-table.jsonl"), "a") as table:
            table.write(json.dumps(row) + "\n")
        print(f"\nFAULT {json.dumps(row)}")
        assert past_expiry <= EXPIRY_ALLOWANCE, row
        assert rate <= MOST_PER_MINUTE, row
        assert intact, row
        return row
