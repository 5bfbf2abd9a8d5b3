// The server as clients meet it: every JSON-RPC reply and error code, and the
// HTTP refusals, with curl and plain sockets against a real RpcServer on
// 127.0.0.1 (see net_fixture.h for what it hosts).
#include "middleware/net/rpc_server.h"

#include "net/net_fixture.h"

namespace KQ::test {
namespace {

using json = nlohmann::json;
using RpcOverHttpTest = NetServerTest;

const std::string kPing = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})";

std::string call(const std::string& method, const std::string& params, const std::string& id = "1") {
  return R"({"jsonrpc":"2.0","method":")" + method + "\"" + (params.empty() ? "" : ",\"params\":" + params) +
         ",\"id\":" + id + "}";
}

std::string error(int code, const std::string& message, const json& id = 1) {
  return json{{"jsonrpc", "2.0"}, {"error", {{"code", code}, {"message", message}}}, {"id", id}}.dump();
}

// A raw HTTP/1.1 POST of `body` to /rpc.
std::string rawPost(const std::string& body, const std::string& extraHeaders = "") {
  return "POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n" + extraHeaders +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST_F(RpcOverHttpTest, EveryRequestGetsItsReplyOrItsCodeAndMessage) {
  const std::pair<std::string, std::string> exchanges[] = {
      {call("NetTest.add", "[2,3]"), R"({"id":1,"jsonrpc":"2.0","result":5})"},
      // Values keep their kinds both ways: floats stay floats, written shortest.
      {call("NetTest.echo", R"([[1.0,0.1,1e30,-2.5E-3,-2147483648,"Tasse \"ü\"\n",true,null,[[]]]])"),
       R"({"id":1,"jsonrpc":"2.0","result":[1.0,0.1,1e+30,-0.0025,-2147483648,"Tasse \"ü\"\n",true,null,[[]]]})"},
      {call("broker.modules", ""), R"({"id":1,"jsonrpc":"2.0","result":["KQMemory","NetTest"]})"},
      {call("broker.methods", "[\"NetTest\"]"),
       R"({"id":1,"jsonrpc":"2.0","result":[["add","Adds two ints."],["echo","Returns its argument."],)"
       R"(["fail","Refuses with the given message."],["failOddly","Throws something that is not a KQError."],)"
       R"(["hold","Waits until the test opens the gate."],["ping","Answers pong."]]})"},
      {"3", error(-32600, "Invalid Request: not an object", nullptr)},
      {R"({"method":"NetTest.ping","id":1})", error(-32600, R"(Invalid Request: "jsonrpc" must be "2.0")")},
      {call("NetTest.ping", "", "\"a-1\""), R"({"id":"a-1","jsonrpc":"2.0","result":"pong"})"},
      {call("NetTest.ping", "", "[1]"), error(-32600, R"(Invalid Request: "id" must be a string, a number or null)", nullptr)},
      {call("NetTest.ping", "\"x\""), error(-32600, R"(Invalid Request: "params" must be an array)")},
      // 65 levels in all (64 pass); depth is judged before syntax.
      {call("NetTest.echo", "[" + std::string(63, '[') + std::string(63, ']') + "]"),
       error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr)},
      {std::string(50000, '['), error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr)},
      {call("Nope.ping", ""), error(-32601, "Unknown module: Nope")},
      {call("NetTest.nope", ""), error(-32601, "NetTest.nope: no method nope in module NetTest")},
      {call("ping", ""), error(-32601, "Unknown method: ping (expected <Module>.<method>)")},
      {call("subscribe", "[\"E\"]"), error(-32601, "Unknown method: subscribe (events need a WebSocket at /ws)")},
      {call("NetTest.add", "[1]"), error(-32602, "NetTest.add: expects 2 arguments, got 1")},
      {call("NetTest.add", "[1,\"2\"]"), error(-32602, "NetTest.add: argument 2 must be int, not string \"2\"")},
      {call("NetTest.add", "[1,2147483648]"),
       error(-32602, "NetTest.add: argument 2: 2147483648 does not fit in a 32-bit int")},
      {call("NetTest.echo", "[{\"x\":1}]"), error(-32602, "NetTest.echo: argument 1: a JSON object is not a value")},
      {call("NetTest.add", "{\"a\":1}"), error(-32602, "NetTest.add: params must be an array of positional arguments")},
      {call("broker.methods", "[3]"), error(-32602, "broker.methods: argument 1 must be string, not int 3")},
      {call("NetTest.fail", "[\"Category Cups does not exist.\"]"),
       error(-32000, "NetTest.fail: Category Cups does not exist.")},
      {call("NetTest.failOddly", ""), error(-32000, "something odd")},
      // A batch answers its requests in order, skips its notifications, and
      // answers an invalid member even without an id (it is no notification).
      {R"([{"jsonrpc":"2.0","method":"NetTest.add","params":[1,1],"id":10},{"jsonrpc":"2.0","method":"NetTest.ping"},1,
       {"jsonrpc":"2.0","method":"NetTest.nope","id":11}])",
       R"([{"id":10,"jsonrpc":"2.0","result":2},)" + error(-32600, "Invalid Request: not an object", nullptr) + "," +
           error(-32601, "NetTest.nope: no method nope in module NetTest", 11) + "]"},
  };
  for (const auto& [request, reply] : exchanges) EXPECT_EQ(post(request), reply) << request;

  // Case: -32700 carries the parser's reason in data.
  const json parse = json::parse(post(R"({"jsonrpc":"2.0","method":)"));
  EXPECT_EQ(parse["error"]["code"], -32700);
  EXPECT_TRUE(parse["error"]["data"].is_string());
  // Case: notifications, failing ones and batches of them too, run but get 204 and no body.
  for (const std::string quiet : {R"({"jsonrpc":"2.0","method":"KQMemory.insertData","params":["quiet/1",1]})",
                                  R"([{"jsonrpc":"2.0","method":"KQMemory.insertData","params":["quiet/2",2]}])",
                                  R"({"jsonrpc":"2.0","method":"NetTest.fail","params":["x"]})"}) {
    const HttpAnswer answer = curl(rpcUrl(), &quiet);
    EXPECT_EQ(std::make_pair(answer.status, answer.body), std::make_pair(204, std::string())) << quiet;
  }
  EXPECT_EQ(memory_->getDataList("quiet/").size(), 2u);
}

