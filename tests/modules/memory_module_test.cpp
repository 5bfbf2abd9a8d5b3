// KQMemory as the world model meets it: through a broker and the typed
// KQMemoryProxy, by method name, with real subscribers on real threads.
#include "middleware/modules/memory_module.h"

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/memory_proxy.h"
#include "support/log_capture.h"

namespace KQ {
namespace {

class MemoryModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = std::make_shared<KQBroker>("memory-test");
    module_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
    memory_ = broker_->getSpecialisedProxy<KQMemoryProxy>("KQMemory");
  }
  void TearDown() override { broker_->shutdown(); }

  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<KQMemoryModule> module_;
  std::shared_ptr<KQMemoryProxy> memory_;
};

std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const KQError& e) {
    return e.getMessage();
  }
  return "no error";
}

TEST_F(MemoryModuleTest, KeysHoldOneValueAndAbsentKeysAreErrorsNotEmptyValues) {
  // Case: an absent key is a KQError naming the key, not an invalid value
  // that a caller would mistake for a stored one.
  EXPECT_EQ(errorOf([&] { memory_->getData("Object/cup"); }), "There is no data under key Object/cup.");

  // Case: a second insert replaces the value, it does not append.
  memory_->insertData("Object/cup", KQValue(std::vector<float>{1.0f, 2.0f}));
  memory_->insertData("Object/cup", KQValue("moved"));
  EXPECT_EQ(memory_->getData("Object/cup"), KQValue("moved"));

  // Case: the filter matches anywhere in the key (the memory watcher asks for
  // "Object/" and keys may carry a prefix), and an empty filter lists all.
  memory_->insertData("robot/Object/box", KQValue(1));
  memory_->insertData("Objects", KQValue(2));
  EXPECT_EQ(memory_->getDataList("Object/"), (std::vector<std::string>{"Object/cup", "robot/Object/box"}));
  EXPECT_EQ(memory_->getDataList("").size(), 3u);

  // Case: removing twice is no error; the key is gone after the first.
  memory_->removeData("Object/cup");
  memory_->removeData("Object/cup");
  EXPECT_EQ(memory_->getDataList("Object/"), (std::vector<std::string>{"robot/Object/box"}));
}

TEST_F(MemoryModuleTest, RaisedEventsKeepTheirLastValueForReaders) {
  // Case: the world model reads the display list back with getData right
  // after raising it; the raise must have stored it.
  memory_->declareEvent("KQWorldRepresentation/DisplayRequired");
  memory_->raiseEvent("KQWorldRepresentation/DisplayRequired", KQValue(std::vector<std::string>{"cup"}));
  EXPECT_EQ(memory_->getData("KQWorldRepresentation/DisplayRequired"), KQValue(std::vector<std::string>{"cup"}));

  // Case: declaring twice lists once; raising an undeclared event declares it.
  memory_->declareEvent("KQWorldRepresentation/DisplayRequired");
  memory_->raiseEvent("Undeclared", KQValue(3));
  EXPECT_EQ(memory_->getEventList(),
            (std::vector<std::string>{"KQWorldRepresentation/DisplayRequired", "Undeclared"}));
}

