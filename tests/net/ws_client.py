"""ws_client.py WS_URL STEP...: steps in order; the WebSocket connects when first needed. send:TEXT; recv (print the
next message); closed (read until closed, print "closed CODE", or "still open" after 30 s of silence); abort (drop TCP
without a close handshake, stop); post:TEXT (POST to /rpc, print the reply, reading nothing else meanwhile); raw:TEXT
(new TCP connection, print repr() of all it gets); trickle:TEXT (new TCP connection: TEXT, then a byte every 0.5 s;
print "closed after N s", whole seconds)."""
import asyncio
import http.client
import socket
import sys
import time
import urllib.parse

import websockets


async def main(url, steps):
    where = urllib.parse.urlsplit(url)
    ws = None
    for step in steps:
        kind, _, text = step.partition(":")
        if kind == "raw":
            with socket.create_connection((where.hostname, where.port), timeout=60) as raw:
                got = []
                try:  # a server that refuses may reset the connection once it has answered
                    raw.sendall(text.encode())
                    got.extend(iter(lambda: raw.recv(65536), b""))
                except ConnectionResetError:
                    pass
                print(repr(b"".join(got)))
        elif kind == "trickle":
            with socket.create_connection((where.hostname, where.port), timeout=0.5) as raw:
                start = time.monotonic()
                try:  # the end of the server's sending is no close: the byte that is reset is
                    raw.sendall(text.encode())
                    while time.monotonic() - start < 30:
                        try:
                            raw.recv(65536) or time.sleep(0.5) or raw.sendall(b"x")
                        except socket.timeout:
                            raw.sendall(b"x")
                except OSError:
                    pass
                print("closed after %d s" % (time.monotonic() - start))
        elif kind == "post":
            connection = http.client.HTTPConnection(where.hostname, where.port, timeout=120)
            connection.request("POST", "/rpc", body=text, headers={"Content-Type": "application/json"})
            print(connection.getresponse().read().decode())
        else:
            ws = ws or await websockets.connect(url, max_size=None, max_queue=1)
            if kind == "send":
                await ws.send(text)
            elif kind == "recv":
                print(await asyncio.wait_for(ws.recv(), 60))
            elif kind == "closed":
                try:
                    while True:
                        await asyncio.wait_for(ws.recv(), 30)
                except websockets.exceptions.ConnectionClosed as e:
                    print("closed", e.rcvd.code if e.rcvd else None)
                except asyncio.TimeoutError:
                    print("still open")
            elif kind == "abort":
                ws.transport.abort()
                return
    if ws:
        await ws.close()


asyncio.run(main(sys.argv[1], sys.argv[2:]))
