// The WebSocket side of the server, as python's websockets package meets it:
// calls and batches, events for subscribers, many clients at once, a call
// that waits on a lock, and clients that vanish in the middle of a call.
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "net/net_fixture.h"

namespace KQ {
namespace test {
namespace {

using WebSocketSessionTest = NetServerTest;

TEST_F(WebSocketSessionTest, CarriesCallsBatchesAndErrors) {
  const ProgramResult run = runPython(R"(
import asyncio, json, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1]) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.add","params":[20,22],"id":1}')
        print(await ws.recv())
        await ws.send('[{"jsonrpc":"2.0","method":"NetTest.ping","id":2},{"jsonrpc":"2.0","method":"NetTest.bump"}]')
        print(await ws.recv())
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.add","params":[1],"id":3}')
        print(json.loads(await ws.recv())["error"])
        await ws.send('{not json')
        print(json.loads(await ws.recv())["error"]["code"])
        await ws.send('[]')
        print(await ws.recv())
asyncio.run(main())
)",
                                      {wsUrl()});
  EXPECT_EQ(run.out,
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":42}\n"
            "[{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}]\n"
            "{'code': -32602, 'message': 'NetTest.add: expects 2 arguments, got 1'}\n"
            "-32700\n"
            "{\"error\":{\"code\":-32600,\"message\":\"Invalid Request: empty batch\"},\"id\":null,\"jsonrpc\":\"2.0\"}\n")
      << run.err;
  EXPECT_EQ(module_->bumps(), 1);
}

TEST_F(WebSocketSessionTest, SubscribersReceiveEventsUntilTheyUnsubscribe) {
  // The event is raised inside a call of the same client, so it is sent
  // before that call's reply: the order below is fixed.
  const ProgramResult run = runPython(R"(
import asyncio, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1]) as ws:
        async def call(text):
            await ws.send(text)
            return await ws.recv()
        print(await call('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":1}'))
        print(await call('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":2}'))
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.raise","params":["Test/Moved",[1,0.5,"cup"]],"id":3}')
        print(await ws.recv())
        print(await ws.recv())
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.raise","params":["Test/Other",1],"id":4}')
        print(await ws.recv())
        print(await call('{"jsonrpc":"2.0","method":"unsubscribe","params":["Test/Moved"],"id":5}'))
        print(await call('{"jsonrpc":"2.0","method":"unsubscribe","params":["Test/Moved"],"id":6}'))
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.raise","params":["Test/Moved",2],"id":7}')
        print(await ws.recv())
        print(await call('{"jsonrpc":"2.0","method":"subscribe","params":[],"id":8}'))
asyncio.run(main())
)",
                                      {wsUrl()});
  EXPECT_EQ(run.out,
            // subscribed once, the second is no new subscription
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":true}\n"
            "{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":false}\n"
            // the event, then the reply of the call that raised it
            "{\"jsonrpc\":\"2.0\",\"method\":\"event\",\"params\":[\"Test/Moved\",[1,0.5,\"cup\"]]}\n"
            "{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":null}\n"
            // an event nobody subscribed to is not sent
            "{\"id\":4,\"jsonrpc\":\"2.0\",\"result\":null}\n"
            "{\"id\":5,\"jsonrpc\":\"2.0\",\"result\":true}\n"
            "{\"id\":6,\"jsonrpc\":\"2.0\",\"result\":false}\n"
            // after unsubscribing only the reply comes
            "{\"id\":7,\"jsonrpc\":\"2.0\",\"result\":null}\n"
            "{\"error\":{\"code\":-32602,\"message\":\"subscribe: expects 1 argument, got 0\"},\"id\":8,"
            "\"jsonrpc\":\"2.0\"}\n")
      << run.err;

  // Case: a subscriber that goes away is dropped; raising still works and
  // reaches the ones still there.
  const ProgramResult leaver = runPython(R"(
import asyncio, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1]) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":1}')
        print(await ws.recv())
asyncio.run(main())
)",
                                         {wsUrl()});
  EXPECT_EQ(leaver.out, "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":true}\n") << leaver.err;
  EXPECT_NO_THROW(module_->raise("Test/Moved", KQValue(3)));
}

TEST_F(WebSocketSessionTest, EightClientsAtOnceEachGetTheirOwnAnswers) {
  const ProgramResult run = runPython(R"(
import asyncio, json, sys, threading, http.client, websockets
url, port = sys.argv[1], int(sys.argv[2])
async def client(k):
    async with websockets.connect(url) as ws:
        # Many calls in flight on one connection; replies matched by id.
        for i in range(40):
            await ws.send(json.dumps({"jsonrpc": "2.0", "method": "NetTest.add", "params": [k * 1000, i], "id": i}))
        got = {}
        for _ in range(40):
            reply = json.loads(await ws.recv())
            got[reply["id"]] = reply["result"]
        return all(got[i] == k * 1000 + i for i in range(40)) and len(got) == 40
async def main():
    return await asyncio.gather(*(client(k) for k in range(8)))
print("ws", all(asyncio.run(main())))
ok = []
def http_client(k):
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    good = True
    for i in range(25):
        c.request("POST", "/rpc", body=json.dumps({"jsonrpc": "2.0", "method": "NetTest.add", "params": [k, i], "id": i}),
                  headers={"Content-Type": "application/json"})
        good = good and json.loads(c.getresponse().read())["result"] == k + i
    ok.append(good)
threads = [threading.Thread(target=http_client, args=(k,)) for k in range(8)]
for t in threads: t.start()
for t in threads: t.join()
print("http", len(ok) == 8 and all(ok))
)",
                                      {wsUrl(), std::to_string(port())});
  EXPECT_EQ(run.out, "ws True\nhttp True\n") << run.err;
}

