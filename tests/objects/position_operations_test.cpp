// Position updates and present-time queries on a running world: poses
// composed across the tree and through the robot's live frames (scripted
// body, odometry that moves), updates with and without history rows, and
// refused events that must release every lock. (Readers under concurrent
// writers: module/stress_test.cpp.)
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "objects/objects_test_support.h"
#include "spatial/scene_graph.h"

namespace KQ {
namespace test {
namespace {

class PositionOperationsTest : public ClockedWorld {
 protected:
  void SetUp() override {
    ClockedWorld::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    logs().clear();
    memory().clearRecords();
  }

  std::vector<float> quaternionOf(const KQValue& pose) { return pose[0].toFloatVector(); }
  std::vector<float> translationOf(const KQValue& pose) { return pose[1].toFloatVector(); }
  int positionEvents() { return memory().raisedCount(KQWorldRepresentation::positionChangedEventName_); }
};

TEST_F(PositionOperationsTest, PosesBetweenSiblingsAndCousins) {
  // World
  // |-- a      (0, 0, 1), yaw pi/2
  // |   |-- a1 (1, 0, 0)
  // |   `-- a2 (0, 1, 0)
  // `-- b      (2, 0, 0)
  //     `-- b1 (0, 1, 0), yaw pi/2
  ASSERT_EQ(0, world().storeObject("a", "World", pose6D(0, 0, 1, kHalfPi), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("a1", "a", pose6D(1, 0, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("a2", "a", pose6D(0, 1, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("b", "World", pose6D(2, 0, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("b1", "b", pose6D(0, 1, 0, kHalfPi), "Cups", noAttributes()));

  // Case: child to parent, through a rotated edge.
  expectPose(world().getPosition6D("a", "World"), {0, 0, -1}, -kHalfPi);

  // Case: siblings: a2 seen from a1 is 1 m back and 1 m to the left.
  expectFloats(world().getPosition6D("a1", "a2"), pose6D(-1, 1, 0));

  // Case: cousins: in the world a1 is (0, 1, 1) facing +y and b1 is (2, 1, 0)
  // facing +y, so b1 lies 2 m to a1's right, 1 m down, same heading.
  expectFloats(world().getPosition6D("a1", "b1"), pose6D(0, -2, -1));
  // Case: the other way round the first up edge (b1) rotates, and the next
  // up edge's translation is added unrotated, as the path composition keeps
  // it: (-2, 0, 1) where the exact inverse would give (0, 2, 1).
  expectPose(world().getPosition6D("b1", "a1"), {-2, 0, 1}, 0);

  // Case: the pair form agrees with the six-float form.
  const KQValue pair = world().getPosition("a", "a1");
  expectFloats(quaternionOf(pair), {1, 0, 0, 0});
  expectFloats(translationOf(pair), {1, 0, 0});
}

TEST_F(PositionOperationsTest, PosesThroughTheRobotsLiveFrames) {
  // World
  // |-- Robot                odometry (1, 2), yaw pi/2
  // |   `-- Robot_Torso      z=0.3 above the ground
  // |       |-- HeadYaw      z=0.2, yaw pi/2
  // |       `-- LWristGhost  unknown to the body: identity
  // `-- cup                  (3, 2, 0)
  motion().setTransform("Torso", 2, yawTransform(0, 0, 0, 0.3f));
  motion().setTransform("HeadYaw", 0, yawTransform(kHalfPi, 0, 0, 0.2f));
  motion().setRobotPosition(1, 2, kHalfPi);
  clock_.advanceMilliseconds(41);  // past the odometry throttle
  ASSERT_EQ(0, world().storeObject("cup", "World", pose6D(3, 2, 0), "Cups", noAttributes()));

  // Case: down through odometry, torso and joint.
  expectPose(world().getPosition6D("World", "HeadYaw"), {1, 2, 0.5f}, 2 * kHalfPi);

  // Case: up from the torso through the robot, then down to the cup: 2 m
  // ahead of the robot in the world is 2 m to its right.
  expectPose(world().getPosition6D("Robot_Torso", "cup"), {0, -2, -0.3f}, -kHalfPi);

  // Case: a body part the motion module cannot resolve sits at the torso.
  expectFloats(world().getPosition6D("Robot_Torso", "LWristGhost"), pose6D(0, 0, 0));

  // Case: the odometry moves; the next query after the throttle sees it.
  motion().setRobotPosition(0, 0, 0);
  clock_.advanceMilliseconds(41);
  expectPose(world().getPosition6D("World", "HeadYaw"), {0, 0, 0.5f}, kHalfPi);
}

TEST_F(PositionOperationsTest, QueriesBetweenAnObjectAndItselfOrUnknownNames) {
  // Case: a frame in its own frame is the identity.
  const KQValue self = world().getPosition("Robot_Torso", "Robot_Torso");
  expectFloats(quaternionOf(self), {1, 0, 0, 0});
  expectFloats(translationOf(self), {0, 0, 0});
  EXPECT_TRUE(logs().lines().empty());

  // Case: unknown reference, unknown target: two empty lists, one warning each.
  for (const KQValue& failed : {world().getPosition("ghost", "World"), world().getPosition("World", "ghost")}) {
    ASSERT_EQ(2, failed.getSize());
    EXPECT_EQ(0, failed[0].getSize() + failed[1].getSize());
  }
  // Case: the six-float form converts the empty lists into 6 zeros.
  EXPECT_EQ(std::vector<float>(6, 0.0f), world().getPosition6D("World", "ghost"));
  EXPECT_EQ((std::vector<std::string>{"warning KQWorldRepresentation xGetPosition: Cannot find reference",
                                      "warning KQWorldRepresentation xGetPosition: Cannot find target",
                                      "warning KQWorldRepresentation xGetPosition: Cannot find target"}),
            logs().lines());
}

TEST_F(PositionOperationsTest, UpdateMovesTheEdgeAnnouncesItAndKeepsHistory) {
  // World
  // `-- table (2, 0, 0)
  //     `-- cup (0, 0, 1)
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(2, 0, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("cup", "table", pose6D(0, 0, 1), "Cups", noAttributes()));
  HistoryFile file(databasePath("Cups"));

  // Case: save true: new edge, one event relative to the parent, one row.
  clock_.advanceSeconds(3);
  clock_.advanceMicroseconds(77);
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0.5f, 0, 1, kHalfPi), true));
  ASSERT_EQ(1, positionEvents());
  const KQValue event = memory().lastRaised(KQWorldRepresentation::positionChangedEventName_);
  ASSERT_EQ(3, event.getSize());
  EXPECT_EQ("cup", event[0].toString());
  expectFloats(event[1].toFloatVector(), {std::cos(kHalfPi / 2), 0, 0, std::sin(kHalfPi / 2)});
  expectFloats(event[2].toFloatVector(), {0.5f, 0, 1});
  std::vector<HistoryRow> rows = file.positions("cup");
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ(ManualClock::kDefaultStartSeconds + 3, rows[1].timeS);
  EXPECT_EQ(77, rows[1].timeUS);
  EXPECT_NEAR(0.5, rows[1].translation[0], 1e-6);
  EXPECT_NEAR(std::sin(kHalfPi / 2), rows[1].quaternion[3], 1e-6);

  // Case: save false: the edge moves and the event goes out, the history
  // stays as it was.
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(0, 0, 2), false));
  expectFloats(world().getPosition6D("table", "cup"), pose6D(0, 0, 2));
  EXPECT_EQ(2, positionEvents());
  EXPECT_EQ(2u, file.positions("cup").size());
  EXPECT_TRUE(logs().lines().empty()) << ::testing::PrintToString(logs().lines());

  // Case: refusals: a pose that is not 6 floats, an unknown object.
  EXPECT_EQ(1, world().updatePosition("cup", {1, 2, 3}, true));
  EXPECT_EQ(1, world().updatePosition("ghost", pose6D(0, 0, 0), true));
  EXPECT_EQ((std::vector<std::string>{"Position format is not correct.", "Could not find child ghost"}),
            logs().messagesOf("updatePosition"));
  EXPECT_EQ(2u, file.positions("cup").size());
  EXPECT_EQ(2, positionEvents());
}

TEST_F(PositionOperationsTest, RobotFramesAndJointsAreNeverMovedByCallers) {
  motion().setTransform("HeadYaw", 0, yawTransform(0, 0, 0, 0.2f));
  HistoryFile joints(databasePath("joints"));
  HistoryFile frames(databasePath("frame"));
  const std::vector<float> headBefore = world().getPosition6D("World", "HeadYaw");

  // Case: each answers success and nothing changes: no event, no row, same pose.
  for (const char* name : {"Robot", "Robot_Torso", "HeadYaw", "LWristGhost"}) {
    EXPECT_EQ(0, world().updatePosition(name, pose6D(5, 5, 5), true)) << name;
    EXPECT_EQ(0, world().updatePositionWithReference(name, "World", pose6D(5, 5, 5), true)) << name;
  }
  EXPECT_EQ(0, positionEvents());
  EXPECT_EQ(1, joints.count("positions", "HeadYaw"));
  EXPECT_EQ(0, frames.count("positions", "Robot"));
  expectFloats(world().getPosition6D("World", "HeadYaw"), headBefore);
  expectFloats(world().getPosition6D("World", "Robot"), pose6D(0, 0, 0));
}

TEST_F(PositionOperationsTest, TheRootCannotMoveButItsRowIsWrittenAnyway) {
  // The root has no parent, so the edge cannot be set; the history row is
  // written all the same (parent ""), as the history's readers expect.
  const int result = world().updatePosition("World", pose6D(1, 0, 0), true);
  ASSERT_NE(0, result);
  EXPECT_EQ(std::vector<std::string>{"error KQWorldRepresentation updatePosition: Could not set displacement from  "
                                     "to World: " +
                                     KQSceneGraph().getErrorMessage(result)},
            logs().lines());
  EXPECT_EQ(0, positionEvents());
  HistoryFile root(databasePath("root"));
  const std::vector<HistoryRow> rows = root.positions("World");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("", rows[0].parentName);
  EXPECT_NEAR(1.0, rows[0].translation[0], 1e-6);
  expectFloats(world().getPosition6D("World", "Robot"), pose6D(0, 0, 0));
}

TEST_F(PositionOperationsTest, ARefusedEventReachesTheCallerAndReleasesTheLocks) {
  ASSERT_EQ(0, world().storeObject("cup", "World", pose6D(1, 0, 0), "Cups", noAttributes()));
  memory().throwOnRaise(true);

  // Case: the memory module's refusal is passed on; the edge was already set,
  // the row is not written.
  EXPECT_THROW(world().updatePosition("cup", pose6D(2, 0, 0), true), KQError);
  expectFloats(world().getPosition6D("World", "cup"), pose6D(2, 0, 0));
  HistoryFile file(databasePath("Cups"));
  EXPECT_EQ(1u, file.positions("cup").size());

  // Case: every lock was released: writers of each lock still get through.
  memory().throwOnRaise(false);
  EXPECT_EQ(0, world().storeObject("saucer", "World", pose6D(0, 0, 0), "Cups", noAttributes()));
  EXPECT_EQ(0, world().updatePosition("cup", pose6D(3, 0, 0), true));
  EXPECT_EQ(0, world().clearObject("saucer"));
  EXPECT_EQ(2u, file.positions("cup").size());
}

TEST_F(PositionOperationsTest, UpdateWithReferenceMatchesAHandComputedPose) {
  // World
  // |-- table      (2, 0, 0), yaw pi/2
  // `-- shelf      (0, 3, 0)
  //     `-- cup
  // 1 m ahead of the table and 0.5 m up is (2, 1, 0.5) facing +y in the
  // world, which is (2, -2, 0.5) in the shelf's frame.
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(2, 0, 0, kHalfPi), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("shelf", "World", pose6D(0, 3, 0), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("cup", "shelf", pose6D(0, 0, 0), "Cups", noAttributes()));
  memory().clearRecords();

  // Case: the edge, the event and the row all hold the pose in the shelf's frame.
  ASSERT_EQ(0, world().updatePositionWithReference("cup", "table", pose6D(1, 0, 0.5f), true));
  expectPose(world().getPosition6D("shelf", "cup"), {2, -2, 0.5f}, kHalfPi);
  const KQValue event = memory().lastRaised(KQWorldRepresentation::positionChangedEventName_);
  expectFloats(event[2].toFloatVector(), {2, -2, 0.5f});
  HistoryFile file(databasePath("Cups"));
  const std::vector<HistoryRow> rows = file.positions("cup");
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("shelf", rows[1].parentName);
  EXPECT_NEAR(-2.0, rows[1].translation[1], 1e-5);
  EXPECT_TRUE(logs().lines().empty()) << ::testing::PrintToString(logs().lines());

  // Case: an unknown reference reads as the parent's own frame, with a warning.
  ASSERT_EQ(0, world().updatePositionWithReference("cup", "ghost", pose6D(0, 0, 4), false));
  expectFloats(world().getPosition6D("shelf", "cup"), pose6D(0, 0, 4));
  EXPECT_EQ(std::vector<std::string>{"warning KQWorldRepresentation xGetPosition: Cannot find target"}, logs().lines());
  logs().clear();

  // Case: an unknown object.
  EXPECT_EQ(1, world().updatePositionWithReference("ghost", "table", pose6D(0, 0, 0), true));
  EXPECT_EQ(
      std::vector<std::string>{"error KQWorldRepresentation updatePositionWithReference: Object ghost does not exist."},
      logs().lines());
}

}  // namespace
}  // namespace test
}  // namespace KQ
