// Many callers at once on the real module and its real category files, under a watchdog (a deadlock leaves
// no other trace): World -- table -- mover1, mover2 (cups), churned objects; World -- ball (memory watcher).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/checks.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

std::vector<float> at(float x, float y = 0, float z = 0) { return {x, y, z, 0, 0, 0}; }

class StressTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("cups", true));
    ASSERT_EQ(0, world().addAttributeToCategory("cups", "weight", list({list({"kg", "float"})})));
    ASSERT_EQ(0, world().storeObject("table", "World", at(1, 0, 0.7f), "frame", none_));
    for (const char* mover : {"mover1", "mover2"})
      ASSERT_EQ(0, world().storeObject(mover, "table", at(0), "cups", none_));
  }
  // Runs every body in a loop on a thread of its own for three seconds, under a watchdog.
  void runTogether(const char* run, const std::vector<std::function<void()>>& bodies) {
    Watchdog watchdog(std::chrono::seconds(60), run);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (const auto& body : bodies) threads.emplace_back([&body, &stop] { while (!stop) body(); });
    std::this_thread::sleep_for(std::chrono::seconds(3));
    stop = true;
    for (std::thread& thread : threads) thread.join();
  }
  int rows(const std::string& table, const std::string& condition) {
    return world().select(condition, "cups", table, "ObjectName").getSize();
  }
  std::atomic<int> counter_{0};
  const KQValue none_ = list({});  // no attributes
};

TEST_F(StressTest, MixedCallersEndWithoutDeadlockOrLostRows) {
  world().startMemoryCheck(0);
  std::atomic<int> failures{0}, savedMoves{0}, weightsStored{0}, savesDone{0};
  auto check = [&](bool ok) { return ok || (++failures, false); };
  runTogether("the mixed-callers run", {
      [&] {  // stores and clears objects of its own, one placed through a robot frame
        const std::string name = "churn" + std::to_string(counter_++);
        check(world().storeObject(name, "table", at(0.1f), "cups", none_) == 0);
        check(world().storeObjectWithReference(name + "r", name, "Robot_Torso", at(0, 0, 0.2f), "cups", none_) == 0);
        check(world().findObject(name + "r") && world().clearObject(name) == 0);
      },
      [&] { savedMoves += check(world().updatePosition("mover1", at((counter_++ % 100) / 100.0f), true) == 0); },
      [&] {
        check(world().updatePosition("mover2", at(0, 0.1f), false) == 0);
        check(world().updatePositionWithReference("mover2", "Robot", at(0.2f), false) == 0);
      },
      [&] {  // the position queries, through the robot's live frames
        check(world().getPosition("HeadYaw", "mover1").getSize() == 2);
        check(world().getPosition6D("mover2", "LShoulderPitch").size() == 6);
      },
      [&] {
        weightsStored += check(world().storeObjectAttribute("mover1", "weight", list({list({"kg", 0.25f})})) == 0);
        check(world().updateAttribute("mover2", "weight", "1", list({list({"kg", 0.5f})})) == 0);
      },
      [&] {  // saves never wait: 1 when busy
        const int result = world().save();
        savesDone += check(result <= 1 && !world().getObjectNames().empty()) && result == 0;
      },
      [&] {  // the memory watcher's object
        const KQValue place = list({counter_++ % 10, 1, 0});
        memory().setData("Object/ball", list({"object", "World", place, "ball.dae", list({1, 1, 1}), list({1, 0, 0})}));
      },
  });
  world().stopMemoryCheck();

  EXPECT_EQ(0, failures.load());
  EXPECT_GT(savedMoves.load() * savesDone.load(), 0);
  // Case: every row a call reported is there, and no churned object left one; nothing failed on the way.
  EXPECT_EQ(1 + savedMoves.load(), rows("positions", "ObjectName='mover1'"));
  EXPECT_EQ(weightsStored.load(), rows("weight", "ObjectName='mover1'"));
  EXPECT_EQ(0, rows("positions", "ObjectName LIKE 'churn%'"));
  EXPECT_EQ((std::vector<std::string>{"mover1", "mover2"}), world().getChildrenNames("table"));
  EXPECT_TRUE(world().findObject("ball"));
  for (const ko::log::Record& record : logs().records())
    EXPECT_GT(record.level, ko::log::error) << record.category << " " << record.function << ": " << record.message;
}

// A reader whose method takes a shared lock it already holds deadlocks as soon as a writer waits in
// between (a waiting writer blocks new readers): writers (the last four) keep every lock contended.
TEST_F(StressTest, NoReaderTakesASharedLockTwice) {
  runTogether("the shared-lock run", {
      [&] { world().getObjectAttributeValues("mover1", "positions", 2); },
      [&] { world().updatePositionWithReference("mover2", "HeadYaw", at(0.1f), false); },
      [&] { world().storeObjectWithReference(std::to_string(counter_++), "table", "mover1", at(0), "cups", none_); },
      [&] { world().getObjectLatestAttributes("mover1", 1); },
      [&] { world().getPosition6DAtTime("HeadYaw", "mover1", 1, 1); },
      [&] { world().storeObject("w", "table", at(0), "cups", none_) == 0 && world().clearObject("w"); },
      [&] { world().updatePosition("mover1", at(0.3f), true); },
      [&] { world().createObjectCategory("cups", false); },
      [&] { world().getPosition("mover1", "HeadYaw"); },
  });
}

}  // namespace
}  // namespace test
}  // namespace KQ
