"""Two services on one Redis (--memory): an object written through A's KQMemory, or
by redis-cli in the documented encoding, appears in B's world through B's memory
watcher; an event raised in A reaches a WebSocket subscriber of B. A Redis that
cannot be reached ends the start at once with one line naming it.

    perception --> A (KQMemory) --> redis-server <-- B (KQMemory, memory watcher, /ws)
"""

import asyncio
import json
import os
import subprocess
import tempfile
import time
import unittest

import websockets

import kqservice
from kqservice import Service, close_to, start_failure


class Redis:
    """A redis-server of the test's own on a Unix socket, persistence off."""

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="kqredis-")
        self.socket = os.path.join(self.folder.name, "redis.sock")
        self.url = "unix://" + self.socket
        self.process = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "", "--appendonly", "no",
             "--dir", self.folder.name], stdout=subprocess.DEVNULL)
        while self.cli("PING") != "PONG":
            time.sleep(0.05)
        return self

    def __exit__(self, *exc):
        self.process.kill()
        self.process.wait()
        self.folder.cleanup()

    def cli(self, *args):
        done = subprocess.run(["redis-cli", "-s", self.socket] + list(args), capture_output=True, text=True)
        return done.stdout.strip()


def eventually(check, timeout=15.0):
    deadline = time.monotonic() + timeout
    while True:
        try:
            return check()
        except AssertionError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.2)


async def first_event(url, event, trigger):
    async with websockets.connect(url) as socket:
        await socket.send(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "subscribe", "params": [event]}))
        assert json.loads(await asyncio.wait_for(socket.recv(), 30))["result"] is True
        trigger()
        return json.loads(await asyncio.wait_for(socket.recv(), 30))["params"]


class SharedMemoryTest(unittest.TestCase):
    def test_two_services_share_one_world_view(self):
        with Redis() as redis, Service("--memory", redis.url) as a, Service("--memory", redis.url) as b:
            b.world("_startMemoryCheck", 1)
            # Case: a perception script writes the cup through A; B's watcher mirrors it.
            cup = ["cup", "World", [1.0, 2.0, 0.0], "cup.dae", [1.0, 1.0, 1.0], [1.0, 0.0, 0.0]]
            a.call("KQMemory.insertData", "Object/cup", cup)
            eventually(lambda: close_to(self, b.world("getPosition", "World", "cup")[1], [1.0, 2.0, 0.0]))
            # Case: redis-cli writes a plate in the documented encoding; B mirrors it too.
            plate = '["plate","World",[0.5,0.0,0.75],"plate.dae",[1.0,1.0,1.0],[0.0,1.0,0.0]]'
            self.assertEqual(redis.cli("SET", "kq:data:Object/plate", plate), "OK")
            eventually(lambda: close_to(self, b.world("getPosition", "World", "plate")[1], [0.5, 0.0, 0.75]))
            self.assertEqual(json.loads(redis.cli("GET", "kq:data:Object/cup")), cup)
            # Case: an event raised in A reaches B's WebSocket subscriber.
            params = asyncio.run(first_event("ws://127.0.0.1:%d/ws" % b.port, "Perception/Seen",
                                             lambda: a.call("KQMemory.raiseEvent", "Perception/Seen", ["cup", 1])))
            self.assertEqual(params, ["Perception/Seen", ["cup", 1]])

    def test_unreachable_memory_ends_the_start(self):
        url = "unix:///nonexistent/kq-redis.sock"
        with tempfile.TemporaryDirectory() as folder:
            status, lines = start_failure("--port", "0", "--data-dir", folder, "--memory", url)
        self.assertEqual(status, 1)
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(url, lines[0])


if __name__ == "__main__":
    kqservice.main()
