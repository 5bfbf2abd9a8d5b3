// The server as HTTP clients meet it: curl and python's http.client against
// a real RpcServer on 127.0.0.1 (see net_fixture.h for what it hosts).
#include "middleware/net/rpc_server.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "middleware/error.h"
#include "net/net_fixture.h"

namespace KQ {
namespace test {
namespace {

using json = nlohmann::json;

json error(int code, const std::string& message, const json& id) {
  return json{{"jsonrpc", "2.0"}, {"error", {{"code", code}, {"message", message}}}, {"id", id}};
}

json result(const json& value, const json& id) { return json{{"jsonrpc", "2.0"}, {"result", value}, {"id", id}}; }

using RpcOverHttpTest = NetServerTest;

TEST_F(RpcOverHttpTest, AnswersCallsNotificationsAndBatches) {
  // Case: a call by "<Module>.<method>" with positional params.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[2,3],"id":1})"), result(5, 1));
  // Case: string ids come back as they went.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","id":"a-1"})"), result("pong", "a-1"));
  // Case: the pose of a getPosition, floats and all.
  const HttpAnswer pose =
      curlPost(rpcUrl(), R"({"jsonrpc":"2.0","method":"NetTest.getPosition","params":["World","cup"],"id":2})");
  EXPECT_EQ(pose.body, R"({"id":2,"jsonrpc":"2.0","result":[[0.70710677,0.0,0.0,0.70710677],[0.5,0.0,0.75]]})");

  // Case: a notification runs but gets no reply body.
  const HttpAnswer quiet = curlPost(rpcUrl(), R"({"jsonrpc":"2.0","method":"NetTest.bump"})");
  EXPECT_EQ(quiet.status, 204);
  EXPECT_EQ(quiet.body, "");
  EXPECT_EQ(module_->bumps(), 1);

  // Case: a batch answers its requests in order and skips its notifications.
  EXPECT_EQ(rpc(R"([{"jsonrpc":"2.0","method":"NetTest.add","params":[1,1],"id":10},
                    {"jsonrpc":"2.0","method":"NetTest.bump"},
                    {"jsonrpc":"2.0","method":"NetTest.nope","id":11},
                    {"jsonrpc":"2.0","method":"NetTest.ping","id":12}])"),
            json::array({result(2, 10),
                         error(-32601, "NetTest.nope: no method nope in module NetTest", 11),
                         result("pong", 12)}));
  EXPECT_EQ(module_->bumps(), 2);
  // Case: a batch of notifications only has nothing to answer.
  const HttpAnswer quietBatch = curlPost(rpcUrl(), R"([{"jsonrpc":"2.0","method":"NetTest.bump"}])");
  EXPECT_EQ(quietBatch.status, 204);
  EXPECT_EQ(module_->bumps(), 3);
  // Case: an empty batch is an invalid request.
  EXPECT_EQ(rpc("[]"), error(-32600, "Invalid Request: empty batch", nullptr));
}

TEST_F(RpcOverHttpTest, TheBrokerListsItsModulesAndTheirMethods) {
  // Case: absent params mean no arguments.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.modules","id":1})"),
            result(json::array({"KQMemory", "NetTest"}), 1));
  // Case: methods in registration order, [name, description].
  const json methods = rpc(R"({"jsonrpc":"2.0","method":"broker.methods","params":["NetTest"],"id":2})");
  ASSERT_TRUE(methods["result"].is_array()) << methods;
  ASSERT_EQ(methods["result"].size(), 10u);
  EXPECT_EQ(methods["result"][0], json::array({"add", "Adds two ints."}));
  EXPECT_EQ(methods["result"][9], json::array({"ping", "Answers pong without any lock."}));
  // Case: an unknown module, and arguments checked like a method's.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.methods","params":["Nope"],"id":3})"),
            error(-32601, "Unknown module: Nope", 3));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.methods","id":4})"),
            error(-32602, "broker.methods: expects 1 argument, got 0", 4));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.methods","params":[3],"id":5})"),
            error(-32602, "broker.methods: argument 1 must be string, not int 3", 5));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.modules","params":[1],"id":6})"),
            error(-32602, "broker.modules: expects 0 arguments, got 1", 6));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"broker.reboot","id":7})"),
            error(-32601, "Unknown method: broker.reboot", 7));
}

