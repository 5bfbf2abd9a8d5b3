// The display list, kept only in the memory module and raised only when it
// changes, and what the world does when the memory module refuses.
//
//   World
//   |-- cup1       (Cups)
//   `-- cup2       (Cups)
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "module/world_representation.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const std::string& kDisplay = KQWorldRepresentation::displayRequiredEventName_;

const KQValue kRed = list({list({"colorR", 1.0f})});

class EventsTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
    ASSERT_EQ(0, world().storeObject("cup2", "World", {1, 0, 0, 0, 0, 0}, "Cups", list({})));
    memory().clearRecords();
    logs().clear();
  }

  // The display list as the memory module holds it now.
  KQValue displayList() { return memory().getData(kDisplay); }

  static std::string refusal(const std::string& method, const std::string& message) {
    return KQError("KQMemory", method, message).what();
  }
};

TEST_F(EventsTest, TheDisplayListChangesOnlyWhenItMust) {
  // Case: the first "Display" row of an object adds it; a second one raises nothing.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(1, memory().raisedCount(kDisplay));
  EXPECT_EQ(list({"cup1"}), displayList());

  // Case: names stay in the order they were added; an update that inserts
  // or changes a "Display" row adds the object too.
  EXPECT_EQ(0, world().updateAttribute("cup2", "Display", "1", kRed));
  EXPECT_EQ(0, world().updateAttribute("cup2", "Display", "1", list({list({"colorG", 1.0f})})));
  EXPECT_EQ(2, memory().raisedCount(kDisplay));
  EXPECT_EQ(list({"cup1", "cup2"}), displayList());

  // Case: other attributes never touch the list.
  EXPECT_EQ(0, world().updatePosition("cup1", {0, 0, 1, 0, 0, 0}, true));
  EXPECT_EQ(2, memory().raisedCount(kDisplay));

  // Case: deleting the "Display" rows takes the object out; deleting them
  // again, once it is out, raises nothing.
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(list({"cup2"}), memory().lastRaised(kDisplay));
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(3, memory().raisedCount(kDisplay));

  // Case: clearing an object takes it out of the list with its rows.
  EXPECT_EQ(0, world().clearObject("cup2"));
  EXPECT_EQ(list({}), memory().lastRaised(kDisplay));
  EXPECT_EQ(0, world().select("1", "Cups", "Display", "*").getSize());
  EXPECT_TRUE(worldLog().empty());
}

TEST_F(EventsTest, TheListIsWhatTheMemoryModuleHolds) {
  // Case: a name held twice (written by someone else) goes entirely, in one raise.
  memory().setData(kDisplay, list({"cup1", "lamp", "cup1"}));
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(1, memory().raisedCount(kDisplay));
  EXPECT_EQ(list({"lamp"}), displayList());

  // Case: entries that are not names are kept as they are and never match.
  memory().setData(kDisplay, list({3, list({"cup1"})}));
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(list({3, list({"cup1"}), "cup1"}), displayList());

  // Case: a value that is no list at all holds no names: the list starts afresh.
  memory().setData(kDisplay, KQValue("cup1"));
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(list({"cup1"}), displayList());
  EXPECT_TRUE(worldLog().empty());
}

TEST_F(EventsTest, AMemoryModuleThatRefusesLeavesTheOperationSuccessful) {
  // Case: the list cannot be read: a warning, the row is stored all the same.
  memory().throwOnGetData(true);
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "Display", "*").getSize());
  EXPECT_EQ(0, memory().raisedCount(kDisplay));
  const std::string unreadable = refusal("getData", "memory refused to read " + kDisplay);
  EXPECT_EQ(std::vector<std::string>{"warning xAddObjectToDisplayEvent: Could not update display event for object "
                                     "cup1: " + unreadable + ". Object will not be displayed."},
            worldLog());

  // Case: the same on the way out: the rows go, the warning says so.
  logs().clear();
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "Display", "1"));
  EXPECT_EQ(std::vector<std::string>{"warning xRemoveObjectFromDisplayEvent: Could not update display event for "
                                     "object cup1: " + unreadable + ". Object will not be removed from display."},
            worldLog());
  memory().throwOnGetData(false);

  // Case: the raise itself is refused: the list keeps its former value.
  logs().clear();
  memory().throwOnRaise(true);
  EXPECT_EQ(0, world().storeObjectAttribute("cup2", "Display", kRed));
  memory().throwOnRaise(false);
  EXPECT_EQ(list({}), displayList());
  EXPECT_EQ(std::vector<std::string>{"warning xAddObjectToDisplayEvent: Could not update display event for object "
                                     "cup2: " + refusal("raiseEvent", "memory refused to raise " + kDisplay) +
                                     ". Object will not be displayed."},
            worldLog());
}

TEST_F(EventsTest, EveryStartBeginsWithAnEmptyList) {
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  ASSERT_EQ(list({"cup1"}), displayList());

  // Case: after a restart the list is empty, whatever the memory module held,
  // until a "Display" row is written again.
  destroyWorld();
  memory().clearRecords();
  createWorld();
  EXPECT_EQ((std::vector<std::string>{kDisplay, KQWorldRepresentation::positionChangedEventName_,
                                      KQWorldRepresentation::attributeChangedEventName_}),
            memory().declaredEvents());
  EXPECT_EQ(1, memory().raisedCount(kDisplay));
  EXPECT_EQ(list({}), displayList());
}

class RefusedDeclarationTest : public EventsTest {
 protected:
  void configureModules() override { memory().throwOnDeclareCall(2); }
};

TEST_F(RefusedDeclarationTest, AWorldWithoutEventsStillStoresDisplayRows) {
  // Case: the second declaration was refused at start-up: the rest of the
  // event calls were skipped, the first list was never raised.
  EXPECT_EQ(std::vector<std::string>{kDisplay}, memory().getEventList());
  EXPECT_FALSE(memory().hasData(kDisplay));

  // Case: with no list in the memory module, each change of the display
  // warns and the rows are stored.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", kRed));
  EXPECT_EQ(1, world().select("1", "Cups", "Display", "*").getSize());
  ASSERT_EQ(1u, worldLog().size());
  EXPECT_EQ("warning xAddObjectToDisplayEvent: Could not update display event for object cup1: " +
                refusal("getData", "There is no data under key " + kDisplay + ".") + ". Object will not be displayed.",
            worldLog()[0]);
}

}  // namespace
}  // namespace test
}  // namespace KQ
