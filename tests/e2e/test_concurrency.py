"""Eight clients at once against the real binary, each on its own keep-alive
connection: storing, moving and reading their own objects while reading the
shared tree. Nothing may be lost, mixed up between clients, or deadlocked."""

import http.client
import json
import threading
import unittest

import kqservice
from kqservice import Service

CLIENTS = 8
ROUNDS = 25


class Client:
    def __init__(self, port):
        self.connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
        self.next_id = 1

    def call(self, method, *params):
        request_id = self.next_id
        self.next_id += 1
        self.connection.request("POST", "/rpc", body=json.dumps(
            {"jsonrpc": "2.0", "id": request_id, "method": "KQWorldRepresentation." + method,
             "params": list(params)}), headers={"Content-Type": "application/json"})
        reply = json.loads(self.connection.getresponse().read())
        if reply.get("id") != request_id or "error" in reply:
            raise AssertionError("%s: %r" % (method, reply))
        return reply["result"]


class ConcurrencyTest(unittest.TestCase):
    def test_eight_clients(self):
        with Service() as service:
            self.assertEqual(service.world("createObjectCategory", "parts", False), 0)
            self.assertEqual(service.world("storeObject", "bench", "World", [0.0] * 6, "parts", []), 0)
            failures = []

            def work(index):
                client = Client(service.port)
                try:
                    name = "part%d" % index
                    if client.call("storeObject", name, "bench", [float(index), 0.0, 0.0, 0.0, 0.0, 0.0],
                                   "parts", []) != 0:
                        raise AssertionError("store of %s refused" % name)
                    for step in range(ROUNDS):
                        x = index + step / 100.0
                        if client.call("updatePosition", name, [x, 1.0, 0.0, 0.0, 0.0, 0.0], step % 5 == 0) != 0:
                            raise AssertionError("move of %s refused" % name)
                        # Each client reads back its own latest move.
                        _, translation = client.call("getPosition", "bench", name)
                        if abs(translation[0] - x) > 1e-4 or abs(translation[1] - 1.0) > 1e-4:
                            raise AssertionError("%s read %r after moving to %r" % (name, translation, x))
                        client.call("getPosition", "Robot_Torso", name)
                        client.call("getObjectNames")
                except Exception as error:  # reported by the main thread
                    failures.append("client %d: %s" % (index, error))
                finally:
                    client.connection.close()

            threads = [threading.Thread(target=work, args=(i,)) for i in range(CLIENTS)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(240)
            self.assertFalse(any(thread.is_alive() for thread in threads), "a client hangs")
            self.assertEqual(failures, [])
            self.assertEqual(sorted(service.world("getChildrenNames", "bench")),
                             ["part%d" % i for i in range(CLIENTS)])
            # Every fifth move was saved: 1 stored row + 5 history rows each.
            rows = service.world("select", "ObjectName='part3'", "parts", "positions", "X")
            self.assertEqual(len(rows), 1 + ROUNDS // 5)
            self.assertEqual(service.stop(), 0)


if __name__ == "__main__":
    kqservice.main()
