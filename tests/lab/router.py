"""A virtual router on one Linux host, for the system tests and the demo.

`VirtualRouter` gives the unmodified `cbsd` binary, at its real absolute
paths, a private mount namespace (writable overlay on /etc, empty /tmp and
/root) and a private network namespace with the interfaces a test chooses,
real iptables and ebtables, and stand-ins for `ubus`, `logger` and the
router's ebtables listing format (tests/lab/bin).  See tests/lab/README.md.
"""
import ctypes
import fcntl
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time

from . import nft_view, openwrt_bus, uci

LAB_DIR = os.path.dirname(os.path.abspath(__file__))
STANDIN_DIR = os.path.join(LAB_DIR, "bin")
REPO_DIR = os.path.dirname(os.path.dirname(LAB_DIR))
HOLDER = os.path.join(LAB_DIR, "holder.py")

DEFAULT_INTERFACES = ("eth1.112", "usb0.112", "br-lan")
# Firewall flavours: "legacy" lists ebtables rules with the legacy trailing
# blank (the stand-in in tests/lab/bin adds it), "ebtables-nft" lists them as
# ebtables-nft does, "nftables" has neither iptables nor ebtables (a current
# OpenWrt router with fw4): only nft and the kernel's nf_tables.
# $CBSD_LAB_FLAVOUR chooses the default.
FLAVOURS = ("legacy", "ebtables-nft", "nftables")
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

DEFAULT_MODEM = {
    "manufacturer": "Larkspur Modules",
    "productmodule": "RQ5518L-M2",
    "SN": "LAB0000001",
    "imei": "860000000000001",
    "netstat": 4,
    "dlfreq": 3625000,
    "ulfreq": 3625000,
    "bandwidth": 20,
    "band": 48,
}

_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)


def _die_with_parent():
    # Runs in the child before exec: killed when the test process dies.
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def daemon_binary():
    """The daemon under test: $CBSD_BIN (set by ctest), else <repo>/build/cbsd."""
    return os.path.abspath(os.environ.get("CBSD_BIN") or os.path.join(REPO_DIR, "build", "cbsd"))


class RouterError(RuntimeError):
    pass


