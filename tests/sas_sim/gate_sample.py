"""Samples of a device's traffic gates and radio permission, taken by the
simulator itself when it runs inside the virtual router: what the device
looked like at the moment a request arrived, or in the seconds after a reply
(a SAS answer that withdraws the grant).  Inside the router the simulator sees
the router's forwarding switches, firewall and /etc/config/sas directly, and
the router gives it tests/ on PYTHONPATH: the rule texts are the lab's
(tests/lab/rules.py).  Elsewhere (the C++ tests start the simulator as a
program of its own) no sample is ever asked for."""
import re
import shutil
import subprocess
import threading
import time

SAS_CONFIG = "/etc/config/sas"
_RADIO_ENABLE = re.compile(r"^\s*option\s+RadioEnable\s+'?([^'\s]*)'?\s*$", re.M)


def _read(path):
    try:
        with open(path) as f:
            return f.read()
    except OSError:
        return None


# The nf_tables ebtables itself: the lab's router-format wrapper around it
# takes several times longer, and a sample must be quick.
EBTABLES = shutil.which("ebtables-nft") or "ebtables"


def _listings(*commands, attempts=3):
    """Runs the listings at once; the text of each, None for one that failed.
    nf_tables refuses a listing that races with a rule change: such a listing
    is taken again, a few times, before it counts as failed."""
    try:
        running = [subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                    text=True) for argv in commands]
    except OSError:
        return [None] * len(commands)
    texts = []
    for argv, process in zip(commands, running):
        try:
            out, _ = process.communicate(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            out = None
        if process.returncode != 0 and attempts > 1:
            out = _listings(argv, attempts=attempts - 1)[0]
        elif process.returncode != 0:
            out = None
        texts.append(out)
    return texts


def sample():
    """{"started", "time", "forwarding": [ipv4, ipv6], "icmp_drop", "bridge_drops",
    "radio_enable", "closed"}; a listing that fails reads as not closed."""
    from lab.rules import BRIDGE_DROPS, ICMP_DROP  # only inside the router: see above

    started = time.time()
    forwarding = [(_read(p) or "?").strip() for p in
                  ("/proc/sys/net/ipv4/ip_forward", "/proc/sys/net/ipv6/conf/all/forwarding")]
    iptables, ebtables = _listings(["iptables", "-S", "OUTPUT"], [EBTABLES, "-L", "BRIDGE_FORWARD"])
    ebtables = ebtables or ""
    radio = _RADIO_ENABLE.search(_read(SAS_CONFIG) or "")
    # Stamped when the sample is complete: a gate that closed while it was
    # taken then counts as closed no earlier than it could have been seen.
    found = {
        "started": started, "time": time.time(), "forwarding": forwarding,
        "icmp_drop": iptables is not None and ICMP_DROP in iptables.splitlines(),
        "bridge_drops": all(rule in ebtables for rule in BRIDGE_DROPS),
        "radio_enable": radio.group(1) if radio else None,
    }
    found["closed"] = (forwarding == ["0", "0"] and found["icmp_drop"] and found["bridge_drops"]
                       and found["radio_enable"] == "0")
    return found


def watch(entry, seconds, period=0.1):
    """Samples for `seconds` in the background into entry["gate_watch"];
    entry["gate_watch_done"] turns true after the last one."""
    entry["gate_watch"], entry["gate_watch_done"] = [], False

    def run():
        end = time.time() + float(seconds)
        while time.time() < end:
            entry["gate_watch"].append(sample())
            time.sleep(period)
        entry["gate_watch_done"] = True

    threading.Thread(target=run, daemon=True).start()
