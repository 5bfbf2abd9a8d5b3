// Our own client against the real server: the error each reply code becomes,
// events, a connection shared by threads, and a server that goes away. The remote
// proxy built on it for --parent, and tokens, are e2e's.
#include "middleware/net/rpc_client.h"

#include <atomic>
#include <future>
#include <thread>

#include "net/net_fixture.h"
#include "support/checks.h"

namespace KQ::test {
namespace {

using net::RpcClient;

// Collects events delivered on the client's event thread.
struct EventLog {
  KQEventCallback callback() {
    return [this](const std::string& event, const KQValue& value) {
      std::lock_guard<std::mutex> lock(mutex);
      events.push_back(event + "=" + value.toText());
      changed.notify_all();
    };
  }
  std::vector<std::string> waitFor(std::size_t count) {  // at most 20 s
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(20), [&] { return events.size() >= count; });
    return events;
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
};

// "<kind>: <what()>" of the KQError the call throws: the reply code decides the kind.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const KQArgumentError& e) {
    return std::string("argument: ") + e.what();
  } catch (const KQUnknownMethodError& e) {
    return std::string("unknown: ") + e.what();
  } catch (const KQError& e) {
    return std::string("error: ") + e.what();
  }
  return "(no error)";
}

using RpcClientTest = NetServerTest;

TEST_F(RpcClientTest, CallsComeBackAsValuesAndRefusalsAsTheirErrors) {
  RpcClient client(wsUrl());
  // Case: a single non-array argument is sent as the one argument.
  EXPECT_EQ(client.call("NetTest.echo", KQValue("alone")), KQValue("alone"));
  const std::pair<std::function<void()>, std::string> refusals[] = {
      {[&] { client.call("NetTest.add", list({1})); }, "argument: NetTest.add: expects 2 arguments, got 1"},
      {[&] { client.call("Nope.ping", KQValue()); }, "unknown: Unknown module: Nope"},
      {[&] { client.call("NetTest.fail", list({"Object cup exists."})); }, "error: NetTest.fail: Object cup exists."},
  };
  for (const auto& [call, failure] : refusals) EXPECT_EQ(failureOf(call), failure);
}

TEST_F(RpcClientTest, OneConnectionServesManyThreadsAndTellsWhenItsServerIsGone) {
  RpcClient client(wsUrl());
  auto waiting = std::async(std::launch::async, [&] { return failureOf([&] { client.call("NetTest.hold", {}); }); });
  ASSERT_TRUE(module_->waitHolding(1));
  // Case: while that call waits, threads call on the same connection: the
  // server must not answer a connection's calls one after another.
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 8; ++k)
    threads.emplace_back([&, k] {
      for (int i = 0; i < 50; ++i) wrong += client.call("NetTest.add", list({k * 1000, i})) != KQValue(k * 1000 + i);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  // Case: stopping closes the connection, then waits for the call: the gate
  // opens from another thread once the connection is gone.
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    module_->openGate();
  });
  const std::string url = wsUrl();
  server_.reset();
  opener.join();
  EXPECT_EQ(waiting.get().rfind("error: Connection to " + url + " lost", 0), 0u);
  EXPECT_EQ(failureOf([&] { client.call("NetTest.ping", {}); }), "error: Cannot connect to " + url + ": Connection refused");
}

TEST_F(RpcClientTest, SubscribersGetEventsOnTheirOwnThreadUntilTheyLeave) {
  RpcClient client(wsUrl());
  EventLog first, second;
  const uint64_t a = client.subscribe("Test/Moved", first.callback());
  client.subscribe("Test/Moved", second.callback());
  memory_->raiseEvent("Test/Moved", KQValue(std::vector<float>{1.0f, 2.5f}));
  EXPECT_EQ(first.waitFor(1), std::vector<std::string>{"Test/Moved=[1.0, 2.5]"});
  // Case: one local subscriber leaves; the other still hears.
  client.unsubscribe(a);
  memory_->raiseEvent("Test/Moved", KQValue(2));
  EXPECT_EQ(second.waitFor(2), (std::vector<std::string>{"Test/Moved=[1.0, 2.5]", "Test/Moved=2"}));
  // Case: a callback may call the client (it runs off the I/O thread).
  std::promise<KQValue> inner;
  client.subscribe("Test/Ask", [&](const std::string&, const KQValue&) {
    inner.set_value(client.call("NetTest.add", list({40, 2})));
  });
  memory_->raiseEvent("Test/Ask", KQValue());
  auto answer = inner.get_future();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(answer.get(), KQValue(42));
}

}  // namespace
}  // namespace KQ::test
