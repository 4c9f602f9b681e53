"""The daemon running inside a virtual router: starting it in debug mode,
its output, and the two ways it ends (a signal it handles, SIGKILL)."""
import os
import signal
import subprocess
import time

from .errors import RouterError
from .timing import STOP_LIMIT


class DaemonProcess:
    """Needs Commands (spawn) and self._workdir, self._daemon, self._spawned."""

    def start_daemon(self, *args, env=None, under=()):
        """Starts `cbsd -d ARGS` (foreground debug mode), with `env` added to
        its environment; its output goes to daemon_output().  `under` is a
        command line the daemon runs under (say strace's), its process then
        the one daemon() returns."""
        if self._daemon is not None:
            raise RouterError("the daemon already runs")
        with open(os.path.join(self._workdir, "daemon.out"), "ab") as out:
            self._daemon = self.spawn([*under, self.cbsd_bin, "-d", *args], env=env, daemon=True,
                                      stdout=out, stderr=subprocess.STDOUT)
        return self._daemon

    def stop_daemon(self):
        """Stops the daemon with SIGKILL; returns its exit status or None."""
        if self._daemon is None:
            return None
        self._daemon.kill()
        status = self._daemon.wait()
        self._spawned.remove(self._daemon)
        self._daemon = None
        return status

    def stop_with(self, signum=signal.SIGTERM, limit=STOP_LIMIT, process=None):
        """Sends signum to the daemon (or to `process`, a daemon started
        otherwise) and waits for it to end, a little longer than `limit`;
        returns (exit status, seconds it took)."""
        process = process or self._daemon
        started = time.monotonic()
        process.send_signal(signum)
        status = process.wait(timeout=limit + 5)
        return status, time.monotonic() - started

    def stop_cleanly(self, signum=signal.SIGTERM, label=None, limit=STOP_LIMIT):
        """stop_with, asserting that the daemon ended with status 0 within
        `limit`; with a label, prints the measurement.  Returns the seconds."""
        status, took = self.stop_with(signum, limit)
        if label:
            print(f"\nMEASURE {label} -> exit {status} after {took:.1f} s")
        assert status == 0, (status, self.log_text()[-2000:])
        assert took < limit, (took, self.log_text()[-2000:])
        return took

    @property
    def daemon(self):
        return self._daemon

    def daemon_alive(self):
        return self._daemon is not None and self._daemon.poll() is None

    def daemon_output(self):
        try:
            with open(os.path.join(self._workdir, "daemon.out"), errors="replace") as out:
                return out.read()
        except FileNotFoundError:
            return ""
