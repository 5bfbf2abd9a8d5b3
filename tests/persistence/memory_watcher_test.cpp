// The memory watcher against the recording memory module (which can be told
// to refuse) and the fixture's world, with its real category databases.
//
// Objects published under "Object/<name>" hang under a table of the room:
//
//   World
//   |-- Robot ... (the fixture's robot)
//   `-- table                 (frame, x 1)
//       `-- cup               (kqmemoryobjects, made by the watcher)
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/os.h"
#include "middleware/value.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

// Linux keeps 15 bytes of the watcher's name "KQWorldRep-KQMemory".
const char* const kWatcherThread = "KQWorldRep-KQMe";

// The value another module publishes: [text, reference, position, model,
// scale, colour].
KQValue memoryObject(const std::string& reference, const std::vector<float>& position, const std::string& model) {
  return KQValue(std::vector<KQValue>{KQValue("object"), KQValue(reference), KQValue(position), KQValue(model),
                                      KQValue(std::vector<float>{0.1f, 0.2f, 0.3f}),
                                      KQValue(std::vector<float>{1.0f, 0.5f, 0.0f})});
}

// Polls until the condition holds; false after the deadline (a generous
// guard against a hang, not a speed requirement).
bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    ko::os::msleep(2);
  }
  return true;
}

int threadsNamed(const std::string& name) {
  int count = 0;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
    std::ifstream comm(task.path() / "comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  return count;
}

// Runs stopMemoryCheck on another thread and tells whether it came back.
bool stopReturns(KQWorldRepresentation& world) {
  auto stopped = std::async(std::launch::async, [&world] { world.stopMemoryCheck(); });
  return stopped.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

bool near(const std::vector<float>& expected, const std::vector<float>& actual) {
  if (expected.size() != actual.size()) return false;
  for (std::size_t i = 0; i < expected.size(); ++i)
    if (std::abs(expected[i] - actual[i]) > 1e-4f) return false;
  return true;
}

class MemoryWatcherTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0, 0, 0, 0}, "frame", list({})));
  }
  void TearDown() override {
    // exit() in the fixture stops the watcher too; a hang there would hide
    // the story's own failure.
    EXPECT_TRUE(stopReturns(world()));
    ko::os::setClock({});
    WorldFixture::TearDown();
  }

  KQValue displayRows(const std::string& name) { return world().getObjectAttributeValues(name, "Display", 100); }

  std::string displayedModel(const std::string& name) {
    const KQValue rows = displayRows(name);
    if (!rows.isArray() || rows.getSize() == 0 || !rows[0].isArray() || rows[0].getSize() != 10) return "";
    return rows[0][9].isString() ? rows[0][9].toString() : "";
  }

  bool onDisplayList(const std::string& name) {
    const KQValue list = memory().getData(KQWorldRepresentation::displayRequiredEventName_);
    for (int i = 0; i < list.getSize(); ++i)
      if (list[i].isString() && list[i].toString() == name) return true;
    return false;
  }

  std::atomic<int64_t> clockReadings_{0};

  int positionRows(const std::string& name) {
    const KQValue rows = world().select("ObjectName='" + name + "'", "kqmemoryobjects", "positions", "TimeS");
    return rows.isArray() ? rows.getSize() : 0;
  }
};

TEST_F(MemoryWatcherTest, MirrorsPublishedObjectsIntoTheWorld) {
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(0);

  // Case: a new key makes an object of "kqmemoryobjects" under its
  // reference; 3 floats are x, y, z without rotation.
  ASSERT_TRUE(waitUntil([&] { return world().findObject("cup") && displayedModel("cup") == "cup.dae"; }));
  EXPECT_EQ("kqmemoryobjects", world().getObjectCategory("cup"));
  EXPECT_EQ("table", world().getObjectParentName("cup"));
  EXPECT_TRUE(near({0.1f, 0.2f, 0.3f, 0, 0, 0}, world().getPosition6D("table", "cup")));

  // Case: its "Display" row holds the colour, scale and model, and it is on
  // the display list.
  const KQValue row = displayRows("cup")[0];
  EXPECT_EQ(KQValue("cup"), row[0]);
  std::vector<float> colourAndScale;
  for (int i = 3; i <= 8; ++i) colourAndScale.push_back(row[i].toFloat());
  EXPECT_TRUE(near({1.0f, 0.5f, 0.0f, 0.1f, 0.2f, 0.3f}, colourAndScale));
  EXPECT_TRUE(onDisplayList("cup"));

  // Case: a new value moves the object in its parent's frame (the reference
  // in memory is ignored for an object that exists) and updates its display.
  memory().setData("Object/cup", memoryObject("World", {0.5f, 0, 0, 0, 0, 1.0f}, "mug.dae"));
  ASSERT_TRUE(waitUntil([&] {
    return displayedModel("cup") == "mug.dae" && near({0.5f, 0, 0, 0, 0, 1.0f}, world().getPosition6D("table", "cup"));
  }));
  EXPECT_EQ("table", world().getObjectParentName("cup"));
  EXPECT_EQ(1, displayRows("cup").getSize());

  // Case: its own name as reference keeps the object where it is, but the
  // display still follows the value.
  memory().setData("Object/cup", memoryObject("cup", {9, 9, 9}, "bowl.dae"));
  ASSERT_TRUE(waitUntil([&] { return displayedModel("cup") == "bowl.dae"; }));
  const int rowsNow = positionRows("cup");
  ASSERT_TRUE(waitUntil([&] { return positionRows("cup") > rowsNow; }));  // a whole pass more
  EXPECT_TRUE(near({0.5f, 0, 0, 0, 0, 1.0f}, world().getPosition6D("table", "cup")));

  // Case: an emptied value removes the display rows and takes the object
  // off the display list; the object stays.
  memory().setData("Object/cup", list({}));
  ASSERT_TRUE(waitUntil([&] { return displayRows("cup").getSize() == 0 && !onDisplayList("cup"); }));
  EXPECT_TRUE(world().findObject("cup"));
}

