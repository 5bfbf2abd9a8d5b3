// Objects of a running world in real category files: stored, looked up, refused,
// moved, cleared, read back as they were. (Composing poses: tests/spatial.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "middleware/call_sequence.h"
#include "middleware/error.h"
#include "spatial/scene_graph.h"
#include "support/checks.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

constexpr float kHalfPi = 1.57079632679f;
using Rows = std::vector<std::vector<std::string>>;

std::vector<float> pose6D(float x, float y, float z, float yaw = 0.0f) { return {x, y, z, 0, 0, yaw}; }

// 3x4 row by row: a turn of `yaw` about z, then (x, y, z).
std::vector<float> yawTransform(float yaw, float x, float y, float z) {
  const float c = std::cos(yaw), s = std::sin(yaw);
  return {c, -s, 0, x, s, c, 0, y, 0, 0, 1, z};
}

KQValue attribute(const std::string& name, const std::string& field, const KQValue& value) {
  return list({list({name, list({list({field, value})})})});
}

// The fixture's world on a clock that moves only when the test moves it (rows
// get known stamps), with a category "Cups" whose objects may weigh.
class WorldObjectsTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    ASSERT_EQ(0, world().addAttributeToCategory("Cups", "weight", list({list({"kg", "float"})})));
  }
  // Read by a connection of our own, `object`'s rows: how many in `table`,
  // and its "positions" rows as parent, TimeS, TimeUS, QuatZ, X, Y.
  long long rows(const std::string& object, const std::string& table = "positions", const char* category = "Cups") {
    return sqliteScalar(databasePath(category), "SELECT COUNT(*) FROM " + table + of(object));
  }
  Rows history(const std::string& object, const char* category = "Cups") {
    return sqliteRows(
        databasePath(category),
        "SELECT ParentName, TimeS, TimeUS, round(QuatZ, 4), round(X, 4), round(Y, 4) FROM positions" + of(object));
  }
  static std::string of(const std::string& object) { return " WHERE ObjectName = '" + object + "'"; }
  int store(const std::string& name, const std::string& parent, std::vector<float> at, KQValue given = list({})) {
    return world().storeObject(name, parent, at, "Cups", given);
  }
  int positionEvents() { return memory().raisedCount(KQWorldRepresentation::positionChangedEventName_); }

  ManualClock clock_;
};

TEST_F(WorldObjectsTest, StoredObjectsAreFoundByName) {
  // World -- table (2, 0, 0), a quarter turn -- cup (0.5, 0, 0), weighed
  ASSERT_EQ(0, store("table", "World", pose6D(2, 0, 0, kHalfPi)));
  clock_.advanceMicroseconds(250);
  ASSERT_EQ(0, store("cup", "table", pose6D(0.5f, 0, 0), attribute("weight", "kg", 0.3f)));
  EXPECT_EQ("table", world().getObjectParentName("cup"));
  EXPECT_EQ("Cups", world().getObjectCategory("cup"));
  EXPECT_EQ((std::vector<std::string>{"table", "cup"}), world().getObjectsInCategory("Cups"));
  EXPECT_EQ(std::vector<std::string>{"cup"}, world().getChildrenNames("table"));
  // Case: each first row names the parent, holds the clock's stamp and the
  // pose in the parent's frame; the given attribute is stored beside it.
  EXPECT_EQ((Rows{{"World", "1700000000", "0", "0.7071", "2.0", "0.0"}}), history("table"));
  EXPECT_EQ((Rows{{"table", "1700000000", "250", "0.0", "0.5", "0.0"}}), history("cup"));
  EXPECT_EQ(1, rows("cup", "weight"));
  EXPECT_TRUE(worldLog().empty()) << ::testing::PrintToString(worldLog());
}

