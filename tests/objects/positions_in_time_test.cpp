// Positions in the past on a running world: history rows written through
// the module's own updates at instants set on a manual clock, then read back
// as they were a number of seconds ago.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "objects/objects_test_support.h"

namespace KQ {
namespace test {
namespace {

constexpr int64_t kStart = ManualClock::kDefaultStartSeconds;

class PositionsInTimeTest : public ClockedWorld {
 protected:
  void SetUp() override {
    ClockedWorld::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    // World
    // `-- cup   history: start      (1, 0, 0), yaw 0
    //                    start + 10 (3, 0, 0), yaw pi/2   <- present pose
    // The present is start + 20.
    ASSERT_EQ(0, world().storeObject("cup", "World", pose6D(1, 0, 0), "Cups", noAttributes()));
    clock_.set(kStart + 10);
    ASSERT_EQ(0, world().updatePosition("cup", pose6D(3, 0, 0, kHalfPi), true));
    clock_.set(kStart + 20);
    logs().clear();
  }

  std::vector<float> cupAt(int secondsAgo, int type) {
    return world().getPosition6DAtTime("World", "cup", secondsAgo, type);
  }
};

TEST_F(PositionsInTimeTest, BetweenTwoRows) {
  // Case: linear, halfway: the translation is the midpoint; the rotation is
  // the working rotation, identity on a single edge (rotations are never
  // interpolated).
  expectFloats(cupAt(15, 1), pose6D(2, 0, 0));
  // Case: linear, a quarter of the way.
  expectFloats(cupAt(17, 1), pose6D(1.6f, 0, 0));

  // Case: nearest, closer to the earlier row: its rotation, but the
  // translation of the later row (kept asymmetry).
  expectFloats(cupAt(17, 0), pose6D(3, 0, 0));
  // Case: nearest, closer to the later row, and exactly halfway (ties go to
  // the later row).
  for (int secondsAgo : {13, 15}) {
    expectPose(cupAt(secondsAgo, 0), {3, 0, 0}, kHalfPi);
  }

  // Case: the pair form carries the same answer.
  expectFloats(world().getPositionAtTime("World", "cup", 15, 1)[1].toFloatVector(), {2, 0, 0});
  EXPECT_TRUE(logs().lines().empty()) << ::testing::PrintToString(logs().lines());
}

TEST_F(PositionsInTimeTest, OutsideTheHistoryThePresentPoseIsUsed) {
  const std::vector<float> present = world().getPosition6D("World", "cup");
  // Case: after the last row, before the first row, and the present second
  // itself (nothing is later than now): the present pose, for both types.
  for (int secondsAgo : {5, 25, 0})
    for (int type : {0, 1}) expectFloats(cupAt(secondsAgo, type), present);
  EXPECT_TRUE(logs().lines().empty());

  // Case: through the robot's frames (the joints have one start-up row, the
  // robot frames none), no edge has bracketing rows.
  motion().setTransform("Torso", 2, yawTransform(0, 0, 0, 0.3f));
  motion().setTransform("HeadYaw", 0, yawTransform(kHalfPi, 0.05f, 0, 0.2f));
  motion().setRobotPosition(1, 2, 0);
  clock_.advanceMilliseconds(41);
  const std::vector<float> head = world().getPosition6D("World", "HeadYaw");
  expectFloats(world().getPosition6DAtTime("World", "HeadYaw", 5, 1), head);
  expectFloats(head, pose6D(1.05f, 2, 0.5f, kHalfPi));
}

TEST_F(PositionsInTimeTest, RowsAtTheRequestedSecondAreIgnored) {
  // Case: a row exactly at the requested second is neither earlier nor
  // later: with no other later row, the present pose.
  const std::vector<float> atTen = cupAt(10, 1);
  expectFloats({atTen[0], atTen[1], atTen[2]}, {3, 0, 0});

  // Case: with rows on both sides, the one at the second is stepped over:
  // between (1, 0, 0) at start and (9, 0, 0) at start + 20, start + 10 reads
  // 5, not the 3 stored at start + 10.
  ASSERT_EQ(0, world().updatePosition("cup", pose6D(9, 0, 0, kHalfPi), true));  // at start + 20
  clock_.set(kStart + 30);
  expectFloats(world().getPosition6DAtTime("World", "cup", 20, 1), pose6D(5, 0, 0));

  // Case: rows only within the requested second (microseconds apart) give
  // the present pose: the microseconds are never compared.
  clock_.set(kStart + 40, 100);
  ASSERT_EQ(0, world().storeObject("lid", "World", pose6D(0, 0, 1), "Cups", noAttributes()));
  clock_.set(kStart + 40, 900000);
  ASSERT_EQ(0, world().updatePosition("lid", pose6D(0, 0, 2), true));
  clock_.set(kStart + 41);
  world().updatePosition("lid", pose6D(0, 0, 7), false);
  expectFloats(world().getPosition6DAtTime("World", "lid", 1, 1), pose6D(0, 0, 7));
}

TEST_F(PositionsInTimeTest, UpEdgesInvertTheRotationAndOnlyNegateTheTranslation) {
  // From the cup to the world at start + 7 (nearest: rotation pi/2,
  // translation (3, 0, 0)): the inverse rotation with the translation only
  // negated, (-3, 0, 0), where the exact inverse would be (0, 3, 0).
  expectPose(world().getPosition6DAtTime("cup", "World", 13, 0), {-3, 0, 0}, -kHalfPi);

  // Case: linear, halfway: (-2, 0, 0) with the working rotation inverted.
  expectFloats(world().getPosition6DAtTime("cup", "World", 15, 1), pose6D(-2, 0, 0));
}

TEST_F(PositionsInTimeTest, TheWorkingRotationIsCarriedFromEdgeToEdge) {
  // World
  // `-- table   (2, 0, 0), yaw pi/2; one row only (no bracketing rows)
  //     `-- tray  history: start (0, 0, 0), start + 10 (1, 0, 0), no rotation
  clock_.set(kStart);
  ASSERT_EQ(0, world().storeObject("table", "World", pose6D(2, 0, 0, kHalfPi), "Cups", noAttributes()));
  ASSERT_EQ(0, world().storeObject("tray", "table", pose6D(0, 0, 0), "Cups", noAttributes()));
  clock_.set(kStart + 10);
  ASSERT_EQ(0, world().updatePosition("tray", pose6D(1, 0, 0), true));
  clock_.set(kStart + 20);

  // The table's edge falls back to its present pose and leaves its rotation
  // as the working rotation; the tray's linear interpolation does not write
  // a rotation, so it inherits pi/2: the tray reads (2, 0.5, 0) facing -x,
  // where its present heading is +y.
  expectPose(world().getPosition6DAtTime("World", "tray", 15, 1), {2, 0.5f, 0}, 2 * kHalfPi);
  expectYawNear(kHalfPi, world().getPosition6D("World", "tray")[5]);
}

TEST_F(PositionsInTimeTest, UnknownNamesSelfQueriesAndWrongTypes) {
  // Case: unknown reference or object: empty results, one error each.
  EXPECT_TRUE(world().getPosition6DAtTime("ghost", "cup", 5, 1).empty());
  EXPECT_TRUE(world().getPosition6DAtTime("World", "ghost", 5, 1).empty());
  EXPECT_FALSE(world().getPositionAtTime("ghost", "cup", 5, 1).isValid());
  EXPECT_FALSE(world().getPositionAtTime("World", "ghost", 5, 1).isValid());
  EXPECT_EQ((std::vector<std::string>{"error KQWorldRepresentation getPosition6DAtTime: Reference not found",
                                      "error KQWorldRepresentation getPosition6DAtTime: Object not found",
                                      "error KQWorldRepresentation getPositionAtTime: Reference not found",
                                      "error KQWorldRepresentation getPositionAtTime: Object not found"}),
            logs().lines());
  logs().clear();

  // Case: an object in its own frame: no edge, the identity.
  EXPECT_EQ(std::vector<float>(6, 0.0f), world().getPosition6DAtTime("cup", "cup", 15, 1));
  expectFloats(world().getPositionAtTime("cup", "cup", 15, 1)[0].toFloatVector(), {1, 0, 0, 0});

  // Case: a wrong type is reported once per edge that has both rows, and
  // that edge keeps its present pose; with no bracketing rows nothing is said.
  const std::vector<float> present = world().getPosition6D("World", "cup");
  expectFloats(cupAt(15, 2), present);
  EXPECT_EQ(std::vector<std::string>{"error KQWorldRepresentation xInterpolate: Wrong interpolation type: 2. Must be "
                                     "0 or 1."},
            logs().lines());
  logs().clear();
  expectFloats(cupAt(5, -1), present);
  EXPECT_TRUE(logs().lines().empty());

  // Case: a name holding a quote breaks the history query's text; the edge
  // falls back to its present pose and nothing throws.
  ASSERT_EQ(0, world().storeObject("o'clock", "World", pose6D(0, 1, 0), "Cups", noAttributes()));
  clock_.set(kStart + 30);
  ASSERT_EQ(0, world().updatePosition("o'clock", pose6D(0, 2, 0), true));
  clock_.set(kStart + 40);
  expectFloats(world().getPosition6DAtTime("World", "o'clock", 15, 1), pose6D(0, 2, 0));
}

}  // namespace
}  // namespace test
}  // namespace KQ
