"""A second process started with --parent hosts only the world model and uses the
parent's KQMemory and KQMotion over the network: the parent's robot is the child's,
and the child's events are raised in the parent's memory.

    parent (KQMemory, KQMotion, KQWorldRepresentation)  <--  child (KQWorldRepresentation)
"""

import asyncio
import json
import os
import time
import unittest

import websockets

import kqservice
from kqservice import Service, close_to


async def first_event(url, event, trigger):
    """Subscribes at url, runs trigger(), returns the first event's params."""
    async with websockets.connect(url) as socket:
        await socket.send(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "subscribe", "params": [event]}))
        assert json.loads(await asyncio.wait_for(socket.recv(), 30))["result"] is True
        trigger()
        return json.loads(await asyncio.wait_for(socket.recv(), 30))["params"]


class ParentTest(unittest.TestCase):
    def test_child_uses_the_parents_robot_and_memory(self):
        with Service(token="shared") as parent, Service("--parent", parent.url, token="shared") as child:
            self.assertEqual(child.call("broker.modules"), ["KQWorldRepresentation"])
            # Case: the parent's robot moves and turns a joint; the child's world follows.
            parent.call("KQMotion.setRobotPosition", [1.5, -0.5, 0.0])
            parent.call("KQMotion.setAngles", ["NeckPan"], [1.0])
            time.sleep(0.1)  # odometry is read at most every 40 ms
            close_to(self, child.world("getPosition", "World", "Robot_Torso"), [[1.0, 0.0, 0.0, 0.0], [1.5, -0.5, 0.55]])
            close_to(self, child.world("getPosition6D", "Robot_Torso", "NeckPan")[5], 1.0)
            # Case: the child's events are raised in the parent's memory, where a subscriber of
            # the parent hears them, and one of the child too (the child subscribes at the parent).
            self.assertEqual(child.world("createObjectCategory", "boxes", False), 0)
            self.assertEqual(child.world("storeObject", "box", "World", [0.0] * 6, "boxes", []), 0)
            for service, x in [(parent, 3.0), (child, 4.0)]:
                params = asyncio.run(first_event(
                    "ws://127.0.0.1:%d/ws?token=shared" % service.port, "KQWorldRepresentation/PositionChanged",
                    lambda: child.world("updatePosition", "box", [x, 0.0, 0.0, 0.0, 0.0, 0.0], False)))
                self.assertEqual(params[1][0], "box")
                close_to(self, params[1][2], [x, 0.0, 0.0])
            # Case: the child stops cleanly; the parent keeps serving.
            self.assertEqual(child.stop(), 0)
            self.assertTrue(os.path.isfile(os.path.join(child.data_dir, "nodes.xml")))
            self.assertEqual(parent.call("broker.modules"), ["KQMemory", "KQMotion", "KQWorldRepresentation"])


if __name__ == "__main__":
    kqservice.main()