TEST_F(RpcOverHttpTest, EveryFaultHasItsCodeAndItsMessage) {
  // Case: -32700, text that is not JSON; the parser's reason rides in data.
  const json parse = rpc(R"({"jsonrpc":"2.0","method":)");
  EXPECT_EQ(parse["error"]["code"], -32700);
  EXPECT_EQ(parse["error"]["message"], "Parse error");
  EXPECT_TRUE(parse["error"]["data"].is_string());
  EXPECT_TRUE(parse["id"].is_null());

  // Case: -32600, JSON that is not a request.
  EXPECT_EQ(rpc("3"), error(-32600, "Invalid Request: not an object", nullptr));
  EXPECT_EQ(rpc(R"({"method":"NetTest.ping","id":1})"),
            error(-32600, R"(Invalid Request: "jsonrpc" must be "2.0")", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"1.0","method":"NetTest.ping","id":1})"),
            error(-32600, R"(Invalid Request: "jsonrpc" must be "2.0")", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":5,"id":1})"),
            error(-32600, R"(Invalid Request: "method" must be a string)", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","id":[1]})"),
            error(-32600, R"(Invalid Request: "id" must be a string, a number or null)", nullptr));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","params":"x","id":1})"),
            error(-32600, R"(Invalid Request: "params" must be an array)", 1));
  // An invalid request is answered even without an id: it is no notification.
  EXPECT_EQ(rpc(R"([1,{"jsonrpc":"2.0"}])"), json::array({error(-32600, "Invalid Request: not an object", nullptr),
                                                         error(-32600, R"(Invalid Request: "method" must be a string)",
                                                               nullptr)}));

  // Case: -32601, unknown module, unknown method, a name with no module.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"Nope.ping","id":1})"), error(-32601, "Unknown module: Nope", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.nope","id":1})"),
            error(-32601, "NetTest.nope: no method nope in module NetTest", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"ping","id":1})"),
            error(-32601, "Unknown method: ping (expected <Module>.<method>)", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"subscribe","params":["E"],"id":1})"),
            error(-32601, "Unknown method: subscribe (events need a WebSocket at /ws)", 1));

  // Case: -32602, count and type, naming the argument.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1],"id":1})"),
            error(-32602, "NetTest.add: expects 2 arguments, got 1", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1,"2"],"id":1})"),
            error(-32602, "NetTest.add: argument 2 must be int, not string \"2\"", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":[1,2147483648],"id":1})"),
            error(-32602, "NetTest.add: argument 2: 2147483648 does not fit in a 32-bit int", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.echo","params":[{"x":1}],"id":1})"),
            error(-32602, "NetTest.echo: argument 1: a JSON object is not a value", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.add","params":{"a":1,"b":2},"id":1})"),
            error(-32602, "NetTest.add: params must be an array of positional arguments", 1));

  // Case: -32000, the method's own KQError, its text as message.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.fail","params":["Category Cups does not exist."],"id":1})"),
            error(-32000, "NetTest.fail: Category Cups does not exist.", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.getPosition","params":["World","plate"],"id":1})"),
            error(-32000, "NetTest.getPosition: Object plate does not exist.", 1));
  // Case: -32000 too for an exception that is no KQError; the server lives on.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.failOddly","id":1})"), error(-32000, "something odd", 1));
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","id":2})"), result("pong", 2));

  // Case: a failing notification stays silent.
  EXPECT_EQ(curlPost(rpcUrl(), R"({"jsonrpc":"2.0","method":"NetTest.fail","params":["x"]})").status, 204);
}

