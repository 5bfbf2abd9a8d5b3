// The simulated KQMotion as the world model meets it: through a broker and
// the typed KQMotionProxy, on the robot drawn in test_robot.urdf.
#include "middleware/modules/motion_module.h"

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/motion_proxy.h"
#include "support/checks.h"

namespace KQ {
namespace {

using test::errorOf;
using Names = std::vector<std::string>;
constexpr float kHalfPi = 1.57079632679f;

class MotionModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    module_ = std::make_shared<KQMotionModule>(
        broker_, "KQMotion", RobotModel::fromFile(KQ_SOURCE_DIR "/tests/modules/test_robot.urdf", "Torso"));
    module_->initModule();
    motion_ = broker_->getSpecialisedProxy<KQMotionProxy>("KQMotion");
  }
  void TearDown() override { broker_->shutdown(); }
  // The translation column of a 3x4 transform.
  std::vector<float> where(const std::string& name, int space) {
    const std::vector<float> t = motion_->getTransform(name, space, true);
    return {t.at(3), t.at(7), t.at(11)};
  }

  std::shared_ptr<KQBroker> broker_ = std::make_shared<KQBroker>("motion-test");
  std::shared_ptr<KQMotionModule> module_;
  std::shared_ptr<KQMotionProxy> motion_;
};

TEST_F(MotionModuleTest, BodyNamesAreTheTorsoThenTheMovableJoints) {
  // Case: "Body" is what the world model hangs under Robot_Torso: the torso
  // under its fixed name, then each moving joint (mimic ones too), never
  // the fixed mount.
  EXPECT_EQ(motion_->getBodyNames("Body"), (Names{"Torso", "Yaw", "Slide", "Follow", "Echo", "Wheel"}));
  EXPECT_EQ(motion_->getBodyNames("Links").front(), "base_link");
  EXPECT_EQ(errorOf([&] { motion_->getBodyNames("Legs"); }),
            "KQMotion.getBodyNames: Unknown group Legs: use Body, Joints or Links.");
}

TEST_F(MotionModuleTest, TransformsInTheThreeSpacesAgree) {
  // Case: the torso stands 0.5 m over the ground frame (robot space) and is
  // its own identity in torso space, where the mount height drops out.
  test::expectFloatsNear({0, 0, 0.5f}, where("Torso", 2));
  EXPECT_EQ(motion_->getTransform("Torso", 0, true), (std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}));
  test::expectFloatsNear({0.1f, 0, 0}, where("Yaw", 0));
  // Case: world space applies the odometry: the robot at (1, 2) turned a
  // quarter left carries the arm's +x offset onto world +y; torso space
  // does not move with the robot.
  motion_->setRobotPosition({1.0f, 2.0f, kHalfPi});
  test::expectFloatsNear({1.0f, 2.1f, 0.5f}, where("Yaw", 1));
  test::expectFloatsNear({0.1f, 0, 0}, where("Yaw", 0));
  EXPECT_EQ(errorOf([&] { motion_->getTransform("Yaw", 3, true); }),
            "KQMotion.getTransform: Unknown space 3: use 0 (torso), 1 (world) or 2 (robot).");
}

TEST_F(MotionModuleTest, SetAnglesIsAllOrNothingAndClamps) {
  motion_->setAngles({"Slide", "Yaw"}, {5.0f, 1.0f});
  EXPECT_EQ(module_->getAngles({"Slide", "Yaw"}), (std::vector<float>{0.3f, 1.0f}));
  // Case: one bad name or value refuses the whole call: Yaw keeps its angle.
  for (const auto& [names, angles, message] :
       {std::tuple<Names, std::vector<float>, std::string>{
            {"Yaw", "Follow"}, {0, 0}, "Joint Follow follows joint Yaw and cannot be set."},
        {{"Yaw", "TorsoMount"}, {0, 0}, "Unknown joint TorsoMount."},
        {{"Yaw", "Slide"}, {0, std::nanf("")}, "The position of joint Slide is not a finite number."},
        {{"Yaw", "Slide"}, {0}, "Got 2 joint names but 1 angles."}})
    EXPECT_EQ(errorOf([&] { motion_->setAngles(names, angles); }), "KQMotion.setAngles: " + message);
  EXPECT_EQ(module_->getAngles({"Yaw"}), (std::vector<float>{1.0f}));
}

TEST_F(MotionModuleTest, RobotPositionIsAPlanarPoseWithTheHeadingWrapped) {
  // Case: three quarter turns left read as a quarter turn right.
  motion_->setRobotPosition({0.5f, -1.0f, 3.0f * kHalfPi});
  test::expectFloatsNear({0.5f, -1.0f, -kHalfPi}, motion_->getRobotPosition(false));
  // Case: a pose of the wrong size or with NaN is refused, the robot stays.
  EXPECT_EQ(errorOf([&] { motion_->setRobotPosition({1.0f, 2.0f}); }),
            "KQMotion.setRobotPosition: A robot position is 3 floats x, y, theta; got 2.");
  EXPECT_EQ(errorOf([&] { motion_->setRobotPosition({1.0f, 2.0f, std::nanf("")}); }),
            "KQMotion.setRobotPosition: A robot position must hold finite numbers.");
  test::expectFloatsNear({0.5f, -1.0f, -kHalfPi}, motion_->getRobotPosition(true));
}

}  // namespace
}  // namespace KQ
