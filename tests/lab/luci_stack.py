"""OpenWrt's own web stack (../shared/openwrt: ubusd, rpcd, uhttpd with the
ucode LuCI dispatcher, LuCI's base and theme) in a namespace of its `enter`,
with this repository's LuCI app (openwrt/luci/luci-app-cbsd) laid over the
router's folders as the package would install it:

    with LuciStack(sas_config_text) as stack:
        stack.run(["uci", "get", "sas.cpi.latitude"])
        ... a browser in stack.netns_pid's network opens stack.URL ...

The app's files are read-only overlays on /www, /usr/share/luci/menu.d and
/usr/share/rpcd/acl.d, so the shared tree is never changed; /etc/config is
the namespace's own writable copy.
"""
import json
import os
import subprocess
import time

from lab import openwrt_bus
from lab.openwrt_bus import OpenWrtBus, wait_for

ROOT = openwrt_bus.ROOT
APP = os.path.join(ROOT, "openwrt", "luci", "luci-app-cbsd")
CBSD_STANDIN = os.path.join(ROOT, "tests", "lab", "cbsd_object.uc")
DEFAULT_SAS_CONFIG = os.path.join(ROOT, "openwrt", "net", "cbsd", "files", "sas.config")
PORT = 8080
ORIGIN = f"http://127.0.0.1:{PORT}"
URL = f"{ORIGIN}/cgi-bin/luci"
ROOT_PASSWORD = "probe"
# Overlays: (the app's folder, the router's folder it joins).
APP_DIRS = [("htdocs", "/www"),
            ("root/usr/share/luci/menu.d", "/usr/share/luci/menu.d"),
            ("root/usr/share/rpcd/acl.d", "/usr/share/rpcd/acl.d")]
UHTTPD = ["uhttpd", "-f", "-h", "/www", "-r", "router", "-x", "/cgi-bin", "-u", "/ubus",
          "-t", "60", "-T", "30", "-k", "20", "-A", "1", "-n", "10", "-N", "100", "-R",
          "-o", "/cgi-bin/luci", "-O", "/usr/share/ucode/luci/uhttpd.uc",
          "-p", f"127.0.0.1:{PORT}"]


def available():
    return openwrt_bus.available() and os.path.exists(
        os.path.join(openwrt_bus.OPENWRT, "rootfs", "www", "luci-static", "resources", "form.js"))


def crypt_md5(password):
    """An rpcd password field ($1$ crypt) for a login of the test's own."""
    made = subprocess.run(["openssl", "passwd", "-1", password], check=True,
                          capture_output=True, text=True)
    return made.stdout.strip()


