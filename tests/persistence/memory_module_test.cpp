// What passes between the world and the (recording) memory module: the
// display list, kept only there; the attribute-changed event; the watcher
// that mirrors objects published under "Object/<name>" into the world.
//   World -- cup1, cup2 (Cups); table (frame, x 1) -- cup (made by the watcher)
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "middleware/error.h"
#include "middleware/os.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const std::string& kDisplay = KQWorldRepresentation::displayRequiredEventName_;
const KQValue kRed = list({list({"colorR", 1.0f})});

// [text, reference, position, model, scale, colour], as another module publishes it.
KQValue published(const std::string& reference, const std::vector<float>& position, const std::string& model) {
  return list({"object", reference, KQValue(position), model, KQValue(std::vector<float>{0.1f, 0.2f, 0.3f}),
               KQValue(std::vector<float>{1.0f, 0.5f, 0.0f})});
}

// Polls until the condition holds (the fixture's watchdog ends a wait that never does).
void waitFor(const std::function<bool()>& condition) {
  while (!condition()) ko::os::msleep(2);
}

class MemoryModuleTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    for (const char* cup : {"cup1", "cup2"})
      ASSERT_EQ(0, world().storeObject(cup, "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
    ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0, 0, 0, 0}, "frame", list({})));
    memory().clearRecords();
    logs().clear();
  }
  bool cupAt(const std::vector<float>& pose) {
    const std::vector<float> now = world().getPosition6D("table", "cup");
    for (std::size_t i = 0; i < now.size(); ++i)
      if (std::abs(now[i] - pose[i]) > 1e-4f) return false;
    return now.size() == 6;
  }
  KQValue displayList() { return memory().getData(kDisplay); }
  // The watched cup's "Display" rows: ObjectName, TimeS, TimeUS, colour, scale, model.
  KQValue display() { return world().getObjectAttributeValues("cup", "Display", 100); }

  Watchdog watchdog_{std::chrono::seconds(60), "a memory module story"};  // stop and the waits must end
};

TEST_F(MemoryModuleTest, TheDisplayListChangesOnlyWhenItMust) {
  // Case: the first "Display" row adds the object; a second raises nothing.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(1, memory().raisedCount(kDisplay));
  // Case: an update adds in order, and announces the values exactly as given.
  EXPECT_EQ(0, world().updateAttribute("cup2", "Display", "1", kRed));
  EXPECT_EQ(list({"cup1", "cup2"}), memory().lastRaised(kDisplay));
  EXPECT_EQ(list({"cup2", "Display", kRed}), memory().lastRaised(KQWorldRepresentation::attributeChangedEventName_));
  // Case: deleting the rows takes the object out; deleting again, or other attributes, raise nothing.
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(list({"cup2"}), memory().lastRaised(kDisplay));
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(0, world().updatePosition("cup2", {0, 0, 1, 0, 0, 0}, true));
  EXPECT_EQ(3, memory().raisedCount(kDisplay));
  // Case: clearing an object takes it out with its rows.
  EXPECT_EQ(0, world().clearObject("cup2"));
  EXPECT_EQ(list({}), memory().lastRaised(kDisplay));
  EXPECT_TRUE(worldLog().empty());
}

// Each refused call leaves one warning that carries the memory module's error.
TEST_F(MemoryModuleTest, AMemoryModuleThatRefusesLeavesTheOperationSuccessful) {
  struct Case {
    bool readFails;
    std::function<void()> call;
    std::string warning;
  } const cases[] = {
      {true, [&] { world().storeObjectAttribute("cup1", "Display", kRed); }, "cup1: KQMemory.getData: memory refused"},
      {false, [&] { world().storeObjectAttribute("cup2", "Display", kRed); },
       "cup2: KQMemory.raiseEvent: memory refused"},
      {true, [&] { world().deleteObjectAttribute("cup1", "Display", "1"); },
       "Object will not be removed from display."},
      // Case: the attribute-changed raise is not caught: its error reaches the caller.
      {false,
       [&] {
         EXPECT_THROW(world().updateAttribute("cup2", "Display", "1", list({list({"colorG", 1.0f})})), KQError);
       },
       "cup2: KQMemory.raiseEvent: memory refused"},
  };
  for (const Case& c : cases) {
    logs().clear();
    memory().throwOnGetData(c.readFails);
    memory().throwOnRaise(!c.readFails);
    c.call();
    memory().throwOnGetData(false);
    memory().throwOnRaise(false);
    ASSERT_EQ(1u, worldLog().size()) << c.warning;
    EXPECT_NE(std::string::npos, worldLog()[0].find(c.warning)) << worldLog()[0];
  }
  // Case: every row change took place; the list never changed.
  EXPECT_EQ(list({list({"cup2", 1.0f, 1.0f})}), world().select("1", "Cups", "Display", "ObjectName, colorR, colorG"));
  EXPECT_EQ(list({}), memory().getData(kDisplay));
}

