"""A virtual router with the SAS simulator running inside it and the
device's TLS credentials installed: the StandAlone lab of the system tests,
the conformance cases and the demo."""
import fcntl
import os
import tempfile
import time
from typing import NamedTuple

from sas_sim import pki
from sas_sim.client import SasSim

from . import device_config
from .places import BUILD_DIR, SAS_CONFIG

# The simulator's heartbeatInterval in the StandAlone system tests.
HEARTBEAT_INTERVAL = 4
RECOVERED = "[SAS] device network has been recovered.\n"
# (folder under /root/sas/cert, name in section cert, file of the test PKI)
CLIENT_CREDENTIALS = (("clientCert", "cbsd.pem", "client.pem"),
                      ("clientKey", "cbsd.key", "client.key"))


def shared_pki(path=os.path.join(BUILD_DIR, "standalone-system-pki")):
    """The test PKI of this build tree; when several test files run at once,
    the first makes it and the others wait."""
    with open(path + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        return pki.generate(path)


def install_credentials(r, pki_dir, server_ca="ca.pem", crl=None):
    """The device's client certificate and key, the SAS CA (`server_ca` of
    the PKI, None for none) and a CRL, where section cert names them."""
    files = list(CLIENT_CREDENTIALS)
    if server_ca:
        files.append(("serverCA", "ca.pem", server_ca))
    if crl:
        files.append(("serverCA", "server_crl.crl", crl))
    for folder, name, source in files:
        with open(os.path.join(pki_dir, source)) as f:
            r.write_file(f"/root/sas/cert/{folder}/{name}", f.read(), mode=0o600)


def start_simulator(r, pki_dir, extra=(), prefix="cbsd-sim-", control_root=BUILD_DIR,
                    **spawn_kwargs):
    """The simulator inside router r, ready; its control directory is a new
    one under control_root, a folder the router shares with the host (not
    its private /tmp or /root)."""
    control_dir = tempfile.mkdtemp(prefix=prefix, dir=control_root)
    process = r.spawn(SasSim.command(control_dir, pki_dir, extra=list(extra)), **spawn_kwargs)
    sim = SasSim(control_dir, process)
    sim.wait_ready()
    return sim


class SasLab(NamedTuple):
    """Router r and simulator sim; unpacks as (r, sim)."""
    r: object
    sim: object

    def start_disabled(self):
        """Starts the daemon with SAS off and waits until its first pass has
        finished writing the reset state."""
        self.r.start_daemon()
        assert self.r.wait_for_log(RECOVERED, 15), self.r.daemon_output()[-2000:]

    def start_enabled(self):
        self.start_disabled()
        self.enable()

    def enable(self):
        self.r.set_option("config", "enableMode", "1")

    def disable(self):
        self.r.set_option("config", "enableMode", "0")

    def authorized(self, timeout=40):
        """Starts the daemon with SAS off, switches SAS on and waits until
        every gate is open and the device is Authorized; returns the seconds
        from the switch."""
        self.start_disabled()
        started = time.monotonic()
        self.enable()
        assert self.r.wait_for(lambda: self.r.gates_open() and self.r.status() == "Authorized",
                               timeout), self.r.log_text()[-3000:]
        return time.monotonic() - started

    def held(self, endpoint, status, **reply):
        """Answers every `endpoint` request with `reply` from now on, starts
        the daemon with SAS on and waits until it has asked and publishes
        `status`: a device the SAS holds in one state."""
        self.sim.set_default(endpoint, **reply)
        self.start_enabled()
        assert self.r.wait_for(lambda: endpoint in self.endpoints(), 30), self.endpoints()
        assert self.r.wait_status(status, 5), self.r.status()

    def endpoints(self):
        """The endpoints of the requests the simulator saw, oldest first."""
        return [q["endpoint"] for q in self.sim.requests()]

    def write_config(self, enable_mode="0"):
        """/etc/config/sas naming the simulator."""
        self.r.write_file(SAS_CONFIG, device_config.sas_config(self.sim.url,
                                                               enable_mode=enable_mode))
