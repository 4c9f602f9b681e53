#!/usr/bin/python3
"""Holds one virtual router's namespaces open and tears them down.

Usage: holder.py WORKDIR SETUP_JSON

Runs in the host's namespaces.  It forks a child that enters a private mount
and network namespace, mounts a writable overlay on /etc (upper and work
directories under WORKDIR) and empty tmpfs mounts on /tmp and /root, creates
the requested interfaces, brings lo up, creates the ebtables chain
BRIDGE_FORWARD (or, with "hide_firewall_tools", hides iptables and ebtables
instead), and then only waits.  The holder prints "ready <child pid>"
once the router exists (or "error <text>" and exits 1) and then reads its
standard input until end of file: that comes when the test closes the router
or when the test process dies, so a crashed test still leaves nothing behind.
It then kills every process inside the router's namespaces, waits until none
is left, drops its own references to the namespaces (their mounts vanish with
them) and removes WORKDIR.
"""
import ctypes
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import time

CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
MS_REC = 0x4000
MS_BIND = 4096
MS_PRIVATE = 1 << 18
PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)
libc.mount.argtypes = [ctypes.c_char_p] * 3 + [ctypes.c_ulong, ctypes.c_char_p]

# Real tools only: the router's stand-ins are not on this process's PATH.
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


class SetupError(Exception):
    pass


def check(result, what):
    if result != 0:
        errno = ctypes.get_errno()
        raise SetupError(f"{what}: {os.strerror(errno)}")


def mount(source, target, fstype, flags, data):
    check(libc.mount(source and source.encode(), target.encode(), fstype and fstype.encode(),
                     flags, data and data.encode()), f"mount {target}")


def run(argv, stdin_text=None):
    result = subprocess.run(argv, input=stdin_text, capture_output=True, text=True,
                            env={"PATH": SYSTEM_PATH})
    if result.returncode != 0:
        raise SetupError(f"{' '.join(argv)}: {result.stderr.strip()}")


def link_commands(interfaces):
    """`ip -batch` lines: the bridge first, then every VLAN port as one end of
    a veth pair (the other end stays down, so `ifconfig` does not list it)."""
    commands = ["link set lo up"]
    has_bridge = "br-lan" in interfaces
    if has_bridge:
        commands += ["link add br-lan type bridge", "link set br-lan up"]
    for index, name in enumerate(n for n in interfaces if n != "br-lan"):
        commands.append(f"link add {name} type veth peer name labpeer{index}")
        if has_bridge:
            commands.append(f"link set {name} master br-lan")
        commands.append(f"link set {name} up")
    return "".join(c + "\n" for c in commands)


def open_kept_directories(paths):
    """The repository and the build tree stay visible inside the router even
    when they live under /tmp or /root (a checkout in a temporary directory or
    in root's home): each is held open before the empty tmpfs mounts cover it."""
    kept = []
    for path in sorted({os.path.realpath(p) for p in paths}, key=len):
        covered = any(path.startswith(k + "/") or path == k for k, _ in kept)
        hidden = any(path == top or path.startswith(top + "/") for top in ("/tmp", "/root"))
        if hidden and not covered and os.path.isdir(path):
            kept.append((path, os.open(path, os.O_PATH | os.O_DIRECTORY)))
    return kept


def restore_kept_directories(kept):
    for path, fd in kept:
        os.makedirs(path, exist_ok=True)
        mount(f"/proc/self/fd/{fd}", path, None, MS_BIND | MS_REC, None)
        os.close(fd)


# The firewall tools an OpenWrt router with fw4 often lacks: gone from the
# router's /usr/sbin (and so /sbin) in the nftables flavour; `nft` stays.
HIDDEN_TOOLS = re.compile(r"^(ip6?tables|ebtables|arptables|xtables)([-.].*)?$")


