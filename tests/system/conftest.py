"""Shared fixtures of the system tests: virtual routers, the daemon binary,
routers watched by the fail-closed sampler, and the StandAlone lab (a router
with the SAS simulator inside).  tests/pytest.ini puts tests/ on the module
path, so `lab` and `sas_sim` import as packages."""
import os
import shutil
import tempfile

import pytest

from lab import device_config, fail_closed, openwrt_bus, sas_lab
from lab import openwrt_procd as openwrt_procd_lab
from lab.router import VirtualRouter, daemon_binary


@pytest.fixture
def cbsd_bin():
    """Absolute path of the daemon under test ($CBSD_BIN, else <repo>/build/cbsd)."""
    path = daemon_binary()
    if not os.access(path, os.X_OK):
        pytest.fail(f"daemon binary {path} not found: build the cbsd target or set CBSD_BIN")
    return path


@pytest.fixture
def router():
    """Factory: router(**VirtualRouter arguments) -> a started VirtualRouter,
    closed when the test ends, whatever happened."""
    made = []

    def make(**kwargs):
        instance = VirtualRouter(**kwargs)
        made.append(instance)
        return instance

    yield make
    for instance in made:
        instance.close()


@pytest.fixture
def dp_router(router):
    """The router factory; every daemon a test starts runs under the
    fail-closed sampler, with the proxy's RadioEnable as the authority."""
    yield from fail_closed.watch_daemons(router, fail_closed.DpAuthority)


@pytest.fixture(scope="module")
def pki_dir():
    return sas_lab.shared_pki()


def _sas_lab(router, pki_dir, **router_kwargs):
    """The StandAlone lab's set-up and tear-down (a generator for a fixture)."""
    r = router(sas_config=device_config.sas_config(enable_mode="0"), **router_kwargs)
    sas_lab.install_credentials(r, pki_dir)
    sim = sas_lab.start_simulator(
        r, pki_dir, ["--heartbeat-interval", str(sas_lab.HEARTBEAT_INTERVAL)])
    pair = sas_lab.SasLab(r, sim)
    pair.write_config(enable_mode="0")
    sampler = fail_closed.FailClosedSampler(r, fail_closed.StandAloneAuthority(r, sim))
    sampler.start()
    yield pair
    sampler.finish()
    sim.process.terminate()


@pytest.fixture
def lab(router, pki_dir):
    """SasLab (router, simulator) with the device credentials installed,
    the simulator's address in /etc/config/sas with SAS off, and the daemon
    not yet started; the fail-closed sampler runs for the whole test."""
    yield from _sas_lab(router, pki_dir)


@pytest.fixture
def real_ubus_lab(router, pki_dir):
    """The lab in a router with OpenWrt's real ubusd and `ubus` CLI (the test
    checks openwrt_bus.available() first)."""
    yield from _sas_lab(router, pki_dir, ubus="real")


# A file whose every test was skipped (say, for want of ../shared/openwrt)
# exits with this status, which ctest reports as "Skipped" (SKIP_RETURN_CODE).
ALL_SKIPPED_STATUS = 77
_outcomes = {"passed": 0, "failed": 0, "skipped": 0}


def pytest_runtest_logreport(report):
    if report.when == "call" or report.outcome != "passed":
        _outcomes[report.outcome] += 1


def pytest_sessionfinish(session, exitstatus):
    if exitstatus == 0 and _outcomes["skipped"] and not _outcomes["passed"] \
            and not _outcomes["failed"]:
        session.exitstatus = ALL_SKIPPED_STATUS


def pytest_configure(config):
    config.addinivalue_line(
        "markers", "firewall_tools: drives the iptables/ebtables tools themselves (broken, "
        "missing, hanging); a router of the nftables flavour has neither, so it is skipped there")


def pytest_collection_modifyitems(config, items):
    if os.environ.get("CBSD_LAB_FLAVOUR") != "nftables":
        return
    skip = pytest.mark.skip(reason="no iptables or ebtables in the nftables flavour")
    for item in items:
        if "firewall_tools" in item.keywords:
            item.add_marker(skip)


@pytest.fixture
def openwrt_procd(cbsd_bin):
    """A namespace with OpenWrt's real ubusd, procd and `ubus` CLI running the
    package's init script (lab.openwrt_procd)."""
    if not openwrt_bus.available():
        pytest.skip("../shared/openwrt (the real OpenWrt procd, ubusd and ubus CLI) is absent")
    directory = tempfile.mkdtemp(prefix="cbsd-procd-", dir="/var/tmp")
    try:
        with openwrt_procd_lab.procd_namespace(cbsd_bin, directory) as bus:
            yield bus
    finally:
        shutil.rmtree(directory, ignore_errors=True)
