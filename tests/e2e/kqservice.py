"""Helpers of the end-to-end tests: run the real kqworldrepresentation binary
on 127.0.0.1 with a free port and a temporary data folder, and talk to it with
clients we did not write (the standard library's http.client, curl, the
websockets package).

Every test script is run as
    python3 test_x.py --binary PATH --kq PATH [--source-dir DIR] [unittest args]
"""

import argparse
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BINARY = None
KQ = None
SOURCE_DIR = None

# The machine running the tests may be busy building: starts are given time.
START_TIMEOUT = 90.0
STOP_TIMEOUT = 60.0


def main():
    """Reads our options, hands the rest to unittest."""
    global BINARY, KQ, SOURCE_DIR
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--binary", required=True)
    parser.add_argument("--kq", required=True)
    parser.add_argument("--source-dir", default=os.path.join(os.path.dirname(__file__), "..", ".."))
    ours, rest = parser.parse_known_args()
    BINARY = os.path.abspath(ours.binary)
    KQ = os.path.abspath(ours.kq)
    SOURCE_DIR = os.path.abspath(ours.source_dir)
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class RpcError(Exception):
    def __init__(self, code, message):
        super().__init__("%s %s" % (code, message))
        self.code = code
        self.message = message


class Service:
    """One kqworldrepresentation process. Use as a context manager, or call
    start() and stop(). Its stderr goes to a file (stderr_text())."""

    def __init__(self, *extra, data_dir=None, env=None, token=None, port=None):
        self.port = port or free_port()
        self.url = "http://127.0.0.1:%d" % self.port
        self.token = token
        self._own_folder = tempfile.mkdtemp(prefix="kqe2e-")
        self.data_dir = data_dir or os.path.join(self._own_folder, "data")
        self.extra = list(extra)
        self.env = dict(os.environ)
        self.env.pop("KQ_TOKEN", None)
        if env:
            self.env.update(env)
        self.process = None
        self._stderr_path = os.path.join(self._own_folder, "stderr.log")
        self.returncode = None

    def command(self):
        command = [BINARY, "--port", str(self.port), "--data-dir", self.data_dir] + self.extra
        if self.token:
            command += ["--token", self.token]
        return command

    def start(self):
        self._stderr = open(self._stderr_path, "wb")
        self.process = subprocess.Popen(self.command(), stdout=subprocess.DEVNULL, stderr=self._stderr,
                                        env=self.env)
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                self._abandon()
                raise AssertionError("service ended at start with %s: %s" % (self.returncode, self.stderr_text()))
            try:
                # Any HTTP answer means the server listens (a 401 too: the
                # test may be about the token).
                self.post(json.dumps({"jsonrpc": "2.0", "id": 0, "method": "broker.modules"}))
                return self
            except (OSError, http.client.HTTPException):
                time.sleep(0.1)
        self._abandon()
        raise AssertionError("service did not answer within %s s: %s" % (START_TIMEOUT, self.stderr_text()))

    def _abandon(self):
        if self.process.poll() is None:
            self.process.kill()
        self.returncode = self.process.wait()
        self.process = None
        self._stderr.close()

    def stop(self, sig=signal.SIGTERM):
        if self.process is None:
            return self.returncode
        if self.process.poll() is None:
            self.process.send_signal(sig)
            try:
                self.process.wait(STOP_TIMEOUT)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                raise AssertionError("service did not stop on %s: %s" % (sig, self.stderr_text()))
        self.returncode = self.process.returncode
        self.process = None
        self._stderr.close()
        return self.returncode

    def cleanup(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None
        shutil.rmtree(self._own_folder, ignore_errors=True)

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.cleanup()
            raise

    def __exit__(self, *exc):
        try:
            if self.process is not None:
                self.stop()
        finally:
            self.cleanup()
        return False

    def stderr_text(self):
        try:
            with open(self._stderr_path, "rb") as f:
                return f.read().decode("utf-8", "replace")
        except OSError:
            return ""

    # --- HTTP with the standard library.

    def post(self, body, headers=None, path="/rpc"):
        """Raw POST; returns (status, headers dict, body bytes)."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            all_headers = {"Content-Type": "application/json"}
            if self.token:
                all_headers["Authorization"] = "Bearer " + self.token
            all_headers.update(headers or {})
            if isinstance(body, str):
                body = body.encode("utf-8")
            connection.request("POST", path, body=body, headers=all_headers)
            response = connection.getresponse()
            return response.status, dict(response.getheaders()), response.read()
        finally:
            connection.close()

    def rpc(self, method, params=None, request_id=1):
        """One JSON-RPC request; returns the decoded reply object."""
        request = {"jsonrpc": "2.0", "id": request_id, "method": method}
        if params is not None:
            request["params"] = params
        status, _, body = self.post(json.dumps(request))
        if status != 200:
            raise RpcError(status, body.decode("utf-8", "replace"))
        return json.loads(body)

    def call(self, method, *params):
        reply = self.rpc(method, list(params))
        if "error" in reply:
            raise RpcError(reply["error"]["code"], reply["error"]["message"])
        return reply["result"]

    def world(self, method, *params):
        return self.call("KQWorldRepresentation." + method, *params)


def run_kq(*args, url=None, token=None, timeout=60, check=True):
    """Runs the kq client; returns the CompletedProcess."""
    command = [KQ] + list(args)
    if url:
        command += ["--url", url]
    if token:
        command += ["--token", token]
    env = dict(os.environ)
    env.pop("KQ_URL", None)
    env.pop("KQ_TOKEN", None)
    done = subprocess.run(command, capture_output=True, text=True, timeout=timeout, env=env)
    if check and done.returncode != 0:
        raise AssertionError("kq %s failed (%d): %s" % (" ".join(args), done.returncode, done.stderr))
    return done


def run_curl(url, body, headers=None, timeout=60):
    """POSTs with curl; returns (HTTP status, body text)."""
    command = ["curl", "-s", "-o", "-", "-w", "\n%{http_code}", "-X", "POST", url, "--data-binary", body]
    for name, value in (headers or {"Content-Type": "application/json"}).items():
        command += ["-H", "%s: %s" % (name, value)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=timeout)
    text, _, status = done.stdout.rpartition("\n")
    return int(status), text


def start_failure(*args, env=None, timeout=60):
    """Runs the binary expecting it to refuse to start; returns
    (status, stderr lines)."""
    full_env = dict(os.environ)
    full_env.pop("KQ_TOKEN", None)
    if env:
        full_env.update(env)
    done = subprocess.run([BINARY] + list(args), capture_output=True, text=True, timeout=timeout, env=full_env)
    return done.returncode, [line for line in done.stderr.splitlines() if line.strip()]


def close_to(test, actual, expected, places=4):
    """Compares nested lists of numbers."""
    if isinstance(expected, (list, tuple)):
        test.assertEqual(len(actual), len(expected), "%r vs %r" % (actual, expected))
        for a, e in zip(actual, expected):
            close_to(test, a, e, places)
    else:
        test.assertAlmostEqual(actual, expected, places=places, msg="%r vs %r" % (actual, expected))
