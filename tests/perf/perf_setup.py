"""What every perf script shares: the lab and the simulator on the import
path, the fixed paths and constants of the measurements, and the
configuration the scenarios start from."""
import os
import sys

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO_DIR = os.path.dirname(TESTS_DIR)
sys.path.insert(0, TESTS_DIR)
sys.path.insert(0, os.path.join(TESTS_DIR, "sas_sim"))

import pki  # noqa: E402
from client import SasSim  # noqa: E402
from lab import device_config  # noqa: E402
from lab.router import VirtualRouter  # noqa: E402

SAS_CONFIG = "/etc/config/sas"
CACHE = "/tmp/sas_cache"  # tmpfs on the router, not flash
CLOCK_NANOSLEEP = 230  # x86_64
POLL = 7  # x86_64
STARTUP_SECONDS = 8
TRACED_CALLS = "execve,openat,rename,renameat,renameat2,clone,clone3,fork,vfork"
CLK_TCK = os.sysconf("SC_CLK_TCK")
HEARTBEAT_INTERVAL = 60
TRANSMIT_SECONDS = 240


def sas_config(enable_mode, usedp, radio_enable, address="https://127.0.0.1:1/v1.2"):
    return device_config.sas_config(address, enable_mode=enable_mode, usedp=usedp,
                                    radio_enable=radio_enable)