TEST_F(RpcOverHttpTest, ValuesKeepTheirKindsBothWays) {
  const auto echo = [&](const std::string& value) {
    return curlPost(rpcUrl(), R"({"jsonrpc":"2.0","method":"NetTest.echo","params":[)" + value + R"(],"id":1})")
        .body;
  };
  const auto echoed = [](const std::string& value) { return R"({"id":1,"jsonrpc":"2.0","result":)" + value + "}"; };
  // Case: a float stays a float, written shortest, never as an int.
  EXPECT_EQ(echo("1.0"), echoed("1.0"));
  EXPECT_EQ(echo("0.1"), echoed("0.1"));
  EXPECT_EQ(echo("1e30"), echoed("1e+30"));
  EXPECT_EQ(echo("-2.5E-3"), echoed("-0.0025"));
  // Case: ints at the edges of 32 bits.
  EXPECT_EQ(echo("2147483647"), echoed("2147483647"));
  EXPECT_EQ(echo("-2147483648"), echoed("-2147483648"));
  // Case: strings (escapes, UTF-8), bools, null, nesting.
  EXPECT_EQ(echo(R"("Tasse \"blau\" ü\n")"), echoed(R"("Tasse \"blau\" ü\n")"));
  EXPECT_EQ(echo("[true,false,null,[[1,2.0],[]]]"), echoed("[true,false,null,[[1,2.0],[]]]"));
}

TEST_F(RpcOverHttpTest, DeepNestingIsRefusedBeforeItIsBuilt) {
  // The request object and params are two levels; the value brings the rest.
  const auto echoNested = [&](int valueDepth) {
    return rpc(R"({"jsonrpc":"2.0","method":"NetTest.echo","params":[)" + std::string(valueDepth, '[') + "1" +
               std::string(valueDepth, ']') + R"(],"id":1})");
  };
  // Case: 64 levels in all are carried.
  EXPECT_TRUE(echoNested(62).contains("result"));
  // Case: 65 are an invalid request (no id: the request was never read).
  EXPECT_EQ(echoNested(63), error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr));
  // Case: depth is judged before syntax: an unclosed deep text too.
  EXPECT_EQ(rpc(std::string(100000, '[')), error(-32600, "Invalid Request: nested deeper than 64 levels", nullptr));
}

TEST_F(RpcOverHttpTest, RefusesWhatIsNotAJsonRpcPost) {
  // Case: 415 without application/json; charset parameters are fine.
  const std::string ping = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})";
  const HttpAnswer plain = curlPost(rpcUrl(), ping, {"Content-Type: text/plain"});
  EXPECT_EQ(plain.status, 415);
  EXPECT_EQ(plain.body, "POST /rpc requires Content-Type: application/json.\n");
  EXPECT_EQ(curlPost(rpcUrl(), ping, {"Content-Type:"}).status, 415);
  EXPECT_EQ(curlPost(rpcUrl(), ping, {"Content-Type: application/json; charset=utf-8"}).status, 200);
  // Case: 405 for another verb on /rpc, 404 elsewhere, 400 for /ws without upgrade.
  EXPECT_EQ(curlGet(rpcUrl()).status, 405);
  EXPECT_EQ(curlGet("http://127.0.0.1:" + std::to_string(port()) + "/").status, 404);
  EXPECT_EQ(curlGet("http://127.0.0.1:" + std::to_string(port()) + "/ws").status, 400);
}

TEST_F(RpcOverHttpTest, OversizedBodiesAre413) {
  net::RpcServerOptions options;
  options.maxMessageBytes = 1024;
  restartServer(options);
  const std::string padding(2000, ' ');
  const std::string big = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1)" + padding + "}";
  // Case: a declared length over the limit (curl sends Content-Length).
  const HttpAnswer declared = curlPost(rpcUrl(), big);
  EXPECT_EQ(declared.status, 413) << declared.error;
  EXPECT_EQ(declared.body, "Message larger than 1024 bytes.\n");
  // Case: a chunked body that only turns out too large while it is read.
  const ProgramResult chunked = runPython(R"(
import http.client, sys
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=30)
def chunks():
    for _ in range(8):
        yield b" " * 400
c.request("POST", "/rpc", body=chunks(), headers={"Content-Type": "application/json"}, encode_chunked=True)
print(c.getresponse().status)
)",
                                          {std::to_string(port())});
  EXPECT_EQ(chunked.out, "413\n") << chunked.err;
  // Case: just under the limit still works.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1)" + std::string(900, ' ') + "}"),
            result("pong", 1));
  // Case: curl's Expect: 100-continue for a body that is allowed.
  EXPECT_EQ(curlPost(rpcUrl(), R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})" + std::string(900, ' '),
                     {"Content-Type: application/json", "Expect: 100-continue"})
                .status,
            200);
}

