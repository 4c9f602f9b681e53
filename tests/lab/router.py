"""A virtual router on one Linux host, for the system tests and the demo.

`VirtualRouter` gives the unmodified `cbsd` binary, at its real absolute
paths, a private mount namespace (writable overlay on /etc, empty /tmp and
/root) and a private network namespace with the interfaces a test chooses,
real iptables and ebtables, and stand-ins for `ubus`, `logger` and the
router's ebtables listing format (tests/lab/bin).  See tests/lab/README.md.

This file holds its life cycle; what a test does with a running router is
split by concern: commands.py, daemon_process.py, files.py, store.py,
modem_standin.py, logs.py, gates.py and tool_faults.py.
"""
import json
import os
import shutil
import subprocess
import tempfile

from . import openwrt_bus
from .commands import Commands
from .daemon_process import DaemonProcess
from .errors import RouterError
from .files import Files
from .gates import Gates
from .logs import Logs
from .modem_standin import DEFAULT_MODEM, ModemStandIn
from .places import (CERT_DROP_DIR, FLAVOUR_FILE, HOLDER, NFT_STANDIN_DIR, NFT_STANDINS,
                     OVERRIDE_DIR, REPO_DIR, SAS_CONFIG, STANDIN_DIR)
from .store import Store
from .tool_faults import ToolFaults

__all__ = ["VirtualRouter", "RouterError", "daemon_binary", "STANDIN_DIR", "DEFAULT_INTERFACES",
           "FLAVOURS", "DEFAULT_MODEM"]

DEFAULT_INTERFACES = ("eth1.112", "usb0.112", "br-lan")
# Firewall flavours: "legacy" lists ebtables rules with the legacy trailing
# blank (the stand-in in tests/lab/bin adds it), "ebtables-nft" lists them as
# ebtables-nft does, "nftables" has neither iptables nor ebtables (a current
# OpenWrt router with fw4): only nft and the kernel's nf_tables.
# $CBSD_LAB_FLAVOUR chooses the default.
FLAVOURS = ("legacy", "ebtables-nft", "nftables")


def daemon_binary():
    """The daemon under test: $CBSD_BIN (set by ctest), else <repo>/build/cbsd."""
    return os.path.abspath(os.environ.get("CBSD_BIN") or os.path.join(REPO_DIR, "build", "cbsd"))


class VirtualRouter(Commands, DaemonProcess, Files, Store, ModemStandIn, Logs, Gates, ToolFaults):
    """One virtual router; use it as a context manager (or call close())."""

    def __init__(self, interfaces=DEFAULT_INTERFACES, modem=None, tz="UTC0", sas_config=None,
                 provision_certs=None, bridge_chain=True, cbsd_bin=None, flavour=None,
                 ubus=None):
        self.interfaces = tuple(interfaces)
        self.ubus = ubus or os.environ.get("CBSD_LAB_UBUS") or "standin"
        if self.ubus not in ("standin", "real"):
            raise RouterError(f"unknown ubus {self.ubus!r}")
        if self.ubus == "real" and not openwrt_bus.available():
            raise RouterError("ubus='real' needs ../shared/openwrt")
        self.flavour = flavour or os.environ.get("CBSD_LAB_FLAVOUR") or "legacy"
        if self.flavour not in FLAVOURS:
            raise RouterError(f"unknown firewall flavour {self.flavour!r}")
        self.tz = tz
        self.cbsd_bin = os.path.abspath(cbsd_bin) if cbsd_bin else daemon_binary()
        self._workdir = tempfile.mkdtemp(prefix="cbsd-lab-")
        self._holder = None
        self._pid = None
        self._daemon = None
        self._spawned = []
        try:
            self._start(bridge_chain)
            self.write_file(FLAVOUR_FILE, self.flavour + "\n")
            if self.flavour == "nftables":
                self._link_nft_standins()
            self.write_file("/etc/TZ", tz + "\n")
            self._write_modem(dict(DEFAULT_MODEM) if modem is None else dict(modem))
            if self.ubus == "real":
                self._start_real_ubus()
            if sas_config is not None:
                self.write_file(SAS_CONFIG, sas_config)
            if provision_certs is not None:
                shutil.copytree(provision_certs, self.host_path(CERT_DROP_DIR))
        except BaseException:
            self.close()
            raise

    # ----- life cycle -------------------------------------------------------

    def _start(self, bridge_chain):
        keep = [REPO_DIR, os.path.dirname(self.cbsd_bin)]
        if os.environ.get("CBSD_BINARY_DIR"):
            keep.append(os.environ["CBSD_BINARY_DIR"])
        usr = os.path.join(openwrt_bus.OPENWRT, "rootfs", "usr") if self.ubus == "real" else None
        setup = json.dumps({"interfaces": list(self.interfaces), "bridge_chain": bridge_chain,
                            "keep": keep, "hide_firewall_tools": self.flavour == "nftables",
                            "openwrt_usr": usr})
        # Own session: a Ctrl-C meant for pytest does not skip the tear-down.
        self._holder = subprocess.Popen(
            ["/usr/bin/python3", HOLDER, self._workdir, setup], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True, start_new_session=True)
        line = self._holder.stdout.readline().strip()
        if not line.startswith("ready "):
            raise RouterError(f"virtual router set-up failed: {line or 'no answer'}")
        self._pid = int(line.split()[1])

    def _link_nft_standins(self):
        os.makedirs(self.host_path(NFT_STANDIN_DIR), exist_ok=True)
        for name in NFT_STANDINS:
            target = os.path.join(STANDIN_DIR, name)
            if name == "ubus" and self.ubus == "real":
                target = "/usr/bin/ubus"
            os.symlink(target, self.host_path(f"{NFT_STANDIN_DIR}/{name}"))

    def _start_real_ubus(self):
        """OpenWrt's ubusd with the lab's ucode modem manager serving the modem
        state; the real `ubus` CLI first on every PATH of the router."""
        os.symlink("/usr/bin/ubus", self.host_path(f"{OVERRIDE_DIR}/ubus"))
        self.spawn(["ubusd"])
        self.spawn(["ucode", openwrt_bus.MODEM_MANAGER], env={"CBSD_LAB_COUNT_CALLS": "1"})
        if self.modem_state().get("registered") is not False and not self.wait_for(
                lambda: self.run("ubus -S list ubus_lte", timeout=10).returncode == 0, 10):
            raise RouterError("the ucode modem manager did not register ubus_lte")

    def close(self):
        """Kills everything in the router; leaves no mount, process or file."""
        for process in [self._daemon] + self._spawned:
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        self._daemon = None
        self._spawned = []
        if self._holder is not None:
            self._holder.stdin.close()  # end of file: the holder tears down
            try:
                self._holder.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self._holder.kill()
                self._holder.wait()
            self._holder.stdout.close()
            self._holder = None
        shutil.rmtree(self._workdir, ignore_errors=True)
        self._pid = None

    @property
    def pid(self):
        """Process id of the holder inside the router (for nsenter)."""
        return self._pid

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
