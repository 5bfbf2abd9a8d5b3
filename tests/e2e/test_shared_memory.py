"""Two services on one Redis (--memory) share one world view (README's walkthrough);
an unreachable Redis ends the start with one line."""

import asyncio
import os
import subprocess
import tempfile
import time
import unittest

import kqservice
from kqservice import Service, close_to, start_failure
from test_parent import first_event


class Redis:
    """A redis-server of the test's own on a Unix socket, persistence off."""

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="kqredis-")
        self.socket = os.path.join(self.folder.name, "redis.sock")
        self.url = "unix://" + self.socket
        self.process = subprocess.Popen(["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "",
                                         "--appendonly", "no", "--dir", self.folder.name], stdout=subprocess.DEVNULL)
        while self.cli("PING") != "PONG":
            time.sleep(0.05)
        return self

    def __exit__(self, *exc):
        self.process.kill(), self.process.wait(), self.folder.cleanup()

    def cli(self, *args):
        return subprocess.run(["redis-cli", "-s", self.socket] + list(args), capture_output=True, text=True).stdout.strip()


def eventually(check, tries=75):
    for _ in range(tries):
        try:
            return check()
        except (AssertionError, IndexError, TypeError):  # not there yet
            time.sleep(0.2)
    return check()


class SharedMemoryTest(unittest.TestCase):
    def test_two_services_share_one_world_view(self):
        with Redis() as redis, Service("--memory", redis.url) as a, Service("--memory", redis.url) as b:
            b.world("_startMemoryCheck", 1)
            # Case: a perception script writes the cup through A; B's watcher mirrors it.
            cup = ["cup", "World", [1.0, 2.0, 0.0], "cup.dae", [1.0, 1.0, 1.0], [1.0, 0.0, 0.0]]
            a.call("KQMemory.insertData", "Object/cup", cup)
            eventually(lambda: close_to(self, b.world("getPosition", "World", "cup")[1], [1.0, 2.0, 0.0]))
            # Case: redis-cli writes a plate in the documented encoding; B mirrors it too.
            redis.cli("SET", "kq:data:Object/plate", '["plate","World",[0.5,0.0,0.75],"p.dae",[1.0,1.0,1.0],[0.0,1.0,0.0]]')
            eventually(lambda: close_to(self, b.world("getPosition", "World", "plate")[1], [0.5, 0.0, 0.75]))
            # Case: an event raised in A reaches B's WebSocket subscriber.
            params = asyncio.run(first_event("ws://127.0.0.1:%d/ws" % b.port, "Perception/Seen",
                                             lambda: a.call("KQMemory.raiseEvent", "Perception/Seen", ["cup", 1])))
            self.assertEqual(params, ["Perception/Seen", ["cup", 1]])

    def test_unreachable_memory_ends_the_start(self):
        with tempfile.TemporaryDirectory() as folder:
            status, lines = start_failure("--port", "0", "--data-dir", folder, "--memory", "unix:///nonexistent/r.sock")
        self.assertEqual((status, len(lines)), (1, 1), lines)
        self.assertIn("unix:///nonexistent/r.sock", lines[0])


if __name__ == "__main__":
    kqservice.main()