TEST_F(MemoryModuleTest, SubscribersRunOutsideTheLockAndOneFailureSparesTheOthers) {
  test::LogCapture log;
  std::vector<std::string> seen;
  auto proxy = memory_->getGenericProxy();

  // Case: a callback reads the module back; it would deadlock if the module
  // still held its lock while calling.
  const uint64_t reader = proxy->subscribe("Ping", [&](const std::string& event, const KQValue& value) {
    seen.push_back(event + "=" + memory_->getData("Ping").toText() + "/" + value.toText());
  });
  // Case: a throwing subscriber is logged and the next one is still called.
  const uint64_t thrower = proxy->subscribe("Ping", [](const std::string&, const KQValue&) {
    throw std::runtime_error("viewer crashed");
  });
  const uint64_t counter = proxy->subscribe("Ping", [&](const std::string&, const KQValue&) { seen.push_back("again"); });
  proxy->subscribe("Other", [&](const std::string&, const KQValue&) { seen.push_back("wrong event"); });

  memory_->raiseEvent("Ping", KQValue(7));
  EXPECT_EQ(seen, (std::vector<std::string>{"Ping=7/7", "again"}));
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"warning KQMemory raiseEvent: A subscriber of Ping failed: viewer crashed"}));

  // Case: after unsubscribing, a callback is not called again.
  proxy->unsubscribe(reader);
  proxy->unsubscribe(thrower);
  proxy->unsubscribe(counter);
  proxy->unsubscribe(counter);  // unknown id: nothing happens
  seen.clear();
  memory_->raiseEvent("Ping", KQValue(8));
  EXPECT_TRUE(seen.empty());
}

TEST_F(MemoryModuleTest, UnsubscribeWaitsForARunningCallbackSoItsOwnerMayGo) {
  // A network session unsubscribes when its client leaves and is then
  // destroyed; a callback still running on the raising thread must have
  // finished by the time unsubscribe returns.
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool release = false;
  std::atomic<int> calls{0};
  const uint64_t id = module_->subscribeEvent("Slow", [&](const std::string&, const KQValue&) {
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
    ++calls;
  });

  std::thread raiser([&] { module_->raiseEvent("Slow", KQValue(1)); });
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return entered; });
  }
  std::atomic<bool> unsubscribed{false};
  std::thread leaver([&] {
    module_->unsubscribeEvent(id);
    unsubscribed = true;
  });

  // Case: while the callback runs, unsubscribe has not returned.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(unsubscribed.load());
  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  changed.notify_all();
  raiser.join();
  leaver.join();
  EXPECT_TRUE(unsubscribed.load());
  EXPECT_EQ(calls.load(), 1);

  // Case: a callback may unsubscribe itself without deadlocking.
  uint64_t self = 0;
  int selfCalls = 0;
  self = module_->subscribeEvent("Once", [&](const std::string&, const KQValue&) {
    ++selfCalls;
    module_->unsubscribeEvent(self);
  });
  module_->raiseEvent("Once", KQValue(1));
  module_->raiseEvent("Once", KQValue(2));
  EXPECT_EQ(selfCalls, 1);
}

TEST_F(MemoryModuleTest, CallbacksRaisingEachOthersEventsOnTwoThreadsDoNotDeadlock) {
  // Thread 1 raises Left, thread 2 raises Right; once both callbacks run,
  // each raises the other's event. Holding a per-subscriber lock during the
  // call would make each thread wait for the other forever.
  std::mutex mutex;
  std::condition_variable bothIn;
  int entered = 0;
  std::atomic<int> leftCalls{0};
  std::atomic<int> rightCalls{0};
  auto crossOnce = [&](std::atomic<int>& calls, const std::string& other) {
    if (calls++ > 0) return;  // the echo of the other side's raise
    {
      std::unique_lock<std::mutex> lock(mutex);
      ++entered;
      bothIn.notify_all();
      bothIn.wait(lock, [&] { return entered == 2; });
    }
    module_->raiseEvent(other, KQValue(1));
  };
  module_->subscribeEvent("Left", [&](const std::string&, const KQValue&) { crossOnce(leftCalls, "Right"); });
  module_->subscribeEvent("Right", [&](const std::string&, const KQValue&) { crossOnce(rightCalls, "Left"); });
  std::thread one([&] { module_->raiseEvent("Left", KQValue(0)); });
  std::thread two([&] { module_->raiseEvent("Right", KQValue(0)); });
  one.join();
  two.join();
  EXPECT_EQ(leftCalls.load(), 2);
  EXPECT_EQ(rightCalls.load(), 2);
}

}  // namespace
}  // namespace KQ
