// The WebSocket side of the server, as python's websockets package meets it:
// events for subscribers, a call that waits on a lock, clients that vanish
// mid-call, stop reading or stop answering, and oversized messages.
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "net/net_fixture.h"

namespace KQ::test {
namespace {

using WebSocketSessionTest = NetServerTest;

TEST_F(WebSocketSessionTest, SubscribersReceiveEventsUntilTheyUnsubscribe) {
  // The event is raised inside a call of the same client, so it is sent
  // before that call's reply: the order below is fixed.
  const ProgramResult run = runPython(R"(
import asyncio, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1]) as ws:
        for method, params in [("subscribe", '["Test/Moved"]'), ("subscribe", '["Test/Moved"]'),
                               ("NetTest.raise", '["Test/Moved",[1,0.5,"cup"]]'), ("NetTest.raise", '["Test/Other",1]'),
                               ("unsubscribe", '["Test/Moved"]'), ("unsubscribe", '["Test/Moved"]'),
                               ("NetTest.raise", '["Test/Moved",2]'), ("subscribe", '[]')]:
            await ws.send('{"jsonrpc":"2.0","method":"%s","params":%s,"id":0}' % (method, params))
            print(await ws.recv())
            if params.startswith('["Test/Moved",[1'):
                print(await ws.recv())
    # This one leaves with its subscription open.
    async with websockets.connect(sys.argv[1]) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":0}')
        await ws.recv()
asyncio.run(main())
)",
                                      {wsUrl()});
  const std::string yes = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":true}\n",
                    no = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":false}\n",
                    none = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":null}\n";
  EXPECT_EQ(run.out, yes + no + "{\"jsonrpc\":\"2.0\",\"method\":\"event\",\"params\":[\"Test/Moved\",[1,0.5,\"cup\"]]}\n" +
                         none + none + yes + no + none +
                         "{\"error\":{\"code\":-32602,\"message\":\"subscribe: expects 1 argument, got 0\"},\"id\":0,"
                         "\"jsonrpc\":\"2.0\"}\n")
      << run.err;
  // Case: the subscriber that went away was dropped: raising reaches no one dead.
  EXPECT_NO_THROW(module_->raise("Test/Moved", KQValue(3)));
}

TEST_F(WebSocketSessionTest, ACallWaitingOnALockHoldsUpNoOtherCallOrClient) {
  // A's call waits at the gate; B's call, A's own second call and C's HTTP
  // call are answered meanwhile. The script then bumps, and only after that
  // does the test open the gate, so every answer before was given while A waited.
  ProgramResult run;
  std::thread client([&] {
    run = runPython(R"(
import asyncio, sys, http.client, websockets
def post(body):
    c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[2]), timeout=60)
    c.request("POST", "/rpc", body=body, headers={"Content-Type": "application/json"})
    return c.getresponse().read().decode()
async def main():
    async with websockets.connect(sys.argv[1]) as a, websockets.connect(sys.argv[1]) as b:
        await a.send('{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}')
        await b.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":2}')
        print(await b.recv())
        await a.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":3}')
        print(await a.recv())
        print(post('{"jsonrpc":"2.0","method":"NetTest.ping","id":4}'))
        post('{"jsonrpc":"2.0","method":"NetTest.bump","id":5}')
        print(await a.recv())
asyncio.run(main())
)",
                    {wsUrl(), std::to_string(port())});
  });
  ASSERT_TRUE(module_->waitHolding(1));
  for (int i = 0; i < 2000 && module_->bumps() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  module_->openGate();
  client.join();
  EXPECT_EQ(run.out,
            "{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n"
            "{\"id\":4,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":1}\n")
      << run.err;
}

TEST_F(WebSocketSessionTest, ClientsThatVanishMidCallHarmNothing) {
  // Case: a WebSocket client drops TCP without a close handshake while its
  // call waits; an HTTP client posts a waiting call and hangs up.
  const ProgramResult run = runPython(R"(
import asyncio, socket, sys, websockets
async def main():
    ws = await websockets.connect(sys.argv[1])
    await ws.send('{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}')
    await ws.send('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Moved"],"id":2}')
    await ws.recv()
    ws.transport.abort()
asyncio.run(main())
s = socket.create_connection(("127.0.0.1", int(sys.argv[2])))
body = b'{"jsonrpc":"2.0","method":"NetTest.holdLock","id":1}'
s.sendall(b"POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
s.close()
)",
                                      {wsUrl(), std::to_string(port())});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  for (int held = 1; held <= 2; ++held) {
    ASSERT_TRUE(module_->waitHolding(held));
    module_->openGate();
    ASSERT_TRUE(module_->waitReleased(held));
  }
  EXPECT_NO_THROW(module_->raise("Test/Moved", KQValue(1)));  // its subscription went with it
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1,2],"id":9})")["result"], 3);
}

TEST_F(WebSocketSessionTest, ASubscriberThatStopsReadingIsCutOff) {
  // The client subscribes, then blocks in an HTTP call (so it reads nothing)
  // while the test raises 64 MB of events, four times what a session queues.
  ProgramResult run;
  std::thread client([&] {
    run = runPython(R"(
import asyncio, http.client, sys, websockets
async def main():
    async with websockets.connect(sys.argv[1], max_size=None, max_queue=1) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"subscribe","params":["Test/Big"],"id":1}')
        await ws.recv()
        c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[2]), timeout=120)
        c.request("POST", "/rpc", body='{"jsonrpc":"2.0","method":"NetTest.holdLock","id":2}',
                  headers={"Content-Type": "application/json"})
        c.getresponse().read()
        try:
            for i in range(128):
                await ws.recv()
            print("read all")
        except websockets.exceptions.ConnectionClosed:
            print("cut off")
asyncio.run(main())
)",
                    {wsUrl(), std::to_string(port())});
  });
  ASSERT_TRUE(module_->waitHolding(1));
  const KQValue big(std::string(512 * 1024, 'x'));
  for (int i = 0; i < 128; ++i) memory_->raiseEvent("Test/Big", big);
  module_->openGate();
  client.join();
  EXPECT_EQ(run.out, "cut off\n") << run.err;
}

TEST_F(WebSocketSessionTest, SilentPeersAndOversizedMessagesAreClosed) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  options.maxMessageBytes = 1024;
  restartServer(options);
  // A hand-made client upgrades, then neither sends nor answers pings, like
  // a peer whose machine went away; another sends too much.
  const ProgramResult run = runPython(R"(
import asyncio, socket, sys, websockets
s = socket.create_connection(("127.0.0.1", int(sys.argv[2])), timeout=30)
s.sendall(b"GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
seen = b""
while chunk := s.recv(4096):
    seen += chunk
print(seen.split(b"\r\n")[0].decode(), "ping seen" if b"\x89" in seen else "no ping")
async def main():
    async with websockets.connect(sys.argv[1], max_size=None) as ws:
        await ws.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":1}' + " " * 2000)
        try:
            await ws.recv()
        except websockets.exceptions.ConnectionClosed as e:
            print("closed", e.rcvd.code if e.rcvd else None)
asyncio.run(main())
)",
                                      {wsUrl(), std::to_string(port())});
  EXPECT_EQ(run.out, "HTTP/1.1 101 Switching Protocols ping seen\nclosed 1009\n") << run.err;
}

}  // namespace
}  // namespace KQ::test