TEST_F(WorldObjectsTest, ObjectsStoredAndMovedInACallSequenceAreCommittedTogetherWhenItEnds) {
  {
    CallSequence batch;  // as the calls of one JSON-RPC batch
    ASSERT_EQ(0, store("table", "World", pose6D(2, 0, 0)) +
                     store("cup", "table", pose6D(0.5f, 0, 0), attribute("weight", "kg", 0.3f)) +
                     world().updatePosition("table", pose6D(3, 0, 0), true));
    EXPECT_EQ(0, rows("table") + rows("cup") + rows("cup", "weight"));  // another connection sees none yet
  }
  EXPECT_EQ((Rows{{"World", "1700000000", "0", "0.0", "2.0", "0.0"}, {"World", "1700000000", "0", "0.0", "3.0", "0.0"}}),
            history("table"));
  EXPECT_EQ((Rows{{"table", "1700000000", "0", "0.0", "0.5", "0.0"}}), history("cup"));
  EXPECT_EQ(1, rows("cup", "weight"));
}

TEST_F(WorldObjectsTest, PosesThroughTheRobotsLiveFrames) {
  // World -> Robot (odometry (1, 2), yaw pi/2) -> Robot_Torso (z 0.3) -> HeadYaw (z 0.2, yaw pi/2); cup at (3, 2, 0).
  motion().setTransform("Torso", 2, yawTransform(0, 0, 0, 0.3f));
  motion().setTransform("HeadYaw", 0, yawTransform(kHalfPi, 0, 0, 0.2f));
  motion().setRobotPosition(1, 2, kHalfPi);
  clock_.advanceMilliseconds(41);  // past the odometry throttle
  ASSERT_EQ(0, store("cup", "World", pose6D(3, 2, 0)));
  // Case: down through odometry, torso and joint.
  expectFloatsNear(pose6D(1, 2, 0.5f, -2 * kHalfPi), world().getPosition6D("World", "HeadYaw"));  // yaw pi reads as -pi
  // Case: up through the live frames, then down: 2 m ahead of the robot is 2 m to its right.
  expectFloatsNear(pose6D(0, -2, -0.3f, -kHalfPi), world().getPosition6D("Robot_Torso", "cup"));
  // Case: the odometry moves; the next query after the throttle sees it.
  motion().setRobotPosition(0, 0, 0);
  clock_.advanceMilliseconds(41);
  expectFloatsNear(pose6D(0, 0, 0.5f, kHalfPi), world().getPosition6D("World", "HeadYaw"));
}

