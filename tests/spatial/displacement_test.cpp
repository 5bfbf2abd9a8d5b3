// The live edges, read through a real broker and motion proxy from the
// scripted robot body. The faults looked for: a refresh failure that escapes
// (a position query would then fail for one broken joint), a failure that
// loses the last good transform, copies that share or copy the cache, and an
// odometry throttle that asks too often, too late, or retries a failed read
// at once. Time is the controllable clock: nothing here sleeps.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/log.h"
#include "middleware/math.h"
#include "middleware/motion_proxy.h"
#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/scripted_motion_module.h"

namespace KQ {
namespace {

using test::LogCapture;
using test::ManualClock;
using test::ScriptedMotionModule;

const std::vector<float> kIdentity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
// A quarter turn about z, 0.1 m forward, 0.2 m left, 0.3 m up.
const std::vector<float> kHeadInTorso{0, -1, 0, 0.1f, 1, 0, 0, 0.2f, 0, 0, 1, 0.3f};
// Half a turn about x.
const std::vector<float> kArmInTorso{1, 0, 0, -0.5f, 0, -1, 0, 0, 0, 0, -1, 0};

class LiveEdgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker = std::make_shared<KQBroker>("test");
    motion = KQModule::createModule<ScriptedMotionModule>(broker, "KQMotion");
    motion->setBodyNames({"Torso", "HeadYaw", "LShoulderPitch"});
    proxy = broker->getSpecialisedProxy<KQMotionProxy>("KQMotion");
  }
  void TearDown() override { motion->exit(); }

  std::shared_ptr<KQBroker> broker;
  std::shared_ptr<ScriptedMotionModule> motion;
  std::shared_ptr<KQMotionProxy> proxy;
  LogCapture logs;
};

std::string updateFailure(const std::string& name, const std::string& reason) {
  return "verbose KQMotionDisplacement updateTransform: Could not update transform of object " + name + ": " +
         reason;
}

TEST_F(LiveEdgeTest, MotionEdgeFollowsTheScriptedBody) {
  motion->setTransform("HeadYaw", 0, kHeadInTorso);
  KQMotionDisplacement head(proxy, "HeadYaw", 0);

  // Case: the 12 floats come back as the body sent them.
  EXPECT_EQ(kHeadInTorso, head.getTransform());
  const float h = std::sqrt(0.5f);
  const std::vector<float> q = head.getQuaternion();
  ASSERT_EQ(4u, q.size());
  EXPECT_NEAR(h, q[0], 1e-6f);
  EXPECT_NEAR(h, q[3], 1e-6f);
  EXPECT_EQ((std::vector<float>{0.1f, 0.2f, 0.3f}), head.getTranslation());

  // Case: every read asks again (no caching between calls), and follows the body.
  const int before = motion->getTransformCalls("HeadYaw");
  head.getQuaternion();
  head.getTranslation();
  EXPECT_EQ(before + 2, motion->getTransformCalls("HeadYaw"));
  motion->setTransform("HeadYaw", 0, kIdentity);
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), head.getQuaternion());

  // Case: a body part listed but never scripted stands at the identity, and nothing is logged.
  KQMotionDisplacement shoulder(proxy, "LShoulderPitch", 0);
  EXPECT_EQ(kIdentity, shoulder.getTransform());
  EXPECT_TRUE(logs.lines().empty());
}

TEST_F(LiveEdgeTest, MotionEdgeKeepsItsLastGoodTransformWhenTheBodyFails) {
  // Case: an unknown part stands at the identity, one verbose line per evaluation.
  KQMotionDisplacement ghost(proxy, "LWristGhost", 0);
  EXPECT_EQ((std::vector<float>{0, 0, 0}), ghost.getTranslation());
  EXPECT_EQ((std::vector<std::string>{updateFailure("LWristGhost",
                                                    "KQMotion.getTransform: Unknown body part LWristGhost")}),
            logs.lines());

  // Case: a part that worked and then fails keeps the transform it had.
  logs.clear();
  motion->setTransform("HeadYaw", 0, kHeadInTorso);
  KQMotionDisplacement head(proxy, "HeadYaw", 0);
  ASSERT_EQ(kHeadInTorso, head.getTransform());
  motion->setUnknown("HeadYaw");
  EXPECT_EQ(kHeadInTorso, head.getTransform());

  // Case: an answer of the wrong length is a failed read too, not a reset to identity.
  logs.clear();
  motion->setTransform("HeadYaw", 0, {1, 0, 0, 0, 1});
  EXPECT_EQ(kHeadInTorso, head.getTransform());
  EXPECT_EQ((std::vector<std::string>{updateFailure("HeadYaw", "expected 12 floats, got 5")}), logs.lines());

  // Case: a space the body does not know is refused by the body, and absorbed the same way.
  logs.clear();
  KQMotionDisplacement badSpace(proxy, "LShoulderPitch", 7);
  EXPECT_EQ(kIdentity, badSpace.getTransform());
  EXPECT_EQ((std::vector<std::string>{updateFailure("LShoulderPitch", "KQMotion.getTransform: Invalid space 7")}),
            logs.lines());

  // Case: the line is built only when the category admits verbose notes.
  logs.clear();
  logs.setLevel("KQMotionDisplacement", ko::log::info);
  EXPECT_EQ(kIdentity, ghost.getTransform());
  EXPECT_TRUE(logs.lines().empty());

  // Case: a copy or an assignment asks for the source's part in the source's
  // space but does not carry its cache: while the body fails it stands at identity.
  KQMotionDisplacement copy(head);
  KQMotionDisplacement shoulder(proxy, "LShoulderPitch", 2);
  shoulder = head;
  EXPECT_EQ(kIdentity, copy.getTransform());
  EXPECT_EQ(kIdentity, shoulder.getTransform());
  motion->setTransform("HeadYaw", 0, kArmInTorso);
  EXPECT_EQ(kArmInTorso, copy.getTransform());
  EXPECT_EQ(kArmInTorso, shoulder.getTransform());
}

