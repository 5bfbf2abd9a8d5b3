"""A second process started with --parent: it hosts only the world model and
uses the parent's KQMemory and KQMotion over the network, so the robot that
the parent drives is the robot the child sees, and the child's events are
raised in the parent's memory.

    parent (KQMemory, KQMotion, KQWorldRepresentation)  <--  child (KQWorldRepresentation)
"""

import asyncio
import json
import os
import shutil
import tempfile
import time
import unittest

import websockets

import kqservice
from kqservice import Service, close_to, free_port, start_failure


async def first_event(url, event, trigger):
    """Subscribes at url, runs trigger(), returns the first event's params."""
    async with websockets.connect(url) as socket:
        await socket.send(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "subscribe", "params": [event]}))
        reply = json.loads(await asyncio.wait_for(socket.recv(), 30))
        assert "error" not in reply, reply
        trigger()
        message = json.loads(await asyncio.wait_for(socket.recv(), 30))
        assert message.get("method") == "event", message
        return message["params"]


class ParentTest(unittest.TestCase):
    def test_child_uses_the_parents_robot_and_memory(self):
        with Service(token="shared") as parent:
            with Service("--parent", parent.url, token="shared") as child:
                # Case: the child hosts only the world model.
                self.assertEqual(child.call("broker.modules"), ["KQWorldRepresentation"])
                # Case: its joints are the parent robot's.
                self.assertIn("LeftElbowBend", child.world("getObjectNames"))

                # Case: the parent's robot moves; the child's world follows.
                parent.call("KQMotion.setRobotPosition", [1.5, -0.5, 0.0])
                time.sleep(0.1)  # odometry is read at most every 40 ms
                close_to(self, child.world("getPosition", "World", "Robot_Torso"),
                         [[1.0, 0.0, 0.0, 0.0], [1.5, -0.5, 0.55]])
                # Case: the joints follow the parent's setAngles too.
                parent.call("KQMotion.setAngles", ["NeckPan"], [1.0])
                close_to(self, child.world("getPosition6D", "Robot_Torso", "NeckPan")[5], 1.0)

                # Case: the child's events are raised in the parent's memory,
                # where a subscriber of the parent hears them ...
                self.assertEqual(child.world("createObjectCategory", "boxes", False), 0)
                self.assertEqual(child.world("storeObject", "box", "World", [0.0] * 6, "boxes", []), 0)
                params = asyncio.run(first_event(
                    "ws://127.0.0.1:%d/ws?token=shared" % parent.port, "KQWorldRepresentation/PositionChanged",
                    lambda: child.world("updatePosition", "box", [3.0, 0.0, 0.0, 0.0, 0.0, 0.0], False)))
                self.assertEqual(params[1][0], "box")
                # ... and a subscriber of the child too (the child subscribes
                # at the parent for it).
                params = asyncio.run(first_event(
                    "ws://127.0.0.1:%d/ws?token=shared" % child.port, "KQWorldRepresentation/PositionChanged",
                    lambda: child.world("updatePosition", "box", [4.0, 0.0, 0.0, 0.0, 0.0, 0.0], False)))
                close_to(self, params[1][2], [4.0, 0.0, 0.0])

                # Case: the child stops cleanly; the parent keeps serving.
                self.assertEqual(child.stop(), 0)
                self.assertTrue(os.path.isfile(os.path.join(child.data_dir, "nodes.xml")))
                self.assertEqual(parent.call("broker.modules"), ["KQMemory", "KQMotion", "KQWorldRepresentation"])

    def test_unreachable_parent_ends_the_start(self):
        port = free_port()
        folder = tempfile.mkdtemp(prefix="kqe2e-")
        try:
            status, lines = start_failure("--port", str(free_port()), "--data-dir", folder,
                                          "--parent", "http://127.0.0.1:%d" % port)
        finally:
            shutil.rmtree(folder, ignore_errors=True)
        self.assertEqual(status, 1)
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith(
            "kqworldrepresentation: Cannot reach parent broker http://127.0.0.1:%d: " % port), lines[0])


if __name__ == "__main__":
    kqservice.main()
