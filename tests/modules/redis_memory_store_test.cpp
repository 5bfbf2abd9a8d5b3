// KQMemory kept in a real redis-server (RedisMemoryStore): values keep their
// kinds in the documented encoding that redis-cli reads and writes, foreign
// values are refused, two memories on one server share keys and events, and
// a server that dies or freezes fails calls quickly until it is back.
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/modules/redis_memory_store.h"
#include "support/checks.h"
#include "support/redis_server.h"

namespace KQ {
namespace {

using test::errorOf;
using test::list;
using Clock = std::chrono::steady_clock;

// One service's KQMemory on the shared server, with a subscriber that keeps
// what it hears.
struct Service {
  Service(const std::string& url, const std::string& prefix = "kq:")
      : memory(std::make_shared<KQMemoryModule>(broker, "KQMemory",
                                                std::make_shared<RedisMemoryStore>(url, prefix))) {
    memory->subscribeEvent("Ping", [this](const std::string&, const KQValue& value) {
      std::lock_guard<std::mutex> lock(mutex);
      heard.push_back(value.toInt());
      arrived.notify_all();
    });
  }
  // What was heard once `count` values arrived, or after 5 s.
  std::vector<int> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(5), [&] { return heard.size() >= count; });
    return heard;
  }
  std::shared_ptr<KQBroker> broker = std::make_shared<KQBroker>("redis-test");
  std::shared_ptr<KQMemoryModule> memory;
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<int> heard;
};

class RedisMemoryTest : public ::testing::Test {
 protected:
  test::RedisServer redis_;
};

TEST_F(RedisMemoryTest, ValuesKeepTheirKindsInTheDocumentedEncoding) {
  Service a(redis_.url());
  // Case: every kind reads back as itself, and redis-cli sees the encoding.
  const std::vector<std::pair<KQValue, std::string>> kinds = {
      {KQValue(3), "3"},
      {KQValue(-2147483647 - 1), "-2147483648"},
      {KQValue(1.0f), "1.0"},
      {KQValue(0.1f), "0.1"},
      {KQValue(true), "true"},
      {KQValue("a \"cup\"\n"), R"("a \"cup\"\n")"},
      {KQValue(), "null"},
      {KQValue(std::vector<KQValue>()), "[]"},
      {list({1, list({2.5f, list({"x", false})})}), R"([1,[2.5,["x",false]]])"},
  };
  for (const auto& [value, text] : kinds) {
    a.memory->insertData("k", value);
    EXPECT_EQ(a.memory->getData("k"), value) << text;
    EXPECT_EQ(a.memory->getData("k").getType(), value.getType()) << text;
    EXPECT_EQ(redis_.cli({"GET", "kq:data:k"}), text);
  }
  // Case: what redis-cli writes in the encoding is read as such.
  redis_.cli({"SET", "kq:data:Object/cup", R"(["cup","World",[1.0,0,0],"cup.dae",[1.0,1.0,1.0],[1.0,0.0,0.0]])"});
  EXPECT_EQ(a.memory->getData("Object/cup")[2], list({1.0f, 0, 0}));
  // Case: an absent key names the key; removing it twice is no error.
  a.memory->removeData("k");
  a.memory->removeData("k");
  EXPECT_EQ(errorOf([&] { a.memory->getData("k"); }), "KQMemory.getData: There is no data under key k.");
}

TEST_F(RedisMemoryTest, ValuesNotInTheEncodingAreRefusedWithTheirCause) {
  Service a(redis_.url());
  const std::vector<std::pair<std::vector<std::string>, std::string>> foreign = {
      {{"SET", "kq:data:k", "cup"}, "not JSON"},
      {{"SET", "kq:data:k", R"({"x":1})"}, "a JSON object is not a value"},
      {{"SET", "kq:data:k", "2147483648"}, "does not fit in a 32-bit int"},
      {{"SET", "kq:data:k", "[1,"}, "not JSON"},
      {{"HSET", "kq:data:k", "x", "1"}, "refused GET: WRONGTYPE"},
  };
  for (const auto& [command, cause] : foreign) {
    redis_.cli({"DEL", "kq:data:k"});
    redis_.cli(command);
    const std::string error = errorOf([&] { a.memory->getData("k"); });
    EXPECT_EQ(error.rfind("KQMemory.getData: ", 0), 0u) << error;
    EXPECT_NE(error.find(cause), std::string::npos) << error;
  }
}