TEST_F(LiveEdgeTest, OdometryIsReadAtMostOnceEvery40Milliseconds) {
  ManualClock clock(1'700'000'000, 500'000);
  motion->setRobotPosition(1.0f, 2.0f, 0.0f);
  KQOdometryDisplacement robot(proxy);

  // Case: within 40 ms of construction the robot stands at the origin, unasked.
  EXPECT_EQ((std::vector<float>{0, 0, 0}), robot.getTranslation());
  clock.advanceMilliseconds(39);
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), robot.getQuaternion());
  EXPECT_EQ(0, motion->getRobotPositionCalls());

  // Case: exactly 40 ms after construction the body is asked.
  clock.advanceMilliseconds(1);
  EXPECT_EQ((std::vector<float>{1, 2, 0}), robot.getTranslation());
  EXPECT_EQ(1, motion->getRobotPositionCalls());

  // Case: 10 ms later nothing is asked, though the robot moved meanwhile.
  motion->setRobotPosition(3.0f, 4.0f, 1.5707964f);
  clock.advanceMilliseconds(10);
  EXPECT_EQ((std::vector<float>{1, 2, 0}), robot.getTranslation());

  // Case: exactly 40 ms after the last read, a new one: position and heading.
  clock.advanceMilliseconds(30);
  EXPECT_EQ((std::vector<float>{3, 4, 0}), robot.getTranslation());
  const std::vector<float> heading = robot.getQuaternion();
  EXPECT_NEAR(std::sqrt(0.5f), heading[0], 1e-6f);
  EXPECT_NEAR(std::sqrt(0.5f), heading[3], 1e-6f);
  EXPECT_EQ(2, motion->getRobotPositionCalls());

  // Case: exactly 40 ms across a second boundary counts as 40 ms too.
  clock.set(1'700'000'010, 980'000);
  robot.getTranslation();
  motion->setRobotPosition(5.0f, 6.0f, 0.0f);
  clock.set(1'700'000'011, 19'999);
  EXPECT_EQ((std::vector<float>{3, 4, 0}), robot.getTranslation());
  EXPECT_EQ(3, motion->getRobotPositionCalls());
  clock.set(1'700'000'011, 20'000);
  EXPECT_EQ((std::vector<float>{5, 6, 0}), robot.getTranslation());
  EXPECT_EQ(4, motion->getRobotPositionCalls());

  // Case: a clock set back asks nothing until it is 40 ms past the last read again.
  clock.set(1'700'000'005, 0);
  EXPECT_EQ((std::vector<float>{5, 6, 0}), robot.getTranslation());
  EXPECT_EQ(4, motion->getRobotPositionCalls());
}

TEST_F(LiveEdgeTest, OdometryFailureResetsToTheOriginAndWaitsAFullPeriod) {
  ManualClock clock;
  motion->setRobotPosition(1.0f, 2.0f, 0.5f);
  KQOdometryDisplacement robot(proxy);
  clock.advanceMilliseconds(40);
  ASSERT_EQ((std::vector<float>{1, 2, 0}), robot.getTranslation());

  // Case: a failed read puts the robot back at the world origin, silently.
  motion->setRobotPositionFails(true);
  clock.advanceMilliseconds(40);
  EXPECT_EQ((std::vector<float>{0, 0, 0}), robot.getTranslation());
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), robot.getQuaternion());
  EXPECT_EQ(2, motion->getRobotPositionCalls());
  EXPECT_TRUE(logs.lines().empty());

  // Case: the failed attempt counts as a read: 10 ms later no retry, even though the body is back.
  motion->setRobotPositionFails(false);
  clock.advanceMilliseconds(10);
  EXPECT_EQ((std::vector<float>{0, 0, 0}), robot.getTranslation());
  EXPECT_EQ(2, motion->getRobotPositionCalls());
  clock.advanceMilliseconds(30);
  EXPECT_EQ((std::vector<float>{1, 2, 0}), robot.getTranslation());
  EXPECT_EQ(3, motion->getRobotPositionCalls());
}

TEST_F(LiveEdgeTest, OdometryCopiesStartAfreshAtTheTimeOfCopying) {
  ManualClock clock;
  motion->setRobotPosition(1.0f, 2.0f, 0.0f);
  KQOdometryDisplacement robot(proxy);
  clock.advanceMilliseconds(40);
  ASSERT_EQ((std::vector<float>{1, 2, 0}), robot.getTranslation());

  // Case: a copy is at the origin and waits its own 40 ms from the copying.
  clock.advanceMilliseconds(20);
  KQOdometryDisplacement copy(robot);
  clock.advanceMilliseconds(20);
  EXPECT_EQ((std::vector<float>{0, 0, 0}), copy.getTranslation());
  clock.advanceMilliseconds(20);
  EXPECT_EQ((std::vector<float>{1, 2, 0}), copy.getTranslation());

  // Case: assignment starts the target over in the same way.
  robot = copy;
  EXPECT_EQ((std::vector<float>{0, 0, 0}), robot.getTranslation());
}

}  // namespace
}  // namespace KQ
