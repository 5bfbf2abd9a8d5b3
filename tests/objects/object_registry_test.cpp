// The object registry on a running world: objects stored into real category
// databases in a temporary folder, looked up, and cleared with their
// subtrees.
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "objects/objects_test_support.h"

namespace KQ {
namespace test {
namespace {

class ObjectRegistryTest : public ClockedWorld {
 protected:
  void SetUp() override {
    ClockedWorld::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    ASSERT_EQ(0, world().addAttributeToCategory(
                     "Cups", "weight",
                     KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{KQValue("kg"), KQValue("float")})})));
    logs().clear();
    memory().clearRecords();
  }

  std::string cupsFile() const { return databasePath("Cups"); }
};

TEST_F(ObjectRegistryTest, StoredObjectIsVisibleInEveryQuery) {
  // World
  // |-- Robot ...
  // `-- table            (Cups)  x=2, yaw=pi/2
  //     `-- cup          (Cups)  x=0.5, z=0.8, with a Display row
  const KQValue display = oneAttribute("Display", {fieldPair("colorR", 1.0f), fieldPair("model", "mug")});
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(2, 0, 0, kHalfPi), "Cups", noAttributes()));
  clock_.advanceMicroseconds(250);
  ASSERT_EQ(0, world().storeObject("cup", "table", pose6D(0.5f, 0, 0.8f), "Cups", display));

  // Case: the registry knows both, with the right parent and category.
  EXPECT_EQ("table", world().getObjectParentName("cup"));
  EXPECT_EQ("Cups", world().getObjectCategory("cup"));
  EXPECT_EQ((std::vector<std::string>{"table", "cup"}), world().getObjectsInCategory("Cups"));

  // Case: breadth-first listing, level by level from the root.
  EXPECT_EQ((std::vector<std::string>{"World", "Robot", "table", "Robot_Torso", "cup", "HeadYaw", "LShoulderPitch",
                                      "RShoulderPitch", "LWristGhost"}),
            world().getObjectNames());

  // Case: the pose is the one given, seen through the parent.
  expectPose(world().getPosition6D("World", "cup"), {2.0f, 0.5f, 0.8f}, kHalfPi);

  // Case: the first history row of each lies in the file, stamped by the clock.
  HistoryFile file(cupsFile());
  const std::vector<HistoryRow> cupRows = file.positions("cup");
  ASSERT_EQ(1u, cupRows.size());
  EXPECT_EQ("table", cupRows[0].parentName);
  EXPECT_EQ(ManualClock::kDefaultStartSeconds, cupRows[0].timeS);
  EXPECT_EQ(250, cupRows[0].timeUS);
  EXPECT_NEAR(0.8, cupRows[0].translation[2], 1e-6);
  const std::vector<HistoryRow> tableRows = file.positions("table");
  ASSERT_EQ(1u, tableRows.size());
  EXPECT_NEAR(std::cos(kHalfPi / 2), tableRows[0].quaternion[0], 1e-6);
  EXPECT_NEAR(std::sin(kHalfPi / 2), tableRows[0].quaternion[3], 1e-6);

  // Case: the given attribute was stored too and put the cup on display.
  EXPECT_EQ(1, file.count("Display", "cup"));
  EXPECT_EQ(KQValue(std::vector<std::string>{"cup"}),
            memory().lastRaised(KQWorldRepresentation::displayRequiredEventName_));
  EXPECT_TRUE(logs().lines().empty()) << ::testing::PrintToString(logs().lines());
}