TEST_F(MemoryWatcherTest, ANewObjectNamingItselfAsReferenceIsRefused) {
  // Keys are handled in order: once "Object/zz" exists, "Object/self" was
  // handled in the same pass.
  memory().setData("Object/self", memoryObject("self", {1, 2, 3}, "m"));
  memory().setData("Object/zz", memoryObject("World", {1, 2, 3}, "m"));
  world().startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([&] { return world().findObject("zz"); }));

  // Case: the reference goes to storeObject as it stands: no such parent.
  EXPECT_FALSE(world().findObject("self"));
  EXPECT_TRUE(logs().contains(ko::log::error, "storeObject", "Parent self does not exist."));
}

TEST_F(MemoryWatcherTest, AMalformedValueIsWarnedAndSkipped) {
  const KQValue textInPosition(std::vector<KQValue>{KQValue("object"), KQValue("World"),
                                                    KQValue(std::vector<KQValue>{KQValue("a"), KQValue(1), KQValue(2)}),
                                                    KQValue("m"), KQValue(std::vector<float>{1, 1, 1}),
                                                    KQValue(std::vector<float>{1, 0, 0})});
  const KQValue fourFloats(std::vector<KQValue>{KQValue("object"), KQValue("World"),
                                                KQValue(std::vector<float>{1, 2, 3, 4}), KQValue("m"),
                                                KQValue(std::vector<float>{1, 1, 1}), KQValue(std::vector<float>{1, 0, 0})});
  memory().setData("Object/bad", KQValue(std::vector<KQValue>{KQValue(1), KQValue(2)}));
  memory().setData("Object/bare", KQValue("hello"));
  memory().setData("Object/four", fourFloats);
  memory().setData("Object/text", textInPosition);
  memory().setData("Object/zz", memoryObject("World", {1, 2, 3}, "m"));
  world().startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([&] { return world().findObject("zz"); }));

  // Case: each malformed value gets the warning with the value as it
  // prints, nothing is made of it, and the good key after them still is.
  EXPECT_TRUE(logs().contains(ko::log::warning, "xCheckMemory", "Object in key Object/bad has not valid format: [1, 2]"));
  EXPECT_TRUE(
      logs().contains(ko::log::warning, "xCheckMemory", "Object in key Object/bare has not valid format: \"hello\""));
  EXPECT_TRUE(logs().contains(ko::log::warning, "xCheckMemory",
                              "Object in key Object/four has not valid format: " + fourFloats.toText()));
  // A text where a float belongs is malformed too, rather than an error
  // that would end the watcher for every other key.
  EXPECT_TRUE(logs().contains(ko::log::warning, "xCheckMemory",
                              "Object in key Object/text has not valid format: " + textInPosition.toText()));
  EXPECT_FALSE(world().findObject("bad"));
  EXPECT_FALSE(world().findObject("text"));
  EXPECT_EQ(0u, logs().count(ko::log::error));
}


TEST_F(MemoryWatcherTest, TheWaitIsCountedFromTheStartOfAPass) {
  // A clock that jumps 10 s at every reading: each pass looks longer than
  // the period of 3 s, so the next pass follows at once. The counter lives
  // in the fixture: the watcher reads the clock until TearDown stops it.
  ko::os::setClock([this](ko::os::timeval* now) {
    now->tv_sec = 1'700'000'000 + 10 * clockReadings_++;
    now->tv_usec = 0;
  });
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(3);
  EXPECT_TRUE(waitUntil([&] { return positionRows("cup") >= 20; }, std::chrono::seconds(5)));
}

