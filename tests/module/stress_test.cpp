// Many callers at once, on the real module and its real category files,
// under a watchdog that aborts the run with a message if it does not end
// (a deadlock leaves no other trace). The world, besides the fixture's robot:
//
//   World
//   |-- Robot -- Robot_Torso -- HeadYaw, LShoulderPitch, RShoulderPitch, LWristGhost
//   |-- table                 (frame)
//   |   |-- mover1            (cups: moved with history, weights stored)
//   |   |-- mover2            (cups: moved without history, weight updated)
//   |   `-- churn<k>_<i>      (cups: stored and cleared again and again)
//   `-- ball                  (kqmemoryobjects, kept by the memory watcher)
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/value.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

// Aborts the process with `what` if it is still alive after `limit`: a
// deadlocked test would otherwise hang until ctest kills it, saying nothing.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, std::string what) : what_(std::move(what)) {
    thread_ = std::thread([this, limit] {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!done_.wait_for(lock, limit, [this] { return finished_; })) {
        std::fprintf(stderr, "WATCHDOG: %s did not finish within %lld s: deadlock suspected\n", what_.c_str(),
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::abort();
      }
    });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::string what_;
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

KQValue emptyList() {
  KQValue list;
  list.arraySetSize(0);
  return list;
}

KQValue weight(float kilograms) { return list({list({"kg", kilograms})}); }

KQValue ball(float x) {
  return list({"object", "World", KQValue(std::vector<float>{x, 1, 0}), "ball.dae",
               KQValue(std::vector<float>{1, 1, 1}), KQValue(std::vector<float>{1, 0, 0})});
}

// Runs every body on its own thread until `duration` has passed.
void runTogether(const std::vector<std::function<void()>>& bodies, std::chrono::milliseconds duration,
                 std::atomic<bool>& stop) {
  std::vector<std::thread> threads;
  for (const auto& body : bodies)
    threads.emplace_back([&body, &stop] {
      while (!stop) body();
    });
  std::this_thread::sleep_for(duration);
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

class StressTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("cups", true));
    ASSERT_EQ(0, world().addAttributeToCategory("cups", "weight", list({list({"kg", "float"})})));
    ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0.7f, 0, 0, 0}, "frame", emptyList()));
    ASSERT_EQ(0, world().storeObject("mover1", "table", {0, 0, 0, 0, 0, 0}, "cups", emptyList()));
    ASSERT_EQ(0, world().storeObject("mover2", "table", {0, 0, 0, 0, 0, 0}, "cups", emptyList()));
  }

  // Rows of a "cups" table that match `condition`.
  int rowCount(const std::string& condition, const std::string& table) {
    const KQValue rows = world().select(condition, "cups", table, "ObjectName");
    return rows.isArray() ? rows.getSize() : -1;
  }
};

