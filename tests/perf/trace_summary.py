"""Reading an `strace -f -ttt` log of the daemon and counting, between two
wall times, the processes it started, its loads and writes of
/etc/config/sas and its writes of /tmp/sas_cache."""
import collections
import os
import re

from perf_setup import CACHE, SAS_CONFIG

LINE = re.compile(r"^(\d+)\s+(\d+\.\d+)\s+(.*)$")
RESUMED = re.compile(r"^<\.\.\. (\w+) resumed>(.*)$")
QUOTED = re.compile(r'"((?:[^"\\]|\\.)*)"')
TEMPORARY = re.compile(r"uci-\w{6}$")

Event = collections.namedtuple("Event", "pid time call body result")


def read_trace(path):
    """Complete calls of an `strace -f -ttt` log (unfinished/resumed joined)."""
    pending = {}
    events = []
    with open(path, errors="replace") as f:
        for raw in f:
            match = LINE.match(raw.rstrip("\n"))
            if not match:
                continue
            pid, stamp, body = int(match[1]), float(match[2]), match[3]
            if body.startswith(("+++", "---")):
                continue
            resumed = RESUMED.match(body)
            if resumed:
                if pid not in pending:
                    continue
                stamp, head = pending.pop(pid)
                body = head + resumed[2]
            elif body.endswith("<unfinished ...>"):
                pending[pid] = (stamp, body[: -len("<unfinished ...>")])
                continue
            call = body.split("(", 1)[0]
            result = body.rsplit(") = ", 1)[1] if ") = " in body else ""
            events.append(Event(pid, stamp, call, body, result))
    return events


def ok(event):
    return event.result.split(" ")[0].lstrip("-").isdigit() and not event.result.startswith("-")


def program_of(event):
    """What an execve ran: the shell's command line for `sh -c`, else argv."""
    strings = QUOTED.findall(event.body)
    argv = strings[1:]
    if len(argv) >= 3 and argv[1] == "-c" and os.path.basename(strings[0]) == "sh":
        return "sh -c '" + argv[2].encode().decode("unicode_escape") + "'"
    return strings[0] + (" " + " ".join(argv[1:3]) if len(argv) > 1 else "")


STAND_IN_DIR = "/tests/lab/bin/"


def router_exec_ids(events):
    """The execve calls a router would make too: a stand-in of the lab
    (tests/lab/bin) counts as the one program it stands for, and whatever it
    starts itself (the ebtables wrapper's dirname, readlink, flock, cat and
    the real ebtables) does not count."""
    inside, counted = set(), set()
    for e in sorted(events, key=lambda e: e.time):
        if not ok(e):
            continue
        if e.call in ("clone", "clone3", "fork", "vfork"):
            child = int(e.result.split()[0])
            if e.pid in inside:
                inside.add(child)
            else:
                inside.discard(child)  # a new process under a reused pid
        elif e.call == "execve" and e.pid not in inside:
            counted.add(id(e))
            strings = QUOTED.findall(e.body)
            if strings and STAND_IN_DIR in strings[0]:
                inside.add(e.pid)
    return counted


def summarize(events, start, end, daemon_pid):
    """Counts of the traced calls between two wall times."""
    window = [e for e in events if start <= e.time < end]
    daemon_threads = {daemon_pid} | {
        int(e.result.split()[0]) for e in events
        if e.call.startswith("clone") and "CLONE_THREAD" in e.body and ok(e)}
    execs = [e for e in window if e.call == "execve" and ok(e)]
    forks = [e for e in window if e.call in ("clone", "clone3", "fork", "vfork") and ok(e)
             and "CLONE_THREAD" not in e.body]
    sas_opens = [e for e in window if e.call == "openat" and f'"{SAS_CONFIG}"' in e.body and ok(e)]
    sas_reads = [e for e in sas_opens if "O_RDONLY" in e.body]
    renames = [e for e in window if e.call.startswith("rename") and ok(e)
               and QUOTED.findall(e.body)[-1:] == [SAS_CONFIG]]
    daemon_opens = collections.Counter(
        TEMPORARY.sub("uci-XXXXXX", QUOTED.findall(e.body)[0]) for e in window
        if e.call == "openat" and e.pid in daemon_threads and QUOTED.findall(e.body))
    router_ids = router_exec_ids(events)
    return {
        "execs": len(execs),
        "router_execs": sum(1 for e in execs if id(e) in router_ids),
        "forks": len(forks),
        "sas_reads": len(sas_reads),
        "sas_rdwr": len(sas_opens) - len(sas_reads),
        "sas_writes": len(renames),
        "cache_writes": sum(1 for e in window if e.call.startswith("rename") and ok(e)
                            and QUOTED.findall(e.body)[-1:] == [CACHE]),
        "programs": collections.Counter(program_of(e) for e in execs),
        "daemon_opens": daemon_opens,
    }