TEST_F(MemoryWatcherTest, AClockSetBackNeverStretchesTheSleep) {
  // Every reading goes back 1000 s: counted naively, the wait after a pass
  // would be 1001 s, and stop would wait for all of it.
  ko::os::setClock([this](ko::os::timeval* now) {
    now->tv_sec = 1'700'000'000 - 1000 * clockReadings_++;
    now->tv_usec = 0;
  });
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(1);
  ASSERT_TRUE(waitUntil([&] { return world().findObject("cup"); }));

  // Case: the sleep is one period at most, so stop comes back.
  EXPECT_TRUE(stopReturns(world()));
}

TEST_F(MemoryWatcherTest, StartAndStopKeepOneThread) {
  // Case: a stop when the watcher never ran returns.
  EXPECT_TRUE(stopReturns(world()));

  // Case: a start makes one named thread; a second start only warns.
  world().startMemoryCheck(0);
  world().startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([] { return threadsNamed(kWatcherThread) == 1; }));
  EXPECT_EQ(std::vector<std::string>{"Memory check is already running"}, logs().messagesOf("startMemoryCheck"));

  // Case: stop returns once the thread has left, and the thread is gone.
  EXPECT_TRUE(stopReturns(world()));
  EXPECT_TRUE(waitUntil([] { return threadsNamed(kWatcherThread) == 0; }));

  // Case: a start after a stop makes a new thread that works.
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(0);
  EXPECT_TRUE(waitUntil([&] { return world().findObject("cup"); }));
  EXPECT_EQ(1, threadsNamed(kWatcherThread));
}

TEST_F(MemoryWatcherTest, StoppingTakesEveryPublishedObjectOffTheDisplay) {
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0, 0}, "cup.dae"));
  memory().setData("Object/plate", memoryObject("table", {0.2f, 0, 0}, "plate.dae"));
  world().startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([&] { return onDisplayList("cup") && onDisplayList("plate"); }));

  // Case: the watcher's wind-up removes their display rows; the objects stay.
  ASSERT_TRUE(stopReturns(world()));
  for (const char* name : {"cup", "plate"}) {
    EXPECT_EQ(0, displayRows(name).getSize()) << name;
    EXPECT_FALSE(onDisplayList(name)) << name;
    EXPECT_TRUE(world().findObject(name)) << name;
  }
}

TEST_F(MemoryWatcherTest, AMemoryModuleThatThrowsEndsTheWatcherCleanly) {
  memory().setData("Object/cup", memoryObject("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([&] { return world().findObject("cup"); }));

  // Case: the listing is refused: the thread logs the error and ends, and
  // stop still returns (running was cleared).
  memory().throwOnGetDataList(true);
  ASSERT_TRUE(waitUntil([] { return threadsNamed(kWatcherThread) == 0; }));
  EXPECT_TRUE(logs().contains(ko::log::error, "xCheckMemory",
                              "Memory check stopped: KQMemory.getDataList: memory refused to list Object/"));
  EXPECT_TRUE(stopReturns(world()));

  // Case: a key that cannot be read ends it the same way, after a restart.
  memory().throwOnGetDataList(false);
  memory().throwOnGetData(true);
  world().startMemoryCheck(0);
  EXPECT_TRUE(waitUntil([&] {
    return logs().contains(ko::log::error, "xCheckMemory",
                           "Memory check stopped: KQMemory.getData: memory refused to read Object/cup");
  }));
  EXPECT_TRUE(stopReturns(world()));
  EXPECT_TRUE(waitUntil([] { return threadsNamed(kWatcherThread) == 0; }));

  // Case: once the memory module answers again, a new start works.
  memory().throwOnGetData(false);
  memory().setData("Object/cup", memoryObject("World", {0.7f, 0, 0}, "cup.dae"));
  world().startMemoryCheck(0);
  EXPECT_TRUE(waitUntil([&] { return near({0.7f, 0, 0, 0, 0, 0}, world().getPosition6D("table", "cup")); }));
}

// A module dropped without exit() while its watcher runs.
class WatcherLifetimeTest : public WorldFixture {
 protected:
  bool createWorldInSetUp() override { return false; }
};

TEST_F(WatcherLifetimeTest, TheWatcherNeverOutlivesItsModule) {
  auto module = std::make_shared<KQWorldRepresentation>(broker(), "KQWorldRepresentation");
  module->init();
  memory().setData("Object/cup", memoryObject("World", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  module->startMemoryCheck(0);
  ASSERT_TRUE(waitUntil([&] { return module->findObject("cup"); }));

  // Case: the destructor stops the thread before the module goes (a
  // thread left behind would go on calling into freed memory).
  module.reset();
  EXPECT_TRUE(waitUntil([] { return threadsNamed(kWatcherThread) == 0; }));
}

}  // namespace
}  // namespace test
}  // namespace KQ
