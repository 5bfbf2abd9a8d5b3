"""Events of the real binary over its WebSocket, read with the Debian
websockets package: the world model's PositionChanged, AttributeChanged and
DisplayRequired, an event any client raises in KQMemory, unsubscribing, and
objects published under memory keys turned into world objects."""

import asyncio
import json
import time
import unittest

import websockets

import kqservice
from kqservice import Service, close_to

TIMEOUT = 30


class Subscriber:
    """One WebSocket client: JSON-RPC calls plus event notifications."""

    def __init__(self, url):
        self.url = url
        self.next_id = 1
        self.events = []

    async def __aenter__(self):
        self.socket = await websockets.connect(self.url)
        return self

    async def __aexit__(self, *exc):
        await self.socket.close()

    async def call(self, method, *params):
        request_id = self.next_id
        self.next_id += 1
        await self.socket.send(json.dumps({"jsonrpc": "2.0", "id": request_id, "method": method,
                                           "params": list(params)}))
        while True:
            message = json.loads(await asyncio.wait_for(self.socket.recv(), TIMEOUT))
            if message.get("method") == "event":
                self.events.append(message["params"])
                continue
            self.assert_reply(message, request_id)
            return message.get("result")

    @staticmethod
    def assert_reply(message, request_id):
        if message.get("id") != request_id:
            raise AssertionError("unexpected message %r" % message)
        if "error" in message:
            raise AssertionError("call failed: %r" % message["error"])

    async def next_event(self):
        if self.events:
            return self.events.pop(0)
        message = json.loads(await asyncio.wait_for(self.socket.recv(), TIMEOUT))
        if message.get("method") != "event":
            raise AssertionError("expected an event, got %r" % message)
        return message["params"]

    async def no_event_within(self, seconds):
        try:
            message = await asyncio.wait_for(self.socket.recv(), seconds)
        except asyncio.TimeoutError:
            return True
        raise AssertionError("unexpected message %r" % message)


class EventsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.service = Service().start()
        cls.ws_url = "ws://127.0.0.1:%d/ws" % cls.service.port
        world = cls.service.world
        assert world("createObjectCategory", "furniture", False) == 0
        assert world("addAttributeToCategory", "furniture", "color", [["name", "text"]]) == 0
        assert world("storeObject", "table", "World", [2.0, 0.0, 0.0, 0.0, 0.0, 0.0], "furniture", []) == 0
        assert world("storeObject", "cup", "table", [0.0, 0.0, 0.75, 0.0, 0.0, 0.0], "furniture", []) == 0

    @classmethod
    def tearDownClass(cls):
        cls.service.stop()
        cls.service.cleanup()

    def run_async(self, story):
        asyncio.run(asyncio.wait_for(story(), 120))

    def test_position_changes_reach_subscribers_until_they_leave(self):
        async def story():
            async with Subscriber(self.ws_url) as client:
                await client.call("subscribe", "KQWorldRepresentation/PositionChanged")
                # Case: a move made by another client (HTTP) reaches the
                # WebSocket as {"method":"event","params":[name, value]}.
                self.assertEqual(self.service.world("updatePosition", "cup", [0.1, 0.2, 0.75, 0.0, 0.0, 0.0],
                                                    False), 0)
                name, value = await client.next_event()
                self.assertEqual(name, "KQWorldRepresentation/PositionChanged")
                self.assertEqual(value[0], "cup")
                close_to(self, value[1:], [[1.0, 0.0, 0.0, 0.0], [0.1, 0.2, 0.75]])
                # Case: a move of a joint changes nothing and raises nothing;
                # after unsubscribing, moves are silent.
                self.assertEqual(self.service.world("updatePosition", "NeckPan", [0.0] * 6, False), 0)
                await client.call("unsubscribe", "KQWorldRepresentation/PositionChanged")
                self.service.world("updatePosition", "cup", [0.0, 0.0, 0.75, 0.0, 0.0, 0.0], False)
                await client.no_event_within(0.5)
        self.run_async(story)

    def test_attribute_and_display_events(self):
        async def story():
            async with Subscriber(self.ws_url) as client:
                await client.call("subscribe", "KQWorldRepresentation/AttributeChanged")
                await client.call("subscribe", "KQWorldRepresentation/DisplayRequired")
                world = self.service.world
                self.assertEqual(world("storeObjectAttribute", "cup", "color", [["name", "red"]]), 0)
                # Case: an update raises AttributeChanged with the values as given.
                self.assertEqual(world("updateAttribute", "cup", "color", "1", [["name", "blue"]]), 0)
                self.assertEqual(await client.next_event(),
                                 ["KQWorldRepresentation/AttributeChanged", ["cup", "color", [["name", "blue"]]]])
                # Case: a Display attribute puts the cup on the display list.
                display = [["colorR", 1.0], ["colorG", 0.0], ["colorB", 0.0], ["scaleX", 0.1], ["scaleY", 0.1],
                           ["scaleZ", 0.1], ["model", "cup.dae"]]
                self.assertEqual(world("storeObjectAttribute", "cup", "Display", display), 0)
                self.assertEqual(await client.next_event(), ["KQWorldRepresentation/DisplayRequired", ["cup"]])
                # Case: the list is kept in KQMemory under the event's name.
                self.assertEqual(self.service.call("KQMemory.getData", "KQWorldRepresentation/DisplayRequired"),
                                 ["cup"])
        self.run_async(story)

    def test_any_client_can_raise_and_watch_its_own_events(self):
        async def story():
            async with Subscriber(self.ws_url) as watcher:
                await watcher.call("subscribe", "Lab/DoorOpened")
                # Case: raising through HTTP stores the value and notifies.
                self.service.call("KQMemory.raiseEvent", "Lab/DoorOpened", ["north", 1.5])
                self.assertEqual(await watcher.next_event(), ["Lab/DoorOpened", ["north", 1.5]])
                self.assertEqual(self.service.call("KQMemory.getData", "Lab/DoorOpened"), ["north", 1.5])
                self.assertIn("Lab/DoorOpened", self.service.call("KQMemory.getEventList"))
        self.run_async(story)

    def test_objects_published_in_memory_become_world_objects(self):
        call = self.service.call
        # Case: another module publishes a ball under "Object/ball"; the
        # watcher stores it under World in "kqmemoryobjects" and displays it.
        call("KQMemory.insertData", "Object/ball",
             ["ball", "World", [1.0, 2.0, 0.0], "ball.dae", [0.2, 0.2, 0.2], [1.0, 1.0, 0.0]])
        call("KQWorldRepresentation._startMemoryCheck", 1)
        try:
            deadline = time.monotonic() + TIMEOUT
            while not self.service.world("findObject", "ball") and time.monotonic() < deadline:
                time.sleep(0.1)
            self.assertTrue(self.service.world("findObject", "ball"))
            self.assertEqual(self.service.world("getObjectCategory", "ball"), "kqmemoryobjects")
            close_to(self, self.service.world("getPosition", "World", "ball"), [[1.0, 0.0, 0.0, 0.0], [1.0, 2.0, 0.0]])
        finally:
            call("KQWorldRepresentation._stopMemoryCheck")
        # Case: stopping the watcher takes the ball off the display; it stays
        # in the world.
        self.assertNotIn("ball", call("KQMemory.getData", "KQWorldRepresentation/DisplayRequired"))
        self.assertTrue(self.service.world("findObject", "ball"))


if __name__ == "__main__":
    kqservice.main()
