"""The network suite's WebSocket client (python's websockets package):
    ws_client.py URL STEP...
Steps, in order:
    >TEXT       send TEXT
    <           print the next message
    <<          read until the server closes, print "closed CODE" ("still open"
                after 30 s of silence)
    post:TEXT   POST TEXT to /rpc of the same server, print the reply; meanwhile
                nothing is read from the WebSocket
    abort       drop the TCP connection without a close handshake, and stop
"""
import asyncio
import http.client
import sys
import urllib.parse

import websockets


async def main(url, steps):
    ws = await websockets.connect(url, max_size=None, max_queue=1)
    for step in steps:
        if step.startswith(">"):
            await ws.send(step[1:])
        elif step == "<":
            print(await asyncio.wait_for(ws.recv(), 60))
        elif step == "<<":
            try:
                while True:
                    await asyncio.wait_for(ws.recv(), 30)
            except websockets.exceptions.ConnectionClosed as e:
                print("closed", e.rcvd.code if e.rcvd else None)
            except asyncio.TimeoutError:
                print("still open")
        elif step.startswith("post:"):
            where = urllib.parse.urlsplit(url)
            connection = http.client.HTTPConnection(where.hostname, where.port, timeout=120)
            connection.request("POST", "/rpc", body=step[5:], headers={"Content-Type": "application/json"})
            print(connection.getresponse().read().decode())
        elif step == "abort":
            ws.transport.abort()
            return
    await ws.close()


asyncio.run(main(sys.argv[1], sys.argv[2:]))
