"""Starting and stopping the real binary: starts that cannot work end at once with one
clear line and a non-zero status, touching nothing; SIGTERM saves the world and ends
with 0; the token and size options, and kq passing a token on."""

import json
import os
import signal
import socket

import kqservice
from kqservice import FolderTest, Service, free_port, run_kq, start_failure

PREFIX = "kqworldrepresentation: "


class StartupTest(FolderTest):
    def test_starts_that_cannot_work(self):
        data = os.path.join(self.folder, "data")
        below_a_file = os.path.join(self.write("plain-file", "not a folder"), "data")
        empty = self.write("empty", "")
        parent = "http://127.0.0.1:%d" % free_port()
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            for args, status, line in [
                    # A second instance on a running one's port must not reset its databases (see below).
                    (["--port", str(port)], 1, "Cannot listen on 127.0.0.1:%d: Address already in use" % port),
                    (["--data-dir", below_a_file], 1, "Cannot use data directory %s: Not a directory" % below_a_file),
                    (["--host", "0.0.0.0"], 1, "Refusing to listen on 0.0.0.0 without a token: anyone on the network "
                                               "could drive the robot (give --token, --token-file or KQ_TOKEN)"),
                    (["--token-file", empty], 1, "Token file %s holds no token" % empty),
                    (["--colour", "red"], 2, "Unknown option --colour (see --help)"),
                    (["--port", "99999"], 2, "Option --port needs a port number from 0 to 65535, not 99999 (see --help)"),
                    (["--log-level", "99"], 2, "Option --log-level needs a level from 0 to 6, not 99 (see --help)"),
                    (["--max-message", "0"], 2, "Option --max-message needs a positive number of bytes, not 0 "
                                                "(see --help)"),
                    (["--robot"], 2, "Option --robot needs a value (see --help)"),
                    (["--parent", parent, "--data-dir", self.folder], 1, "Cannot reach parent broker %s: " % parent)]:
                defaults = ([] if "--port" in args else ["--port", str(free_port())]) + \
                    ([] if "--data-dir" in args else ["--data-dir", data])
                done, lines = start_failure(*(defaults + args))
                self.assertEqual((done, len(lines)), (status, 1), lines)
                self.assertTrue(lines[0].startswith(PREFIX + line), lines)
        self.assertFalse(os.path.exists(data))

    def test_tokens_from_a_file_or_the_environment_and_the_size_limit(self):
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "KQMemory.insertData", "params": ["k", "x"]})
        # Case: beyond loopback only with a token, here from a file.
        with Service("--host", "0.0.0.0", "--token-file", self.write("token", "from-file\n")) as service:
            self.assertEqual(service.post(body)[0], 401)
            service.token = "from-file"
            self.assertEqual(service.post(body)[0], 200)
        # Case: KQ_TOKEN protects like --token; --max-message caps a body.
        with Service("--max-message", "2000", env={"KQ_TOKEN": "from-env"}) as service:
            self.assertEqual(service.post(body)[0], 401)
            service.token = "from-env"
            self.assertEqual(service.post(body)[0], 200)
            # Case: kq passes its --token on; without it, the call fails.
            self.assertEqual(run_kq("call", "KQMemory.getData", "k", url=service.url, token="from-env").stdout, '"x"\n')
            self.assertEqual(run_kq("call", "broker.modules", url=service.url, check=False).returncode, 1)
            self.assertEqual(service.post(body.replace('"x"', '"%s"' % ("x" * 3000)))[0], 413)

    def test_help_lists_every_option(self):
        done = kqservice.run([kqservice.BINARY, "--help"])
        self.assertEqual(done.returncode, 0)
        for option in ("--host", "--port", "--data-dir", "--parent", "--robot", "--torso-link", "--log-level",
                       "--log-json", "--token", "--token-file", "--max-message", "--help"):
            self.assertIn(option, done.stdout)

    def test_sigterm_saves_the_world_and_exits_zero(self):
        with Service("--log-json") as service:
            self.assertEqual(service.world("createObjectCategory", "cups", False), 0)
            self.assertEqual(service.world("storeObject", "mug", "World", [1.0, 0, 0, 0, 0, 0], "cups", []), 0)
            self.assertEqual(service.stop(signal.SIGTERM), 0)
            self.assertTrue(os.path.isfile(os.path.join(service.data_dir, "edges.xml")))
            with open(os.path.join(service.data_dir, "nodes.xml")) as f:
                self.assertIn("mug", f.read())
            # Case: --log-json: every stderr line is one JSON object; the last says the service stopped.
            records = [json.loads(line) for line in service.stderr_text().splitlines() if line.strip()]
            self.assertEqual((records[-1]["level"], records[-1]["message"]), ("info", "Stopped"))


if __name__ == "__main__":
    kqservice.main()
