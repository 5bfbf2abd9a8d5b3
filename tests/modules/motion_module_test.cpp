// The simulated KQMotion as the world model meets it: through a broker and
// the typed KQMotionProxy, by method name.
#include "middleware/modules/motion_module.h"

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/motion_proxy.h"

namespace KQ {
namespace {

constexpr float kTolerance = 1e-5f;
constexpr float kHalfPi = 1.57079632679f;

// The robot of these tests:
//
//   base_link (root: the ground frame, space 2)
//    `-- TorsoMount (fixed, z 0.5) -- Chest  (the torso, space 0)
//          |-- Yaw (revolute z, +-2, at x 0.1) -- Arm
//          |     `-- Grip (prismatic x, [0, 0.1]) -- Finger
//          |           `-- Thumb (prismatic x, mimics Grip x -1) -- ThumbLink
//          `-- Spin (continuous z, at z 0.3) -- Head
const char* const kRobot = R"(<robot name="motion-test">
  <link name="base_link"/> <link name="Chest"/> <link name="Arm"/> <link name="Finger"/>
  <link name="ThumbLink"/> <link name="Head"/>
  <joint name="TorsoMount" type="fixed"><parent link="base_link"/><child link="Chest"/><origin xyz="0 0 0.5"/></joint>
  <joint name="Yaw" type="revolute"><parent link="Chest"/><child link="Arm"/><origin xyz="0.1 0 0"/>
    <axis xyz="0 0 1"/><limit lower="-2" upper="2" effort="1" velocity="1"/></joint>
  <joint name="Grip" type="prismatic"><parent link="Arm"/><child link="Finger"/>
    <axis xyz="1 0 0"/><limit lower="0" upper="0.1" effort="1" velocity="1"/></joint>
  <joint name="Thumb" type="prismatic"><parent link="Finger"/><child link="ThumbLink"/>
    <axis xyz="1 0 0"/><limit lower="-0.1" upper="0" effort="1" velocity="1"/><mimic joint="Grip" multiplier="-1"/></joint>
  <joint name="Spin" type="continuous"><parent link="Chest"/><child link="Head"/><origin xyz="0 0 0.3"/>
    <axis xyz="0 0 1"/></joint>
</robot>)";

class MotionModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = std::make_shared<KQBroker>("motion-test");
    module_ = std::make_shared<KQMotionModule>(broker_, "KQMotion", RobotModel::fromText(kRobot, "Chest", "test"));
    module_->initModule();
    motion_ = broker_->getSpecialisedProxy<KQMotionProxy>("KQMotion");
  }
  void TearDown() override { broker_->shutdown(); }

  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<KQMotionModule> module_;
  std::shared_ptr<KQMotionProxy> motion_;
};

std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const KQError& e) {
    return e.getMessage();
  }
  return "no error";
}

void expectTranslation(const std::vector<float>& transform, float x, float y, float z) {
  ASSERT_EQ(transform.size(), 12u);
  EXPECT_NEAR(transform[3], x, kTolerance);
  EXPECT_NEAR(transform[7], y, kTolerance);
  EXPECT_NEAR(transform[11], z, kTolerance);
}

TEST_F(MotionModuleTest, BodyNamesAreTheTorsoThenTheMovableJoints) {
  // Case: "Body" is what the world model hangs under Robot_Torso: the torso
  // under its fixed name, then each moving joint (the mimic one too, it
  // moves), never the fixed mount.
  EXPECT_EQ(motion_->getBodyNames("Body"), (std::vector<std::string>{"Torso", "Yaw", "Grip", "Thumb", "Spin"}));
  EXPECT_EQ(motion_->getBodyNames("Joints"), (std::vector<std::string>{"Yaw", "Grip", "Thumb", "Spin"}));
  EXPECT_EQ(motion_->getBodyNames("Links").front(), "base_link");
  // Case: an unknown group is an error, not an empty robot.
  EXPECT_EQ(errorOf([&] { motion_->getBodyNames("Legs"); }), "Unknown group Legs: use Body, Joints or Links.");
}

