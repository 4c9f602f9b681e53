#!/usr/bin/python3
"""SAS simulator: a scriptable HTTPS peer for the daemon's SAS client tests.

Serves the six SAS-CBSD endpoints under a base path with mutual TLS, answers
with plausible replies by default, plays scripted replies queued per endpoint,
and records every request.  Control runs over a Unix-domain socket inside the
control directory, so a test process in another network namespace can drive it
as long as it sees that directory.  See README.md for the control protocol.
"""
import argparse
import copy
import json
import os
import signal
import socket
import socketserver
import ssl
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import gate_sample
from replies import build_body, transmit_expire_of
from sim_tls import VERSIONS, make_context, subject_text

ENDPOINTS = ("registration", "spectrumInquiry", "grant", "heartbeat", "relinquishment",
             "deregistration")


class SimState:
    """Everything the control interface changes or reads; guarded by one lock."""

    def __init__(self, options):
        self.lock = threading.Lock()
        self.options = options
        self.queues = {name: [] for name in ENDPOINTS + ("*",)}
        self.connection_actions = []
        self.defaults = {}  # endpoint -> reply spec used when its queue is empty
        self.requests = []
        self.connections = 0
        self.handshake_failures = []
        self.counter = 0
        self.connection_times = []
        self.down = False
        self.transmit_expire = None  # of the latest heartbeat success sent
        self.authorizations = 0
        self.client_hellos = []  # what each client offered: {"time", "cipher_suites", "versions"}
        self.record_path = os.path.join(options.control_dir, "requests.jsonl")

    def next_id(self, prefix):
        with self.lock:
            self.counter += 1
            return f"{prefix}{self.counter}"

    def take_reply(self, endpoint):
        with self.lock:
            for key in (endpoint, "*"):
                if self.queues.get(key):
                    return self.queues[key].pop(0)
            return copy.deepcopy(self.defaults.get(endpoint, {}))

    def note_hello(self, hello):
        with self.lock:
            self.client_hellos.append({"time": time.time(), **hello})

    def take_connection_action(self):
        with self.lock:
            return self.connection_actions.pop(0) if self.connection_actions else {}

    def note_heartbeat_reply(self, body):
        """Keeps the transmitExpireTime of a success in a heartbeat reply sent
        with HTTP 200: the latest authorisation the device was handed."""
        expire = transmit_expire_of(body)
        if expire is not None:
            with self.lock:
                self.transmit_expire = expire
                self.authorizations += 1

    def record(self, entry):
        with self.lock:
            self.requests.append(entry)
            with open(self.record_path, "a") as f:
                f.write(json.dumps(entry) + "\n")


