"""The LuCI app's status page (Status -> CBRS) in headless Chromium against
OpenWrt's own web stack (see test_luci_settings.py), reading the `cbsd`
object through rpcd: here the lab's stand-in of that object
(tests/lab/cbsd_object.uc), which answers what the test writes, so the page
can be held to every value.  Skipped by name where ../shared/openwrt or
chromium is absent.
"""
import os

import pytest

from lab import browser as browser_module
from lab import luci_stack
from lab.browser import Browser
from lab.luci_stack import LuciStack, login, page_errors

pytestmark = luci_stack.browser_test_marks(pytest, browser_module)

STATUS = "status/cbsd"
SHOTS = luci_stack.SCREENSHOTS
OUTSIDER = ("ines", "outside-1")
HOSTILE = '<img src=x onerror="window.__cbsdOwned=1">'
AUTHORIZED = {
    "mode": "StandAlone", "sas_enabled": True, "state": "Authorized", "RadioEnable": True,
    "cbsdId": "sim/" + HOSTILE, "grantId": "grant-7",
    "grantExpireTime": "2026-12-02T11:23:03Z", "transmitExpireTime": "2026-11-25T11:27:08Z",
    "transmit_seconds_left": 270,
    "gates": {"forwarding": "open", "icmp": "open", "bridge": "open"},
    "firewall_backend": "nftables",
    "last_exchange": {"request": "heartbeat", "replied": True, "responseCode": 0,
                      "response_name": "SUCCESS", "time": "2026-11-25T11:23:08Z"},
    "failures": [],
    "grant": {"low_mhz": 3615.0, "high_mhz": 3635.0, "max_eirp": 27},
    "certificates": {"client": {"file": "hollin-cpe.pem", "not_after": "2036-11-20T11:21:37Z"}},
}


@pytest.fixture(scope="module")
def stack():
    with LuciStack(logins=[(*OUTSIDER, ["unauthenticated", "luci-base"], ["luci-base"])]) as s:
        yield s


@pytest.fixture(scope="module")
def chromium(stack):
    with Browser(netns_pid=stack.netns_pid) as instance:
        yield instance


@pytest.fixture
def page(chromium):
    tab = chromium.new_page()
    yield tab
    if tab.retried_navigations:
        print(f"navigations started twice: {tab.retried_navigations}")
    tab.close()


def status_text(page):
    return page.evaluate("document.querySelector('#cbsd-status').innerText")


def test_daemon_not_running_gives_a_clear_notice(stack, page):
    login(page, "root", luci_stack.ROOT_PASSWORD, STATUS)
    text = page.wait_for("document.querySelector('#cbsd-status .alert-message') && "
                         "document.querySelector('#cbsd-status').innerText")
    assert "does not answer on ubus" in text and "Object not found" in text
    page.screenshot(os.path.join(SHOTS, "status-no-daemon.png"))
    assert page_errors(page) == []


def test_authorized_device_is_shown_and_sas_values_stay_text(stack, page):
    stack.start_cbsd_standin(AUTHORIZED)
    login(page, "root", luci_stack.ROOT_PASSWORD, STATUS)
    text = page.wait_for("document.querySelector('#cbsd-status table') && "
                         "document.querySelector('#cbsd-status').innerText")
    for shown in ("StandAlone", "Authorized", "3615–3635 MHz, at most 27 dBm/MHz",
                  "forwarding: open, icmp: open, bridge: open", "nftables",
                  "heartbeat, 2026-11-25T11:23:08Z: SUCCESS", "2026-11-25T11:27:08Z", "270",
                  "client (hollin-cpe.pem) 2036-11-20T11:21:37Z", "sim/" + HOSTILE):
        assert shown in text
    assert page.evaluate("document.querySelectorAll('#view img').length") == 0
    assert page.evaluate("window.__cbsdOwned === undefined")
    page.screenshot(os.path.join(SHOTS, "status-authorized.png"))
    assert page_errors(page) == []


def test_refusal_shows_within_one_poll(stack, page):
    stack.start_cbsd_standin(AUTHORIZED)
    login(page, "root", luci_stack.ROOT_PASSWORD, STATUS)
    page.wait_for("document.querySelector('#cbsd-status').innerText.includes('Authorized')")
    refused = dict(AUTHORIZED, state="Granted", RadioEnable=False, transmit_seconds_left=0,
                   last_exchange={"request": "heartbeat", "replied": True, "responseCode": 501,
                                  "response_name": "SUSPENDED_GRANT",
                                  "time": "2026-11-25T11:24:08Z"},
                   failures=[{"failure": "sas_exchange", "since": "2026-11-25T11:24:08Z",
                              "count": 3},
                             {"failure": "command", "since": "2026-11-25T11:24:10Z",
                              "command": "iptables", "count": 2}])
    stack.set_cbsd_status(refused)
    seconds = luci_stack.wait_seconds(
        lambda: "SUSPENDED_GRANT" in status_text(page), 7)
    assert seconds is not None, status_text(page)
    print(f"status page: a changed status on screen after {seconds:.2f} s (poll: 5 s)")
    assert "Not authorised by the SAS (state Granted)" in status_text(page)
    assert "sas_exchange since 2026-11-25T11:24:08Z, 3×; " \
        "command (iptables) since 2026-11-25T11:24:10Z, 2×" in status_text(page)
    page.screenshot(os.path.join(SHOTS, "status-refused.png"))
    assert page_errors(page) == []


def test_user_without_the_acl_is_refused(stack, page):
    login(page, *OUTSIDER)
    page.goto(f"{luci_stack.URL}/admin/{STATUS}")
    page.wait_for("document.readyState == 'complete'")
    text = page.evaluate("document.body.innerText")
    assert "HTTP ERROR 403" in text and "Authorized" not in text
