"""The LuCI app's settings page (Services -> CBRS) in a real browser against
OpenWrt's own web stack: headless Chromium (tests/lab/browser.py) logs in to
uhttpd + LuCI + rpcd of ../shared/openwrt (tests/lab/luci_stack.py), which
serve this repository's luci-app-cbsd.  What the page saved is read from
outside the browser with `uci`.  Screenshots go to <build>/luci-screenshots.
Skipped by name where ../shared/openwrt or chromium is absent.
"""
import json
import os
import time

import pytest

from lab import browser as browser_module
from lab import luci_stack
from lab.browser import Browser
from lab.luci_stack import LuciStack, login, open_view, page_errors

pytestmark = luci_stack.browser_test_marks(pytest, browser_module)

SETTINGS = "services/cbsd"
SHOTS = luci_stack.SCREENSHOTS
# Users of the test's own: one without the app's ACLs, one that may read only.
OUTSIDER = ("ines", "outside-1")
READER = ("tomas", "reader-1")
LOGINS = [(OUTSIDER[0], OUTSIDER[1], ["unauthenticated", "luci-base"], ["luci-base"]),
          (READER[0], READER[1], ["unauthenticated", "luci-base", "luci-app-cbsd"], ["luci-base"])]
# Installation data of an invented site.
SITE = [("sas.config.address", "https://sas.example.net/v1.2"),
        ("sas.config.userId", "marlowe-ridge-wireless"),
        ("sas.config.antennaAzimuth", "135"),
        ("sas.cpi.latitude", "37.425000"),
        ("sas.cpi.longitude", "-122.084000"),
        ("sas.cpi.height", "12")]


def field(section, option):
    return f"#widget\\.cbid\\.sas\\.{section}\\.{option}"


def q(selector):
    """A script's expression for the element the CSS selector picks."""
    return f"document.querySelector({json.dumps(selector)})"


@pytest.fixture(scope="module")
def stack():
    with LuciStack(logins=LOGINS) as instance:
        yield instance


@pytest.fixture(scope="module")
def chromium(stack):
    with Browser(netns_pid=stack.netns_pid) as instance:
        yield instance


@pytest.fixture
def site(stack):
    """/etc/config/sas: the package's default with the invented site in it;
    its committed text before the test."""
    with open(luci_stack.DEFAULT_SAS_CONFIG, encoding="utf-8") as default:
        stack.write_file("/etc/config/sas", default.read())
    for name, value in SITE:
        stack.uci(["set", f"{name}={value}"])
    stack.uci(["commit", "sas"])
    return stack.read_file("/etc/config/sas")


@pytest.fixture
def page(chromium):
    tab = chromium.new_page()
    yield tab
    if tab.retried_navigations:
        print(f"navigations started twice: {tab.retried_navigations}")
    tab.close()


def root_on_settings(page):
    login(page, "root", luci_stack.ROOT_PASSWORD, SETTINGS)
    return open_view(page, SETTINGS)


def rpc_call(page, obj, method, args):
    """A JSON-RPC call to rpcd (/ubus) from the page, in the session its
    login cookie names: rpcd's reply as a dict."""
    cookies = page.send("Network.getCookies", {"urls": [luci_stack.URL + "/"]})["cookies"]
    session = next(c["value"] for c in cookies if c["name"].startswith("sysauth"))
    body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "call",
                       "params": [session, obj, method, args]})
    return json.loads(page.evaluate(
        f"fetch('/ubus', {{method: 'POST', body: {json.dumps(body)}}})"
        ".then(r => r.text())"))


ACCESS_DENIED = -32002
PERMISSION_DENIED = 6  # ubus status in a reply's result


def refused(reply):
    """rpcd refused: the method (JSON-RPC error) or the config (ubus status)."""
    return reply.get("error", {}).get("code") == ACCESS_DENIED or \
        reply.get("result") == [PERMISSION_DENIED]


def value_of(page, selector):
    return page.evaluate(f"document.querySelector({json.dumps(selector)}).value")


def test_page_loads_with_the_settings_and_no_console_error(stack, site, page):
    seconds = root_on_settings(page)
    print(f"settings page: view rendered {seconds:.2f} s after navigation")
    assert value_of(page, field("cpi", "latitude")) == "37.425000"
    assert value_of(page, field("config", "address")) == "https://sas.example.net/v1.2"
    assert value_of(page, field("config", "usedp")) == "0"
    page.screenshot(os.path.join(SHOTS, "settings.png"))
    assert page_errors(page) == []
    assert seconds < 10


INVALID = [
    ("latitude above 90", "cpi", "latitude", "90.5",
     "Enter decimal degrees from -90 to 90, at most six decimals"),
    ("latitude with seven decimals", "cpi", "latitude", "37.4250001",
     "Enter decimal degrees from -90 to 90, at most six decimals"),
    ("latitude not a number", "cpi", "latitude", "37,425",
     "Enter decimal degrees from -90 to 90, at most six decimals"),
    ("longitude below -180", "cpi", "longitude", "-180.000001",
     "Enter decimal degrees from -180 to 180, at most six decimals"),
    ("azimuth 360", "config", "antennaAzimuth", "360",
     "Enter whole degrees from true north, 0 to 359"),
    ("azimuth with decimals", "config", "antennaAzimuth", "12.5",
     "Enter whole degrees from true north, 0 to 359"),
    ("plain http address", "config", "address", "http://sas.example.net/v1.2",
     "Enter the https:// address of the SAS (plain http is refused), e.g. "
     "https://sas.example.net/v1.2"),
    ("address that is no URL", "config", "address", "sas.example.net",
     "Enter the https:// address of the SAS (plain http is refused), e.g. "
     "https://sas.example.net/v1.2"),
]