class SasHandler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "SasSim/1.0"

    def log_message(self, fmt, *args):
        if self.server.state.options.verbose:
            sys.stderr.write("sas_sim: " + (fmt % args) + "\n")

    def do_GET(self):
        self._reply_plain(405, "only POST\n")

    def do_POST(self):
        state = self.server.state
        length = int(self.headers.get("Content-Length") or 0)
        raw = self.rfile.read(length) if length > 0 else b""
        text = raw.decode("utf-8", errors="replace")
        try:
            parsed = json.loads(text) if text else None
        except ValueError:
            parsed = None
        base = state.options.base_path.rstrip("/")
        path = self.path.split("?", 1)[0]
        endpoint = None
        if path.startswith(base + "/") and path[len(base) + 1:] in ENDPOINTS:
            endpoint = path[len(base) + 1:]
        entry = {
            "time": time.time(), "endpoint": endpoint, "path": self.path, "method": "POST",
            "headers": {k: v for k, v in self.headers.items()}, "body": text, "json": parsed,
            "client_subject": subject_text(self.connection.getpeercert()),
        }
        if endpoint in state.options.sample_gates.split(","):
            entry["gates"] = gate_sample.sample()  # how the device stood as it asked
        state.record(entry)
        if endpoint is None:
            self._reply_plain(404, "no such endpoint\n")
            return
        spec = state.take_reply(endpoint)
        self._play(endpoint, parsed, spec)
        entry["replied"] = time.time()
        if spec.get("watch_gates"):
            gate_sample.watch(entry, spec["watch_gates"])

    def _reply_plain(self, status, text):
        data = text.encode()
        self.send_response(status)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(data)))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(data)
        self.close_connection = True

    def _play(self, endpoint, parsed, spec):
        if spec.get("delay"):
            time.sleep(float(spec["delay"]))
        if spec.get("close"):
            self.close_connection = True
            self.connection.close()
            return
        body = build_body(endpoint, parsed, spec, self.server.state).encode("utf-8")
        if "size" in spec:
            size = int(spec["size"])
            body = body[:size] + b" " * max(0, size - len(body))
        status = int(spec.get("status", 500 if spec.get("html_error") else 200))
        content_type = spec.get("content_type",
                                "text/html" if spec.get("html_error") else "application/json")
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Connection", "close")
        self.close_connection = True
        if "chunks" in spec or "chunk_sizes" in spec:
            self._send_chunked(body, spec)
            if "chunks" in spec:
                body = "".join(spec["chunks"]).encode("utf-8")
        else:
            self._send_whole(body, spec)
        if endpoint == "heartbeat" and status == 200:
            self.server.state.note_heartbeat_reply(body)

    def _send_whole(self, body, spec):
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        trickle = spec.get("trickle")
        if trickle:
            step, pause = int(trickle.get("bytes", 1)), float(trickle.get("interval", 1.0))
            for i in range(0, len(body), step):
                self.wfile.write(body[i:i + step])
                self.wfile.flush()
                time.sleep(pause)
        else:
            self.wfile.write(body)

    def _send_chunked(self, body, spec):
        if "chunks" in spec:
            pieces = [c.encode("utf-8") for c in spec["chunks"]]
        else:
            pieces, at = [], 0
            for size in spec["chunk_sizes"]:
                pieces.append(body[at:at + int(size)])
                at += int(size)
            if at < len(body):
                pieces.append(body[at:])
        pause = float(spec.get("chunk_pause", 0.3))
        self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        self.wfile.flush()
        for i, piece in enumerate(pieces):
            if not piece:
                continue
            if i:
                time.sleep(pause)
            self.wfile.write(b"%x\r\n" % len(piece) + piece + b"\r\n")
            self.wfile.flush()
        time.sleep(pause)
        self.wfile.write(b"0\r\n\r\n")
        self.wfile.flush()


class SasServer(ThreadingHTTPServer):
    """Accepts plain TCP and does the TLS handshake in the connection's own
    thread, so a scripted handshake delay stalls only that connection."""
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, address, state, context):
        self.state = state
        self.context = context
        super().__init__(address, SasHandler)

    def finish_request(self, request, client_address):
        state = self.state
        with state.lock:
            state.connections += 1
            state.connection_times.append(time.time())
            down = state.down
        if down:  # as if nobody listened: the client sees its connection end
            request.close()
            return
        request.settimeout(60)  # a client that stalls mid-handshake frees its thread
        action = state.take_connection_action()
        if action.get("handshake_delay"):
            time.sleep(float(action["handshake_delay"]))
        if action.get("close_before_handshake"):
            request.close()
            return
        try:
            tls = self.context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError) as error:
            with state.lock:
                state.handshake_failures.append(str(error))
            request.close()
            return
        try:
            SasHandler(tls, client_address, self)
        except (ssl.SSLError, OSError):
            pass
        finally:
            try:
                tls.close()
            except OSError:
                pass

    def shutdown_request(self, request):
        try:
            request.close()
        except OSError:
            pass


class ControlHandler(socketserver.StreamRequestHandler):
    """One JSON object per line in, one JSON object per line out."""

    def handle(self):
        for line in self.rfile:
            if not line.strip():
                continue
            try:
                answer = self.server.execute(json.loads(line))
            except Exception as error:  # a bad command must not stop the simulator
                answer = {"ok": False, "error": repr(error)}
            self.wfile.write((json.dumps(answer) + "\n").encode())
            self.wfile.flush()