TEST_F(WorldObjectsTest, RefusalsSayWhyAndChangeNothing) {
  ASSERT_EQ(0, store("cup", "World", pose6D(1, 0, 0)));
  const std::vector<float> here = pose6D(0, 0, 0);
  auto refused = [&](const char* name, const char* parent, std::vector<float> at, const char* category, KQValue given) {
    return [=] { return world().storeObject(name, parent, at, category, given) == 1; };
  };
  auto refusedFrom = [&](const char* parent, const char* reference, KQValue given) {
    return [=] { return world().storeObjectWithReference("saucer", parent, reference, here, "Cups", given) == 1; };
  };
  auto refusedMove = [&](const char* name, std::vector<float> at) {
    return [=] { return world().updatePosition(name, at, true) == 1; };
  };
  const KQValue none = list({}),
                weightThenVolume = list({attribute("weight", "kg", 1)[0], attribute("volume", "l", 2)[0]});
  // Each call answers 1 (or an empty value) and logs exactly this.
  const std::vector<std::pair<std::function<bool()>, std::vector<std::string>>> cases = {
      {refused("saucer", "World", {1, 2, 3}, "Cups", none), {"error storeObject: Position format is not correct."}},
      {refused("saucer", "World", here, "Cups", KQValue("weight")), {"error storeObject: Wrong attributes format."}},
      {refused("cup", "World", pose6D(9, 9, 9), "Cups", none), {"warning storeObject: Object cup already exists."}},
      {refused("saucer", "Shelf", here, "Cups", none), {"error storeObject: Parent Shelf does not exist."}},
      {refused("saucer", "World", here, "Plates", none), {"error storeObject: Category Plates does not exist."}},
      // Case: every attribute is checked before the first is written.
      {refused("saucer", "World", here, "Cups", weightThenVolume),
       {"error storeObject: Attribute volume is not part of category Cups"}},
      {refusedFrom("World", "cup", KQValue(3)), {"error storeObjectWithReference: Wrong attributes format"}},
      {refusedFrom("World", "Ghost", none), {"error storeObjectWithReference: Reference Ghost does not exist."}},
      {refusedFrom("Nowhere", "cup", none), {"error storeObjectWithReference: Parent Nowhere does not exist."}},
      {refusedMove("cup", {1, 2, 3}), {"error updatePosition: Position format is not correct."}},
      {refusedMove("ghost", here), {"error updatePosition: Could not find child ghost"}},
      {[&] { return world().updatePositionWithReference("ghost", "cup", here, true) == 1; },
       {"error updatePositionWithReference: Object ghost does not exist."}},
      // Case: the torso is protected by its body-part name.
      {[&] { return world().clearObject("World") + world().clearObject("Torso") == 2; },
       {"error clearObject: Object World cannot be removed.", "error clearObject: Object Torso cannot be removed."}},
      {[&] { return world().clearObject("ghost") == 1; },
       {"warning xGetObjectCategory: Object ghost not found, cannot get object storage",
        "error clearObject: Cannot clear object ghost: object is not found."}},
      {[&] { return world().getObjectParentName("ghost").empty() && world().getChildrenNames("ghost").empty(); },
       {"error getObjectParentName: Object ghost does not exist. Cannot get object parent"}},
      {[&] {
         return world().getPosition("ghost", "cup") == list({list({}), list({})}) &&
                world().getPosition6D("cup", "ghost") == std::vector<float>(6, 0.0f);  // the identity
       },
       {"warning xGetPosition: Cannot find reference", "warning xGetPosition: Cannot find target"}},
      {[&] {
         return world().getPosition6DAtTime("ghost", "cup", 5, 1).empty() &&
                !world().getPositionAtTime("cup", "ghost", 5, 1).isValid();
       },
       {"error getPosition6DAtTime: Reference not found", "error getPositionAtTime: Object not found"}}};
  for (const auto& [call, log] : cases) {
    logs().clear();
    EXPECT_TRUE(call()) << log[0];
    EXPECT_EQ(log, worldLog());
  }
  EXPECT_FALSE(world().findObject("saucer") || world().findObject("ghost"));
  EXPECT_EQ(0, rows("saucer") + rows("saucer", "weight"));
  EXPECT_EQ((Rows{{"World", "1700000000", "0", "0.0", "1.0", "0.0"}}), history("cup"));
  EXPECT_EQ(0, memory().raisedCount(KQWorldRepresentation::positionChangedEventName_));
}

TEST_F(WorldObjectsTest, PlacedThroughAReferenceStoredInTheParentsFrame) {
  // World -- table (2, 0, 0), a quarter turn; World -- shelf (0, 3, 0). 1 m ahead
  // of the table is (2, 1, 0) facing +y: (2, -2, 0) from the shelf.
  ASSERT_EQ(0, store("table", "World", pose6D(2, 0, 0, kHalfPi)));
  ASSERT_EQ(0, store("shelf", "World", pose6D(0, 3, 0)));
  ASSERT_EQ(0, world().storeObjectWithReference("cup", "shelf", "table", pose6D(1, 0, 0), "Cups", list({})));
  EXPECT_EQ((Rows{{"shelf", "1700000000", "0", "0.7071", "2.0", "-2.0"}}), history("cup"));
  // Case: an update 1 m to the table's right, (3, 0, 0), lands in the parent's frame too.
  ASSERT_EQ(0, world().updatePositionWithReference("cup", "table", pose6D(0, -1, 0), false));
  expectFloatsNear(pose6D(3, -3, 0, kHalfPi), world().getPosition6D("shelf", "cup"));
  // Case: an unknown reference reads as the parent's own frame, with a warning.
  ASSERT_EQ(0, world().updatePositionWithReference("cup", "ghost", pose6D(0, 0, 4), false));
  expectFloatsNear(pose6D(0, 0, 4), world().getPosition6D("shelf", "cup"));
  EXPECT_EQ(std::vector<std::string>{"warning xGetPosition: Cannot find target"}, worldLog());

  // Case: a caller's "positions" entry is replaced by the composed six
  // floats, which the database refuses as a row: the one first row stays.
  ASSERT_EQ(0, world().storeObjectWithReference("mug", "table", "table", pose6D(1, 0, 0), "Cups",
                                                attribute("positions", "X", 42.0f)));
  EXPECT_EQ((Rows{{"table", "1700000000", "0", "0.0", "1.0", "0.0"}}), history("mug"));
}