@pytest.mark.parametrize("case", INVALID, ids=[row[0] for row in INVALID])
def test_invalid_input_shows_the_message_and_saves_nothing(stack, site, page, case):
    name, section, option, text, message = case
    root_on_settings(page)
    selector = field(section, option)
    page.type_into(selector, text)
    assert page.evaluate(
        f"{q(selector)}.classList.contains('cbi-input-invalid')")
    assert page.evaluate(f"{q(selector)}.getAttribute('data-tooltip')") \
        == message
    page.click(".cbi-page-actions .cbi-button-apply")
    shown = page.wait_for("document.querySelector('.modal') && "
                          "document.querySelector('.modal').innerText")
    assert "Save error" in shown and message in shown
    if name == "latitude above 90":
        page.click(".modal .cbi-button")
        page.evaluate(f"{q(selector)}.focus(), true")
        page.wait_for("document.querySelector('.cbi-tooltip.error')")
        page.screenshot(os.path.join(SHOTS, "settings-invalid-latitude.png"))
    # Nothing committed, nothing staged for a later apply.
    assert stack.read_file("/etc/config/sas") == site
    assert rpc_call(page, "uci", "changes", {})["result"] in ([0], [0, {"changes": {}}])
    assert page_errors(page) == []


def test_valid_input_is_committed_and_confirmed(stack, site, page):
    root_on_settings(page)
    page.type_into(field("cpi", "latitude"), "-33.868820")
    page.type_into(field("cpi", "longitude"), "151.209290")
    page.type_into(field("config", "antennaAzimuth"), "0")
    page.type_into(field("config", "address"), "https://sas.example.org:8443/sas/v1.2")
    start = time.monotonic()
    page.click(".cbi-page-actions .cbi-button-apply")
    committed = luci_stack.wait_seconds(
        lambda: stack.uci_get("sas.cpi.latitude") == "-33.868820", 10)
    assert committed is not None, "the latitude never reached /etc/config/sas"
    # LuCI confirms the apply (else rpcd rolls it back) and says so.
    page.wait_for("document.body.innerText.includes('Configuration changes applied.')", 15)
    confirmed = time.monotonic() - start
    print(f"save & apply: committed after {committed:.2f} s, confirmed after {confirmed:.2f} s")
    assert stack.uci_get("sas.cpi.longitude") == "151.209290"
    assert stack.uci_get("sas.config.antennaAzimuth") == "0"
    assert stack.uci_get("sas.config.address") == "https://sas.example.org:8443/sas/v1.2"
    # Untouched options and the daemon's own values stay as they were.
    assert stack.uci_get("sas.config.userId") == "marlowe-ridge-wireless"
    assert stack.uci_get("sas.sasConfig.RadioEnable") == "0"
    assert stack.uci_get("sas.operation.status") is None
    page.screenshot(os.path.join(SHOTS, "settings-applied.png"))
    assert page_errors(page) == []


def test_user_without_the_acl_is_refused(stack, site, page):
    login(page, *OUTSIDER)
    page.goto(f"{luci_stack.URL}/admin/{SETTINGS}")
    page.wait_for("document.readyState == 'complete'")
    text = page.evaluate("document.body.innerText")
    page.screenshot(os.path.join(SHOTS, "settings-no-acl.png"))
    # LuCI answers 403 with no page (Chromium shows its own error page).
    assert "HTTP ERROR 403" in text
    assert "marlowe-ridge-wireless" not in text and "37.425000" not in text
    assert page.evaluate(f"!!{q(field('cpi', 'latitude'))}") is False
    # Nor through rpcd directly with the same session (asked from a page of
    # the same origin that anyone may load).
    page.goto(f"{luci_stack.ORIGIN}/luci-static/resources/cbi.js")
    reply = rpc_call(page, "uci", "get", {"config": "sas"})
    assert refused(reply), reply
    assert "marlowe" not in json.dumps(reply)


def test_reader_sees_the_settings_but_cannot_save(stack, site, page):
    login(page, *READER, SETTINGS)
    assert value_of(page, field("config", "userId")) == "marlowe-ridge-wireless"
    selector = field("cpi", "latitude")
    assert page.evaluate(f"(e => e.disabled || e.readOnly)({q(selector)})")
    reply = rpc_call(page, "uci", "set",
                     {"config": "sas", "section": "cpi", "values": {"latitude": "1.000000"}})
    assert refused(reply), reply
    assert stack.read_file("/etc/config/sas") == site
    assert page_errors(page) == []


HOSTILE = '<img src=x onerror="window.__cbsdOwned=1">'


def test_hostile_values_stay_text(stack, site, page):
    for name in ("sas.operation.status", "sas.config.serialNumber", "sas.cellInfo.bandwidth",
                 "sas.config.userId"):
        stack.uci(["set", f"{name}={HOSTILE}"])
    stack.uci(["commit", "sas"])
    root_on_settings(page)
    view = "document.querySelector('#view')"
    assert page.evaluate(f"{view}.querySelectorAll('img').length") == 0
    assert page.evaluate("window.__cbsdOwned === undefined")
    assert page.evaluate(f"{view}.innerText.split({json.dumps(HOSTILE)}).length - 1") >= 2
    assert value_of(page, field("config", "userId")) == HOSTILE
    page.screenshot(os.path.join(SHOTS, "settings-hostile.png"))
    assert page_errors(page) == []
