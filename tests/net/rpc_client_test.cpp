// Our own client against the real server: results, the error each reply
// code becomes, events, a connection shared by threads, and what callers
// see when the server is absent, refuses them, or goes away mid-call.
#include "middleware/net/rpc_client.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "net/net_fixture.h"

namespace KQ {
namespace test {
namespace {

using net::RpcClient;

KQValue args(std::vector<KQValue> values) { return KQValue(values); }

// Collects events delivered on the client's event thread.
class EventLog {
 public:
  KQEventCallback callback() {
    return [this](const std::string& event, const KQValue& value) {
      std::lock_guard<std::mutex> lock(mutex_);
      events_.push_back(event + "=" + value.toText());
      changed_.notify_all();
    };
  }
  // Waits (at most 20 s) for count events; answers what arrived.
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const KQError& e) {
    return e.what();
  }
  return "(no error)";
}

using RpcClientTest = NetServerTest;

TEST_F(RpcClientTest, CallsComeBackAsValuesAndRefusalsAsTheirErrors) {
  RpcClient client(wsUrl());
  // Case: results of every kind.
  EXPECT_EQ(client.call("NetTest.add", args({2, 3})), KQValue(5));
  EXPECT_EQ(client.call("broker.modules", KQValue()), KQValue(std::vector<std::string>{"KQMemory", "NetTest"}));
  const KQValue pose = client.call("NetTest.getPosition", args({"World", "cup"}));
  EXPECT_EQ(pose[1].toFloatVector(), (std::vector<float>{0.5f, 0.0f, 0.75f}));
  EXPECT_EQ(client.call("NetTest.echo", args({KQValue(0.1f)})), KQValue(0.1f));
  EXPECT_EQ(client.call("NetTest.echo", args({KQValue(true)})), KQValue(true));
  EXPECT_FALSE(client.call("NetTest.bump", KQValue()).isArray());
  // Case: a single non-array argument is sent as the one argument.
  EXPECT_EQ(client.call("NetTest.echo", KQValue("alone")), KQValue("alone"));

  // Case: -32602 is a KQArgumentError with the server's message.
  try {
    client.call("NetTest.add", args({1}));
    FAIL();
  } catch (const KQArgumentError& e) {
    EXPECT_EQ(std::string(e.what()), "NetTest.add: expects 2 arguments, got 1");
  }
  // Case: -32601 is a KQUnknownMethodError.
  try {
    client.call("Nope.ping", KQValue());
    FAIL();
  } catch (const KQUnknownMethodError& e) {
    EXPECT_EQ(std::string(e.what()), "Unknown module: Nope");
  }
  // Case: -32000 is a plain KQError, the method's text unchanged.
  EXPECT_EQ(failureOf([&] { client.call("NetTest.fail", args({"Object cup already exists."})); }),
            "NetTest.fail: Object cup already exists.");
  // Case: an int the server cannot hold never leaves as a wider one; a too
  // deep value is refused by the server, and the connection stays usable.
  KQValue deep(1);
  for (int i = 0; i < 70; ++i) deep = args({deep});
  EXPECT_EQ(failureOf([&] { client.call("NetTest.echo", args({deep})); }),
            "Invalid Request: nested deeper than 64 levels");
  EXPECT_EQ(client.call("NetTest.ping", KQValue()), KQValue("pong"));
}

TEST_F(RpcClientTest, TransportFailuresAreKQErrorsThatSayWhere) {
  // Case: nobody listens (a server that was there and is gone).
  const std::string goneUrl = wsUrl();
  server_->stop();
  RpcClient nobody(goneUrl);
  EXPECT_EQ(failureOf([&] { nobody.call("NetTest.ping", KQValue()); }),
            "Cannot connect to " + goneUrl + ": Connection refused");

  // Case: a wrong token is refused at the upgrade.
  net::RpcServerOptions options;
  options.token = "s3cret";
  restartServer(options);
  RpcClient intruder(wsUrl(), "guess");
  EXPECT_EQ(failureOf([&] { intruder.call("NetTest.ping", KQValue()); }),
            "Cannot connect to " + wsUrl() + ": the server answered 401 Unauthorized");
  RpcClient friendClient("http://127.0.0.1:" + std::to_string(port()), "s3cret");
  EXPECT_EQ(friendClient.call("NetTest.ping", KQValue()), KQValue("pong"));

  // Case: a URL the client cannot use.
  EXPECT_THROW(RpcClient("https://127.0.0.1:1"), KQError);
  EXPECT_THROW(RpcClient("127.0.0.1:9480"), KQError);
}

TEST_F(RpcClientTest, ACallInFlightFailsWhenTheServerGoesAndTheNextOneReconnects) {
  RpcClient client(wsUrl());
  auto waiting = std::async(std::launch::async, [&] { return failureOf([&] { client.call("NetTest.holdLock", KQValue()); }); });
  ASSERT_TRUE(module_->waitHolding(1));
  // Stopping closes the connection; the stop itself waits for the call, so
  // the gate opens from another thread once the connection is gone.
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    module_->openGate();
  });
  const unsigned short samePort = port();
  server_->stop();
  opener.join();
  const std::string failure = waiting.get();
  EXPECT_EQ(failure.rfind("Connection to " + wsUrl() + " lost", 0), 0u) << failure;

