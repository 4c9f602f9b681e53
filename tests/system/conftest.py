"""Shared fixtures of the system tests: virtual routers and the daemon binary."""
import os
import sys

import pytest

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if TESTS_DIR not in sys.path:
    sys.path.insert(0, TESTS_DIR)

from lab.router import VirtualRouter, daemon_binary  # noqa: E402


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
