"""A headless Chromium (Debian's `chromium`) driven over its DevTools protocol
from Python's standard library: the protocol runs over a pipe
(--remote-debugging-pipe: commands on the browser's fd 3, replies and events
on its fd 4, each message JSON ended by a NUL byte), so no port, no websocket
and no npm.

    with Browser(netns_pid=pid) as browser:
        page = browser.new_page()
        page.goto("http://127.0.0.1:8080/cgi-bin/luci/")
        page.wait_for("document.querySelector('#view')")
        page.screenshot(path)

`netns_pid` puts the browser in that process's network namespace (and no
other): it reaches a web server listening on the namespace's loopback while
it keeps the host's files.  Every console error, uncaught exception and
error log entry of a page is kept in page.errors.
"""
import base64
import json
import os
import shutil
import subprocess
import tempfile
import threading
import time

CANDIDATES = ("/usr/lib/chromium/chromium", "/usr/bin/chromium")


def chromium_path():
    """The browser binary, or None where Debian's chromium is not installed."""
    found = os.environ.get("CBSD_CHROMIUM")
    for path in ([found] if found else []) + list(CANDIDATES):
        if path and os.access(path, os.X_OK):
            return path
    return None


class BrowserError(RuntimeError):
    pass


class Browser:
    def __init__(self, netns_pid=None, width=1280, height=900):
        binary = chromium_path()
        if binary is None:
            raise BrowserError("chromium is not installed")
        self.profile = tempfile.mkdtemp(prefix="cbsd-chromium.")
        to_browser_r, self._to_browser = os.pipe()
        self._from_browser, from_browser_w = os.pipe()
        argv = [binary, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--enable-logging=stderr",
                "--no-first-run", "--no-default-browser-check", "--disable-extensions",
                "--disable-background-networking", "--disable-sync", "--mute-audio",
                f"--user-data-dir={self.profile}", "--remote-debugging-pipe",
                f"--window-size={width},{height}", "about:blank"]
        # The browser reads commands on fd 3 and writes on fd 4.
        argv = ["/bin/bash", "-c", 'exec 3<&"$1" 4>&"$2"; shift 2; exec "$@"', "browser",
                str(to_browser_r), str(from_browser_w), *argv]
        if netns_pid is not None:
            argv = ["nsenter", "-t", str(netns_pid), "-n", "--", *argv]
        # The browser's own messages go to $CBSD_CHROMIUM_LOG when it is set.
        log_path = os.environ.get("CBSD_CHROMIUM_LOG")
        log = open(log_path, "ab") if log_path else subprocess.DEVNULL
        self.process = subprocess.Popen(
            argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
            pass_fds=(to_browser_r, from_browser_w))
        if log_path:
            log.close()
        os.close(to_browser_r)
        os.close(from_browser_w)
        self._next_id = 0
        self._replies = {}
        self._listeners = []
        self._cond = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.send("Browser.getVersion", timeout=30)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _read(self):
        buffer = b""
        while True:
            try:
                chunk = os.read(self._from_browser, 1 << 16)
            except OSError:
                chunk = b""
            if not chunk:
                break
            buffer += chunk
            while b"\0" in buffer:
                raw, buffer = buffer.split(b"\0", 1)
                self._dispatch(json.loads(raw))
        with self._cond:
            self._replies[None] = "closed"
            self._cond.notify_all()

    def _dispatch(self, message):
        if "id" in message:
            with self._cond:
                self._replies[message["id"]] = message
                self._cond.notify_all()
            return
        for listener in list(self._listeners):
            listener(message)

    def send(self, method, params=None, session=None, timeout=30):
        with self._cond:
            self._next_id += 1
            ident = self._next_id
        message = {"id": ident, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        os.write(self._to_browser, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + timeout
        with self._cond:
            while ident not in self._replies:
                left = deadline - time.monotonic()
                if None in self._replies or left <= 0:
                    raise BrowserError(f"{method}: no reply from the browser")
                self._cond.wait(left)
            reply = self._replies.pop(ident)
        if "error" in reply:
            raise BrowserError(f"{method}: {reply['error']}")
        return reply.get("result", {})

    def new_page(self):
        """A new tab, with no cookies left by earlier tabs."""
        target = self.send("Target.createTarget", {"url": "about:blank"})["targetId"]
        session = self.send("Target.attachToTarget",
                            {"targetId": target, "flatten": True})["sessionId"]
        page = Page(self, session, target)
        page.send("Network.clearBrowserCookies")
        return page

    def close(self):
        if self.process.poll() is None:
            try:
                self.send("Browser.close", timeout=5)
            except BrowserError:
                pass
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        for fd in (self._to_browser, self._from_browser):
            try:
                os.close(fd)
            except OSError:
                pass
        shutil.rmtree(self.profile, ignore_errors=True)


class Page:
    def __init__(self, browser, session, target):
        self.browser = browser
        self.session = session
        self.target = target
        self.errors = []
        self.retried_navigations = []
        self._loads = 0
        browser._listeners.append(self._event)
        for domain in ("Page", "Runtime", "Log"):
            self.send(f"{domain}.enable")

    def send(self, method, params=None, timeout=30):
        return self.browser.send(method, params, self.session, timeout)

    def _event(self, message):
        if message.get("sessionId") != self.session:
            return
        method, params = message.get("method"), message.get("params", {})
        if method == "Runtime.consoleAPICalled" and params.get("type") in ("error", "assert"):
            texts = [arg.get("value", arg.get("description", "")) for arg in params.get("args", [])]
            self.errors.append("console: " + " ".join(str(t) for t in texts))
        elif method == "Runtime.exceptionThrown":
            details = params.get("exceptionDetails", {})
            text = details.get("exception", {}).get("description") or details.get("text")
            self.errors.append(f"exception: {text}")
        elif method == "Log.entryAdded" and params.get("entry", {}).get("level") == "error":
            entry = params["entry"]
            self.errors.append(f"log: {entry.get('text')} {entry.get('url', '')}".strip())
        elif method == "Inspector.detached" and params.get("reason") != "Target closed.":
            self.errors.append(f"tab: {params.get('reason')}")
        elif method == "Page.javascriptDialogOpening":
            self.errors.append(f"dialog: {params.get('type')} {params.get('message')}")
            threading.Thread(target=self._dismiss, daemon=True).start()
        elif method == "Page.loadEventFired":
            self._loads += 1

    def goto(self, url, timeout=30):
        """Opens url and waits for its load.  A navigation that is not
        committed within 10 s is stopped and started once more: under load,
        a navigation here has now and then never been answered at all (see
        retried_navigations, which the tests print)."""
        for attempt in (1, 2):
            loads = self._loads
            try:
                self.send("Page.navigate", {"url": url}, timeout=min(timeout, 10))
                break
            except BrowserError as error:
                if attempt == 2:
                    raise BrowserError(f"{error} (page errors: {self.errors})") from None
                self.retried_navigations.append(url)
                self.send("Page.stopLoading")
        self.wait_until(lambda: self._loads > loads, timeout, f"load of {url}")

    def _dismiss(self):
        try:
            self.send("Page.handleJavaScriptDialog", {"accept": True}, timeout=5)
        except BrowserError:
            pass

    def close(self):
        """Ends the tab."""
        self.browser._listeners.remove(self._event)
        self.browser.send("Target.closeTarget", {"targetId": self.target})

    def navigate_by(self, expression, timeout=30):
        """Runs a script that leaves the page (a form's submit) and waits
        for the next page's load."""
        loads = self._loads
        self.evaluate(f"setTimeout(() => {{ {expression}; }}, 0), true")
        self.wait_until(lambda: self._loads > loads, timeout, "the next page")

    def evaluate(self, expression, timeout=30):
        """The value of a JavaScript expression (awaited when a promise)."""
        result = self.send("Runtime.evaluate", {
            "expression": expression, "returnByValue": True, "awaitPromise": True},
            timeout=timeout)
        if "exceptionDetails" in result:
            raise BrowserError(f"{expression}: {result['exceptionDetails']}")
        return result.get("result", {}).get("value")

    def wait_until(self, predicate, timeout, what):
        deadline = time.monotonic() + timeout
        while not predicate():
            if time.monotonic() > deadline:
                raise BrowserError(f"timed out waiting for {what}")
            time.sleep(0.05)

    def wait_for(self, expression, timeout=15):
        """Waits until the expression is truthy in the page; returns its value."""
        box = {}
        # A DOM node does not travel by value: it counts as true.
        probe = f"(() => {{ const v = ({expression}); return v instanceof Node ? true : v; }})()"

        def holds():
            try:
                box["value"] = self.evaluate(probe)
            except BrowserError:
                return False
            return bool(box["value"])
        self.wait_until(holds, timeout, expression)
        return box["value"]

    def type_into(self, selector, text):
        """Replaces the value of a field as typing would, with the events
        LuCI's validators listen to."""
        script = (f"(() => {{ const e = document.querySelector({json.dumps(selector)});"
                  f" e.focus(); e.value = {json.dumps(text)};"
                  " e.dispatchEvent(new Event('input', {bubbles: true}));"
                  " e.dispatchEvent(new Event('keyup', {bubbles: true}));"
                  " e.dispatchEvent(new Event('blur', {bubbles: true}));"
                  " e.dispatchEvent(new Event('change', {bubbles: true})); return true; })()")
        return self.evaluate(script)

    def click(self, selector):
        return self.evaluate(f"document.querySelector({json.dumps(selector)}).click() || true")

    def screenshot(self, path):
        data = self.send("Page.captureScreenshot", {"format": "png", "captureBeyondViewport": True})
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(base64.b64decode(data["data"]))
        return path