TEST_F(RpcOverHttpTest, RefusesWhatIsNotAnAllowedJsonRpcPost) {
  net::RpcServerOptions options;
  options.maxMessageBytes = 1024;
  options.token = "s3cret";
  restartServer(options);
  const std::string json = "Content-Type: application/json", bearer = "Authorization: Bearer s3cret";
  const std::string big = kPing.substr(0, kPing.size() - 1) + std::string(2000, ' ') + "}";
  const std::vector<std::string> upgrade{"Connection: Upgrade", "Upgrade: websocket", "Sec-WebSocket-Version: 13",
                                         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="};
  const auto with = [](std::vector<std::string> headers, const std::string& more) {
    headers.push_back(more);
    return headers;
  };
  const struct {
    std::string url;
    const std::string* body;  // none: GET
    std::vector<std::string> headers;
    int status;
    std::string reply;
  } cases[] = {
      {rpcUrl(), &kPing, {json}, 401, "A valid token is required.\n"},
      {rpcUrl(), &kPing, {json, "Authorization: Bearer wrong"}, 401, ""},
      {baseUrl() + "/elsewhere", nullptr, {}, 401, ""},  // the token is asked before a 404 reveals anything
      {rpcUrl() + "?token=s3cret", &kPing, {json}, 200, ""},
      {rpcUrl(), &kPing, {"Content-Type: text/plain", bearer}, 415, "POST /rpc requires Content-Type: application/json.\n"},
      {rpcUrl(), &kPing, {"Content-Type: application/json; charset=utf-8", bearer}, 200, ""},
      {rpcUrl(), nullptr, {bearer}, 405, ""},
      {baseUrl() + "/", nullptr, {bearer}, 404, ""},
      {baseUrl() + "/ws", nullptr, {bearer}, 400, ""},
      {rpcUrl(), &big, {json, bearer}, 413, "Message larger than 1024 bytes.\n"},
      // A chunked body only turns out too large while it is read.
      {rpcUrl(), &big, {json, bearer, "Transfer-Encoding: chunked"}, 413, ""},
      // Pages of other sites may not call (which origins count is request_guard_test's).
      {rpcUrl(), &kPing, {json, bearer, "Origin: http://evil.example"}, 403, ""},
      // WebSocket upgrades ask the token and the Origin too.
      {baseUrl() + "/ws", nullptr, upgrade, 401, ""},
      {baseUrl() + "/ws?token=s3cret", nullptr, with(upgrade, "Origin: http://evil.example"), 403, ""},
  };
  for (const auto& c : cases) {
    const HttpAnswer answer = curl(c.url, c.body, c.headers);
    EXPECT_EQ(answer.status, c.status) << c.url << " " << (c.body ? c.body->size() : 0) << " " << answer.body;
    EXPECT_TRUE(c.reply.empty() || answer.body == c.reply) << answer.body;
  }
}

TEST_F(RpcOverHttpTest, OneConnectionCarriesManyCallsAndIdleOnesAreClosed) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  restartServer(options);
  // Case: two requests sent at once on one connection; the second asks to close.
  const std::string replies =
      wsClient({"raw:" + rawPost(call("NetTest.add", "[1,2]")) + rawPost(kPing, "Connection: close\r\n"), "raw:"});
  EXPECT_NE(replies.find(R"({"id":1,"jsonrpc":"2.0","result":3})"), std::string::npos) << replies;
  EXPECT_NE(replies.find(R"({"id":1,"jsonrpc":"2.0","result":"pong"})"), std::string::npos) << replies;
  // Case: a connection that says nothing is closed, not kept forever.
  EXPECT_EQ(replies.substr(replies.size() - 5), "\nb''\n");
}

}  // namespace
}  // namespace KQ::test
