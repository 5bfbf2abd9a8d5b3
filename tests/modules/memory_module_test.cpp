// KQMemory as the world model meets it: through a broker and the typed
// KQMemoryProxy, with real subscribers on real threads.
#include "middleware/modules/memory_module.h"

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/memory_proxy.h"
#include "support/checks.h"
#include "support/log_capture.h"

namespace KQ {
namespace {

using Names = std::vector<std::string>;

class MemoryModuleTest : public ::testing::Test {
 protected:
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<KQBroker> broker_ = std::make_shared<KQBroker>("memory-test");
  std::shared_ptr<KQMemoryModule> module_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
  std::shared_ptr<KQMemoryProxy> memory_ = broker_->getSpecialisedProxy<KQMemoryProxy>("KQMemory");
};

TEST_F(MemoryModuleTest, KeysHoldOneValueAndRaisedEventsKeepTheirLast) {
  // Case: an absent key is an error, not an invalid value a caller would
  // mistake for a stored one; a second insert replaces the value.
  EXPECT_EQ(test::errorOf([&] { memory_->getData("Object/cup"); }),
            "KQMemory.getData: There is no data under key Object/cup.");
  memory_->insertData("Object/cup", KQValue(1));
  memory_->insertData("Object/cup", KQValue("moved"));
  EXPECT_EQ(memory_->getData("Object/cup"), KQValue("moved"));
  // Case: the filter matches anywhere in the key (keys may carry a prefix);
  // removing twice is no error.
  memory_->insertData("robot/Object/box", KQValue(1));
  memory_->insertData("Objects", KQValue(2));
  EXPECT_EQ(memory_->getDataList("Object/"), (Names{"Object/cup", "robot/Object/box"}));
  memory_->removeData("Object/cup");
  memory_->removeData("Object/cup");
  EXPECT_EQ(memory_->getDataList(""), (Names{"Objects", "robot/Object/box"}));
  // Case: the world model reads a raised value back with getData; declaring
  // twice lists once; raising an undeclared event declares it.
  memory_->declareEvent("Display");
  memory_->declareEvent("Display");
  memory_->raiseEvent("Display", KQValue(Names{"cup"}));
  memory_->raiseEvent("Undeclared", KQValue(3));
  EXPECT_EQ(memory_->getData("Display"), KQValue(Names{"cup"}));
  EXPECT_EQ(memory_->getEventList(), (Names{"Display", "Undeclared"}));
}

TEST_F(MemoryModuleTest, SubscribersRunOutsideTheLockAndOneFailureSparesTheOthers) {
  test::LogCapture log;
  Names seen;
  auto proxy = memory_->getGenericProxy();
  // Case: a callback that reads the module back would deadlock if the
  // module held its lock while calling; a throwing one is logged and the
  // next is still called.
  const uint64_t reader = proxy->subscribe("Ping", [&](const std::string& event, const KQValue& value) {
    seen.push_back(event + "=" + memory_->getData("Ping").toText() + "/" + value.toText());
  });
  proxy->subscribe("Ping", [](const std::string&, const KQValue&) { throw std::runtime_error("viewer crashed"); });
  proxy->subscribe("Other", [&](const std::string&, const KQValue&) { seen.push_back("wrong event"); });
  memory_->raiseEvent("Ping", KQValue(7));
  // Case: after unsubscribing (twice is harmless), a callback is not called again.
  proxy->unsubscribe(reader);
  proxy->unsubscribe(reader);
  memory_->raiseEvent("Ping", KQValue(8));
  EXPECT_EQ(seen, Names{"Ping=7/7"});
  EXPECT_EQ(log.lines(), (Names(2, "warning KQMemory raiseEvent: A subscriber of Ping failed: viewer crashed")));
}

TEST_F(MemoryModuleTest, UnsubscribeWaitsForARunningCallbackSoItsOwnerMayGo) {
  // A network session unsubscribes when its client leaves and is then
  // destroyed: a callback still running on the raising thread must have
  // finished by the time unsubscribe returns.
  std::promise<void> entered, release;
  std::atomic<int> calls{0};
  const uint64_t id = module_->subscribeEvent("Slow", [&, released = release.get_future().share()](
                                                          const std::string&, const KQValue&) {
    entered.set_value();
    released.wait();
    ++calls;
  });
  std::thread raiser([&] { module_->raiseEvent("Slow", KQValue(1)); });
  entered.get_future().wait();
  int callsWhenUnsubscribed = -1;
  std::thread leaver([&] {
    module_->unsubscribeEvent(id);
    callsWhenUnsubscribed = calls;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // time for a faulty unsubscribe to return early
  release.set_value();
  raiser.join();
  leaver.join();
  EXPECT_EQ(callsWhenUnsubscribed, 1);
  // Case: a callback may unsubscribe itself without deadlocking.
  uint64_t self = 0;
  self = module_->subscribeEvent("Once", [&](const std::string&, const KQValue&) { module_->unsubscribeEvent(self); });
  module_->raiseEvent("Once", KQValue(1));
}

}  // namespace
}  // namespace KQ
