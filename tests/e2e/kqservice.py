"""Helpers of the end-to-end tests: the real kqworldrepresentation binary on
127.0.0.1 with a free port and a data folder of its own, talked to with clients
we did not write (http.client, curl, websockets) and with kq. Each script runs as
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

BINARY = KQ = None
START_TIMEOUT = STOP_TIMEOUT = 90.0  # the machine may be busy building


def main():
    """Reads our options (--source-dir is unused), hands the rest to unittest."""
    global BINARY, KQ
    parser = argparse.ArgumentParser(add_help=False)
    for option in ("--binary", "--kq", "--source-dir"):
        parser.add_argument(option)
    ours, rest = parser.parse_known_args()
    BINARY, KQ = os.path.abspath(ours.binary), os.path.abspath(ours.kq)
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def clean_env(**extra):
    """Our environment without the variables that would change what is tested."""
    return dict({k: v for k, v in os.environ.items() if k not in ("KQ_TOKEN", "KQ_URL")}, **extra)


class FolderTest(unittest.TestCase):
    """A test with a temporary folder of its own (self.folder)."""

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="kqe2e-"))

    def write(self, name, text):
        with open(os.path.join(self.folder, name), "w") as f:
            f.write(text)
        return f.name


class Service:
    """One kqworldrepresentation process: a context manager, or start() and close().
    Its stderr goes to a file (stderr_text())."""

    def __init__(self, *extra, env=None, token=None, binary=None):
        self.port, self.token, self.env, self.process = free_port(), token, clean_env(**(env or {})), None
        self.url = "http://127.0.0.1:%d" % self.port
        self.folder = tempfile.mkdtemp(prefix="kqe2e-")
        self.data_dir = os.path.join(self.folder, "data")
        self.command = [binary or BINARY, "--port", str(self.port), "--data-dir", self.data_dir] + list(extra)
        self.command += ["--token", token] if token else []

    def start(self):
        self.stderr = open(os.path.join(self.folder, "stderr.log"), "wb")
        self.process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL, stderr=self.stderr, env=self.env)
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline and self.process.poll() is None:
            try:
                self.post("{}")  # any answer means it listens (a 401 too: the test may be about the token)
                return self
            except (OSError, http.client.HTTPException):
                time.sleep(0.1)
        text = self.stderr_text()
        self.close()
        raise AssertionError("service did not start: %s" % text)

    def stop(self, sig=signal.SIGTERM):
        """Sends sig; returns the exit status."""
        self.process.send_signal(sig)
        try:
            return self.process.wait(STOP_TIMEOUT)
        except subprocess.TimeoutExpired:
            raise AssertionError("service did not stop on %s: %s" % (sig, self.stderr_text()))

    def close(self):
        self.process.kill()  # nothing when it has ended
        self.process.wait()
        self.stderr.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    __enter__ = start

    def __exit__(self, *exc):
        try:
            self.process.poll() is not None or self.stop()
        finally:
            self.close()

    def stderr_text(self):
        with open(os.path.join(self.folder, "stderr.log"), "rb") as f:
            return f.read().decode("utf-8", "replace")

    def post(self, body):
        """POST to /rpc with the standard library; returns (status, body bytes)."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            auth = {"Authorization": "Bearer " + self.token} if self.token else {}
            connection.request("POST", "/rpc", body.encode("utf-8"), {"Content-Type": "application/json", **auth})
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def call(self, method, *params):
        """One JSON-RPC call; returns its result, raises AssertionError on any error."""
        status, body = self.post(json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": list(params)}))
        reply = json.loads(body) if status == 200 else {"error": status}
        if "error" in reply:
            raise AssertionError("%s failed: %s" % (method, reply["error"]))
        return reply["result"]

    def world(self, method, *params):
        return self.call("KQWorldRepresentation." + method, *params)


def run(command, env=None):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, env=clean_env(**(env or {})))


def run_kq(*args, url=None, token=None, check=True):
    """Runs the kq client; returns the CompletedProcess."""
    done = run([KQ] + list(args) + (["--url", url] if url else []) + (["--token", token] if token else []))
    if check and done.returncode != 0:
        raise AssertionError("kq %s failed (%d): %s" % (" ".join(args), done.returncode, done.stderr))
    return done


def start_failure(*args, env=None, binary=None):
    """Runs the binary expecting it to refuse to start; returns (status, stderr lines)."""
    done = run([binary or BINARY] + list(args), env)
    return done.returncode, [line for line in done.stderr.splitlines() if line.strip()]


def close_to(test, actual, expected, places=4):
    """Compares nested lists of numbers."""
    if not isinstance(expected, (list, tuple)):
        return test.assertAlmostEqual(actual, expected, places=places, msg="%r vs %r" % (actual, expected))
    test.assertEqual(len(actual), len(expected), "%r vs %r" % (actual, expected))
    return [close_to(test, a, e, places) for a, e in zip(actual, expected)]
