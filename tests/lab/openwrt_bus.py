"""A private real ubus: OpenWrt's own ubusd and `ubus` CLI (../shared/openwrt,
built from their sources) with the lab's ucode modem manager (ubus_lte.uc)
on it, in a namespace of `../shared/openwrt/enter`, so that tests can run the
real CLI beside the lab's `ubus` stand-in on one modem state.

    with OpenWrtBus(state_path) as bus:
        bus.start_ubusd(); bus.start_modem_manager()
        bus.run(["ubus", "call", "ubus_lte", "getlteinfo"])

Everything runs inside the namespace (its /tmp, /run and /root are private);
the modem-state file must live where the namespace sees the host's files
(not under /tmp).  The namespace and every process in it end with close().
"""
import os
import signal
import subprocess
import time

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(TESTS_DIR)
# $CBSD_OPENWRT_DIR names another copy (or none: a path that does not exist).
OPENWRT = os.environ.get("CBSD_OPENWRT_DIR") or os.path.normpath(
    os.path.join(ROOT, "..", "shared", "openwrt"))
ENTER = os.path.join(OPENWRT, "enter")
MODEM_MANAGER = os.path.join(TESTS_DIR, "lab", "ubus_lte.uc")
STANDIN_DIR = os.path.join(TESTS_DIR, "lab", "bin")
SOCKET = "/var/run/ubus/ubus.sock"
# /var/run is a link to /run; read from the host, the link would lead to the
# host's own /run.
SOCKET_FILE = "/run/ubus/ubus.sock"


def available():
    """True when the real OpenWrt userland is there to be used."""
    return os.access(ENTER, os.X_OK) and os.path.exists(
        os.path.join(OPENWRT, "rootfs", "usr", "sbin", "ubusd"))


def wait_for(predicate, timeout, interval=0.02):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(interval)
    return predicate()


class OpenWrtBus:
    def __init__(self, state_path):
        self.state_path = state_path
        self.holder = subprocess.Popen([ENTER, "sleep", "infinity"], stdin=subprocess.DEVNULL)
        self.ubusd = None
        self.modem_manager = None
        # `enter` ends by exec'ing the command: once the holder's program is
        # sleep, the namespace's mounts are all in place.
        if not wait_for(lambda: self._comm() == "sleep", 10):
            self.close()
            raise RuntimeError("the OpenWrt namespace did not come up")

    def _comm(self):
        try:
            with open(f"/proc/{self.holder.pid}/comm", encoding="utf-8") as comm:
                return comm.read().strip()
        except OSError:
            return None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def inside(self, argv):
        """argv as a command line that runs inside the namespace."""
        return ["nsenter", "-t", str(self.holder.pid), "-m", "-n", "--", *argv]

    def environment(self, extra=None):
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
               "CBSD_LAB_MODEM": self.state_path, "LC_ALL": "C"}
        env.update(extra or {})
        return env

    def spawn(self, argv, env=None, **popen_kwargs):
        return subprocess.Popen(self.inside(argv), env=self.environment(env), **popen_kwargs)

    def run(self, argv, timeout=60, env=None, **kwargs):
        return subprocess.run(self.inside(argv), env=self.environment(env), timeout=timeout,
                              capture_output=True, **kwargs)

    def host_path(self, path):
        return f"/proc/{self.holder.pid}/root{path}"

    def start_ubusd(self):
        if self.ubusd is None:
            self.ubusd = self.spawn(["ubusd"], stdin=subprocess.DEVNULL)
        if not wait_for(lambda: os.path.exists(self.host_path(SOCKET_FILE)), 5):
            raise RuntimeError("ubusd did not make its socket")

    def stop_ubusd(self):
        self.stop_modem_manager()
        if self.ubusd is not None:
            self._end(self.ubusd)
            self.ubusd = None
        try:
            os.unlink(self.host_path(SOCKET_FILE))
        except FileNotFoundError:
            pass

    def start_modem_manager(self):
        if self.modem_manager is None:
            self.modem_manager = self.spawn(["ucode", MODEM_MANAGER], stdin=subprocess.DEVNULL)

    def stop_modem_manager(self):
        if self.modem_manager is not None:
            self._end(self.modem_manager)
            self.modem_manager = None

    def published_methods(self):
        """The methods ubus_lte has on the bus, or None when it is not there."""
        listed = self.run(["ubus", "-v", "list", "ubus_lte"], timeout=10)
        if listed.returncode != 0:
            return None
        lines = listed.stdout.decode().splitlines()[1:]
        return sorted(line.strip().split('"')[1] for line in lines if '"' in line)

    def settle(self, methods, timeout=5):
        """Waits until the modem manager shows exactly these methods (None: the
        object absent), as it follows the state file."""
        expected = None if methods is None else sorted(methods)
        if not wait_for(lambda: self.published_methods() == expected, timeout, 0.05):
            raise RuntimeError(f"ubus_lte shows {self.published_methods()}, not {expected}")

    @staticmethod
    def _end(process):
        # nsenter forwards the signal to the program it started.
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()

    def close(self):
        for process in (self.modem_manager, self.ubusd):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        self.modem_manager = self.ubusd = None
        if self.holder.poll() is None:
            # The namespace ends with its last process; kill whatever a test
            # left in it (its mount namespace is the holder's).
            self._kill_members()
            self.holder.kill()
            self.holder.wait()

    def _kill_members(self):
        try:
            own = os.readlink(f"/proc/{self.holder.pid}/ns/mnt")
        except OSError:
            return
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or int(entry) == self.holder.pid:
                continue
            try:
                if os.readlink(f"/proc/{entry}/ns/mnt") == own:
                    os.kill(int(entry), signal.SIGKILL)
            except OSError:
                pass