class LuciStack(OpenWrtBus):
    def __init__(self, sas_config=None, logins=(), apply_holdoff=1):
        """sas_config: the text of /etc/config/sas (the package's default
        when None); logins: (name, password, read ACLs, write ACLs) of
        further rpcd users; apply_holdoff: seconds LuCI waits after an
        apply before it confirms (the router's default is 4; the tests
        watch the confirmation, not the wait)."""
        super().__init__(os.devnull)
        self.services = []
        try:
            self._repair_flattened_links()
            self._lay_over_app()
            self._write_config(sas_config, logins, apply_holdoff)
            self._start_services()
        except BaseException:
            self.close()
            raise

    @property
    def netns_pid(self):
        return self.holder.pid

    def _repair_flattened_links(self):
        """A copy of the shared tree made without keeping symbolic links holds
        a library's link (liblucihttp.so.0 -> liblucihttp.so.0.1) as a small
        file with the target's name in it, and LuCI's ucode module cannot load.
        Inside the namespace only, the named library is bound over that file."""
        lib = os.path.join(openwrt_bus.OPENWRT, "rootfs", "usr", "lib")
        for name in sorted(os.listdir(lib)):
            path = os.path.join(lib, name)
            if ".so" not in name or os.path.islink(path) or os.path.getsize(path) > 255:
                continue
            with open(path, "rb") as link:
                target = link.read().decode(errors="replace").strip()
            if "/" in target or not os.path.isfile(os.path.join(lib, target)):
                continue
            self.run(["mount", "--bind", f"/usr/lib/{target}", f"/usr/lib/{name}"])

    def _lay_over_app(self):
        for source, target in APP_DIRS:
            mounted = self.run(["mount", "-t", "overlay", "overlay", "-o",
                                f"lowerdir={os.path.join(APP, source)}:{target}", target])
            if mounted.returncode != 0:
                raise RuntimeError(f"overlay on {target}: {mounted.stderr.decode()}")

    def write_file(self, path, text):
        with open(self.host_path(path), "w", encoding="utf-8") as out:
            out.write(text)

    def read_file(self, path):
        with open(self.host_path(path), encoding="utf-8") as source:
            return source.read()

    def _write_config(self, sas_config, logins, apply_holdoff):
        if sas_config is None:
            with open(DEFAULT_SAS_CONFIG, encoding="utf-8") as default:
                sas_config = default.read()
        self.write_file("/etc/config/sas", sas_config)
        rpcd = self.read_file("/etc/config/rpcd")
        for name, password, reads, writes in logins:
            rpcd += f"\nconfig login\n\toption username '{name}'\n"
            rpcd += f"\toption password '{crypt_md5(password)}'\n"
            rpcd += "".join(f"\tlist read '{acl}'\n" for acl in reads)
            rpcd += "".join(f"\tlist write '{acl}'\n" for acl in writes)
        self.write_file("/etc/config/rpcd", rpcd)
        self.uci(["set", f"luci.apply.holdoff={apply_holdoff}"])
        self.uci(["commit", "luci"])

    def uci(self, args):
        """`uci ARGS...` inside the router; its standard output."""
        done = self.run(["uci", *args], timeout=10)
        if done.returncode != 0:
            raise RuntimeError(f"uci {' '.join(args)}: {done.stderr.decode().strip()}")
        return done.stdout.decode()

    def uci_get(self, name):
        done = self.run(["uci", "-q", "get", name], timeout=10)
        return done.stdout.decode().rstrip("\n") if done.returncode == 0 else None

    def _start_services(self):
        self.start_ubusd()
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                 "stderr": subprocess.DEVNULL}
        # procd serves the `system` object, whose board data every page's
        # header shows.
        self.services.append(self.spawn(["procd", "-s", openwrt_bus.SOCKET], **quiet))
        self.services.append(self.spawn(["rpcd", "-s", openwrt_bus.SOCKET, "-t", "30"], **quiet))
        if not wait_for(lambda: self._has_object("session"), 10, 0.05):
            raise RuntimeError("rpcd did not publish its session object")
        if not wait_for(lambda: self._has_object("system"), 10, 0.05):
            raise RuntimeError("procd did not publish its system object")
        self.services.append(self.spawn(UHTTPD, **quiet))
        if not wait_for(self._listening, 10, 0.05):
            raise RuntimeError(f"uhttpd did not listen on port {PORT}")

    def start_cbsd_standin(self, status):
        """The lab's stand-in of the daemon's `cbsd` object
        (tests/lab/cbsd_object.uc), answering with `status` (a dict);
        set_cbsd_status changes the answer."""
        self.set_cbsd_status(status)
        self.services.append(self.spawn(["ucode", CBSD_STANDIN], stdin=subprocess.DEVNULL))
        if not wait_for(lambda: self._has_object("cbsd"), 10, 0.05):
            raise RuntimeError("the cbsd stand-in did not publish its object")

    def set_cbsd_status(self, status):
        os.makedirs(self.host_path("/etc/lab"), exist_ok=True)
        self.write_file("/etc/lab/cbsd-status.json", json.dumps(status))

    def _has_object(self, name):
        return self.run(["ubus", "list", name], timeout=5).returncode == 0

    def _listening(self):
        # /proc/PID/net/tcp: the sockets of that process's network namespace;
        # state 0A is LISTEN.
        try:
            with open(f"/proc/{self.holder.pid}/net/tcp", encoding="utf-8") as table:
                rows = table.read().splitlines()[1:]
        except OSError:
            return False
        return any(row.split()[1].endswith(f":{PORT:04X}") and row.split()[3] == "0A"
                   for row in rows)

    def close(self):
        for service in reversed(getattr(self, "services", [])):
            if service.poll() is None:
                self._end(service)
        self.services = []
        super().close()


# True once a view has rendered: LuCI replaces its spinner with the view.
VIEW_READY = ("document.querySelector('#view') && !document.querySelector('#view .spinning')"
              " && document.querySelector('#view').children.length > 0")


def login(page, username, password, path=""):
    """Logs in through LuCI's own login form on admin/PATH (LuCI's first
    page when empty), which the browser then shows."""
    page.goto(f"{URL}/admin/{path}")
    page.wait_for("document.querySelector('input[name=luci_password]')")
    page.navigate_by(
        f"document.querySelector('input[name=luci_username]').value = {json.dumps(username)};"
        f"document.querySelector('input[name=luci_password]').value = {json.dumps(password)};"
        "document.querySelector('input[name=luci_password]').form.submit()")
    # The page LuCI lands on is let finish its own loading first: a
    # navigation away while it still loads has cost the tab its renderer.
    page.wait_for(f"document.readyState == 'complete' && (!document.querySelector('#view')"
                  f" || ({VIEW_READY}))")
    # The login page itself answers 403 until the form is sent.
    page.errors.clear()


def open_view(page, path, timeout=15):
    """Opens admin/PATH and waits until its view has rendered; seconds taken.
    (A page reached by login() is there already.)"""
    start = time.monotonic()
    page.goto(f"{URL}/admin/{path}")
    page.wait_for(VIEW_READY, timeout)
    return time.monotonic() - start


def page_errors(page):
    """The page's errors but one that LuCI's own apply makes on this stack:
    it asks /cgi-bin/cgi-exec (OpenWrt's cgi-io, not in ../shared/openwrt)
    for the peer's address, and goes on without it."""
    return [e for e in page.errors if "/cgi-bin/cgi-exec" not in e]


def wait_seconds(predicate, timeout):
    """Seconds until predicate() held (None when it never did)."""
    start = time.monotonic()
    if wait_for(predicate, timeout, 0.05):
        return time.monotonic() - start
    return None


def browser_test_marks(pytest, browser_module):
    """The skips of a LuCI browser test file, each naming what is missing."""
    return [
        pytest.mark.skipif(not available(),
                           reason="../shared/openwrt (OpenWrt's uhttpd, rpcd and LuCI) is absent"),
        pytest.mark.skipif(browser_module.chromium_path() is None,
                           reason="chromium (Debian's package) is not installed"),
    ]


# Where the browser tests leave their screenshots: the build directory.
SCREENSHOTS = os.path.join(os.environ.get("CBSD_BINARY_DIR") or os.path.join(ROOT, "build"),
                           "luci-screenshots")
