"""Starting and stopping the real binary: starts that cannot work end at once
with one clear line and a non-zero status, without touching anything; a
SIGTERM saves the world and ends with 0; --help and the log options."""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

import kqservice
from kqservice import Service, free_port, start_failure

PREFIX = "kqworldrepresentation: "


class StartFailuresTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kqe2e-start-")
        self.data = os.path.join(self.folder, "data")

    def tearDown(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def test_a_taken_port_touches_nothing(self):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as taken:
            taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            taken.bind(("127.0.0.1", 0))
            taken.listen(1)
            port = taken.getsockname()[1]
            status, lines = start_failure("--port", str(port), "--data-dir", self.data)
        self.assertEqual((status, lines), (1, [PREFIX + "Cannot listen on 127.0.0.1:%d: Address already in use" % port]))
        # Case: a second instance on a running one's port must not reset the
        # first one's databases: nothing was created.
        self.assertFalse(os.path.exists(self.data))

    def test_an_unusable_data_folder(self):
        # A folder below a plain file cannot be made, whoever runs the test.
        blocker = os.path.join(self.folder, "plain-file")
        with open(blocker, "w") as f:
            f.write("not a folder")
        target = os.path.join(blocker, "data")
        status, lines = start_failure("--port", str(free_port()), "--data-dir", target)
        self.assertEqual((status, lines), (1, [PREFIX + "Cannot use data directory %s: Not a directory" % target]))

    def test_beyond_loopback_only_with_a_token(self):
        # Case: every address but loopback needs a token.
        status, lines = start_failure("--host", "0.0.0.0", "--port", str(free_port()), "--data-dir", self.data)
        self.assertEqual(status, 1)
        self.assertEqual(lines, [PREFIX + "Refusing to listen on 0.0.0.0 without a token: anyone on the network "
                                          "could drive the robot (give --token, --token-file or KQ_TOKEN)"])
        # Case: with a token file it starts, and the token is asked for.
        token_file = os.path.join(self.folder, "token")
        with open(token_file, "w") as f:
            f.write("from-file\n")
        with Service("--host", "0.0.0.0", "--token-file", token_file) as service:
            status, _, _ = service.post(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "broker.modules"}))
            self.assertEqual(status, 401)
            service.token = "from-file"
            self.assertEqual(service.call("broker.modules")[0], "KQMemory")
        # Case: an empty token file is no token.
        empty = os.path.join(self.folder, "empty")
        open(empty, "w").close()
        status, lines = start_failure("--port", str(free_port()), "--data-dir", self.data, "--token-file", empty)
        self.assertEqual((status, lines), (1, [PREFIX + "Token file %s holds no token" % empty]))

    def test_token_from_the_environment_and_max_message(self):
        # Case: KQ_TOKEN protects the service like --token; --max-message caps a body.
        with Service("--max-message", "2000", env={"KQ_TOKEN": "from-env"}) as service:
            body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "KQMemory.insertData", "params": ["k", "x"]})
            self.assertEqual(service.post(body)[0], 401)
            service.token = "from-env"
            self.assertEqual(service.post(body)[0], 200)
            self.assertEqual(service.post(body.replace('"x"', '"%s"' % ("x" * 3000)))[0], 413)

    def test_bad_command_lines(self):
        # Case: an unknown option, a bad number, a missing value: status 2.
        for args, line in [
                (["--colour", "red"], "Unknown option --colour (see --help)"),
                (["--port", "99999"], "Option --port needs a port number from 0 to 65535, not 99999 (see --help)"),
                (["--log-level", "9"], "Option --log-level needs a level from 0 to 6, not 9 (see --help)"),
                (["--max-message", "0"], "Option --max-message needs a positive number of bytes, not 0 (see --help)"),
                (["--robot"], "Option --robot needs a value (see --help)")]:
            status, lines = start_failure(*args)
            self.assertEqual((status, lines), (2, [PREFIX + line]), args)

    def test_help_lists_every_option(self):
        done = subprocess.run([kqservice.BINARY, "--help"], capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 0)
        for option in ("--host", "--port", "--data-dir", "--parent", "--robot", "--torso-link", "--log-level",
                       "--log-json", "--token", "--token-file", "--max-message", "--help"):
            self.assertIn(option, done.stdout)


class ShutdownTest(unittest.TestCase):
    def test_sigterm_saves_the_world_and_exits_zero(self):
        service = Service("--log-json")
        try:
            service.start()
            self.assertEqual(service.world("createObjectCategory", "cups", False), 0)
            self.assertEqual(service.world("storeObject", "mug", "World", [1.0, 0.0, 0.0, 0.0, 0.0, 0.0],
                                           "cups", []), 0)
            self.assertEqual(service.stop(signal.SIGTERM), 0)
            # Case: both archive files are there and hold the stored object.
            for name in ("nodes.xml", "edges.xml"):
                path = os.path.join(service.data_dir, name)
                self.assertTrue(os.path.isfile(path), name)
            with open(os.path.join(service.data_dir, "nodes.xml")) as f:
                self.assertIn("mug", f.read())
            # Case: --log-json: every stderr line is one JSON object; the
            # last says the service stopped.
            records = [json.loads(line) for line in service.stderr_text().splitlines() if line.strip()]
            self.assertEqual(records[-1]["message"], "Stopped")
            self.assertEqual(records[-1]["level"], "info")
        finally:
            service.cleanup()


if __name__ == "__main__":
    kqservice.main()
