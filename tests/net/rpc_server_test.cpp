// The server as clients meet it: every JSON-RPC reply and error code, and the
// HTTP refusals, with curl and python against a real RpcServer on 127.0.0.1
// (see net_fixture.h for what it hosts).
#include "middleware/net/rpc_server.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "middleware/error.h"
#include "net/net_fixture.h"

namespace KQ::test {
namespace {

using json = nlohmann::json;
using RpcOverHttpTest = NetServerTest;

const std::string kPing = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})";

TEST_F(RpcOverHttpTest, EveryRequestGetsItsReplyOrItsCodeAndMessage) {
  const auto error = [](int code, const std::string& message, const json& id = 1) {
    return json{{"jsonrpc", "2.0"}, {"error", {{"code", code}, {"message", message}}}, {"id", id}}.dump();
  };
  const auto call = [](const std::string& method, const std::string& params, const std::string& id = "1") {
    return R"({"jsonrpc":"2.0","method":")" + method + "\"" + (params.empty() ? "" : ",\"params\":" + params) +
           ",\"id\":" + id + "}";
  };
  const std::pair<std::string, std::string> exchanges[] = {
      {call("NetTest.add", "[2,3]"), R"({"id":1,"jsonrpc":"2.0","result":5})"},
      {call("NetTest.ping", "", "\"a-1\""), R"({"id":"a-1","jsonrpc":"2.0","result":"pong"})"},
      // Values keep their kinds both ways: floats stay floats, written shortest.
      {call("NetTest.echo", R"([[1.0,0.1,1e30,-2.5E-3,-2147483648,"Tasse \"ü\"\n",true,null,[[]]]])"),
       R"({"id":1,"jsonrpc":"2.0","result":[1.0,0.1,1e+30,-0.0025,-2147483648,"Tasse \"ü\"\n",true,null,[[]]]})"},
      {call("broker.modules", ""), R"({"id":1,"jsonrpc":"2.0","result":["KQMemory","NetTest"]})"},
      {"3", error(-32600, "Invalid Request: not an object", nullptr)},
      {"[]", error(-32600, "Invalid Request: empty batch", nullptr)},
      {R"({"method":"NetTest.ping","id":1})", error(-32600, R"(Invalid Request: "jsonrpc" must be "2.0")")},
      {R"({"jsonrpc":"1.0","method":"NetTest.ping","id":1})", error(-32600, R"(Invalid Request: "jsonrpc" must be "2.0")")},
      {R"({"jsonrpc":"2.0","method":5,"id":1})", error(-32600, R"(Invalid Request: "method" must be a string)")},
      {call("NetTest.ping", "", "[1]"), error(-32600, R"(Invalid Request: "id" must be a string, a number or null)", nullptr)},
      {call("NetTest.ping", "\"x\""), error(-32600, R"(Invalid Request: "params" must be an array)")},
      // 65 levels in all (64 pass); depth is judged before syntax.
      {call("NetTest.echo", "[" + std::string(63, '[') + std::string(63, ']') + "]"),
       error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr)},
      {std::string(100000, '['), error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr)},
      {call("Nope.ping", ""), error(-32601, "Unknown module: Nope")},
      {call("NetTest.nope", ""), error(-32601, "NetTest.nope: no method nope in module NetTest")},
      {call("ping", ""), error(-32601, "Unknown method: ping (expected <Module>.<method>)")},
      {call("subscribe", "[\"E\"]"), error(-32601, "Unknown method: subscribe (events need a WebSocket at /ws)")},
      {call("broker.reboot", ""), error(-32601, "Unknown method: broker.reboot")},
      {call("broker.methods", "[\"Nope\"]"), error(-32601, "Unknown module: Nope")},
      {call("NetTest.add", "[1]"), error(-32602, "NetTest.add: expects 2 arguments, got 1")},
      {call("NetTest.add", "[1,\"2\"]"), error(-32602, "NetTest.add: argument 2 must be int, not string \"2\"")},
      {call("NetTest.add", "[1,2147483648]"),
       error(-32602, "NetTest.add: argument 2: 2147483648 does not fit in a 32-bit int")},
      {call("NetTest.echo", "[{\"x\":1}]"), error(-32602, "NetTest.echo: argument 1: a JSON object is not a value")},
      {call("NetTest.add", "{\"a\":1}"), error(-32602, "NetTest.add: params must be an array of positional arguments")},
      {call("broker.methods", "[3]"), error(-32602, "broker.methods: argument 1 must be string, not int 3")},
      {call("broker.methods", ""), error(-32602, "broker.methods: expects 1 argument, got 0")},
      {call("broker.modules", "[1]"), error(-32602, "broker.modules: expects 0 arguments, got 1")},
      {call("NetTest.fail", "[\"Category Cups does not exist.\"]"),
       error(-32000, "NetTest.fail: Category Cups does not exist.")},
      {call("NetTest.failOddly", ""), error(-32000, "something odd")},
      // A batch answers its requests in order, skips its notifications, and
      // answers an invalid member even without an id (it is no notification).
      {R"([{"jsonrpc":"2.0","method":"NetTest.add","params":[1,1],"id":10},{"jsonrpc":"2.0","method":"NetTest.bump"},
           1,{"jsonrpc":"2.0","method":"NetTest.nope","id":11}])",
       "[" + json::parse(R"({"id":10,"jsonrpc":"2.0","result":2})").dump() + "," +
           error(-32600, "Invalid Request: not an object", nullptr) + "," +
           error(-32601, "NetTest.nope: no method nope in module NetTest", 11) + "]"},
  };
  for (const auto& [request, reply] : exchanges) EXPECT_EQ(curlPost(rpcUrl(), request).body, reply) << request;

  // Case: -32700 carries the parser's reason in data.
  const json parse = rpc(R"({"jsonrpc":"2.0","method":)");
  EXPECT_EQ(parse["error"]["code"], -32700);
  EXPECT_TRUE(parse["error"]["data"].is_string());
  // Case: the broker lists methods in registration order, [name, description].
  const json methods = rpc(call("broker.methods", "[\"NetTest\"]"))["result"];
  EXPECT_EQ(methods.size(), 8u);
  EXPECT_EQ(methods[0], json::array({"add", "Adds two ints."}));
  // Case: notifications, failing ones and batches of them too, run but get 204 and no body.
  for (const char* quiet : {R"({"jsonrpc":"2.0","method":"NetTest.bump"})",
                                   R"([{"jsonrpc":"2.0","method":"NetTest.bump"}])",
                                   R"({"jsonrpc":"2.0","method":"NetTest.fail","params":["x"]})"}) {
    const HttpAnswer answer = curlPost(rpcUrl(), quiet);
    EXPECT_EQ(answer.status, 204);
    EXPECT_EQ(answer.body, "");
  }
  EXPECT_EQ(module_->bumps(), 3);
}

