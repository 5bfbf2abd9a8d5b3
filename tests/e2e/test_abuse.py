"""The real service against a hostile, greedy client on loopback: alive, under a memory bound, getRootName within 100 ms
throughout, no forged log line, 503 past --max-connections, and SIGTERM with the watcher asleep for years saves."""
import http.client
import json
import os
import signal
import socket
import threading
import time

import kqservice
from kqservice import Service

UPGRADE_WITH_BODY = (b"GET /ws HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-"
                     b"Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nContent-Length: 100000000000\r\n\r\n")


class AbuseTest(kqservice.FolderTest):
    def test_the_service_outlives_abuse_and_answers_throughout(self):
        with Service("--max-connections", "32", "--request-timeout", "2") as service:
            times, stop = [], threading.Event()

            def watch():  # getRootName every 50 ms on one kept-alive connection
                connection = http.client.HTTPConnection("127.0.0.1", service.port, timeout=30)
                body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "KQWorldRepresentation.getRootName"})
                while not stop.wait(0.05):
                    start = time.monotonic()
                    connection.request("POST", "/rpc", body, {"Content-Type": "application/json"})
                    self.assertIn(b'"result"', connection.getresponse().read())
                    times.append(time.monotonic() - start)
                connection.close()

            watcher = threading.Thread(target=watch)
            watcher.start()
            with socket.create_connection(("127.0.0.1", service.port), timeout=5) as s:
                s.sendall(UPGRADE_WITH_BODY)
                self.assertTrue(s.recv(100).startswith(b"HTTP/1.1 400"))
            forged = "zz\n2026-11-23 03:00:00.000000 error [KQRpcServer] xAccept: FORGED LINE\x1b[31m" + "n" * 100000
            service.world("getObjectCategory", forged)
            service.call("KQMemory.insertData", "big", "x" * 900000)
            status, body = service.post(json.dumps([{"jsonrpc": "2.0", "id": i, "method": "KQMemory.getData",
                                                     "params": ["big"]} for i in range(100)]))
            self.assertLess(len(body), 17 << 20)
            self.assertEqual(json.loads(body)[-1]["error"]["message"], "reply too large")
            # The watcher asleep for ~68 years; four stops at once all return at once.
            service.world("_startMemoryCheck", 2147483647)
            stoppers = [threading.Thread(target=service.world, args=("_stopMemoryCheck",)) for _ in range(4)]
            start = time.monotonic()
            [s.start() for s in stoppers] and [s.join() for s in stoppers]
            self.assertLess(time.monotonic() - start, 1.0)
            # Silent connections past the bound are answered 503 at once; the others end at the request deadline.
            idle = [socket.create_connection(("127.0.0.1", service.port), timeout=5) for _ in range(60)]
            answers = [s.recv(100) for s in idle[40:]]
            self.assertTrue(all(a.startswith(b"HTTP/1.1 503") for a in answers), answers)
            time.sleep(2.5) or [s.close() for s in idle]
            with open("/proc/%d/status" % service.process.pid) as f:
                # (AddressSanitizer's shadow and quarantine add their own hundreds of MiB.)
                bound = (1 << 20) if "ASAN_OPTIONS" in os.environ else 256 << 10
                self.assertLess(next(int(line.split()[1]) for line in f if line.startswith("VmRSS")), bound)
            stop.set() or watcher.join()
            self.assertGreater(len(times), 20)
            # 100 ms for nine in ten, and a liveness bound for all: a busy 2-core machine stalls the client too.
            self.assertTrue(sorted(times)[len(times) * 9 // 10] < 0.1 and max(times) < 1.0, sorted(times)[-5:])
            service.world("_startMemoryCheck", 2147483647)
            start = time.monotonic()
            self.assertEqual(service.stop(signal.SIGTERM), 0)
            self.assertLess(time.monotonic() - start, 1.0)
            self.assertTrue(os.path.exists(os.path.join(service.data_dir, "nodes.xml")))
            lines = service.stderr_text().splitlines()
            self.assertFalse(any("\x1b" in line or line.startswith("2026-11-23 03:00") for line in lines))
            self.assertLess(max(len(line) for line in lines), 2048)
            self.assertLessEqual(sum("connections are open" in line for line in lines), 4)


if __name__ == "__main__":
    kqservice.main()