TEST_F(WorldObjectsTest, ClearingTakesTheSubtreeAndEveryRowOfIt) {
  // World -- table -- tray -- cup (weighed, moved with history), spoon
  // World -- lamp (weighed)
  const std::vector<float> here = pose6D(0, 0, 0);
  ASSERT_EQ(0, store("table", "World", here) + store("tray", "table", here) + store("spoon", "tray", here));
  ASSERT_EQ(0, store("cup", "tray", here, attribute("weight", "kg", 0.2f)));
  ASSERT_EQ(0, store("lamp", "World", here, attribute("weight", "kg", 2.0f)));
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0.1f, 0, 0), true));

  ASSERT_EQ(0, world().clearObject("tray"));
  EXPECT_TRUE(world().getChildrenNames("table").empty());
  EXPECT_EQ((std::vector<std::string>{"table", "lamp"}), world().getObjectsInCategory("Cups"));
  for (const char* gone : {"tray", "cup", "spoon"}) EXPECT_EQ(0, rows(gone) + rows(gone, "weight")) << gone;
  EXPECT_EQ(2, rows("table") + rows("lamp", "weight"));
  // Case: the names are free again, with no history behind them.
  ASSERT_EQ(0, store("cup", "table", here));
  EXPECT_EQ(1, rows("cup"));
  // Case: a joint goes with its row and stops being a joint: an object of
  // its name moves as any other.
  ASSERT_EQ(0, world().clearObject("HeadYaw"));
  EXPECT_EQ(0, rows("HeadYaw", "positions", "joints"));
  EXPECT_EQ(1, rows("LShoulderPitch", "positions", "joints"));
  ASSERT_EQ(0, store("HeadYaw", "World", here));
  ASSERT_EQ(0, world().updatePosition("HeadYaw", pose6D(0, 0, 3), false));
  expectFloatsNear(pose6D(0, 0, 3), world().getPosition6D("World", "HeadYaw"));
}

TEST_F(WorldObjectsTest, AnUpdateMovesTheEdgeAnnouncesItAndKeepsHistoryOnRequest) {
  ASSERT_EQ(0, store("table", "World", pose6D(2, 0, 0)));
  ASSERT_EQ(0, store("cup", "table", pose6D(0, 0, 1)));
  // Case: saved: the edge, one event in the parent's frame, one row stamped now.
  clock_.set(ManualClock::kDefaultStartSeconds + 3, 77);
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0.5f, 0, 1, kHalfPi), true));
  expectFloatsNear(pose6D(0.5f, 0, 1, kHalfPi), world().getPosition6D("table", "cup"));
  EXPECT_EQ(list({"cup", KQValue(std::vector<float>{std::cos(kHalfPi / 2), 0, 0, std::sin(kHalfPi / 2)}),
                  KQValue(std::vector<float>{0.5f, 0, 1})}),
            memory().lastRaised(KQWorldRepresentation::positionChangedEventName_));
  EXPECT_EQ((std::vector<std::string>{"table", "1700000003", "77", "0.7071", "0.5", "0.0"}), history("cup").at(1));
  // Case: not saved: the edge and the event, no row.
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0, 0, 2), false));
  EXPECT_EQ(2, positionEvents());
  EXPECT_EQ(2, rows("cup"));

  // Case: a refused event reaches the caller after the edge was set, before
  // the row; every lock is released, so writers of each still get through.
  memory().throwOnRaise(true);
  EXPECT_THROW(world().updatePosition("cup", pose6D(0, 0, 3), true), KQError);
  expectFloatsNear(pose6D(0, 0, 3), world().getPosition6D("table", "cup"));
  EXPECT_EQ(2, rows("cup"));
  memory().throwOnRaise(false);
  EXPECT_EQ(0, store("saucer", "World", pose6D(0, 0, 0)) + world().clearObject("saucer"));
}

