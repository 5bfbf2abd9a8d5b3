// The live edges, read from the scripted robot body through a real broker, on
// the controllable clock (walks through them: objects' PositionOperationsTest).
// Faults looked for: a failed read that escapes or loses the last good
// transform, a throttle that asks too often, too late or retries at once.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/motion_proxy.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/scripted_motion_module.h"

namespace KQ {
namespace {

using V = std::vector<float>;
const float h = std::sqrt(0.5f);
const V kHeadInTorso{0, -1, 0, 0.1f, 1, 0, 0, 0.2f, 0, 0, 1, 0.3f};  // a quarter turn about z, (0.1, 0.2, 0.3)

void expectNear(const V& expected, const V& actual) {
  ASSERT_EQ(expected.size(), actual.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], 1e-6f) << "at " << i;
}

class LiveEdgeTest : public ::testing::Test {
 protected:
  void TearDown() override { motion->exit(); }

  test::ManualClock clock{1'700'000'000, 500'000};
  test::LogCapture logs;
  std::shared_ptr<KQBroker> broker = std::make_shared<KQBroker>("test");
  std::shared_ptr<test::ScriptedMotionModule> motion =
      KQModule::createModule<test::ScriptedMotionModule>(broker, "KQMotion");
  std::shared_ptr<KQMotionProxy> proxy = broker->getSpecialisedProxy<KQMotionProxy>("KQMotion");
};

TEST_F(LiveEdgeTest, MotionEdgeKeepsItsLastGoodTransform) {
  motion->setTransform("HeadYaw", 0, kHeadInTorso);
  KQMotionDisplacement head(proxy, "HeadYaw", 0);
  ASSERT_EQ(kHeadInTorso, head.getTransform());
  expectNear({h, 0, 0, h}, head.getQuaternion());
  EXPECT_EQ((V{0.1f, 0.2f, 0.3f}), head.getTranslation());
  // Case: an unknown part and an answer of the wrong length are absorbed alike, one verbose line per read.
  motion->setUnknown("HeadYaw");
  EXPECT_EQ(kHeadInTorso, head.getTransform());
  motion->setTransform("HeadYaw", 0, {1, 0, 0, 0, 1});
  EXPECT_EQ(kHeadInTorso, head.getTransform());
  const std::string failed = "verbose KQMotionDisplacement updateTransform: Could not update transform of object ";
  EXPECT_EQ((std::vector<std::string>{failed + "HeadYaw: KQMotion.getTransform: Unknown body part HeadYaw",
                                      failed + "HeadYaw: expected 12 floats, got 5"}),
            logs.lines());
}

TEST_F(LiveEdgeTest, OdometryIsReadAtMostOnceEvery40Milliseconds) {
  KQOdometryDisplacement robot(proxy);  // built at second 0 + 500'000 us
  // Case: each row moves the robot facing +y (or breaks the body: {}), sets the clock, then reads once.
  const struct {
    V body;
    int64_t second, micro;
    V seen;
    const char* why;
  } rows[] = {
      {{1, 2}, 0, 539'999, {0, 0, 0}, "within 40 ms of construction: the origin, unasked"},
      {{1, 2}, 0, 540'000, {1, 2, 0}, "40 ms after construction: asked"},
      {{3, 4}, 0, 579'999, {1, 2, 0}, "within 40 ms of a read: not asked, though the robot moved"},
      {{3, 4}, 0, 580'000, {3, 4, 0}, "40 ms after the last read: asked"},
      {{5, 6}, 0, 980'000, {5, 6, 0}, "asked"},
      {{7, 8}, 1, 19'999, {5, 6, 0}, "within 40 ms across a second boundary: not asked"},
      {{7, 8}, 1, 20'000, {7, 8, 0}, "exactly 40 ms across a second boundary: asked"},
      {{9, 9}, 0, 0, {7, 8, 0}, "a clock set back: not asked"},
      {{}, 1, 60'000, {0, 0, 0}, "a failed read: silently back at the origin"},
      {{9, 9}, 1, 99'999, {0, 0, 0}, "within 40 ms of a failed read: no retry"},
      {{9, 9}, 1, 100'000, {9, 9, 0}, "40 ms after a failed read: asked"},
  };
  for (const auto& row : rows) {
    motion->setRobotPositionFails(row.body.empty());
    if (!row.body.empty()) motion->setRobotPosition(row.body[0], row.body[1], 1.5707964f);
    clock.set(1'700'000'000 + row.second, row.micro);
    EXPECT_EQ(row.seen, robot.getTranslation()) << row.why;
  }
  expectNear({h, 0, 0, h}, robot.getQuaternion());  // facing +y
  EXPECT_TRUE(logs.lines().empty());
}

}  // namespace
}  // namespace KQ