TEST_F(WebSocketSessionTest, ACallWaitingOnALockHoldsUpNoOtherClient) {
  // Client A's call takes the module lock and waits at the gate; B's
  // lock-free call, A's own second call and C's HTTP call are all answered
  // meanwhile. The script then bumps, and only after that does the test open
  // the gate, so every answer before the bump was given while A waited.
  ProgramResult run;
  std::thread client([&] {
    run = runPython(R"(
import asyncio, sys, http.client, websockets
async def main():
    async with websockets.connect(sys.argv[1]) as a, websockets.connect(sys.argv[1]) as b:
        await a.send('{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}')
        await b.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":2}')
        print(await b.recv())
        await a.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":3}')
        print(await a.recv())
        c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[2]), timeout=60)
        c.request("POST", "/rpc", body='{"jsonrpc":"2.0","method":"NetTest.ping","id":4}',
                  headers={"Content-Type": "application/json"})
        print(c.getresponse().read().decode())
        c.request("POST", "/rpc", body='{"jsonrpc":"2.0","method":"NetTest.bump","id":5}',
                  headers={"Content-Type": "application/json"})
        c.getresponse().read()
        print(await a.recv())
asyncio.run(main())
)",
                    {wsUrl(), std::to_string(port())});
  });
  ASSERT_TRUE(module_->waitHolding(1));
  for (int i = 0; i < 2000 && module_->bumps() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(module_->bumps(), 1);
  module_->openGate();
  client.join();
  EXPECT_EQ(run.out,
            "{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n"
            "{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n"
            "{\"id\":4,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n"
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":1}\n")
      << run.err;
}

TEST_F(WebSocketSessionTest, AClientThatVanishesMidCallHarmsNothing) {
  // Case: a WebSocket client sends a call that waits, then drops the TCP
  // connection without a close handshake.
  const ProgramResult ws = runPython(R"(
import asyncio, sys, websockets
async def main():
    ws = await websockets.connect(sys.argv[1])
    await ws.send('{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}')
    await ws.send('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":2}')
    await ws.recv()
    ws.transport.abort()
asyncio.run(main())
)",
                                     {wsUrl()});
  EXPECT_EQ(ws.exitCode, 0) << ws.err;
  ASSERT_TRUE(module_->waitHolding(1));
  module_->openGate();
  ASSERT_TRUE(module_->waitReleased(1));
  // Its subscription went with it: raising finds no dead subscriber to feed.
  EXPECT_NO_THROW(module_->raise("Test/Moved", KQValue(1)));

  // Case: an HTTP client posts a call that waits and hangs up.
  const ProgramResult http = runPython(R"(
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
body = b'{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}'
s.sendall(b"POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
s.close()
)",
                                       {std::to_string(port())});
  EXPECT_EQ(http.exitCode, 0) << http.err;
  ASSERT_TRUE(module_->waitHolding(2));
  module_->openGate();
  ASSERT_TRUE(module_->waitReleased(2));

  // The server answers the next client as ever.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1,2],"id":9})")["result"], 3);
}

TEST_F(WebSocketSessionTest, APeerThatStopsAnsweringIsClosedAfterTheIdleTimeout) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  restartServer(options);
  // A hand-made client: upgrades, then neither sends nor answers pings,
  // like a peer whose machine went away without closing.
  const ProgramResult run = runPython(R"(
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=30)
s.sendall(b"GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
seen = b""
while True:
    chunk = s.recv(4096)
    if not chunk:
        break
    seen += chunk
print(seen.split(b"\r\n")[0].decode())
print("ping seen" if b"\x89" in seen else "no ping")
print("closed")
)",
                                      {std::to_string(port())});
  EXPECT_EQ(run.out, "HTTP/1.1 101 Switching Protocols\nping seen\nclosed\n") << run.err;
}

TEST_F(WebSocketSessionTest, OversizedMessagesCloseTheConnection) {
  net::RpcServerOptions options;
  options.maxMessageBytes = 1024;
  restartServer(options);
  const ProgramResult run = runPython(R"(
import asyncio, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1], max_size=None) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":1}' + " " * 2000)
        try:
            await ws.recv()
            print("answered")
        except websockets.exceptions.ConnectionClosed as e:
            print("closed", e.rcvd.code if e.rcvd else None)
asyncio.run(main())
)",
                                      {wsUrl()});
  EXPECT_EQ(run.out, "closed 1009\n") << run.err;
}

}  // namespace
}  // namespace test
}  // namespace KQ
