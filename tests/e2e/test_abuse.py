"""The real service against a hostile and greedy client on loopback, bounded in time: it stays alive, under a
memory bound, answers getRootName within 100 ms throughout, logs no forged line, refuses connections past
--max-connections with 503 (one log line a second), and SIGTERM with the watcher asleep for years saves and ends."""
import http.client
import json
import os
import signal
import socket
import threading
import time
import unittest

import kqservice
from kqservice import Service

UPGRADE_WITH_BODY = (b"GET /ws HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                     b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                     b"Content-Length: 100000000000\r\n\r\n")


def rss_mib(pid):
    with open("/proc/%d/status" % pid) as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS")) / 1024


def raw(port, data, wait=5):
    with socket.create_connection(("127.0.0.1", port), timeout=wait) as s:
        s.sendall(data)
        return s.recv(200)


class AbuseTest(kqservice.FolderTest):
    def test_the_service_outlives_abuse_and_answers_throughout(self):
        with Service("--max-connections", "32", "--request-timeout", "2") as service:
            times, stop = [], threading.Event()

            def watch():  # getRootName every 50 ms on one kept-alive connection
                connection = http.client.HTTPConnection("127.0.0.1", service.port, timeout=30)
                body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "KQWorldRepresentation.getRootName"})
                while not stop.is_set():
                    start = time.monotonic()
                    connection.request("POST", "/rpc", body, {"Content-Type": "application/json"})
                    self.assertIn(b'"result"', connection.getresponse().read())
                    times.append(time.monotonic() - start)
                    time.sleep(0.05)
                connection.close()

            watcher = threading.Thread(target=watch)
            watcher.start()
            self.assertTrue(raw(service.port, UPGRADE_WITH_BODY).startswith(b"HTTP/1.1 400"))
            forged = "zz\n2026-11-23 03:00:00.000000 error [KQRpcServer] xAccept: FORGED LINE\x1b[31m" + "n" * 100000
            self.assertEqual(service.world("getObjectCategory", forged), "")
            service.call("KQMemory.insertData", "big", "x" * 900000)
            status, body = service.post(json.dumps([{"jsonrpc": "2.0", "id": i, "method": "KQMemory.getData",
                                                     "params": ["big"]} for i in range(100)]))
            self.assertLess(len(body), 17 << 20)
            self.assertEqual(json.loads(body)[-1]["error"]["message"], "reply too large")
            # The watcher asleep for ~68 years; four stops at once all return at once.
            service.world("_startMemoryCheck", 2147483647)
            stoppers = [threading.Thread(target=service.world, args=("_stopMemoryCheck",)) for _ in range(4)]
            start = time.monotonic()
            [s.start() for s in stoppers]
            [s.join() for s in stoppers]
            self.assertLess(time.monotonic() - start, 1.0)
            # Silent connections past the bound are answered 503 at once; the others end at the request deadline.
            idle = [socket.create_connection(("127.0.0.1", service.port)) for _ in range(60)]
            answers = []
            for s in idle[40:]:
                s.settimeout(5)
                answers.append(s.recv(100))
            self.assertTrue(all(a.startswith(b"HTTP/1.1 503") for a in answers), answers)
            time.sleep(2.5)
            [s.close() for s in idle]
            self.assertLess(rss_mib(service.process.pid), 256)
            stop.set()
            watcher.join()
            self.assertGreater(len(times), 20)
            self.assertLess(max(times), 0.1, sorted(times)[-5:])
            service.world("_startMemoryCheck", 2147483647)
            start = time.monotonic()
            self.assertEqual(service.stop(signal.SIGTERM), 0)
            self.assertLess(time.monotonic() - start, 1.0)
            self.assertTrue(os.path.exists(os.path.join(service.data_dir, "nodes.xml")))
            log = service.stderr_text()
            self.assertNotIn("\x1b", log)
            self.assertFalse(any(line.startswith("2026-11-23 03:00") for line in log.splitlines()))
            self.assertLess(max(len(line) for line in log.splitlines()), 2048)
            self.assertLessEqual(log.count("connections are open"), 4)


if __name__ == "__main__":
    kqservice.main()