TEST_F(ObjectRegistryTest, RefusedStoresChangeNothing) {
  ASSERT_EQ(0, world().storeObject("cup", "World", pose6D(1, 0, 0), "Cups", noAttributes()));
  logs().clear();

  // Case: a position that is not a Position6D.
  EXPECT_EQ(1, world().storeObject("saucer", "World", {1, 2, 3, 0, 0, 0, 1}, "Cups", noAttributes()));
  EXPECT_EQ(std::vector<std::string>{"Position format is not correct."}, logs().messagesOf("storeObject"));
  EXPECT_FALSE(world().findObject("saucer"));
  logs().clear();

  // Case: attributes that are not [[name, [pairs]]].
  EXPECT_EQ(1, world().storeObject("saucer", "World", pose6D(0, 0, 0), "Cups", KQValue("Display")));
  EXPECT_EQ(1, world().storeObject(
                   "saucer", "World", pose6D(0, 0, 0), "Cups",
                   KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{KQValue("Display"), KQValue("red")})})));
  EXPECT_EQ((std::vector<std::string>{"Wrong attributes format.", "Wrong attributes format."}),
            logs().messagesOf("storeObject"));
  logs().clear();

  // Case: the name is taken; the first object keeps its pose and its single row.
  EXPECT_EQ(1, world().storeObject("cup", "World", pose6D(9, 9, 9), "Cups", noAttributes()));
  EXPECT_TRUE(logs().contains(ko::log::warning, "storeObject", "Object cup already exists."));
  expectFloats(world().getPosition6D("World", "cup"), pose6D(1, 0, 0));
  logs().clear();

  // Case: unknown parent, unknown category.
  EXPECT_EQ(1, world().storeObject("saucer", "Shelf", pose6D(0, 0, 0), "Cups", noAttributes()));
  EXPECT_EQ(1, world().storeObject("saucer", "World", pose6D(0, 0, 0), "Plates", noAttributes()));
  EXPECT_EQ((std::vector<std::string>{"error KQWorldRepresentation storeObject: Parent Shelf does not exist.",
                                      "error KQWorldRepresentation storeObject: Category Plates does not exist."}),
            logs().lines());
  logs().clear();

  // Case: one attribute the category lacks, after one it has: both are
  // checked before anything is written, so not even the Display row lands.
  const KQValue mixed(std::vector<KQValue>{
      KQValue(std::vector<KQValue>{KQValue("Display"), KQValue(std::vector<KQValue>{fieldPair("colorR", 1.0f)})}),
      KQValue(std::vector<KQValue>{KQValue("volume"), KQValue(std::vector<KQValue>{fieldPair("l", 0.3f)})})});
  EXPECT_EQ(1, world().storeObject("saucer", "World", pose6D(0, 0, 0), "Cups", mixed));
  EXPECT_EQ(std::vector<std::string>{"Attribute volume is not part of category Cups"},
            logs().messagesOf("storeObject"));

  EXPECT_FALSE(world().findObject("saucer"));
  HistoryFile file(cupsFile());
  EXPECT_EQ(0, file.count("positions", "saucer"));
  EXPECT_EQ(0, file.count("Display", "saucer"));
  EXPECT_EQ(1, file.count("positions", "cup"));
  EXPECT_EQ(0, memory().raisedCount(KQWorldRepresentation::displayRequiredEventName_));
}

TEST_F(ObjectRegistryTest, StoreWithReferencePlacesTheObjectThroughTheReference) {
  // World
  // |-- table   x=2, yaw=pi/2
  // `-- shelf   y=3
  // The cup is given 1 m ahead of the table (in the table's frame) and stored
  // under the shelf: in the shelf's frame that is (2, -2, 0), yaw pi/2.
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(2, 0, 0, kHalfPi), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("shelf", "World", pose6D(0, 3, 0), "Cups", noAttributes()));
  logs().clear();

  // Case: the composed pose lands on the new edge and in the first row.
  ASSERT_EQ(0, world().storeObjectWithReference("cup", "shelf", "table", pose6D(1, 0, 0), "Cups",
                                                oneAttribute("weight", {fieldPair("kg", 0.3f)})));
  EXPECT_EQ("shelf", world().getObjectParentName("cup"));
  expectPose(world().getPosition6D("shelf", "cup"), {2.0f, -2.0f, 0.0f}, kHalfPi);
  HistoryFile file(cupsFile());
  const std::vector<HistoryRow> rows = file.positions("cup");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("shelf", rows[0].parentName);
  EXPECT_NEAR(-2.0, rows[0].translation[1], 1e-5);
  EXPECT_EQ(1, file.count("weight", "cup"));

  // Case: refusals, in the order they are checked.
  auto store = [&](const char* name, const char* parent, const char* reference, const KQValue& attributes) {
    return world().storeObjectWithReference(name, parent, reference, pose6D(0, 0, 0), "Cups", attributes);
  };
  EXPECT_EQ(1, store("saucer", "shelf", "table", KQValue(3)));
  EXPECT_EQ(1, store("saucer", "shelf", "Ghost", noAttributes()));
  EXPECT_EQ(1, store("saucer", "Nowhere", "table", noAttributes()));
  EXPECT_EQ(1, store("cup", "shelf", "table", noAttributes()));
  EXPECT_EQ(
      (std::vector<std::string>{"error KQWorldRepresentation storeObjectWithReference: Wrong attributes format",
                                "error KQWorldRepresentation storeObjectWithReference: Reference Ghost does not exist.",
                                "error KQWorldRepresentation storeObjectWithReference: Parent Nowhere does not exist.",
                                "warning KQWorldRepresentation storeObject: Object cup already exists."}),
      logs().lines());
  EXPECT_EQ(1u, file.positions("cup").size());

  // Case: a caller's "positions" entry is replaced by the composed six
  // floats, which are no [field, value] pairs: the database refuses that
  // row, the object is stored all the same with its one proper first row.
  ASSERT_EQ(0, world().storeObjectWithReference("mug", "table", "table", pose6D(1, 0, 0), "Cups",
                                                oneAttribute("positions", {fieldPair("X", 42.0f)})));
  const std::vector<HistoryRow> mugRows = file.positions("mug");
  ASSERT_EQ(1u, mugRows.size());
  EXPECT_NEAR(1.0, mugRows[0].translation[0], 1e-6);
  EXPECT_TRUE(world().findObject("mug"));
}

