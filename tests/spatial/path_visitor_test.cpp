// PathVisitor over real scene graphs: how the module answers where one
// object lies relative to another. The faults looked for: edges composed in
// the wrong order or on the wrong side, an up edge not inverted, a
// "correction" of the kept up-edge rule, normalisation sneaking in, a
// visitor that carries one walk's result into the next, and live edges read
// before (not during) the walk.
#include "spatial/path_visitor.h"

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/motion_proxy.h"
#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/scene_graph.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/scripted_motion_module.h"

namespace KQ {
namespace {

const float h = std::sqrt(0.5f);
// A quarter turn about z: x goes to y.
const std::vector<float> kQuarterZ{h, 0, 0, h};
const std::vector<float> kNoTurn{1, 0, 0, 0};

std::shared_ptr<Displacement> edge(const std::vector<float>& quaternion, const std::vector<float>& translation) {
  return std::make_shared<Displacement>(quaternion, translation);
}

struct Pose {
  std::vector<float> q, t;
};

Pose walk(const KQSceneGraph& graph, int from, int to) {
  PathVisitor visitor;
  Pose pose;
  EXPECT_EQ(0, graph.visitPath(visitor, from, to));
  visitor.getDisplacement(pose.q, pose.t);
  return pose;
}

void expectNear(const std::vector<float>& expected, const std::vector<float>& actual) {
  ASSERT_EQ(expected.size(), actual.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], 1e-6f) << "element " << i;
}

TEST(PathVisitorTest, ParentChildAndSelf) {
  //   0 P
  //   `-- n   edge: 120 degrees about (1, 1, 1), (1, 2, 3)
  KQSceneGraph graph;
  int n = -1;
  const std::vector<float> turn{0.5f, 0.5f, 0.5f, 0.5f}, shift{1.0f, 2.0f, 3.0f};
  ASSERT_EQ(0, graph.addNode(n, edge(turn, shift), 0));

  // Case: parent to child gives the edge exactly.
  Pose down = walk(graph, 0, n);
  EXPECT_EQ(turn, down.q);
  EXPECT_EQ(shift, down.t);

  // Case: child to parent gives the inverse: the turn undone (x <- y <- z <- x)
  // and the parent's origin at -shift seen from the turned child.
  Pose up = walk(graph, n, 0);
  EXPECT_EQ((std::vector<float>{0.5f, -0.5f, -0.5f, -0.5f}), up.q);
  expectNear({-2.0f, -3.0f, -1.0f}, up.t);
}

TEST(PathVisitorTest, SiblingsAndTheKeptUpEdgeRule) {
  //   0 P
  //   |-- a   quarter turn about z, (1, 0, 0)
  //   |   `-- g   quarter turn about z, (0, 0, 0)
  //   `-- b   no turn, (0, 2, 0)
  KQSceneGraph graph;
  int a = -1, b = -1, g = -1;
  ASSERT_EQ(0, graph.addNode(a, edge(kQuarterZ, {1, 0, 0}), 0));
  ASSERT_EQ(0, graph.addNode(b, edge(kNoTurn, {0, 2, 0}), 0));
  ASSERT_EQ(0, graph.addNode(g, edge(kQuarterZ, {0, 0, 0}), a));

  // Case: siblings: b lies at (-1, 2, 0) from a in P's axes, (2, 1, 0) in a's
  // turned axes, turned back by a quarter.
  Pose sibling = walk(graph, a, b);
  expectNear({h, 0, 0, -h}, sibling.q);
  expectNear({2, 1, 0}, sibling.t);
  std::vector<float> exactQ, exactT;

  // Case: up two edges from g, whose own edge turns: the second edge's
  // translation is added without the first edge's turn. P's origin is
  // reported at (0, 1, 0), where the exact answer is (1, 0, 0). This is the
  // answer callers have always had; it stays.
  Pose quirk = walk(graph, g, 0);
  expectNear({0, 0, 0, -1}, quirk.q);
  expectNear({0, 1, 0}, quirk.t);
  ASSERT_EQ(0, graph.getDisplacement(exactQ, exactT, g, 0));
  expectNear({1, 0, 0}, exactT);

  // Case: when the first up edge does not turn, the rule gives the exact answer.
  int flat = -1;
  ASSERT_EQ(0, graph.addNode(flat, edge(kNoTurn, {0, 0, 5}), a));
  Pose exactUp = walk(graph, flat, 0);
  ASSERT_EQ(0, graph.getDisplacement(exactQ, exactT, flat, 0));
  expectNear(exactT, exactUp.t);
  expectNear({0, 1, -5}, exactUp.t);

  // Case: downwards the composition is exact at any depth: g in P is two
  // quarter turns, at a's place.
  Pose deep = walk(graph, 0, g);
  expectNear({0, 0, 0, 1}, deep.q);
  expectNear({1, 0, 0}, deep.t);
}

TEST(PathVisitorTest, NothingIsNormalisedAndEachWalkStartsAfresh) {
  //   0 P
  //   `-- s   (2, 0, 0, 0): no turn, norm 2; (1, 0, 0)
  //       `-- u   (2, 0, 0, 0); (0, 1, 0)
  KQSceneGraph graph;
  int s = -1, u = -1;
  ASSERT_EQ(0, graph.addNode(s, edge({2, 0, 0, 0}, {1, 0, 0}), 0));
  ASSERT_EQ(0, graph.addNode(u, edge({2, 0, 0, 0}, {0, 1, 0}), s));

  // Case: the norms multiply, and a non-unit rotation does not scale the translations.
  Pose down = walk(graph, 0, u);
  EXPECT_EQ((std::vector<float>{4, 0, 0, 0}), down.q);
  expectNear({1, 1, 0}, down.t);
  Pose up = walk(graph, s, 0);
  EXPECT_EQ((std::vector<float>{0.5f, 0, 0, 0}), up.q);
  expectNear({-1, 0, 0}, up.t);

  // Case: one visitor used for two walks gives the second walk's answer
  // alone; stopVisit leaves the result readable.
  PathVisitor visitor;
  ASSERT_EQ(0, graph.visitPath(visitor, 0, u));
  ASSERT_EQ(0, graph.visitPath(visitor, s, 0));
  Pose reused;
  visitor.getDisplacement(reused.q, reused.t);
  EXPECT_EQ(up.q, reused.q);
  EXPECT_EQ(up.t, reused.t);

}

class PathThroughTheRobotTest : public ::testing::Test {
 protected:
  //   0 World
  //   `-- robot     odometry
  //       `-- torso     motion "Torso", space 2
  //           |-- head      motion "HeadYaw", space 0
  //           `-- ghost     motion "LWristGhost", space 0 (unknown to the body)
  void SetUp() override {
    broker = std::make_shared<KQBroker>("test");
    motion = KQModule::createModule<test::ScriptedMotionModule>(broker, "KQMotion");
    motion->setBodyNames({"Torso", "HeadYaw", "LWristGhost"});
    motion->setUnknown("LWristGhost");
    motion->setRobotPosition(1.0f, 2.0f, 1.5707964f);
    motion->setTransform("Torso", 2, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0.3f});
    motion->setTransform("HeadYaw", 0, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0.1f});
    auto proxy = broker->getSpecialisedProxy<KQMotionProxy>("KQMotion");
    ASSERT_EQ(0, graph.addNode(robot, std::make_shared<KQOdometryDisplacement>(proxy), 0));
    ASSERT_EQ(0, graph.addNode(torso, std::make_shared<KQMotionDisplacement>(proxy, "Torso", 2), robot));
    ASSERT_EQ(0, graph.addNode(head, std::make_shared<KQMotionDisplacement>(proxy, "HeadYaw", 0), torso));
    ASSERT_EQ(0, graph.addNode(ghost, std::make_shared<KQMotionDisplacement>(proxy, "LWristGhost", 0), torso));
    clock.advanceMilliseconds(40);  // the odometry edge's first read is due
  }
  void TearDown() override { motion->exit(); }

  test::ManualClock clock;
  test::LogCapture logs;
  std::shared_ptr<KQBroker> broker;
  std::shared_ptr<test::ScriptedMotionModule> motion;
  KQSceneGraph graph;
  int robot = -1, torso = -1, head = -1, ghost = -1;
};