TEST_F(MotionModuleTest, TransformsInTheThreeSpacesAgree) {
  // Case: at rest, the torso stands 0.5 m over the ground frame and is its
  // own identity in torso space.
  expectTranslation(motion_->getTransform("Torso", 2, true), 0.0f, 0.0f, 0.5f);
  const std::vector<float> identity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  EXPECT_EQ(motion_->getTransform("Torso", 0, true), identity);

  // Case: a joint's frame is its child link's; in torso space the mount
  // height drops out.
  expectTranslation(motion_->getTransform("Yaw", 0, true), 0.1f, 0.0f, 0.0f);
  expectTranslation(motion_->getTransform("Spin", 2, true), 0.0f, 0.0f, 0.8f);

  // Case: world space applies the odometry: the robot at (1, 2) turned a
  // quarter left carries the arm's +x offset onto world +y.
  motion_->setRobotPosition({1.0f, 2.0f, kHalfPi});
  expectTranslation(motion_->getTransform("Yaw", 1, true), 1.0f, 2.1f, 0.5f);
  // Case: the torso-space view does not move with the robot.
  expectTranslation(motion_->getTransform("Yaw", 0, true), 0.1f, 0.0f, 0.0f);

  // Case: unknown names and spaces are errors that name them.
  EXPECT_EQ(errorOf([&] { motion_->getTransform("Ghost", 0, true); }), "Unknown body part Ghost.");
  EXPECT_EQ(errorOf([&] { motion_->getTransform("Yaw", 3, true); }),
            "Unknown space 3: use 0 (torso), 1 (world) or 2 (robot).");
}

TEST_F(MotionModuleTest, SetAnglesIsAllOrNothingAndClamps) {
  // Case: the gripper closes beyond its range and stops at 0.1; its mimic
  // thumb follows the other way.
  motion_->setAngles({"Grip", "Yaw"}, {0.5f, kHalfPi});
  EXPECT_EQ(module_->getAngles({"Grip", "Thumb", "Yaw"}), (std::vector<float>{0.1f, -0.1f, kHalfPi}));
  expectTranslation(motion_->getTransform("Grip", 0, true), 0.1f, 0.1f, 0.0f);

  // Case: one bad name refuses the whole call: Yaw keeps its angle.
  EXPECT_EQ(errorOf([&] { motion_->setAngles({"Yaw", "Thumb"}, {0.0f, 0.0f}); }),
            "Joint Thumb follows joint Grip and cannot be set.");
  EXPECT_EQ(errorOf([&] { motion_->setAngles({"Yaw", "TorsoMount"}, {0.0f, 0.0f}); }), "Unknown joint TorsoMount.");
  EXPECT_EQ(errorOf([&] { motion_->setAngles({"Yaw", "Grip"}, {0.0f, std::nanf("")}); }),
            "The position of joint Grip is not a finite number.");
  EXPECT_EQ(errorOf([&] { motion_->setAngles({"Yaw", "Grip"}, {0.0f}); }), "Got 2 joint names but 1 angles.");
  EXPECT_EQ(module_->getAngles({"Yaw"}), (std::vector<float>{kHalfPi}));
}

TEST_F(MotionModuleTest, RobotPositionIsAPlanarPoseWithTheHeadingWrapped) {
  EXPECT_EQ(motion_->getRobotPosition(true), (std::vector<float>{0.0f, 0.0f, 0.0f}));
  // Case: three quarter turns left read as a quarter turn right.
  motion_->setRobotPosition({0.5f, -1.0f, 3.0f * kHalfPi});
  const std::vector<float> pose = motion_->getRobotPosition(false);
  ASSERT_EQ(pose.size(), 3u);
  EXPECT_NEAR(pose[0], 0.5f, kTolerance);
  EXPECT_NEAR(pose[1], -1.0f, kTolerance);
  EXPECT_NEAR(pose[2], -kHalfPi, 1e-4f);
  // Case: a pose of the wrong size or with NaN is refused, the robot stays.
  EXPECT_EQ(errorOf([&] { motion_->setRobotPosition({1.0f, 2.0f}); }),
            "A robot position is 3 floats x, y, theta; got 2.");
  EXPECT_EQ(errorOf([&] { motion_->setRobotPosition({1.0f, 2.0f, std::nanf("")}); }),
            "A robot position must hold finite numbers.");
  EXPECT_NEAR(motion_->getRobotPosition(true)[0], 0.5f, kTolerance);
}

}  // namespace
}  // namespace KQ