TEST_F(MemoryModuleTest, ThePublishedObjectIsMadeMovedAndTakenOffTheDisplay) {
  memory().setData("Object/cup", published("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(0);
  // Case: a new key makes an object under its reference; 3 floats are x, y, z without rotation.
  waitFor([&] { return world().findObject("cup") && display().getSize() == 1; });
  EXPECT_TRUE(cupAt({0.1f, 0.2f, 0.3f, 0, 0, 0}));
  const KQValue row = display()[0];
  EXPECT_EQ(list({"cup", 1.0f, 0.5f, 0.0f, 0.1f, 0.2f, 0.3f, "cup.dae"}),
            list({row[0], row[3], row[4], row[5], row[6], row[7], row[8], row[9]}));
  EXPECT_EQ(list({"cup"}), displayList());
  // Case: a new value moves it in its parent's frame (the reference is
  // ignored for an object that exists) and changes its display row.
  memory().setData("Object/cup", published("World", {0.5f, 0, 0, 0, 0, 1.0f}, "mug.dae"));
  waitFor([&] { return display()[0][9] == KQValue("mug.dae") && cupAt({0.5f, 0, 0, 0, 0, 1.0f}); });
  // Case: an emptied value takes it off the display; the object stays.
  memory().setData("Object/cup", list({}));
  waitFor([&] { return display().getSize() == 0 && displayList() == list({}); });
  EXPECT_TRUE(world().findObject("cup"));
}

TEST_F(MemoryModuleTest, AMalformedValueIsWarnedAndSkipped) {
  const std::vector<KQValue> malformed = {
      list({1, 2}), published("World", {1, 2, 3, 4}, "m"),
      // A text where a float belongs would otherwise end the watcher for every other key.
      list({"object", "World", list({"a", 1, 2}), "m", KQValue(std::vector<float>{1, 1, 1}),
            KQValue(std::vector<float>{1, 0, 0})})};
  for (std::size_t i = 0; i < malformed.size(); ++i) memory().setData("Object/bad" + std::to_string(i), malformed[i]);
  memory().setData("Object/zz", published("World", {1, 2, 3}, "m"));  // keys go in order: zz comes last
  world().startMemoryCheck(0);
  waitFor([&] { return world().findObject("zz"); });
  for (std::size_t i = 0; i < malformed.size(); ++i) {
    const std::string key = "Object/bad" + std::to_string(i);
    EXPECT_TRUE(logs().contains(ko::log::warning, "xCheckMemory",
                                "Object in key " + key + " has not valid format: " + malformed[i].toText()));
    EXPECT_FALSE(world().findObject(key.substr(7)));
  }
  EXPECT_EQ(0u, logs().count(ko::log::error));
}

TEST_F(MemoryModuleTest, TheWatcherNeverGivesUpOnTheWorld) {
  memory().setData("Object/cup", published("table", {0.1f, 0.2f, 0.3f}, "cup.dae"));
  world().startMemoryCheck(0);
  waitFor([&] { return world().findObject("cup"); });
  // Case: a listing that fails is logged, and the next pass mirrors again.
  memory().throwOnGetDataList(true);
  waitFor([&] {
    return logs().contains(ko::log::error, "xCheckMemory",
                           "Cannot list the memory keys: KQMemory.getDataList: memory refused to list Object/");
  });
  memory().throwOnGetDataList(false);
  // Case: a key whose read fails is logged with its cause and skipped; the others are still mirrored.
  memory().throwOnGetData(true);
  waitFor([&] {
    return logs().contains(ko::log::error, "xCheckMemory",
                           "Key Object/cup skipped this pass: KQMemory.getData: memory refused to read Object/cup");
  });
  memory().throwOnGetData(false);
  memory().setData("Object/mug", published("table", {0.5f, 0, 0}, "mug.dae"));
  waitFor([&] { return world().findObject("mug"); });
  world().stopMemoryCheck();
}

TEST_F(MemoryModuleTest, StopWaitsForTheWindUpThatTakesThePublishedObjectsOffTheDisplay) {
  memory().setData("Object/cup", published("table", {0.1f, 0, 0}, "cup.dae"));
  world().startMemoryCheck(0);
  waitFor([&] { return displayList() == list({"cup"}); });
  // Case: as soon as stop returns, the rows are gone; the object stays.
  world().stopMemoryCheck();
  EXPECT_EQ(list({}), displayList());
  EXPECT_EQ(list({}), display());
  EXPECT_TRUE(world().findObject("cup"));
}

}  // namespace
}  // namespace test
}  // namespace KQ
