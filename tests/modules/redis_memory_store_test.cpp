// KQMemory in a real redis-server (RedisMemoryStore): kinds and encoding as redis-cli sees them, foreign values,
// two services sharing keys and events, a server that dies or freezes.
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/modules/redis_memory_store.h"
#include "support/checks.h"
#include "support/temp_dir.h"

namespace KQ {
namespace {

using test::errorOf;
using test::list;

// A redis-server of the test's own on a Unix socket, persistence off;
// signal() kills (KILL), freezes (STOP) or thaws (CONT) it. cli() runs
// redis-cli, as any other program would (arguments hold no single quote).
class RedisServer {
 public:
  RedisServer() { start(); }
  ~RedisServer() { signal("CONT"), signal("KILL"); }
  std::string url() const { return "unix://" + folder_.file("s"); }
  void start() {
    std::system(("redis-server --port 0 --unixsocket " + folder_.file("s") + " --save '' --appendonly no --dir " +
                 folder_.path() + " --daemonize yes --pidfile " + folder_.file("pid") + " >/dev/null").c_str());
    for (int i = 0; i < 200 && cli({"PING"}) != "PONG"; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  void signal(const std::string& name) {
    std::system(("kill -" + name + " $(cat " + folder_.file("pid") + ") 2>/dev/null; sleep 0.1").c_str());
  }
  std::string cli(const std::vector<std::string>& args) const {
    std::string command = "redis-cli -s " + folder_.file("s");
    for (const std::string& arg : args) command += " '" + arg + "'";
    std::string out;
    FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
    for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    if (pipe) ::pclose(pipe);
    return out.empty() ? out : out.substr(0, out.size() - 1);
  }

 private:
  test::TempDir folder_;
};

// One service's KQMemory; it keeps what its subscriber of "Ping" hears (the memory goes first when it ends).
struct Service {
  explicit Service(const std::string& url, const std::string& prefix = "kq:")
      : memory(std::make_shared<KQMemoryModule>(broker, "KQMemory", std::make_shared<RedisMemoryStore>(url, prefix))) {
    memory->subscribeEvent("Ping", [this](const std::string&, const KQValue& value) {
      std::lock_guard<std::mutex> lock(mutex);
      heard.push_back(value.toInt());
      arrived.notify_all();
    });
  }
  std::vector<int> waitFor(std::size_t count) {  // or 5 s
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(5), [&] { return heard.size() >= count; });
    return heard;
  }
  std::shared_ptr<KQBroker> broker = std::make_shared<KQBroker>("redis-test");
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<int> heard;
  std::shared_ptr<KQMemoryModule> memory;
};

class RedisMemoryTest : public ::testing::Test {
 protected:
  RedisServer redis_;
};

TEST_F(RedisMemoryTest, ValuesKeepTheirKindsInTheDocumentedEncodingAndForeignOnesAreRefused) {
  Service a(redis_.url());
  // Case: every kind reads back as itself, and redis-cli sees the encoding.
  const std::vector<std::pair<KQValue, std::string>> kinds = {
      {KQValue(3), "3"}, {KQValue(-2147483647 - 1), "-2147483648"}, {KQValue(1.0f), "1.0"}, {KQValue(0.1f), "0.1"},
      {KQValue(true), "true"}, {KQValue("a \"cup\"\n"), R"("a \"cup\"\n")"}, {KQValue(), "null"},
      {KQValue(std::vector<KQValue>()), "[]"}, {list({1, list({2.5f, list({"x", false})})}), R"([1,[2.5,["x",false]]])"}};
  for (const auto& [value, text] : kinds) {
    a.memory->insertData("k", value);
    EXPECT_EQ(a.memory->getData("k"), value) << text;
    EXPECT_EQ(redis_.cli({"GET", "kq:data:k"}), text);
  }
  // Case: what redis-cli writes in the encoding is read as such.
  redis_.cli({"SET", "kq:data:Object/cup", R"(["cup","World",[1.0,0,0],"cup.dae",[1.0,1.0,1.0],[1.0,0.0,0.0]])"});
  EXPECT_EQ(a.memory->getData("Object/cup")[2], list({1.0f, 0, 0}));
  // Case: an absent key names the key.
  a.memory->removeData("k");
  EXPECT_EQ(errorOf([&] { a.memory->getData("k"); }), "KQMemory.getData: There is no data under key k.");
  // Case: values not in the encoding are refused with their cause.
  const std::vector<std::pair<std::vector<std::string>, std::string>> foreign = {
      {{"SET", "kq:data:k", "cup"}, "not JSON"}, {{"SET", "kq:data:k", "[1,"}, "not JSON"},
      {{"SET", "kq:data:k", R"({"x":1})"}, "a JSON object is not a value"},
      {{"SET", "kq:data:k", "2147483648"}, "does not fit in a 32-bit int"},
      {{"HSET", "kq:data:k", "x", "1"}, "refused GET: WRONGTYPE"}};
  for (const auto& [command, cause] : foreign) {
    redis_.cli({"DEL", "kq:data:k"}), redis_.cli(command);
    const std::string error = errorOf([&] { a.memory->getData("k"); });
    EXPECT_TRUE(error.rfind("KQMemory.getData: ", 0) == 0 && error.find(cause) != std::string::npos) << error;
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
  std::vector<int> raised(100);
  std::iota(raised.begin(), raised.end(), 0);
  for (int i : raised) a.memory->raiseEvent("Ping", KQValue(i));
  EXPECT_EQ(b.memory->getEventList(), (std::vector<std::string>{"Display", "Ping"}));
  EXPECT_EQ(b.memory->getData("Ping"), KQValue(99));
  EXPECT_EQ(a.waitFor(100), raised);
  EXPECT_EQ(b.waitFor(100), raised);
  EXPECT_TRUE(elsewhere.waitFor(0).empty());
}

TEST_F(RedisMemoryTest, ALostServerFailsCallsQuicklyAndIsFoundAgainWithoutLosingLaterRaises) {
  Service a(redis_.url());
  Service b(redis_.url());
  a.memory->raiseEvent("Ping", KQValue(0));
  ASSERT_EQ(b.waitFor(1).size(), 1u);
  // Case: killed, then frozen: each call fails within a second, naming the cause.
  for (bool frozen : {false, true}) {
    if (frozen) redis_.start();
    redis_.signal(frozen ? "STOP" : "KILL");
    for (int call = 0; call < 3; ++call) {
      const auto start = std::chrono::steady_clock::now();
      // (A read: a write that timed out on a frozen server may still land once it thaws.)
      const std::string error = errorOf([&] { a.memory->getData("Ping"); });
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
      EXPECT_EQ(error.rfind("KQMemory.getData: memory store unavailable: " + redis_.url() + ": ", 0), 0u)
          << error;
    }
  }
  redis_.signal("CONT");
  // Case: back without a restart of ours; b hears what a raises from then on.
  bool back = false;
  for (int i = 0; i < 100 && !back; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(50))) try {
      a.memory->raiseEvent("Ping", KQValue(1)), back = true;
    } catch (const KQError&) {}
  ASSERT_TRUE(back);
  a.memory->raiseEvent("Ping", KQValue(2));
  EXPECT_EQ(b.waitFor(3), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(b.memory->getData("Ping"), KQValue(2));
}

}  // namespace
}  // namespace KQ
