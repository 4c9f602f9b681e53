"""Python side of the SAS simulator: start it, script it, read what it saw.

    from sas_sim.client import SasSim                 # with tests/ on the path
    pki_dir = pki.generate("/some/dir/pki")
    with SasSim.start(control_dir, pki_dir) as sim:   # runs it as a child process
        sim.push("grant", responseCode=401, responseData=["grant-7"])
        ...
        assert sim.requests("grant")[0]["json"]["grantRequest"][0]["cbsdId"] == ...

To run the simulator elsewhere (for example inside the virtual router with its
`spawn`), call SasSim.prepare(control_dir), build the command line with
SasSim.command(...), start it yourself, then attach with SasSim(control_dir)
and wait_ready().
"""
import json
import os
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SIM_SCRIPT = os.path.join(HERE, "sas_sim.py")
PYTHON = "/usr/bin/python3"


class SasSimError(RuntimeError):
    pass


class SasSim:
    def __init__(self, control_dir, process=None, base_path="/v1.2", host="127.0.0.1"):
        self.control_dir = control_dir
        self.process = process
        self.base_path = base_path
        self.host = host
        self.port = None

    # ---- starting and stopping -------------------------------------------------
    @staticmethod
    def command(control_dir, pki_dir, base_path="/v1.2", port=0, host="127.0.0.1",
                client_auth=True, extra=()):
        """argv that starts the simulator with the PKI of pki.generate()."""
        argv = [PYTHON, SIM_SCRIPT, "--control-dir", control_dir,
                "--cert", os.path.join(pki_dir, "server.pem"),
                "--key", os.path.join(pki_dir, "server.key"),
                "--host", host, "--port", str(port), "--base-path", base_path]
        if client_auth:
            argv += ["--client-ca", os.path.join(pki_dir, "ca.pem")]
        return argv + list(extra)

    @staticmethod
    def prepare(control_dir):
        """Creates the control directory and removes what a killed simulator left
        behind, so wait_ready() cannot read a stale port.  Call it before starting
        the simulator yourself (e.g. with the router's spawn)."""
        os.makedirs(control_dir, exist_ok=True)
        for name in ("port", "port.tmp", "control.sock"):
            _remove(os.path.join(control_dir, name))

    @classmethod
    def start(cls, control_dir, pki_dir, base_path="/v1.2", timeout=10.0, **kwargs):
        cls.prepare(control_dir)
        process = subprocess.Popen(cls.command(control_dir, pki_dir, base_path, **kwargs))
        sim = cls(control_dir, process, base_path, kwargs.get("host", "127.0.0.1"))
        sim.wait_ready(timeout)
        return sim

    def wait_ready(self, timeout=10.0):
        """Waits for the port file (written once both servers listen); returns the port."""
        port_file = os.path.join(self.control_dir, "port")
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.process is not None and self.process.poll() is not None:
                raise SasSimError(f"simulator exited with {self.process.returncode}")
            try:
                with open(port_file) as f:
                    self.port = int(f.read().strip())
                return self.port
            except (OSError, ValueError):
                time.sleep(0.05)
        raise SasSimError("simulator did not become ready")

    def stop(self):
        if self.process is not None and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()

    # ---- addresses ---------------------------------------------------------------
    @property
    def url(self):
        """The SAS server URL the daemon is configured with (no trailing slash)."""
        return f"https://{self.host}:{self.port}{self.base_path}"

    # ---- control -------------------------------------------------------------------
    def call(self, command):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(10)
            s.connect(os.path.join(self.control_dir, "control.sock"))
            s.sendall((json.dumps(command) + "\n").encode())
            data = b""
            while not data.endswith(b"\n"):
                piece = s.recv(65536)
                if not piece:
                    break
                data += piece
        answer = json.loads(data)
        if not answer.get("ok"):
            raise SasSimError(answer.get("error", "control command failed"))
        return answer

    def push(self, endpoint, reply=None, **fields):
        """Queues the next reply of an endpoint ("*" = whichever comes first).
        reply/fields: see README.md (responseCode, responseData, set, remove, json,
        body, size, status, html_error, delay, close, chunks, chunk_sizes, ...)."""
        spec = dict(reply or {})
        spec.update(fields)
        self.call({"cmd": "push", "endpoint": endpoint, "reply": spec})

    def push_connection(self, **action):
        """Queues an action for the next TCP connection: handshake_delay=SECONDS,
        close_before_handshake=True."""
        self.call({"cmd": "push_connection", "action": action})

    def set_default(self, endpoint, reply=None, **fields):
        spec = dict(reply or {})
        spec.update(fields)
        self.call({"cmd": "set_default", "endpoint": endpoint, "reply": spec})

    def requests(self, endpoint=None):
        """Recorded requests, oldest first (optionally of one endpoint)."""
        recorded = self.call({"cmd": "requests"})["requests"]
        return [r for r in recorded if endpoint is None or r["endpoint"] == endpoint]

    def stats(self):
        """{"connections": n, "handshake_failures": [...], "requests": [...]}"""
        return self.call({"cmd": "requests"})

    def client_hellos(self):
        """What each client offered in its ClientHello, oldest first: {"time",
        "cipher_suites" (OpenSSL names, the client's order), "versions"}."""
        return self.stats()["client_hellos"]

    def transmit_expire(self):
        """Seconds since the epoch of the transmitExpireTime in the latest
        heartbeat success the simulator sent (HTTP 200), or None."""
        return self.call({"cmd": "authorization"})["transmit_expire"]

    def set_down(self, down=True):
        """While down, every connection is closed as soon as it is accepted."""
        self.call({"cmd": "set_down", "down": down})

    def most_connections_in_a_minute(self, since=0.0):
        """The largest number of connection attempts (each request needs one)
        in any 60 s window from `since` (seconds since the epoch) on, as the
        simulator counted them."""
        times = sorted(t for t in self.stats()["connection_times"] if t >= since)
        most, first = 0, 0
        for last, moment in enumerate(times):
            while moment - times[first] >= 60.0:
                first += 1
            most = max(most, last - first + 1)
        return most

    def pending(self):
        return self.call({"cmd": "pending"})

    def clear(self):
        self.call({"cmd": "clear"})

    def wait_for_request(self, endpoint, count=1, timeout=10.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = self.requests(endpoint)
            if len(found) >= count:
                return found
            time.sleep(0.1)
        return self.requests(endpoint)


def relative(seconds):
    """A time marker the simulator turns into the UTC time text `seconds` from now."""
    return {"$time": seconds}


def _remove(path):
    try:
        os.remove(path)
    except OSError:
        pass


if __name__ == "__main__":
    # Small command-line use: client.py CONTROL_DIR '<json command>'
    print(json.dumps(SasSim(sys.argv[1]).call(json.loads(sys.argv[2])), indent=2))
