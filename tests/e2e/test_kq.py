"""The kq client against the real binary: how it reads arguments, how it fails (1 for a
failed call or connection, 2 for a bad command line, the reason on stderr), help, and
its long-running commands ending cleanly on Ctrl-C."""

import signal
import subprocess
import unittest

import kqservice
from kqservice import Service, free_port, run_kq


class KqTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.service = Service().start()
        cls.addClassCleanup(cls.service.close)

    def kq(self, *args, check=True):
        return run_kq(*args, url=self.service.url, check=check)

    def test_arguments_are_json_and_plain_words_are_strings(self):
        # Case: 1.0 is a float, 1 an int, a plain word a string, a quoted word a string too.
        for text, stored in [("1.0", "1.0"), ("1", "1"), ("word", '"word"'), ('"1"', '"1"'),
                             ("[0.5,[true,null]]", "[0.5,[true,null]]"), ("-2.5e-3", "-0.0025")]:
            self.assertEqual(self.kq("call", "KQMemory.insertData", "kind", text).stdout.strip(), "null")
            self.assertEqual(self.kq("call", "KQMemory.getData", "kind").stdout.strip(), stored, text)

    def test_failures_say_why_with_their_status(self):
        # Case: a call the module refuses, and no server there: status 1, the reason.
        for url, reason in [(self.service.url, "There is no data under key nowhere."),
                            ("http://127.0.0.1:%d" % free_port(), "")]:
            done = run_kq("call", "KQMemory.getData", "nowhere", url=url, check=False)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertTrue(done.stderr.startswith("kq: ") and reason in done.stderr, done.stderr)
        # Case: bad command lines: status 2. JSON that is broken or an object is not sent as a string.
        for args, message in [(["call"], "kq: kq call needs Module.method (see kq --help)"),
                              (["call", "getData"], "kq: kq call needs Module.method, not getData (see kq --help)"),
                              (["call", "KQMemory.insertData", "k", "[1.0,"], "kq: Argument 2 is not valid JSON: "),
                              (["call", "KQMemory.insertData", "k", '{"a":1}'], "kq: "),
                              (["dance"], "kq: Unknown command dance (see kq --help)"),
                              (["tree", "--rate", "2"], "kq: Option --rate belongs to kq echo (see kq --help)"),
                              (["echo", "World", "cup", "--rate", "0"],
                               "kq: Option --rate needs a number of hertz above 0 and at most 1000, not 0 "
                               "(see kq --help)"),
                              (["events"], "kq: kq events needs at least one event name (see kq --help)")]:
            done = self.kq(*args, check=False)
            self.assertEqual(done.returncode, 2, args)
            self.assertTrue(done.stderr.startswith(message), done.stderr)

    def test_help_url_from_the_environment_and_method_lists(self):
        self.assertTrue(run_kq("call", "--help").stdout.startswith("Usage: kq"))
        done = run_kq(check=False)  # kq alone is a usage error that shows the help
        self.assertEqual(done.returncode, 2)
        self.assertIn("Commands:", done.stderr)
        done = kqservice.run([kqservice.KQ, "methods"], env={"KQ_URL": self.service.url})
        self.assertIn("KQMemory.getData  Get the value stored under a key.", done.stdout.splitlines())

    def test_echo_keeps_going_past_unknown_names_and_stops_on_ctrl_c(self):
        echo = subprocess.Popen([kqservice.KQ, "echo", "World", "ghost", "--rate", "20", "--url", self.service.url],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        with echo:
            lines = [echo.stderr.readline().strip() for _ in range(2)]
            echo.send_signal(signal.SIGINT)
            self.assertEqual(echo.wait(30), 0)
        self.assertEqual(lines, ["kq: no pose of ghost in the frame of World (is one of them unknown?)"] * 2)


if __name__ == "__main__":
    kqservice.main()