TEST_F(ObjectRegistryTest, ClearingAnObjectTakesItsWholeSubtree) {
  // World
  // |-- table
  // |   `-- tray
  // |       |-- cup      (on display)
  // |       `-- spoon
  // `-- lamp
  const KQValue display = oneAttribute("Display", {fieldPair("colorR", 1.0f)});
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(1, 0, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("tray", "table", pose6D(0, 0, 1), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("cup", "tray", pose6D(0.1f, 0, 0), "Cups", display));
  ASSERT_EQ(0, world().storeObject("spoon", "tray", pose6D(0.2f, 0, 0), "Cups",
                                   oneAttribute("weight", {fieldPair("kg", 0.05f)})));
  ASSERT_EQ(0, world().storeObject("lamp", "World", pose6D(0, 1, 0), "Cups", display));
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0.15f, 0, 0), true));
  logs().clear();

  // Case: the subtree goes from the registry and the graph.
  ASSERT_EQ(0, world().clearObject("tray"));
  for (const char* gone : {"tray", "cup", "spoon"}) EXPECT_FALSE(world().findObject(gone)) << gone;
  EXPECT_TRUE(world().getChildrenNames("table").empty());
  EXPECT_EQ((std::vector<std::string>{"table", "lamp"}), world().getObjectsInCategory("Cups"));

  // Case: every row of every cleared object is gone from the file; the
  // others keep theirs, and the cup left the display list.
  HistoryFile file(cupsFile());
  for (const char* gone : {"tray", "cup", "spoon"}) {
    EXPECT_EQ(0, file.count("positions", gone)) << gone;
    EXPECT_EQ(0, file.count("Display", gone)) << gone;
    EXPECT_EQ(0, file.count("weight", gone)) << gone;
  }
  EXPECT_EQ(1, file.count("positions", "table"));
  EXPECT_EQ(1, file.count("Display", "lamp"));
  EXPECT_EQ(KQValue(std::vector<std::string>{"lamp"}),
            memory().lastRaised(KQWorldRepresentation::displayRequiredEventName_));
  EXPECT_TRUE(logs().lines().empty()) << ::testing::PrintToString(logs().lines());

  // Case: the names are free again, with no stale history behind them.
  ASSERT_EQ(0, world().storeObject("cup", "table", pose6D(0, 0, 2), "Cups", noAttributes()));
  EXPECT_EQ(1u, file.positions("cup").size());
}

TEST_F(ObjectRegistryTest, ClearObjectRefusals) {
  // Case: the root, and the torso by its body-part name.
  EXPECT_EQ(1, world().clearObject("World"));
  EXPECT_EQ(1, world().clearObject("Torso"));
  // Case: an unknown name (the category lookup warns first).
  EXPECT_EQ(1, world().clearObject("ghost"));
  EXPECT_EQ((std::vector<std::string>{
                "error KQWorldRepresentation clearObject: Object World cannot be removed.",
                "error KQWorldRepresentation clearObject: Object Torso cannot be removed.",
                "warning KQWorldRepresentation xGetObjectCategory: Object ghost not found, cannot get object storage",
                "error KQWorldRepresentation clearObject: Cannot clear object ghost: object is not found."}),
            logs().lines());
  EXPECT_TRUE(world().findObject("World"));
  EXPECT_TRUE(world().findObject("Robot_Torso"));
}

TEST_F(ObjectRegistryTest, ClearingAJointRemovesItAndItsRows) {
  HistoryFile joints(databasePath("joints"));
  ASSERT_EQ(1, joints.count("positions", "HeadYaw"));

  ASSERT_EQ(0, world().clearObject("HeadYaw"));
  EXPECT_FALSE(world().findObject("HeadYaw"));
  EXPECT_EQ(0, joints.count("positions", "HeadYaw"));
  EXPECT_EQ(1, joints.count("positions", "LShoulderPitch"));
  // Case: the name is no longer a protected joint but an unknown object.
  logs().clear();
  EXPECT_EQ(1, world().updatePosition("HeadYaw", pose6D(0, 0, 0), false));
  EXPECT_EQ(std::vector<std::string>{"Could not find child HeadYaw"}, logs().messagesOf("updatePosition"));
}

TEST_F(ObjectRegistryTest, Lookups) {
  // Case: the root has no parent and says nothing about it.
  EXPECT_EQ("", world().getObjectParentName("World"));
  EXPECT_EQ("World", world().getRootName());
  EXPECT_TRUE(logs().lines().empty());
  // Case: unknown names.
  EXPECT_EQ("", world().getObjectParentName("ghost"));
  EXPECT_TRUE(world().getChildrenNames("ghost").empty());
  EXPECT_FALSE(world().findObject("ghost"));
  EXPECT_EQ(
      std::vector<std::string>{
          "error KQWorldRepresentation getObjectParentName: Object ghost does not exist. Cannot get object parent"},
      logs().lines());
}

}  // namespace
}  // namespace test
}  // namespace KQ