TEST_F(StressTest, MixedCallersEndWithoutDeadlockOrLostRows) {
  Watchdog watchdog(std::chrono::seconds(60), "the mixed-callers stress run");
  memory().setData("Object/ball", ball(0));
  world().startMemoryCheck(0);

  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::atomic<int> savedMoves{0};  // updatePosition(mover1, save true) that returned 0
  std::atomic<int> weightsStored{0};
  std::atomic<int> churned{0};
  std::atomic<int> savesDone{0};
  std::atomic<int> counter{0};
  auto check = [&failures](bool ok) {
    if (!ok) ++failures;
  };

  const std::vector<std::function<void()>> callers = {
      // Stores and clears objects of its own names.
      [&] {
        const std::string name = "churn0_" + std::to_string(counter++);
        check(world().storeObject(name, "table", {0.1f, 0, 0, 0, 0, 0}, "cups", emptyList()) == 0);
        check(world().findObject(name));
        check(world().clearObject(name) == 0);
        ++churned;
      },
      // Stores relative to a robot frame, then clears.
      [&] {
        const std::string name = "churn1_" + std::to_string(counter++);
        check(world().storeObjectWithReference(name, "table", "Robot_Torso", {0, 0, 0.2f, 0, 0, 0}, "cups",
                                               emptyList()) == 0);
        check(world().clearObject(name) == 0);
      },
      // Moves mover1 with history.
      [&] {
        const float x = static_cast<float>(counter++ % 100) / 100.0f;
        const bool ok = world().updatePosition("mover1", {x, 0, 0, 0, 0, 0}, true) == 0;
        check(ok);
        if (ok) ++savedMoves;
      },
      // Moves mover2 without history, absolutely and relative to the robot.
      [&] {
        check(world().updatePosition("mover2", {0, 0.1f, 0, 0, 0, 0}, false) == 0);
        check(world().updatePositionWithReference("mover2", "Robot", {0.2f, 0, 0, 0, 0, 0}, false) == 0);
      },
      // The three position queries, through the robot's live frames.
      [&] {
        check(world().getPosition("HeadYaw", "mover1").getSize() == 2);
        check(world().getPosition6D("mover2", "LShoulderPitch").size() == 6);
        world().getPosition6DAtTime("World", "mover1", 0, 1);
      },
      // Attribute writes and reads.
      [&] {
        check(world().storeObjectAttribute("mover1", "weight", weight(0.25f)) == 0);
        ++weightsStored;
        check(world().updateAttribute("mover2", "weight", "1", weight(0.5f)) == 0);
        check(world().getObjectAttributeValues("mover1", "weight", 3).isArray());
        check(world().getObjectLatestAttributes("mover2", 1).isArray());
      },
      // Saves (never waiting) and lists.
      [&] {
        const int result = world().save();
        check(result == 0 || result == 1);
        if (result == 0) ++savesDone;
        check(!world().getObjectNames().empty());
      },
      // Raw reads and the memory object's value.
      [&] {
        check(world().select("1", "cups", "positions", "ObjectName").isArray());
        check(world().selectWithOrder("1", "TimeS DESC", "cups", "weight", "kg").isArray());
        memory().setData("Object/ball", ball(static_cast<float>(counter++ % 10)));
      },
  };
  ASSERT_EQ(8u, callers.size());
  runTogether(callers, std::chrono::milliseconds(3000), stop);
  world().stopMemoryCheck();

  EXPECT_EQ(0, failures.load());
  EXPECT_GT(savedMoves.load(), 0);
  EXPECT_GT(churned.load(), 0);
  EXPECT_GT(savesDone.load(), 0);

  // Case: every row that a call reported is there, and no churned object
  // left one behind.
  EXPECT_EQ(1 + savedMoves.load(), rowCount("ObjectName='mover1'", "positions"));
  EXPECT_EQ(1, rowCount("ObjectName='mover2'", "positions"));
  EXPECT_EQ(weightsStored.load(), rowCount("ObjectName='mover1'", "weight"));
  EXPECT_EQ(1, rowCount("ObjectName='mover2'", "weight"));
  EXPECT_EQ(0, rowCount("ObjectName LIKE 'churn%'", "positions"));
  EXPECT_EQ((std::vector<std::string>{"mover1", "mover2"}), world().getChildrenNames("table"));

  // Case: the watcher kept its object through it all.
  EXPECT_TRUE(world().findObject("ball"));
  // Case: nothing failed on the way. (A checkpoint that meets a reader on
  // the same file is deferred, not an error: save holds the category lock
  // shared, so readers may run beside it.)
  std::vector<std::string> errors;
  for (const ko::log::Record& record : logs().records()) {
    if (record.level > ko::log::error) continue;
    errors.push_back(record.category + " " + record.function + ": " + record.message);
  }
  EXPECT_EQ(std::vector<std::string>{}, errors);
  EXPECT_EQ(0, world().save());
}

// Readers whose methods call others that take a lock again would deadlock
// as soon as a writer waits in between (a waiting writer blocks new shared
// holders). Writers keep the object, graph and category locks contended
// while the readers loop.
TEST_F(StressTest, NoReaderTakesASharedLockTwice) {
  Watchdog watchdog(std::chrono::seconds(60), "the shared-lock run");
  std::atomic<bool> stop{false};
  std::atomic<int> counter{0};
  std::atomic<int> readerCalls{0};
  const std::vector<std::function<void()>> callers = {
      // Readers.
      [&] {
        world().getObjectAttributeValues("mover1", "positions", 2);
        ++readerCalls;
      },
      [&] {
        world().updatePositionWithReference("mover2", "HeadYaw", {0.1f, 0, 0, 0, 0, 0}, false);
        ++readerCalls;
      },
      [&] {
        const std::string name = "ref_" + std::to_string(counter++);
        world().storeObjectWithReference(name, "table", "mover1", {0, 0, 0.1f, 0, 0, 0}, "cups", emptyList());
        ++readerCalls;
      },
      [&] {
        world().getObjectLatestAttributes("mover1", 1);
        ++readerCalls;
      },
      [&] {
        world().getPosition6DAtTime("HeadYaw", "mover1", 1, 1);
        ++readerCalls;
      },
      // Writers.
      [&] {
        const std::string name = "w_" + std::to_string(counter++);
        world().storeObject(name, "table", {0, 0, 0, 0, 0, 0}, "cups", emptyList());
        world().clearObject(name);
      },
      [&] {
        world().updatePosition("mover1", {0.3f, 0, 0, 0, 0, 0}, true);
      },
      [&] { world().createObjectCategory("cups", false); },
      [&] { world().getPosition("mover1", "HeadYaw"); },
  };
  runTogether(callers, std::chrono::milliseconds(3000), stop);
  EXPECT_GT(readerCalls.load(), 0);
}

}  // namespace
}  // namespace test
}  // namespace KQ