TEST_F(RpcOverHttpTest, RefusesWhatIsNotAnAllowedJsonRpcPost) {
  net::RpcServerOptions options;
  options.maxMessageBytes = 1024;
  options.token = "s3cret";
  restartServer(options);
  const std::string own = std::to_string(port());
  const std::string json = "Content-Type: application/json", bearer = "Authorization: Bearer s3cret";
  const std::string big = kPing.substr(0, kPing.size() - 1) + std::string(2000, ' ') + "}";
  const struct {
    std::string url, body;  // no body: GET
    std::vector<std::string> headers;
    int status;
    std::string reply;
  } cases[] = {
      {rpcUrl(), kPing, {json}, 401, "A valid token is required.\n"},
      {rpcUrl(), kPing, {json, "Authorization: Bearer wrong"}, 401, ""},
      {rpcUrl() + "?token=wrong", kPing, {json}, 401, ""},
      {baseUrl() + "/elsewhere", "", {}, 401, ""},  // the token is asked before a 404 reveals anything
      {rpcUrl() + "?token=s3cret", kPing, {json}, 200, ""},
      {rpcUrl(), kPing, {"Content-Type: text/plain", bearer}, 415, "POST /rpc requires Content-Type: application/json.\n"},
      {rpcUrl(), kPing, {"Content-Type:", bearer}, 415, ""},
      {rpcUrl(), kPing, {"Content-Type: application/json; charset=utf-8", bearer}, 200, ""},
      {rpcUrl(), "", {bearer}, 405, ""},
      {baseUrl() + "/", "", {bearer}, 404, ""},
      {baseUrl() + "/ws", "", {bearer}, 400, ""},
      {rpcUrl(), big, {json, bearer}, 413, "Message larger than 1024 bytes.\n"},
      {rpcUrl(), kPing + std::string(900, ' '), {json, bearer, "Expect: 100-continue"}, 200, ""},
      // Pages of other sites, loopback with another port included, may not call.
      {rpcUrl(), kPing, {json, bearer, "Origin: http://evil.example"}, 403, ""},
      {rpcUrl(), kPing, {json, bearer, "Origin: http://localhost:1"}, 403, ""},
      {rpcUrl(), kPing, {json, bearer, "Origin: http://localhost:" + own}, 200, ""},
  };
  for (const auto& c : cases) {
    const HttpAnswer answer = c.body.empty() ? curlGet(c.url, c.headers) : curlPost(c.url, c.body, c.headers);
    EXPECT_EQ(answer.status, c.status) << c.url << " " << c.body.size() << answer.error;
    EXPECT_TRUE(c.reply.empty() || answer.body == c.reply) << answer.body;
  }
  // Case: a chunked body that only turns out too large while it is read;
  // WebSocket upgrades ask the token (header or query) and the Origin too.
  const ProgramResult run = runPython(R"(
import asyncio, http.client, sys, websockets
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=30)
c.request("POST", "/rpc?token=s3cret", body=(b" " * 400 for _ in range(8)), headers={"Content-Type": "application/json"},
          encode_chunked=True)
print(c.getresponse().status)
async def attempt(query, headers={}, origin=None):
    try:
        async with websockets.connect("ws://127.0.0.1:" + sys.argv[1] + "/ws" + query, extra_headers=headers, origin=origin) as ws:
            await ws.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":1}')
            return await ws.recv()
    except websockets.exceptions.InvalidStatusCode as e:
        return e.status_code
async def main():
    for query, headers, origin in [("", {}, None), ("?token=wrong", {}, None), ("", {"Authorization": "Bearer wrong"}, None),
                                   ("?token=s3cret", {}, "http://evil.example"), ("?token=s3cret", {}, None),
                                   ("", {"Authorization": "Bearer s3cret"}, "http://localhost:" + sys.argv[1])]:
        print(await attempt(query, headers, origin))
asyncio.run(main())
)",
                                      {own});
  EXPECT_EQ(run.out, "413\n401\n401\n401\n403\n"
                     "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n")
      << run.err;
}