class ControlServer(socketserver.ThreadingUnixStreamServer):
    daemon_threads = True

    def __init__(self, path, state, http_server):
        self.state = state
        self.http_server = http_server
        super().__init__(path, ControlHandler)

    def execute(self, command):
        state = self.state
        cmd = command.get("cmd")
        with state.lock:
            if cmd == "ping":
                return {"ok": True, "port": self.http_server.server_address[1]}
            if cmd == "push":
                endpoint = command.get("endpoint", "*")
                if endpoint not in state.queues:
                    return {"ok": False, "error": f"unknown endpoint {endpoint}"}
                state.queues[endpoint].append(command.get("reply", {}))
                return {"ok": True}
            if cmd == "push_connection":
                state.connection_actions.append(command.get("action", {}))
                return {"ok": True}
            if cmd == "set_default":
                endpoint = command.get("endpoint")
                if endpoint not in ENDPOINTS:
                    return {"ok": False, "error": f"unknown endpoint {endpoint}"}
                state.defaults[endpoint] = command.get("reply", {})
                return {"ok": True}
            if cmd == "requests":
                return {"ok": True, "requests": state.requests,
                        "connections": state.connections,
                        "connection_times": state.connection_times,
                        "handshake_failures": state.handshake_failures,
                        "client_hellos": state.client_hellos}
            if cmd == "set_down":
                state.down = bool(command.get("down"))
                return {"ok": True}
            if cmd == "authorization":
                return {"ok": True, "transmit_expire": state.transmit_expire,
                        "authorizations": state.authorizations}
            if cmd == "pending":
                return {"ok": True, "queues": {k: len(v) for k, v in state.queues.items()},
                        "connection_actions": len(state.connection_actions)}
            if cmd == "clear":
                for queue in state.queues.values():
                    queue.clear()
                state.connection_actions.clear()
                state.requests.clear()
                state.handshake_failures.clear()
                state.client_hellos.clear()
                state.connections = 0
                state.connection_times.clear()
                open(state.record_path, "w").close()
                return {"ok": True}
            if cmd == "shutdown":
                threading.Thread(target=self.http_server.shutdown, daemon=True).start()
                return {"ok": True}
        return {"ok": False, "error": f"unknown command {cmd!r}"}


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--control-dir", required=True,
                   help="directory for control.sock, port and requests.jsonl")
    p.add_argument("--cert", required=True, help="server certificate (PEM)")
    p.add_argument("--key", required=True, help="server key (PEM)")
    p.add_argument("--client-ca", help="CA that client certificates must chain to; "
                                       "empty for no client certificate check")
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--port", type=int, default=0, help="0 picks a free port")
    p.add_argument("--base-path", default="/v1.2")
    p.add_argument("--heartbeat-interval", type=int, default=60)
    p.add_argument("--transmit-seconds", type=float, default=240)
    p.add_argument("--grant-seconds", type=float, default=7 * 24 * 3600)
    p.add_argument("--max-eirp", type=float, default=37.0)
    p.add_argument("--ciphers", help="OpenSSL cipher string of the suites offered up to TLS 1.2 "
                                     "(e.g. AES128-SHA, or AES128-SHA:@SECLEVEL=0)")
    p.add_argument("--tls-version", choices=sorted(VERSIONS), help="the only TLS version offered")
    p.add_argument("--sample-gates", default="", help="endpoints (comma-separated) whose "
                   "requests record the router's gates as they arrive (inside the router only)")
    p.add_argument("--verbose", action="store_true")
    return p.parse_args(argv)


def _exit_on_signal(signum, frame):
    raise SystemExit(0)


def main(argv=None):
    options = parse_args(argv)
    os.makedirs(options.control_dir, exist_ok=True)
    state = SimState(options)
    open(state.record_path, "w").close()
    context = make_context(options, state.note_hello)
    http_server = SasServer((options.host, options.port), state, context)
    sock_path = os.path.join(options.control_dir, "control.sock")
    if os.path.exists(sock_path):
        os.remove(sock_path)
    control = ControlServer(sock_path, state, http_server)
    threading.Thread(target=control.serve_forever, daemon=True).start()
    # The port file appears last and atomically: its presence means "ready".
    port_file = os.path.join(options.control_dir, "port")
    with open(port_file + ".tmp", "w") as f:
        f.write(f"{http_server.server_address[1]}\n")
    os.replace(port_file + ".tmp", port_file)
    signal.signal(signal.SIGTERM, _exit_on_signal)
    try:
        http_server.serve_forever(poll_interval=0.1)
    except (KeyboardInterrupt, SystemExit):
        pass
    finally:
        control.shutdown()
        control.server_close()
        http_server.server_close()
        for path in (sock_path, port_file):
            try:
                os.remove(path)
            except OSError:
                pass


if __name__ == "__main__":
    main()