TEST_F(WorldObjectsTest, RobotFramesJointsAndTheRootAreNotMovedByCallers) {
  const std::vector<float> headBefore = world().getPosition6D("World", "HeadYaw");
  // Case: robot frames and joints answer success and nothing changes: no
  // event, no row, same pose.
  for (const char* name : {"Robot", "Robot_Torso", "HeadYaw", "LWristGhost"}) {
    EXPECT_EQ(0, world().updatePosition(name, pose6D(5, 5, 5), true)) << name;
    EXPECT_EQ(0, world().updatePositionWithReference(name, "World", pose6D(5, 5, 5), true)) << name;
  }
  EXPECT_EQ(0, positionEvents());
  EXPECT_EQ(1, rows("HeadYaw", "positions", "joints") + rows("Robot", "positions", "frame"));
  expectFloatsNear(headBefore, world().getPosition6D("World", "HeadYaw"));

  // Case: the root's edge cannot be set (it has no parent); its row is
  // written all the same, with parent "", as the history's readers expect.
  const int result = world().updatePosition("World", pose6D(1, 0, 0), true);
  ASSERT_NE(0, result);
  EXPECT_EQ(std::vector<std::string>{"error updatePosition: Could not set displacement from  to World: " +
                                     KQSceneGraph().getErrorMessage(result)},
            worldLog());
  EXPECT_EQ(0, positionEvents());
  EXPECT_EQ((Rows{{"", "1700000000", "0", "0.0", "1.0", "0.0"}}), history("World", "root"));
}

TEST_F(WorldObjectsTest, SavedMovesGiveThePoseOfThePast) {
  // World -- table, a row at start + 0.9 s (2, 0, 0); moved unsaved at start + 10 to (4, 0, 0), an eighth turn
  //       -- cup, rows at start + 0.9 s (1, 0, 0) and start + 10 (3, 0, 0), a quarter turn
  // The present is start + 20.
  const int64_t start = ManualClock::kDefaultStartSeconds;
  clock_.set(start, 900000);
  ASSERT_EQ(0, store("table", "World", pose6D(2, 0, 0)) + store("cup", "table", pose6D(1, 0, 0)));
  clock_.set(start + 10);
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(3, 0, 0, kHalfPi), true) +
                   world().updatePosition("table", pose6D(4, 0, 0, kHalfPi / 2), false));
  clock_.set(start + 20);
  const std::vector<float> present = world().getPosition6D("World", "cup");
  // Case: linear at start + 5: the table has no later row, so its present pose; the cup halfway, (2, 0, 0)
  // (TimeUS is never read), keeps the table's rotation as its own: a quarter turn in all.
  expectFloatsNear(pose6D(4 + std::sqrt(2.0f), std::sqrt(2.0f), 0, kHalfPi),
                   world().getPosition6DAtTime("World", "cup", 15, 1));
  // Case: nearest at start + 7, upwards: the cup's later row inverted with its translation only negated,
  // (-3, 0, 0), not rotated back to (0, 3, 0); the table's (-4, 0, 0) is then turned by the working
  // rotation to (0, 4, 0).
  expectFloatsNear(pose6D(-3, 4, 0, -3 * kHalfPi / 2), world().getPosition6DAtTime("cup", "World", 13, 0));
  // Case: before the first row, at the second of the last one (rows of the
  // requested second are neither earlier nor later), and now: the present.
  for (int ago : {25, 10, 0}) expectFloatsNear(present, world().getPosition6DAtTime("World", "cup", ago, 1));
  EXPECT_TRUE(worldLog().empty()) << ::testing::PrintToString(worldLog());
  // Case: a wrong type is said by the edge with both rows, which keeps its present pose.
  expectFloatsNear(present, world().getPosition6DAtTime("World", "cup", 15, 2));
  EXPECT_EQ(std::vector<std::string>{"error xInterpolate: Wrong interpolation type: 2. Must be 0 or 1."}, worldLog());

  // Case: a category whose file is gone when the world is loaded again gets
  // an empty database from the first query that meets it, and keeps it.
  ASSERT_EQ(0, world().save());
  ASSERT_EQ(0, std::remove(databasePath("Cups").c_str()));
  ASSERT_EQ(0, world().load());
  ASSERT_FALSE(world().objectCategoryExists("Cups"));
  expectFloatsNear(present, world().getPosition6DAtTime("World", "cup", 15, 1));
  EXPECT_TRUE(world().objectCategoryExists("Cups"));
}

}  // namespace
}  // namespace test
}  // namespace KQ
