"""What the daemon wrote: its log file, the system-log records of the
`logger` stand-in, and the waits on them."""
import json
import time

from .errors import RouterError
from .places import SAS_LOG, SYSLOG_RECORDS
from .timing import QUIET_LIMIT, QUIET_SECONDS


class Logs:
    """Needs Files."""

    def log_text(self):
        return self.read_file(SAS_LOG) or ""

    def log_after(self, mark):
        """The log written since position `mark` (a len(log_text()))."""
        return self.log_text()[mark:]

    def wait_for(self, predicate, timeout=10.0, interval=0.05):
        """Polls predicate() until it is true; returns its last value."""
        deadline = time.monotonic() + timeout
        while True:
            value = predicate()
            if value or time.monotonic() >= deadline:
                return value
            time.sleep(interval)

    def wait_for_log(self, text, timeout=10.0):
        return bool(self.wait_for(lambda: text in self.log_text(), timeout))

    def wait_for_log_after(self, mark, text, timeout=QUIET_LIMIT):
        return bool(self.wait_for(lambda: text in self.log_after(mark), timeout))

    def wait_until_quiet(self, quiet=QUIET_SECONDS, timeout=QUIET_LIMIT):
        """Waits until the log has not grown for `quiet` seconds: the pass that
        logged last has finished its writes to /etc/config/sas."""
        deadline = time.monotonic() + timeout
        size, since = len(self.log_text()), time.monotonic()
        while time.monotonic() < deadline:
            time.sleep(0.1)
            now = len(self.log_text())
            if now != size:
                size, since = now, time.monotonic()
            elif time.monotonic() - since >= quiet:
                return
        raise RouterError("the daemon's log did not settle")

    def syslog_records(self):
        """(priority, tag, text) of every `logger` call, in order."""
        records = []
        for line in (self.read_file(SYSLOG_RECORDS) or "").splitlines():
            record = json.loads(line)
            records.append((record["priority"], record["tag"], record["text"]))
        return records
