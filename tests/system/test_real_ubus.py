"""The lab's `ubus` stand-in against the real `ubus` CLI, byte for byte.

For every form a router's `ubus call ubus_lte ...` takes (replies, empty and
missing data, compact output, failures with and without a terminal on standard
error, time-outs, an object that is not registered, no ubusd), the real CLI of
OpenWrt (../shared/openwrt: ubusd, `ubus`, libubus built from their sources)
calls the lab's ucode modem manager (tests/lab/ubus_lte.uc) on a private
ubusd, the stand-in (tests/lab/bin/ubus) answers from the same modem state,
and standard output, standard error and the exit status must be identical,
and must be the bytes written down for the row.  Skipped when
../shared/openwrt is absent.
"""
import json
import os
import pty
import select
import shutil
import subprocess
import tempfile
import time
import tty
from importlib.machinery import SourceFileLoader
from importlib.util import module_from_spec, spec_from_loader

import pytest

from lab import openwrt_bus
from lab.openwrt_bus import OpenWrtBus

pytestmark = pytest.mark.skipif(
    not openwrt_bus.available(),
    reason="../shared/openwrt (the real OpenWrt ubusd and ubus CLI) is absent")

STANDIN = os.path.join(openwrt_bus.STANDIN_DIR, "ubus")
ALL_METHODS = ["getlteinfo", "getltestatus", "getproductinfo"]
CELL = {"dlfreq": 3625000, "bandwidth": 20, "band": 48}
PRODUCT = {"manufacturer": "Quarkwave", "productmodule": "RQ5518L-M2", "SN": "QW0042"}


def failure(call, text, status):
    """The current CLI's failure of a call, standard error no terminal."""
    return {"stderr": f"Command failed: ubus {call} ({text})\n".encode(), "status": 256 - status}


class Row:
    def __init__(self, name, args, state, stdout=b"", stderr=b"", status=0, tty=False,
                 ubusd=True, seconds=None):
        self.name, self.args, self.state = name, args, state
        self.stdout, self.stderr, self.status = stdout, stderr, status
        self.tty, self.ubusd, self.seconds = tty, ubusd, seconds


