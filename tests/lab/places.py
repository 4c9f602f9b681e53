"""Where things are: in the repository, inside a virtual router, and the
PATHs its commands and its daemon run with."""
import os

LAB_DIR = os.path.dirname(os.path.abspath(__file__))
TESTS_DIR = os.path.dirname(LAB_DIR)
REPO_DIR = os.path.dirname(TESTS_DIR)
BUILD_DIR = os.environ.get("CBSD_BINARY_DIR") or os.path.join(REPO_DIR, "build")
STANDIN_DIR = os.path.join(LAB_DIR, "bin")
HOLDER = os.path.join(LAB_DIR, "holder.py")

FLAVOUR_FILE = "/etc/lab/flavour"
# Per-router tool overrides (failing or missing tools) come first on PATH.
OVERRIDE_DIR = "/etc/lab/bin"
MODEM_STATE = "/etc/lab/modem.json"
SYSLOG_RECORDS = "/etc/lab/syslog.jsonl"
SAS_CONFIG = "/etc/config/sas"
SAS_LOG = "/root/sas/sas.log"
CERT_DROP_DIR = "/tmp/logger/sas/cert"
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
ROUTER_PATH = f"{OVERRIDE_DIR}:{STANDIN_DIR}:{SYSTEM_PATH}"
# The nftables flavour: the stand-ins without the ebtables one, and for the
# tests' own commands (never the daemon's) iptables/ebtables that speak nft.
NFT_STANDIN_DIR = "/etc/lab/standins"
NFT_STANDINS = ("ubus", "logger")
NFT_TOOLS_DIR = os.path.join(LAB_DIR, "nft-tools")
NFT_DAEMON_PATH = f"{OVERRIDE_DIR}:{NFT_STANDIN_DIR}:{SYSTEM_PATH}"
NFT_COMMAND_PATH = f"{OVERRIDE_DIR}:{NFT_TOOLS_DIR}:{NFT_STANDIN_DIR}:{SYSTEM_PATH}"