TEST_F(PathThroughTheRobotTest, ReadsTheBodyDuringTheWalk) {
  // Case: the head in the world: robot at (1, 2) facing +y, torso 0.3 m up, head 0.1 m above.
  Pose headInWorld = walk(graph, 0, head);
  expectNear({h, 0, 0, h}, headInWorld.q);
  expectNear({1, 2, 0.4f}, headInWorld.t);

  // Case: each walk asks each body part again (its rotation and its translation).
  const int before = motion->getTransformCalls("HeadYaw");
  motion->setTransform("HeadYaw", 0, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0.2f});
  Pose moved = walk(graph, 0, head);
  expectNear({1, 2, 0.5f}, moved.t);
  EXPECT_EQ(before + 2, motion->getTransformCalls("HeadYaw"));
  EXPECT_TRUE(logs.lines().empty());
}

TEST_F(PathThroughTheRobotTest, AnUnknownJointStillGivesAPosition) {
  // Case: the ghost stands at its torso's place; the walk succeeds and each
  // read of the ghost's edge leaves one verbose line.
  Pose ghostInHead = walk(graph, head, ghost);
  expectNear({1, 0, 0, 0}, ghostInHead.q);
  expectNear({0, 0, -0.1f}, ghostInHead.t);
  const std::string line =
      "verbose KQMotionDisplacement updateTransform: Could not update transform of object LWristGhost: "
      "KQMotion.getTransform: Unknown body part LWristGhost";
  EXPECT_EQ((std::vector<std::string>{line, line}), logs.lines());
}

}  // namespace
}  // namespace KQ
