// The WebSocket side of the server, as python's websockets package and plain
// sockets meet it (ws_client.py): events for subscribers, clients that vanish
// mid-call, stop reading or stop answering, and oversized messages.
#include <thread>

#include "net/net_fixture.h"

namespace KQ::test {
namespace {

using WebSocketSessionTest = NetServerTest;

std::string send(const std::string& method, const std::string& params) {
  return R"(send:{"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + R"(,"id":0})";
}

const std::string kHold = R"({"jsonrpc":"2.0","method":"NetTest.hold","id":1})";

TEST_F(WebSocketSessionTest, SubscribersReceiveEventsUntilTheyUnsubscribe) {
  // The event is raised inside a call of the same client, so it is sent
  // before that call's reply: the order below is fixed.
  const std::string out = wsClient({send("subscribe", R"(["Test/Moved"])"), "recv",
                                    send("subscribe", R"(["Test/Moved"])"), "recv",
                                    send("KQMemory.raiseEvent", R"(["Test/Moved",[1,0.5,"cup"]])"), "recv", "recv",
                                    send("KQMemory.raiseEvent", R"(["Test/Other",1])"), "recv",
                                    send("unsubscribe", R"(["Test/Moved"])"), "recv",
                                    send("unsubscribe", R"(["Test/Moved"])"), "recv",
                                    send("KQMemory.raiseEvent", R"(["Test/Moved",2])"), "recv",
                                    send("subscribe", "[]"), "recv",
                                    send("subscribe", R"(["Test/Moved"])"), "recv"});  // leaves subscribed
  const std::string yes = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":true}\n",
                    no = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":false}\n",
                    none = "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":null}\n";
  EXPECT_EQ(out, yes + no + "{\"jsonrpc\":\"2.0\",\"method\":\"event\",\"params\":[\"Test/Moved\",[1,0.5,\"cup\"]]}\n" +
                     none + none + yes + no + none +
                     "{\"error\":{\"code\":-32602,\"message\":\"subscribe: expects 1 argument, got 0\"},\"id\":0,"
                     "\"jsonrpc\":\"2.0\"}\n" + yes);
  // Case: the subscriber that went away was dropped: raising reaches no one dead.
  EXPECT_NO_THROW(memory_->raiseEvent("Test/Moved", KQValue(3)));
}

TEST_F(WebSocketSessionTest, ClientsThatVanishMidCallHarmNothing) {
  // Case: an HTTP client posts a waiting call and hangs up; a WebSocket
  // client drops TCP without a close handshake while its call waits.
  wsClient({"drop:POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: " +
                std::to_string(kHold.size()) + "\r\n\r\n" + kHold,
            "send:" + kHold, send("subscribe", R"(["Test/Moved"])"), "recv", "abort"});
  ASSERT_TRUE(module_->waitHolding(2));
  module_->openGate();
  EXPECT_NO_THROW(memory_->raiseEvent("Test/Moved", KQValue(1)));  // its subscription went with it
  EXPECT_EQ(post(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1,2],"id":9})"),
            R"({"id":9,"jsonrpc":"2.0","result":3})");
}

TEST_F(WebSocketSessionTest, ASubscriberThatStopsReadingIsCutOff) {
  // The client subscribes, then blocks in an HTTP call (so it reads nothing)
  // while the test raises 64 MB of events, four times what a session queues.
  std::string out;
  std::thread client([&] { out = wsClient({send("subscribe", R"(["Test/Big"])"), "recv", "post:" + kHold, "closed"}); });
  ASSERT_TRUE(module_->waitHolding(1));
  const KQValue big(std::string(512 * 1024, 'x'));
  for (int i = 0; i < 128; ++i) memory_->raiseEvent("Test/Big", big);
  module_->openGate();
  client.join();
  EXPECT_EQ(out, "{\"id\":0,\"jsonrpc\":\"2.0\",\"result\":true}\n{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":1}\n"
                 "closed None\n");
}

TEST_F(WebSocketSessionTest, SilentPeersAndOversizedMessagesAreClosed) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  options.maxMessageBytes = 1024;
  restartServer(options);
  // Case: a peer that upgrades, then neither sends nor answers pings, like
  // one whose machine went away, is pinged and then closed; a message over
  // the limit closes with 1009.
  const std::string out = wsClient({"raw:GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
                                    "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                                    "Sec-WebSocket-Version: 13\r\n\r\n",
                                    send("NetTest.ping", "[]") + std::string(2000, ' '), "closed"});
  EXPECT_EQ(out.rfind("b'HTTP/1.1 101 Switching Protocols\\r\\n", 0), 0u) << out;
  EXPECT_NE(out.find("\\x89"), std::string::npos) << out;  // a ping frame
  EXPECT_EQ(out.substr(out.size() - 12), "closed 1009\n");
}

}  // namespace
}  // namespace KQ::test
