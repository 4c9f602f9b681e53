"""Commands inside a virtual router: its environment, one-shot commands,
background processes and one-shot runs of the daemon."""
import ctypes
import os
import signal
import subprocess

from .places import NFT_COMMAND_PATH, NFT_DAEMON_PATH, ROUTER_PATH, TESTS_DIR

_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)


def _die_with_parent():
    # Runs in the child before exec: killed when the test process dies.
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


class Commands:
    """Needs self._pid (the holder inside the router), self.flavour, self.tz
    and self._spawned (the processes to kill on close)."""

    def environment(self, extra=None, daemon=False):
        """The environment of a command inside the router; daemon=True gives
        the daemon's (in the nftables flavour, a PATH without the tests'
        iptables/ebtables).  The tests' own commands find the Python packages
        of tests/ (lab, sas_sim)."""
        env = dict(os.environ)
        path = ROUTER_PATH
        if self.flavour == "nftables":
            path = NFT_DAEMON_PATH if daemon else NFT_COMMAND_PATH
        env.update({"PATH": path, "TZ": self.tz, "HOME": "/root"})
        if not daemon:
            env["PYTHONPATH"] = TESTS_DIR
        env.pop("CBSD_LAB_MODEM", None)
        env.pop("CBSD_LAB_SYSLOG", None)
        if extra:
            env.update(extra)
        return env

    def _enter(self, argv):
        return ["nsenter", f"--target={self._pid}", "--mount", "--net", "--wd=/", *argv]

    def run(self, cmd, check=False, timeout=30, env=None):
        """Runs a shell command line inside the router; text output."""
        return subprocess.run(self._enter(["/bin/sh", "-c", cmd]), capture_output=True,
                              text=True, check=check, timeout=timeout,
                              env=self.environment(env), stdin=subprocess.DEVNULL)

    def spawn(self, argv, env=None, daemon=False, **popen_kwargs):
        """Starts a background process inside the router.  It is killed on
        close() and when the test process dies."""
        popen_kwargs.setdefault("stdin", subprocess.DEVNULL)
        process = subprocess.Popen(self._enter(list(argv)), env=self.environment(env, daemon),
                                   preexec_fn=_die_with_parent, **popen_kwargs)
        self._spawned.append(process)
        return process

    def run_daemon(self, *args, timeout=30):
        """Runs `cbsd ARGS` to completion (for one-shot options such as -n)."""
        return subprocess.run(self._enter([self.cbsd_bin, *args]), capture_output=True,
                              text=True, timeout=timeout, env=self.environment(daemon=True),
                              stdin=subprocess.DEVNULL)