class VirtualRouter:
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
        self.spawn(["ucode", openwrt_bus.MODEM_MANAGER])
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

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    @property
    def pid(self):
        """Process id of the holder inside the router (for nsenter)."""
        return self._pid

    # ----- commands ---------------------------------------------------------

    def environment(self, extra=None, daemon=False):
        """The environment of a command inside the router; daemon=True gives
        the daemon's (in the nftables flavour, a PATH without the tests'
        iptables/ebtables)."""
        env = dict(os.environ)
        path = ROUTER_PATH
        if self.flavour == "nftables":
            path = NFT_DAEMON_PATH if daemon else NFT_COMMAND_PATH
        env.update({"PATH": path, "TZ": self.tz, "HOME": "/root"})
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

    def start_daemon(self, *args, env=None):
        """Starts `cbsd -d ARGS` (foreground debug mode), with `env` added to
        its environment; its output goes to daemon_output()."""
        if self._daemon is not None:
            raise RouterError("the daemon already runs")
        with open(os.path.join(self._workdir, "daemon.out"), "ab") as out:
            self._daemon = self.spawn([self.cbsd_bin, "-d", *args], env=env, daemon=True,
                                      stdout=out, stderr=subprocess.STDOUT)
        return self._daemon

    def fill_store(self, size_kb=64):
        """Puts /etc/config on a small tmpfs holding copies of its files and
        fills it: from now on every write there fails with ENOSPC."""
        self.run("cp -a /etc/config /tmp/lab-config-copy && "
                 f"mount -t tmpfs -o size={int(size_kb)}k tmpfs /etc/config && "
                 "cp -a /tmp/lab-config-copy/. /etc/config/ && "
                 "{ dd if=/dev/zero of=/etc/config/.lab-fill bs=1k 2>/dev/null; true; }",
                 check=True)

    def read_only_store(self):
        """Makes /etc/config read-only: every write there fails with EROFS."""
        self.run("mount --bind /etc/config /etc/config && "
                 "mount -o remount,bind,ro /etc/config", check=True)

    def stop_daemon(self):
        """Stops the daemon with SIGKILL; returns its exit status or None."""
        if self._daemon is None:
            return None
        self._daemon.kill()
        status = self._daemon.wait()
        self._spawned.remove(self._daemon)
        self._daemon = None
        return status

    @property
    def daemon(self):
        return self._daemon

    def daemon_output(self):
        try:
            with open(os.path.join(self._workdir, "daemon.out"), errors="replace") as out:
                return out.read()
        except FileNotFoundError:
            return ""

    # ----- files ------------------------------------------------------------

    def host_path(self, path):
        """The host's name for an absolute path inside the router."""
        if not path.startswith("/"):
            raise ValueError(f"not an absolute path: {path}")
        return f"/proc/{self._pid}/root{path}"

    def exists(self, path):
        return os.path.lexists(self.host_path(path))

    def read_file(self, path, binary=False):
        """A file inside the router; None when it does not exist."""
        try:
            with open(self.host_path(path), "rb" if binary else "r",
                      **({} if binary else {"errors": "surrogateescape"})) as source:
                return source.read()
        except FileNotFoundError:
            return None

    def write_file(self, path, content, mode=0o644):
        """Replaces a file inside the router at once (written aside, then
        renamed), creating its directories."""
        target = self.host_path(path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        temporary = f"{target}.lab-{os.getpid()}"
        data = content if isinstance(content, bytes) else content.encode("utf-8",
                                                                         "surrogateescape")
        with open(temporary, "wb") as sink:
            sink.write(data)
        os.chmod(temporary, mode)
        os.replace(temporary, target)

    def remove_file(self, path):
        try:
            os.unlink(self.host_path(path))
        except FileNotFoundError:
            pass

    # ----- modem ------------------------------------------------------------

    def modem_state(self):
        text = self.read_file(MODEM_STATE)
        return json.loads(text) if text else {}

    def _write_modem(self, state):
        self.write_file(MODEM_STATE, json.dumps(state, indent=1) + "\n")

    def set_modem(self, **fields):
        """Changes modem members (None removes one from the replies).  Special
        members: raw={method: bytes or text} prints exactly those bytes;
        fail=True or [methods] makes those methods fail (fail_status, default 9);
        hang=True or [methods] makes them never answer (see hung_pid("ubus"));
        registered=False: no modem manager on the bus; ubusd=False: no bus at
        all; cli="pre2022": the CLI's short error form (tests/lab/README.md)."""
        state = self.modem_state()
        for name, value in fields.items():
            if name == "raw" and value is not None:
                value = {method: (data.decode("latin-1") if isinstance(data, bytes) else data)
                         for method, data in value.items()}
            if value is None:
                state.pop(name, None)
            else:
                state[name] = value
        self._write_modem(state)

    # ----- configuration ----------------------------------------------------

    def uci_get(self, section, option, path=SAS_CONFIG):
        """The option's value, or None when the file, section or option is absent."""
        text = self.read_file(path)
        return None if text is None else uci.get(text, section, option)

    def uci_set(self, section, option, value, path=SAS_CONFIG):
        """Sets one option as the router's UCI writers do: under an exclusive
        flock of the file (taken again if a writer replaced the file while we
        waited), so an edit never races with the daemon's own commits."""
        target = self.host_path(path)
        if not os.path.exists(target):
            self.write_file(path, uci.set("", section, option, value))
            return
        while True:
            with open(target, "rb") as locked:
                fcntl.flock(locked, fcntl.LOCK_EX)
                try:
                    if os.fstat(locked.fileno()).st_ino != os.stat(target).st_ino:
                        continue  # replaced while we waited: lock the new file
                    text = locked.read().decode("utf-8", "surrogateescape")
                    self.write_file(path, uci.set(text, section, option, value),
                                    mode=os.fstat(locked.fileno()).st_mode & 0o7777)
                    return
                finally:
                    fcntl.flock(locked, fcntl.LOCK_UN)

    # ----- logs -------------------------------------------------------------

    def log_text(self):
        return self.read_file(SAS_LOG) or ""

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

    def syslog_records(self):
        """(priority, tag, text) of every `logger` call, in order."""
        records = []
        for line in (self.read_file(SYSLOG_RECORDS) or "").splitlines():
            record = json.loads(line)
            records.append((record["priority"], record["tag"], record["text"]))
        return records

    # ----- network state ----------------------------------------------------

    def ip_forward(self):
        """(IPv4, IPv6) forwarding switches as the kernel shows them."""
        out = self.run("cat /proc/sys/net/ipv4/ip_forward "
                       "/proc/sys/net/ipv6/conf/all/forwarding", check=True).stdout.split()
        return out[0], out[1]

    def set_ip_forward(self, ipv4, ipv6=None):
        ipv6 = ipv4 if ipv6 is None else ipv6
        self.run(f"echo {int(ipv4)} > /proc/sys/net/ipv4/ip_forward;"
                 f"echo {int(ipv6)} > /proc/sys/net/ipv6/conf/all/forwarding", check=True)

    def _listing(self, command, attempts=5):
        """A firewall listing.  nf_tables refuses a listing that races with a
        rule change of the daemon (exit status 4); such a refusal is retried
        a few times before it counts as a failure."""
        for attempt in range(attempts):
            result = self.run(command)
            if result.returncode == 0 or attempt == attempts - 1:
                break
            time.sleep(0.02)
        result.check_returncode()
        return result.stdout

    def _nft_rules(self, family, chain):
        """Rule lines of the chain in our table, then in the lab's (foreign
        rules); a table that is not there has none."""
        tables = (nft_view.OUR_TABLE, nft_view.LAB_TABLE)
        listing = self._listing("; ".join(
            f"nft list chain {family} {t} {chain} 2>/dev/null" for t in tables) + "; true")
        return nft_view.rule_lines(listing)

    def iptables_rules(self):
        """`iptables -S OUTPUT` lines, in chain order.  In the nftables
        flavour, the nft rules of the same meaning in iptables' words."""
        if self.flavour == "nftables":
            return ["-P OUTPUT ACCEPT"] + [nft_view.iptables_line(rule) for rule in
                                            self._nft_rules("inet", "output")]
        return self._listing("iptables -S OUTPUT").splitlines()

    def ebtables_rules(self):
        """The rule lines of `ebtables -L BRIDGE_FORWARD` in chain order,
        without the trailing blank the router's listing adds (in the
        nftables flavour, the nft rules in ebtables' words)."""
        if self.flavour == "nftables":
            return [nft_view.ebtables_line(rule) for rule in self._nft_rules("bridge", "forward")]
        listing = self._listing("ebtables -L BRIDGE_FORWARD")
        return [line.rstrip() for line in listing.splitlines()
                if line.strip() and not line.startswith("Bridge ")]

    def links(self):
        """Names of the interfaces `ifconfig` lists (those that are up)."""
        out = self.run("ifconfig", check=True).stdout
        return [line.split()[0].rstrip(":") for line in out.splitlines()
                if line and not line[0].isspace()]

    # ----- tool faults ------------------------------------------------------

    def break_tool(self, name, status=1, message=None):
        """Makes `name` fail: it prints message (default a generic error) to
        standard error and exits with status, whatever its arguments."""
        text = message if message is not None else f"{name}: simulated failure"
        self.write_file(f"{OVERRIDE_DIR}/{name}",
                        "#!/bin/sh\n"
                        f"printf '%s\\n' {_sh_quote(text)} >&2\n"
                        f"exit {int(status)}\n", mode=0o755)

    def hang_tool(self, name):
        """Makes `name` hang: it records its process id in
        /tmp/lab-hang-<name>.pid and sleeps for an hour, whatever its arguments."""
        self.write_file(f"{OVERRIDE_DIR}/{name}",
                        "#!/bin/sh\n"
                        f"echo $$ > /tmp/lab-hang-{name}.pid\n"
                        "exec sleep 3600\n", mode=0o755)

    def hung_pid(self, name):
        """The process id the last hanging `name` recorded, or None."""
        text = self.read_file(f"/tmp/lab-hang-{name}.pid")
        return int(text) if text and text.strip().isdigit() else None

    def remove_tool(self, name):
        """Makes `name` behave as a command that does not exist (the shell's
        "not found", status 127)."""
        self.break_tool(name, 127, f"sh: 1: {name}: not found")

    def restore_tool(self, name):
        self.remove_file(f"{OVERRIDE_DIR}/{name}")
        if name == "ubus" and self.ubus == "real":
            os.symlink("/usr/bin/ubus", self.host_path(f"{OVERRIDE_DIR}/ubus"))


def _sh_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"
