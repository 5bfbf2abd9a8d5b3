"""The README's five-minute walkthrough, command for command, against the real
binary: curl and kq store a table and a cup, ask where the cup is from the
robot's torso, move the robot and ask again, watch events, echo a pose, and
stop the service cleanly.

The world of the walkthrough (default robot, torso 0.55 m above the ground):

    World
    |-- Robot            (odometry, moved with KQMotion.setRobotPosition)
    |   `-- Robot_Torso  (z 0.55)
    |       `-- NeckPan, ..., RightWheel
    `-- table            (x 2)
        `-- cup          (z 0.75 over the table)
"""

import json
import os
import signal
import subprocess
import time
import unittest

import kqservice
from kqservice import Service, close_to, run_curl, run_kq


class WalkthroughTest(unittest.TestCase):
    def setUp(self):
        self.service = Service().start()
        self.url = self.service.url

    def tearDown(self):
        self.service.stop()
        self.service.cleanup()

    def kq_json(self, *args):
        return json.loads(run_kq(*args, url=self.url).stdout)

    def test_walkthrough(self):
        # Case: a category made with curl, objects stored with kq.
        status, body = run_curl(self.url + "/rpc", json.dumps({
            "jsonrpc": "2.0", "id": 1, "method": "KQWorldRepresentation.createObjectCategory",
            "params": ["furniture", False]}))
        self.assertEqual(status, 200)
        self.assertEqual(json.loads(body), {"jsonrpc": "2.0", "id": 1, "result": 0})
        self.assertEqual(self.kq_json("call", "KQWorldRepresentation.storeObject", "table", "World",
                                      "[2.0, 0.0, 0.0, 0.0, 0.0, 0.0]", "furniture", "[]"), 0)
        self.assertEqual(self.kq_json("call", "KQWorldRepresentation.storeObject", "cup", "table",
                                      "[0.0, 0.0, 0.75, 0.0, 0.0, 0.0]", "furniture", "[]"), 0)

        # Case: the tree shows the cup under the table, with its category.
        tree = run_kq("tree", url=self.url).stdout.splitlines()
        self.assertEqual(tree[0], "World [root]")
        self.assertIn("  table [furniture]  xyz [2.000, 0.000, 0.000]  rpy [0.000, 0.000, 0.000]", tree)
        self.assertIn("    cup [furniture]  xyz [0.000, 0.000, 0.750]  rpy [0.000, 0.000, 0.000]", tree)
        self.assertIn("    Robot_Torso [frame]  xyz [0.000, 0.000, 0.550]  rpy [0.000, 0.000, 0.000]", tree)
        self.assertIn("      NeckPan [joints]  xyz [0.000, 0.000, 0.300]  rpy [0.000, 0.000, 0.000]", tree)

        # Case: from the torso, the cup is 2 m ahead and 0.2 m up.
        close_to(self, self.kq_json("call", "KQWorldRepresentation.getPosition", "Robot_Torso", "cup"),
                 [[1.0, 0.0, 0.0, 0.0], [2.0, 0.0, 0.2]])

        # Case: the robot drives 1 m forward: the cup is 1 m ahead. Then it
        # stands at (2, 1) facing +y (a quarter turn left): the cup is 1 m
        # behind it and turned a quarter right.
        self.assertIsNone(self.kq_json("call", "KQMotion.setRobotPosition", "[1.0, 0.0, 0.0]"))
        time.sleep(0.1)  # the world reads the odometry at most every 40 ms
        close_to(self, self.kq_json("call", "KQWorldRepresentation.getPosition", "Robot_Torso", "cup"),
                 [[1.0, 0.0, 0.0, 0.0], [1.0, 0.0, 0.2]])
        self.kq_json("call", "KQMotion.setRobotPosition", "[2.0, 1.0, 1.5707963]")
        time.sleep(0.1)
        close_to(self, self.kq_json("call", "KQWorldRepresentation.getPosition", "Robot_Torso", "cup"),
                 [[0.70711, 0.0, 0.0, -0.70711], [-1.0, 0.0, 0.2]])

        # Case: kq events prints the cup's move as one JSON line.
        events = subprocess.Popen([kqservice.KQ, "events", "KQWorldRepresentation/PositionChanged",
                                   "--url", self.url], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            self.assertEqual(events.stderr.readline().strip(),
                             "kq: waiting for KQWorldRepresentation/PositionChanged (Ctrl-C to stop)")
            self.assertEqual(self.kq_json("call", "KQWorldRepresentation.updatePosition", "cup",
                                          "[0.1, 0.0, 0.75, 0.0, 0.0, 0.0]", "true"), 0)
            line = json.loads(events.stdout.readline())
            self.assertEqual(line["event"], "KQWorldRepresentation/PositionChanged")
            self.assertEqual(line["value"][0], "cup")
            close_to(self, line["value"][1:], [[1.0, 0.0, 0.0, 0.0], [0.1, 0.0, 0.75]])
        finally:
            events.send_signal(signal.SIGINT)
            self.assertEqual(events.wait(30), 0)
            events.stdout.close()
            events.stderr.close()

        # Case: kq echo prints the pose with quaternion and angles in both units.
        echo = subprocess.Popen([kqservice.KQ, "echo", "Robot_Torso", "cup", "--rate", "5", "--url", self.url],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            first = echo.stdout.readline().strip()
        finally:
            echo.send_signal(signal.SIGINT)
            self.assertEqual(echo.wait(30), 0)
            echo.stdout.close()
            echo.stderr.close()
        self.assertEqual(first, "translation [-1.0000, -0.1000, 0.2000]  quaternion [0.7071, 0.0000, 0.0000, -0.7071]"
                                "  rpy [0.0000, 0.0000, -1.5708] rad  [0.00, 0.00, -90.00] deg")

        # Case: Ctrl-C (SIGINT) saves the world and ends with 0.
        self.assertEqual(self.service.stop(signal.SIGINT), 0)
        for name in ("nodes.xml", "edges.xml", "furniture.sqlite"):
            self.assertTrue(os.path.isfile(os.path.join(self.service.data_dir, name)), name)


if __name__ == "__main__":
    kqservice.main()
