"""The README's five-minute walkthrough, command for command, against the real binary:
curl and kq store a table and a cup, ask where the cup is from the robot's torso, move
the robot and ask again, watch events, echo a pose, and stop the service cleanly.

    World -- Robot (odometry, KQMotion.setRobotPosition) -- Robot_Torso (z 0.55) -- NeckPan, ...
      `-- table (x 2) -- cup (z 0.75 over the table)
"""

import json
import signal
import subprocess
import time
import unittest

import kqservice
from kqservice import Service, close_to, run_kq


class WalkthroughTest(unittest.TestCase):
    def test_walkthrough(self):
        service = Service().start()
        self.addCleanup(service.close)

        def kq(*args):
            return json.loads(run_kq(*args, url=service.url).stdout)

        where_is_the_cup = lambda: kq("call", "KQWorldRepresentation.getPosition", "Robot_Torso", "cup")

        # Case: a category made with curl, objects stored with kq.
        curl = subprocess.run(["curl", "-s", service.url + "/rpc", "-H", "Content-Type: application/json", "-d",
                               json.dumps({"jsonrpc": "2.0", "id": 1, "method": "KQWorldRepresentation.createObjectCategory",
                                           "params": ["furniture", False]})], capture_output=True, text=True, timeout=60)
        self.assertEqual(json.loads(curl.stdout), {"jsonrpc": "2.0", "id": 1, "result": 0})
        self.assertEqual(kq("call", "KQWorldRepresentation.storeObject", "table", "World",
                            "[2.0, 0.0, 0.0, 0.0, 0.0, 0.0]", "furniture", "[]"), 0)
        self.assertEqual(kq("call", "KQWorldRepresentation.storeObject", "cup", "table",
                            "[0.0, 0.0, 0.75, 0.0, 0.0, 0.0]", "furniture", "[]"), 0)

        # Case: the tree shows the cup under the table, with its category.
        tree = run_kq("tree", url=service.url).stdout.splitlines()
        self.assertEqual(tree[0], "World [root]")
        self.assertIn("    cup [furniture]  xyz [0.000, 0.000, 0.750]  rpy [0.000, 0.000, 0.000]", tree)
        self.assertIn("      NeckPan [joints]  xyz [0.000, 0.000, 0.300]  rpy [0.000, 0.000, 0.000]", tree)

        # Case: from the torso, the cup is 2 m ahead and 0.2 m up. Then the robot stands at (2, 1)
        # facing +y (a quarter turn left): the cup is 1 m behind it and turned a quarter right.
        close_to(self, where_is_the_cup(), [[1.0, 0.0, 0.0, 0.0], [2.0, 0.0, 0.2]])
        self.assertIsNone(kq("call", "KQMotion.setRobotPosition", "[2.0, 1.0, 1.5707963]"))
        time.sleep(0.1)  # the world reads the odometry at most every 40 ms
        close_to(self, where_is_the_cup(), [[0.70711, 0.0, 0.0, -0.70711], [-1.0, 0.0, 0.2]])

        # Case: kq events prints the cup's move as one JSON line.
        with subprocess.Popen([kqservice.KQ, "events", "KQWorldRepresentation/PositionChanged", "--url", service.url],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as events:
            self.assertEqual(events.stderr.readline().strip(),
                             "kq: waiting for KQWorldRepresentation/PositionChanged (Ctrl-C to stop)")
            self.assertEqual(kq("call", "KQWorldRepresentation.updatePosition", "cup",
                                "[0.1, 0.0, 0.75, 0.0, 0.0, 0.0]", "true"), 0)
            line = json.loads(events.stdout.readline())
            events.send_signal(signal.SIGINT)
            self.assertEqual(events.wait(30), 0)
        self.assertEqual((line["event"], line["value"][0]), ("KQWorldRepresentation/PositionChanged", "cup"))
        close_to(self, line["value"][1:], [[1.0, 0.0, 0.0, 0.0], [0.1, 0.0, 0.75]])

        # Case: kq echo prints the pose with quaternion and angles in both units.
        with subprocess.Popen([kqservice.KQ, "echo", "Robot_Torso", "cup", "--rate", "5", "--url", service.url],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as echo:
            first = echo.stdout.readline().strip()
            echo.send_signal(signal.SIGINT)
            self.assertEqual(echo.wait(30), 0)
        self.assertEqual(first, "translation [-1.0000, -0.1000, 0.2000]  quaternion [0.7071, 0.0000, 0.0000, -0.7071]"
                                "  rpy [0.0000, 0.0000, -1.5708] rad  [0.00, 0.00, -90.00] deg")

        # Case: Ctrl-C (SIGINT) ends the service with 0.
        self.assertEqual(service.stop(signal.SIGINT), 0)


if __name__ == "__main__":
    kqservice.main()