# The CLI's usage text (standard error), as the stand-in keeps it.
def _standin_module():
    loader = SourceFileLoader("lab_ubus_standin", STANDIN)
    module = module_from_spec(spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


USAGE = _standin_module().USAGE.encode()


def call(method, *options):
    return [*options, "call", "ubus_lte", method]


ROWS = [
    Row("last member without a comma", call("getlteinfo"), CELL,
        b'{\n\t"dlfreq": 3625000,\n\t"bandwidth": 20,\n\t"band": 48\n}\n'),
    Row("strings", call("getproductinfo"), PRODUCT,
        b'{\n\t"manufacturer": "Quarkwave",\n\t"productmodule": "RQ5518L-M2",\n'
        b'\t"SN": "QW0042"\n}\n'),
    Row("reals as %f", call("getlteinfo"), {"band": 48, "rsrq": -10.25, "sinr": 18.5},
        b'{\n\t"band": 48,\n\t"rsrq": -10.250000,\n\t"sinr": 18.500000\n}\n'),
    Row("empty reply", call("getlteinfo"), {}, b"{\n\t\n}\n"),
    Row("no reply data", call("getlteinfo"), {**CELL, "nodata": ["getlteinfo"]}),
    Row("failing with status 0 is no reply data", call("getlteinfo"),
        {"fail": True, "fail_status": 0}),
    Row("compact", call("getlteinfo", "-S"), {**CELL, "sinr": 18.5},
        b'{"dlfreq":3625000,"bandwidth":20,"band":48,"sinr":18.500000}\n'),
    Row("compact empty", call("getlteinfo", "-S"), {}, b"{}\n"),
    Row("time-out and socket options", call("getlteinfo", "-t", "5", "-s", openwrt_bus.SOCKET),
        CELL, b'{\n\t"dlfreq": 3625000,\n\t"bandwidth": 20,\n\t"band": 48\n}\n'),
    Row("nested members and escapes", call("getltestatus"),
        {"netstat": 4, "extra": {"getltestatus": {
            "cells": [1, "two", 3.5, {}, []], "flags": {"roaming": False, "sim": True},
            "none": None, "text": 'a/b"c\\d\te\x01f\u00e9', "big": 5000000000}}},
        b'{\n\t"netstat": 4,\n\t"cells": [\n\t\t1,\n\t\t"two",\n\t\t3.500000,\n\t\t{\n\t\t\t\n'
        b'\t\t},\n\t\t[\n\t\t\t\n\t\t]\n\t],\n\t"flags": {\n\t\t"roaming": false,\n'
        b'\t\t"sim": true\n\t},\n\t"none": null,\n\t"text": "a/b\\"c\\\\d\\te\\u0001f\xc3\xa9",\n'
        b'\t"big": 5000000000\n}\n'),
    Row("method missing", call("getfoo"), CELL,
        **failure("call ubus_lte getfoo", "Method not found", 3)),
    Row("method not published", call("getlteinfo"), {**CELL, "missing": ["getlteinfo"]},
        **failure("call ubus_lte getlteinfo", "Method not found", 3)),
    Row("method missing, terminal", call("getfoo"), CELL,
        stderr=b"Command failed: Method not found\n", status=3, tty=True),
    Row("method missing, compact", call("getfoo", "-S"), CELL, status=3),
    Row("status 9", call("getlteinfo"), {"fail": ["getlteinfo"]},
        **failure("call ubus_lte getlteinfo", "Unknown error", 9)),
    Row("status 5", call("getlteinfo"), {"fail": True, "fail_status": 5},
        **failure("call ubus_lte getlteinfo", "No response", 5)),
    Row("status 9, terminal", call("getlteinfo"), {"fail": True},
        stderr=b"Command failed: Unknown error\n", status=9, tty=True),
    Row("status 5, terminal", call("getlteinfo"), {"fail": True, "fail_status": 5},
        stderr=b"Command failed: No response\n", status=5, tty=True),
    Row("status 9, compact", call("getlteinfo", "-S"), {"fail": True}, status=9),
    Row("object not registered", call("getlteinfo"), {**CELL, "registered": False},
        stderr=b"Command failed: Not found\n", status=4),
    Row("object not registered, terminal", call("getlteinfo"), {"registered": False},
        stderr=b"Command failed: Not found\n", status=4, tty=True),
    Row("object not registered, compact", call("getlteinfo", "-S"), {"registered": False},
        status=4),
    Row("another object", ["call", "ubus_mm", "getlteinfo"], CELL,
        stderr=b"Command failed: Not found\n", status=4),
    Row("time-out", call("getlteinfo", "-t", "1"), {"hang": ["getlteinfo"]},
        **failure("call ubus_lte getlteinfo", "Request timed out", 7), seconds=1),
    Row("time-out, terminal", call("getlteinfo", "-t", "1"), {"hang": True},
        stderr=b"Command failed: Request timed out\n", status=7, tty=True, seconds=1),
    Row("time-out, compact", call("getlteinfo", "-S", "-t", "1"), {"hang": True},
        status=7, seconds=1),
    Row("time-out by default", call("getlteinfo"), {"hang": True},
        **failure("call ubus_lte getlteinfo", "Request timed out", 7), seconds=30),
    Row("message that is no JSON", ["call", "ubus_lte", "getlteinfo", "{bad"], CELL,
        **failure("call ubus_lte getlteinfo {bad", "Parsing message data failed", 12)),
    Row("no command", [], CELL, stderr=USAGE, status=1),
    Row("unknown command", ["fetch"], CELL, stderr=USAGE, status=254),
    Row("unknown option", ["-x", "call", "ubus_lte", "getlteinfo"], CELL,
        stderr=b"ubus: invalid option -- 'x'\n" + USAGE, status=1),
    Row("option without its value", ["call", "ubus_lte", "getlteinfo", "-t"], CELL,
        stderr=b"ubus: option requires an argument -- 't'\n" + USAGE, status=1),
    Row("unknown monitor type", ["-m", "nothing", "call", "ubus_lte", "getlteinfo"], CELL,
        stderr=USAGE, status=1),
    Row("monitor type and direction", ["-m", "invoke", "-M", "r", "call", "ubus_lte", "getlteinfo"],
        CELL, b'{\n\t"dlfreq": 3625000,\n\t"bandwidth": 20,\n\t"band": 48\n}\n'),
    Row("too many arguments", ["call", "ubus_lte", "getlteinfo", "{}", "x"], CELL,
        stderr=USAGE, status=254),
    Row("list", ["list"], CELL, b"ubus_lte\n"),
    Row("list, not registered", ["list", "ubus_lte"], {"registered": False},
        stderr=b"Command failed: Not found\n", status=4),
    Row("no ubusd", call("getlteinfo"), {**CELL, "ubusd": False},
        stderr=b"Failed to connect to ubus\n", status=255, ubusd=False),
    Row("no ubusd, terminal", call("getlteinfo"), {"ubusd": False},
        stderr=b"Failed to connect to ubus\n", status=255, tty=True, ubusd=False),
    Row("a socket that is not there", call("getlteinfo", "-s", "/var/run/ubus/none.sock"), CELL,
        stderr=b"Failed to connect to ubus\n", status=255),
    Row("no ubusd, compact", call("getlteinfo", "-S"), {"ubusd": False}, status=255,
        ubusd=False),
]


@pytest.fixture(scope="module")
def bus():
    # The namespace has a private /tmp: the state lives where it sees the host.
    directory = tempfile.mkdtemp(prefix="cbsd-real-ubus-", dir="/var/tmp")
    state_path = os.path.join(directory, "modem.json")
    with open(state_path, "w", encoding="utf-8") as state_file:
        state_file.write("{}\n")
    try:
        with OpenWrtBus(state_path) as opened:
            opened.start_ubusd()
            opened.start_modem_manager()
            opened.settle(ALL_METHODS)
            yield opened
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def prepare(bus, state):
    # Whole or not at all: the modem manager polls the file.
    with open(bus.state_path + ".new", "w", encoding="utf-8") as state_file:
        json.dump(state, state_file)
    os.replace(bus.state_path + ".new", bus.state_path)
    if state.get("ubusd") is False:
        bus.stop_ubusd()
        return
    bus.start_ubusd()
    bus.start_modem_manager()
    missing = state.get("missing", [])
    bus.settle(None if state.get("registered") is False else
               [m for m in ALL_METHODS if missing is not True and m not in missing])


class Run:
    """One program run whose standard error is a pipe or a terminal."""

    def __init__(self, bus, argv, terminal):
        self.terminal = terminal
        self.master = None
        stderr = subprocess.PIPE
        if terminal:
            self.master, slave = pty.openpty()
            tty.setraw(slave)   # the bytes as written, no "\r\n"
            stderr = slave
        self.started = time.monotonic()
        self.process = bus.spawn(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=stderr)
        if terminal:
            os.close(slave)

    def finish(self, timeout):
        stdout, stderr = self.process.communicate(timeout=timeout)
        self.seconds = time.monotonic() - self.started
        if self.terminal:
            stderr = read_terminal(self.master)
            os.close(self.master)
        return stdout, stderr, self.process.returncode


def read_terminal(master):
    data = b""
    while select.select([master], [], [], 0.2)[0]:
        try:
            chunk = os.read(master, 4096)
        except OSError:   # the other side is closed and drained
            break
        if not chunk:
            break
        data += chunk
    return data


@pytest.mark.parametrize("row", ROWS, ids=[row.name for row in ROWS])
def test_the_stand_in_prints_what_the_real_cli_prints(bus, row):
    prepare(bus, row.state)
    # Side by side, so a time-out costs its seconds once.
    real = Run(bus, ["ubus", *row.args], row.tty)
    standin = Run(bus, [STANDIN, *row.args], row.tty)
    limit = (row.seconds or 0) + 20
    real_result, standin_result = real.finish(limit), standin.finish(limit)
    assert standin_result == real_result
    assert real_result == (row.stdout, row.stderr, row.status)
    if row.seconds is not None:
        for run in (real, standin):
            assert row.seconds <= run.seconds < row.seconds + 1.5, run.seconds