TEST_F(RpcOverHttpTest, KeepAliveServesManyCallsOnOneConnectionAndIdleOnesAreClosed) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  restartServer(options);
  const ProgramResult run = runPython(R"(
import http.client, json, socket, sys
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=30)
total = 0
for i in range(50):
    c.request("POST", "/rpc", body=json.dumps({"jsonrpc": "2.0", "method": "NetTest.add", "params": [i, 1], "id": i}),
              headers={"Content-Type": "application/json"})
    total += json.loads(c.getresponse().read())["result"]
print(total)
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=30)
print(repr(s.recv(1)))  # a connection that says nothing is closed, not kept forever
)",
                                      {std::to_string(port())});
  EXPECT_EQ(run.out, "1275\nb''\n") << run.err;
}

TEST_F(RpcOverHttpTest, StartingOnAPortInUseSaysSoInOneSentence) {
  net::RpcServerOptions options;
  options.port = port();
  net::RpcServer second(broker_, options);
  try {
    second.start();
    FAIL() << "a second server listened on the same port";
  } catch (const KQError& e) {
    EXPECT_EQ(std::string(e.what()), "Cannot listen on 127.0.0.1:" + std::to_string(port()) + ": Address already in use");
  }
  EXPECT_EQ(rpc(kPing)["result"], "pong");  // the first one is unharmed
}

}  // namespace
}  // namespace KQ::test