TEST_F(RedisMemoryTest, TwoServicesShareKeysAndEachHearsEveryRaiseOnceInOrder) {
  Service a(redis_.url());
  Service b(redis_.url());
  Service elsewhere(redis_.url(), "other:");
  // Case: keys written by one are listed (SCAN, the text taken literally) and
  // read by the other; another prefix is another memory.
  for (const char* key : {"Object/cup", "robot/Object/box", "Objects", "a*b"}) a.memory->insertData(key, KQValue(1));
  elsewhere.memory->insertData("Object/plate", KQValue(2));
  EXPECT_EQ(b.memory->getDataList("Object/"), (std::vector<std::string>{"Object/cup", "robot/Object/box"}));
  EXPECT_EQ(b.memory->getDataList("*"), (std::vector<std::string>{"a*b"}));
  EXPECT_EQ(elsewhere.memory->getDataList(""), (std::vector<std::string>{"Object/plate"}));
  // Case: events: declared once each, in declaration order; a raise stores its value.
  b.memory->declareEvent("Display");
  a.memory->declareEvent("Display");
  std::vector<int> raised;
  for (int i = 0; i < 100; ++i) {
    a.memory->raiseEvent("Ping", KQValue(i));
    raised.push_back(i);
  }
  EXPECT_EQ(b.memory->getEventList(), (std::vector<std::string>{"Display", "Ping"}));
  EXPECT_EQ(b.memory->getData("Ping"), KQValue(99));
  EXPECT_EQ(a.waitFor(100), raised);
  EXPECT_EQ(b.waitFor(100), raised);
  EXPECT_TRUE(elsewhere.waitFor(1).empty());
}

TEST_F(RedisMemoryTest, ALostServerFailsCallsQuicklyAndIsFoundAgainWithoutLosingLaterRaises) {
  Service a(redis_.url());
  Service b(redis_.url());
  a.memory->raiseEvent("Ping", KQValue(0));
  ASSERT_EQ(b.waitFor(1).size(), 1u);
  // Case: killed, then frozen: each call fails within a second, naming the cause.
  for (bool frozen : {false, true}) {
    if (frozen) {
      redis_.start();
      redis_.pause();
    } else {
      redis_.kill();
    }
    for (int call = 0; call < 3; ++call) {
      const Clock::time_point start = Clock::now();
      // (A read: a write that timed out on a frozen server may still land once it thaws.)
      const std::string error = errorOf([&] { a.memory->getData("Ping"); });
      EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
      EXPECT_EQ(error.rfind("KQMemory.getData: memory store unavailable: " + redis_.url() + ": ", 0), 0u)
          << error;
    }
  }
  redis_.resume();
  // Case: back without a restart of ours; b hears what a raises from then on.
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
  bool back = false;
  while (!back && Clock::now() < deadline) {
    back = errorOf([&] { a.memory->raiseEvent("Ping", KQValue(1)); }).empty();
    if (!back) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_TRUE(back);
  a.memory->raiseEvent("Ping", KQValue(2));
  EXPECT_EQ(b.waitFor(3), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(b.memory->getData("Ping"), KQValue(2));
}

TEST(RedisMemoryStart, AnUnreachableOrMalformedUrlIsRefusedAtOnce) {
  const std::string error = errorOf([] { RedisMemoryStore("unix:///nonexistent/redis.sock", "kq:"); });
  EXPECT_EQ(error.rfind("Cannot reach the memory store unix:///nonexistent/redis.sock: ", 0), 0u) << error;
  for (const char* url : {"http://x", "redis://:1", "redis://h:99999", "redis://h/x", "unix://rel", "unix:///s?x=1"})
    EXPECT_NE(errorOf([&] { parseRedisUrl(url); }).find("(redis://HOST:PORT[/DB]"), std::string::npos) << url;
  EXPECT_EQ(parseRedisUrl("redis://127.0.0.1:6380/2").port, 6380);
  EXPECT_EQ(parseRedisUrl("unix:///tmp/r.sock?db=3").db, 3);
}

}  // namespace
}  // namespace KQ
