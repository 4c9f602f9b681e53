"""What every perf script shares: the lab and the simulator on the import
path, the fixed paths and constants of the measurements, and the
configuration the scenarios start from.  The perf scripts run as programs
(tests/perf/README.md), so this is the one place that gives them tests/ as
the root of their imports."""
import os
import sys

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO_DIR = os.path.dirname(TESTS_DIR)
sys.path.insert(0, TESTS_DIR)

from lab import device_config, sas_lab  # noqa: E402
from lab.router import VirtualRouter  # noqa: E402,F401  (for the scripts)
from sas_sim import pki  # noqa: E402,F401  (for the scripts)

SAS_CONFIG = "/etc/config/sas"
CACHE = "/tmp/sas_cache"  # tmpfs on the router, not flash
CLOCK_NANOSLEEP = 230  # x86_64
POLL = 7  # x86_64
STARTUP_SECONDS = 8
TRACED_CALLS = "execve,openat,rename,renameat,renameat2,clone,clone3,fork,vfork"
CLK_TCK = os.sysconf("SC_CLK_TCK")
HEARTBEAT_INTERVAL = 60
TRANSMIT_SECONDS = 240


def sas_config(enable_mode, usedp, radio_enable, address=device_config.UNREACHABLE_SAS):
    return device_config.sas_config(address, enable_mode=enable_mode, usedp=usedp,
                                    radio_enable=radio_enable)


def simulator_in(r, pki_dir, control_root, prefix):
    """The device's credentials and the simulator (heartbeatInterval 60,
    transmitExpireTime 240 s ahead) in router r."""
    sas_lab.install_credentials(r, pki_dir)
    return sas_lab.start_simulator(r, pki_dir, [
        "--heartbeat-interval", str(HEARTBEAT_INTERVAL),
        "--transmit-seconds", str(TRANSMIT_SECONDS)], prefix=prefix, control_root=control_root)