TEST_F(RpcOverHttpTest, WithATokenEveryRequestMustCarryIt) {
  net::RpcServerOptions options;
  options.token = "s3cret";
  restartServer(options);
  const std::string ping = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})";
  // Case: missing and wrong tokens, header and query forms: 401.
  const HttpAnswer missing = curlPost(rpcUrl(), ping);
  EXPECT_EQ(missing.status, 401);
  EXPECT_EQ(missing.body, "A valid token is required.\n");
  EXPECT_EQ(curlPost(rpcUrl(), ping, {"Content-Type: application/json", "Authorization: Bearer wrong"}).status,
            401);
  EXPECT_EQ(curlPost(rpcUrl() + "?token=wrong", ping).status, 401);
  // Case: the right token in either form.
  EXPECT_EQ(curlPost(rpcUrl(), ping, {"Content-Type: application/json", "Authorization: Bearer s3cret"}).status,
            200);
  EXPECT_EQ(curlPost(rpcUrl() + "?token=s3cret", ping).status, 200);
  // Case: the token is asked before anything else is revealed (no 404).
  EXPECT_EQ(curlGet("http://127.0.0.1:" + std::to_string(port()) + "/elsewhere").status, 401);

  // Case: WebSocket upgrades too, header and query forms.
  const ProgramResult ws = runPython(R"(
import asyncio, sys, websockets
port = sys.argv[1]
async def attempt(url, headers=None):
    try:
        async with websockets.connect(url, extra_headers=headers or {}) as ws:
            await ws.send('{"jsonrpc":"2.0","method":"NetTest.ping","id":1}')
            return await ws.recv()
    except websockets.exceptions.InvalidStatusCode as e:
        return e.status_code
async def main():
    base = "ws://127.0.0.1:" + port + "/ws"
    print(await attempt(base))
    print(await attempt(base + "?token=wrong"))
    print(await attempt(base, {"Authorization": "Bearer wrong"}))
    print(await attempt(base + "?token=s3cret"))
    print(await attempt(base, {"Authorization": "Bearer s3cret"}))
asyncio.run(main())
)",
                                     {std::to_string(port())});
  EXPECT_EQ(ws.out,
            "401\n401\n401\n"
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n"
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"pong\"}\n")
      << ws.err;
}

TEST_F(RpcOverHttpTest, PagesOfOtherSitesAre403) {
  const std::string ping = R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})";
  const std::string own = std::to_string(port());
  const auto from = [&](const std::string& origin) {
    return curlPost(rpcUrl(), ping, {"Content-Type: application/json", "Origin: " + origin}).status;
  };
  // Case: another site, and loopback with another port.
  EXPECT_EQ(from("http://evil.example"), 403);
  EXPECT_EQ(from("http://localhost:1"), 403);
  EXPECT_EQ(from("null"), 403);
  // Case: this server's own pages by any loopback name.
  EXPECT_EQ(from("http://127.0.0.1:" + own), 200);
  EXPECT_EQ(from("http://localhost:" + own), 200);
  EXPECT_EQ(from("http://[::1]:" + own), 200);
  // Case: a WebSocket opened by another site's page.
  const ProgramResult ws = runPython(R"(
import asyncio, sys, websockets
async def main():
    for origin in ["http://evil.example", "http://localhost:" + sys.argv[1]]:
        try:
            async with websockets.connect("ws://127.0.0.1:" + sys.argv[1] + "/ws", origin=origin) as ws:
                print("open")
        except websockets.exceptions.InvalidStatusCode as e:
            print(e.status_code)
asyncio.run(main())
)",
                                     {own});
  EXPECT_EQ(ws.out, "403\nopen\n") << ws.err;
}

TEST_F(RpcOverHttpTest, KeepAliveServesManyCallsOnOneConnectionAndIdleOnesAreClosed) {
  net::RpcServerOptions options;
  options.idleTimeoutSeconds = 1;
  restartServer(options);
  const ProgramResult run = runPython(R"(
import http.client, json, socket, sys
port = int(sys.argv[1])
c = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
total = 0
for i in range(50):
    c.request("POST", "/rpc", body=json.dumps({"jsonrpc": "2.0", "method": "NetTest.add", "params": [i, 1], "id": i}),
              headers={"Content-Type": "application/json"})
    total += json.loads(c.getresponse().read())["result"]
print(total)
# A connection that says nothing is closed by the server, not kept forever.
s = socket.create_connection(("127.0.0.1", port), timeout=30)
print(repr(s.recv(1)))
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
    EXPECT_EQ(std::string(e.what()), "Cannot listen on 127.0.0.1:" + std::to_string(port()) +
                                         ": Address already in use");
  }
  // The first one is unharmed.
  EXPECT_EQ(rpc(R"({"jsonrpc":"2.0","method":"NetTest.ping","id":1})"), result("pong", 1));
}

}  // namespace
}  // namespace test
}  // namespace KQ