  // A new server on the same port: the same client simply goes on.
  net::RpcServerOptions options;
  server_ = std::make_unique<net::RpcServer>(broker_, [&] {
    options.port = samePort;
    return options;
  }());
  server_->start();
  EXPECT_EQ(client.call("NetTest.ping", KQValue()), KQValue("pong"));
}

TEST_F(RpcClientTest, OneConnectionServesManyThreadsWithoutHeadOfLineBlocking) {
  RpcClient client(wsUrl());
  // Case: a call that waits does not hold back the others on the same socket.
  auto held = std::async(std::launch::async, [&] { return client.call("NetTest.holdLock", KQValue()); });
  ASSERT_TRUE(module_->waitHolding(1));
  EXPECT_EQ(client.call("NetTest.ping", KQValue()), KQValue("pong"));

  // Case: eight threads, each its own sums, all on one connection.
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 8; ++k) {
    threads.emplace_back([&, k] {
      for (int i = 0; i < 50; ++i)
        if (client.call("NetTest.add", args({k * 1000, i})) != KQValue(k * 1000 + i)) ++wrong;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  module_->openGate();
  EXPECT_EQ(held.get(), KQValue(1));
}

TEST_F(RpcClientTest, SubscribersGetEventsOnTheirOwnThreadUntilTheyLeave) {
  RpcClient client(wsUrl());
  EventLog first, second;
  const uint64_t a = client.subscribe("Test/Moved", first.callback());
  const uint64_t b = client.subscribe("Test/Moved", second.callback());
  memory_->raiseEvent("Test/Moved", KQValue(std::vector<float>{1.0f, 2.5f}));
  EXPECT_EQ(first.waitFor(1), std::vector<std::string>{"Test/Moved=[1.0, 2.5]"});
  EXPECT_EQ(second.waitFor(1), std::vector<std::string>{"Test/Moved=[1.0, 2.5]"});

  // Case: one local subscriber leaves; the other still hears.
  client.unsubscribe(a);
  memory_->raiseEvent("Test/Moved", KQValue(2));
  EXPECT_EQ(second.waitFor(2).back(), "Test/Moved=2");

  // Case: a callback may call the client (it runs off the I/O thread).
  std::promise<KQValue> inner;
  const uint64_t c = client.subscribe("Test/Ask", [&](const std::string&, const KQValue&) {
    inner.set_value(client.call("NetTest.add", args({40, 2})));
  });
  memory_->raiseEvent("Test/Ask", KQValue());
  auto answer = inner.get_future();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(answer.get(), KQValue(42));
  client.unsubscribe(c);
  client.unsubscribe(b);
  client.unsubscribe(b);  // twice is harmless

  // Case: subscriptions are renewed on a new connection after a loss.
  EventLog third;
  client.subscribe("Test/Again", third.callback());
  const unsigned short samePort = port();
  server_->stop();
  net::RpcServerOptions options;
  options.port = samePort;
  server_ = std::make_unique<net::RpcServer>(broker_, options);
  server_->start();
  // The client reconnects by itself; raise until the renewal has landed.
  std::vector<std::string> heard;
  for (int i = 0; i < 200 && heard.empty(); ++i) {
    memory_->raiseEvent("Test/Again", KQValue(i));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    heard = third.waitFor(0);
  }
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard.front().rfind("Test/Again=", 0), 0u);
}

}  // namespace
}  // namespace test
}  // namespace KQ
