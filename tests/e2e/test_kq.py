"""The kq client against the real binary: how it reads arguments, how it
fails (status 1 for a failed call or connection, 2 for a bad command line,
with the reason on stderr), help everywhere, and its long-running commands
ending cleanly on Ctrl-C."""

import json
import os
import signal
import subprocess
import unittest

import kqservice
from kqservice import Service, free_port, run_kq


class KqTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.service = Service().start()
        cls.url = cls.service.url

    @classmethod
    def tearDownClass(cls):
        cls.service.stop()
        cls.service.cleanup()

    def kq(self, *args, check=True):
        return run_kq(*args, url=self.url, check=check)

    def test_arguments_are_json_and_plain_words_are_strings(self):
        # Case: 1.0 is a float, 1 an int, a plain word a string, a quoted
        # word a string too; each comes back as it went in.
        for text, stored in [("1.0", "1.0"), ("1", "1"), ("word", '"word"'), ('"1"', '"1"'),
                             ("[0.5,[true,null]]", "[0.5,[true,null]]"), ("-2.5e-3", "-0.0025")]:
            self.assertEqual(self.kq("call", "KQMemory.insertData", "kind", text).stdout.strip(), "null")
            self.assertEqual(self.kq("call", "KQMemory.getData", "kind").stdout.strip(), stored, text)

        # Case: something that looks like JSON but is broken is not quietly
        # sent as a string.
        done = self.kq("call", "KQMemory.insertData", "kind", "[1.0,", check=False)
        self.assertEqual(done.returncode, 2)
        self.assertTrue(done.stderr.startswith("kq: Argument 2 is not valid JSON: "), done.stderr)
        # Case: a JSON object is no value.
        done = self.kq("call", "KQMemory.insertData", "kind", '{"a":1}', check=False)
        self.assertEqual(done.returncode, 2)

    def test_failures_say_why_with_their_status(self):
        # Case: a call the module refuses: status 1, the module's sentence.
        done = self.kq("call", "KQMemory.getData", "nowhere", check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("There is no data under key nowhere.", done.stderr)
        self.assertEqual(done.stdout, "")
        # Case: an unknown method and a wrong argument type.
        self.assertEqual(self.kq("call", "KQMemory.teleport", check=False).returncode, 1)
        self.assertEqual(self.kq("call", "KQWorldRepresentation.findObject", "3", check=False).returncode, 1)
        # Case: no server there.
        done = run_kq("call", "broker.modules", url="http://127.0.0.1:%d" % free_port(), check=False)
        self.assertEqual(done.returncode, 1)
        self.assertTrue(done.stderr.startswith("kq: "), done.stderr)
        # Case: bad command lines: status 2.
        for args, message in [(["call"], "kq: kq call needs Module.method (see kq --help)"),
                              (["call", "getData"], "kq: kq call needs Module.method, not getData (see kq --help)"),
                              (["dance"], "kq: Unknown command dance (see kq --help)"),
                              (["tree", "--rate", "2"], "kq: Option --rate belongs to kq echo (see kq --help)"),
                              (["echo", "World", "cup", "--rate", "0"],
                               "kq: Option --rate needs a number of hertz above 0 and at most 1000, not 0 "
                               "(see kq --help)"),
                              (["events"], "kq: kq events needs at least one event name (see kq --help)")]:
            done = self.kq(*args, check=False)
            self.assertEqual((done.returncode, done.stderr.strip()), (2, message), args)

    def test_token_is_passed_on(self):
        with Service(token="s3cret") as service:
            done = run_kq("call", "KQWorldRepresentation.getRootName", url=service.url, token="s3cret")
            self.assertEqual(done.stdout.strip(), '"World"')
            done = run_kq("call", "KQWorldRepresentation.getRootName", url=service.url, check=False)
            self.assertEqual(done.returncode, 1)
            self.assertTrue(done.stderr.startswith("kq: "), done.stderr)

    def test_help_everywhere(self):
        for command in ([], ["call"], ["methods"], ["events"], ["tree"], ["echo"]):
            done = run_kq(*(command + ["--help"]))
            self.assertTrue(done.stdout.startswith("Usage: kq"), done.stdout)
        # Case: kq alone is a usage error that shows the help.
        done = run_kq(check=False)
        self.assertEqual(done.returncode, 2)
        self.assertIn("Commands:", done.stderr)

    def test_url_from_the_environment_and_method_lists(self):
        env = dict(os.environ, KQ_URL=self.url)
        done = subprocess.run([kqservice.KQ, "methods"], capture_output=True, text=True, env=env, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = done.stdout.splitlines()
        self.assertIn("KQMemory.getData  Get the value stored under a key.", lines)
        self.assertIn("KQWorldRepresentation.load", lines)
        self.assertIn("KQMotion.setRobotPosition  Place the robot at x, y, theta in the world.", lines)

    def test_echo_keeps_going_past_unknown_names_and_stops_on_ctrl_c(self):
        echo = subprocess.Popen([kqservice.KQ, "echo", "World", "ghost", "--rate", "20", "--url", self.url],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            first = echo.stderr.readline().strip()
            second = echo.stderr.readline().strip()
        finally:
            echo.send_signal(signal.SIGINT)
            status = echo.wait(30)
            echo.stdout.close()
            echo.stderr.close()
        self.assertEqual(first, "kq: no pose of ghost in the frame of World (is one of them unknown?)")
        self.assertEqual(second, first)
        self.assertEqual(status, 0)


if __name__ == "__main__":
    kqservice.main()