def hide_firewall_tools(workdir):
    """An overlay on /usr/sbin whose upper directory holds a whiteout (a 0/0
    character device) for every iptables/ebtables program: inside the router
    they do not exist at all."""
    upper, work = os.path.join(workdir, "sbin-upper"), os.path.join(workdir, "sbin-work")
    os.makedirs(upper, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    for name in os.listdir("/usr/sbin"):
        if HIDDEN_TOOLS.match(name):
            os.mknod(os.path.join(upper, name), stat.S_IFCHR | 0o600, os.makedev(0, 0))
    mount("overlay", "/usr/sbin", "overlay", 0,
          f"lowerdir=/usr/sbin,upperdir={upper},workdir={work}")


def lay_openwrt_userland(usr):
    """OpenWrt's own programs and libraries (ubusd, the `ubus` CLI, ucode)
    laid over /usr, read-only, as `../shared/openwrt/enter` does; a private
    /run holds ubusd's socket (/var/run/ubus/ubus.sock)."""
    mount("overlay", "/usr", "overlay", 0, f"lowerdir={usr}:/usr")
    mount("tmpfs", "/run", "tmpfs", 0, "mode=0755")
    os.makedirs("/run/ubus", exist_ok=True)


def build_router(workdir, setup):
    check(libc.unshare(CLONE_NEWNS | CLONE_NEWNET), "unshare")
    mount(None, "/", None, MS_REC | MS_PRIVATE, None)
    upper, work = os.path.join(workdir, "etc-upper"), os.path.join(workdir, "etc-work")
    os.makedirs(upper, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    mount("overlay", "/etc", "overlay", 0, f"lowerdir=/etc,upperdir={upper},workdir={work}")
    if setup.get("openwrt_usr"):
        lay_openwrt_userland(setup["openwrt_usr"])
    if setup.get("hide_firewall_tools"):
        hide_firewall_tools(workdir)
    kept = open_kept_directories(setup.get("keep", []))
    mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777")
    mount("tmpfs", "/root", "tmpfs", 0, "mode=0700")
    restore_kept_directories(kept)
    for directory in ("/etc/config", "/etc/lab/bin"):
        os.makedirs(directory, exist_ok=True)
    run(["ip", "-batch", "-"], link_commands(setup.get("interfaces", [])))
    if setup.get("bridge_chain", True) and not setup.get("hide_firewall_tools"):
        run(["ebtables", "-N", "BRIDGE_FORWARD"])


def child_main(workdir, setup, report_fd):
    # The child dies with the holder even if the holder is killed outright.
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    try:
        build_router(workdir, setup)
        os.write(report_fd, b"ok")
    except Exception as error:  # reported to the test, which raises it
        os.write(report_fd, f"error {error}".encode())
        os._exit(1)
    os.close(report_fd)
    while True:
        signal.pause()


def namespace_ids(pid):
    try:
        return {os.readlink(f"/proc/{pid}/ns/net"), os.readlink(f"/proc/{pid}/ns/mnt")}
    except OSError:
        return set()


def processes_in(ids):
    found = []
    for entry in os.listdir("/proc"):
        if entry.isdigit() and namespace_ids(entry) & ids:
            found.append(int(entry))
    return found


def tear_down(child, ids):
    """Kills everything inside the router until nothing is left in it."""
    deadline = time.monotonic() + 10
    while ids and time.monotonic() < deadline:
        victims = processes_in(ids)
        if not victims:
            break
        for pid in victims:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            os.waitpid(child, os.WNOHANG)
        except ChildProcessError:
            pass
        time.sleep(0.005)
    try:
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
    except (ProcessLookupError, ChildProcessError):
        pass


def main():
    workdir, setup = sys.argv[1], json.loads(sys.argv[2])

    def leave(_signum, _frame):
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, leave)
    signal.signal(signal.SIGINT, leave)
    signal.signal(signal.SIGHUP, leave)

    report_read, report_write = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(report_read)
        child_main(workdir, setup, report_write)
    os.close(report_write)
    ids = set()
    namespace_fds = []
    try:
        report = os.read(report_read, 4096).decode(errors="replace")
        os.close(report_read)
        if report != "ok":
            print(report or "error router set-up died", flush=True)
            return 1
        # Holding the namespaces open keeps their inode numbers from being
        # given to a new namespace (another test's) while we still kill by them.
        namespace_fds = [os.open(f"/proc/{child}/ns/{kind}", os.O_RDONLY)
                         for kind in ("net", "mnt")]
        ids = namespace_ids(child)
        print(f"ready {child}", flush=True)
        while sys.stdin.buffer.read(4096):
            pass
        return 0
    finally:
        tear_down(child, ids)
        for fd in namespace_fds:
            os.close(fd)  # the last reference: the namespaces and their mounts go
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
