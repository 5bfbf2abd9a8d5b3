"""kqbroker hosting module libraries given with --load: the world model's library
serves what kqworldrepresentation serves, beside the example module, which calls the
world model in the same broker; libraries that cannot be loaded end the start."""

import os
import unittest

import kqservice
from kqservice import Service, start_failure

BROKER, WORLD, EXAMPLE, MIDDLEWARE = (os.environ[name] for name in (
    "KQ_BROKER", "KQ_WORLD_LIBRARY", "KQ_EXAMPLE_LIBRARY", "KQ_MIDDLEWARE_LIBRARY"))


class BrokerTest(unittest.TestCase):
    def test_world_model_and_example_module(self):
        service = Service("--load", WORLD, "--load", EXAMPLE, binary=BROKER).start()
        self.addCleanup(service.close)
        self.assertEqual(service.call("broker.modules"), ["KQMemory", "KQMotion", "KQWorldRepresentation", "Waypoints"])
        self.assertEqual(service.world("createObjectCategory", "furniture", False), 0)
        for name, x in (("table", 2.0), ("chair", -1.0)):
            self.assertEqual(service.world("storeObject", name, "World", [x, 0, 0, 0, 0, 0], "furniture", []), 0)
        service.call("Waypoints.setWaypoint", "door", [-1.5, 0.5, 0.0])
        self.assertEqual(service.call("Waypoints.nearestObject", "door"), "chair")
        self.assertEqual(service.stop(), 0)
        with open(os.path.join(service.data_dir, "nodes.xml")) as nodes:
            self.assertIn("chair", nodes.read())

    def test_libraries_that_cannot_load(self):
        cases = [
            (["--load", "/nonexistent/libnothing.so"], "/nonexistent/libnothing.so"),
            (["--load", MIDDLEWARE], "no _createModule entry point"),
            (["--load", WORLD, "--load", WORLD], "_createModule failed"),
        ]
        for args, expected in cases:
            with self.subTest(args=args):
                folder = self.enterContext(kqservice.tempfile.TemporaryDirectory())
                status, lines = start_failure("--port", "0", "--data-dir", folder, *args, binary=BROKER)
                self.assertEqual(status, 1)
                self.assertEqual(len(lines), 1, lines)
                self.assertTrue(lines[0].startswith("kqbroker: Cannot load module library "), lines)
                self.assertIn(expected, lines[0])


if __name__ == "__main__":
    kqservice.main()
