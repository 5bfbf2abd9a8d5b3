// RobotModel: reading URDF descriptions (good, broken, odd) and composing
// link frames down a kinematic tree (the robot is drawn in test_robot.urdf).
#include "middleware/modules/robot_model.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/checks.h"

namespace KQ {
namespace {

const std::string kRobotFile = KQ_SOURCE_DIR "/tests/modules/test_robot.urdf";

void expectTranslation(const Math::Transform& t, float x, float y, float z) {
  EXPECT_NEAR(t.r[0][3], x, 1e-5f);
  EXPECT_NEAR(t.r[1][3], y, 1e-5f);
  EXPECT_NEAR(t.r[2][3], z, 1e-5f);
}

TEST(RobotModelTest, ReadsEveryJointKindInDocumentOrder) {
  const RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  EXPECT_EQ(model.rootLink(), "base_link");
  // Case: urdfdom sorts joints by name; the description's order is kept,
  // fixed joints left out, mimic joints kept (their links move).
  EXPECT_EQ(model.movableJoints(), (std::vector<std::string>{"Yaw", "Slide", "Follow", "Echo", "Wheel"}));
  EXPECT_EQ(model.mimicMaster("Follow"), "Yaw");
}

TEST(RobotModelTest, ComposesLinkFramesDownTheTree) {
  RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  // Case: at rest the chain is a sum of origins.
  expectTranslation(model.linkInRoot("Slider"), 0.3f, 0.0f, 0.5f);
  // Case: a revolute joint turns everything below it about its own origin.
  model.setPosition("Yaw", 1.2f);
  expectTranslation(model.linkInRoot("Slider"), 0.1f + 0.2f * std::cos(1.2f), 0.2f * std::sin(1.2f), 0.5f);
  // Case: a prismatic joint slides along its axis, normalised (1 m per metre).
  model.setPosition("Yaw", 0.0f);
  model.setPosition("Slide", 0.25f);
  expectTranslation(model.linkInRoot("Slider"), 0.55f, 0.0f, 0.5f);
  // Case: a continuous joint turns without limit and moves only its own branch.
  model.setPosition("Wheel", 20.0f);
  EXPECT_NEAR(model.position("Wheel"), 20.0f, 1e-5f);
  expectTranslation(model.linkInRoot("WheelLink"), 0.0f, 0.2f, 0.0f);
}

TEST(RobotModelTest, ClampsToLimitsAndMimicJointsFollowTheirMaster) {
  RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  // Case: at rest a mimic stands at its offset, which turns its own link.
  EXPECT_NEAR(model.position("Follow"), 0.1f, 1e-5f);
  EXPECT_NEAR(model.linkInRoot("Tip").r[1][0], std::sin(0.1f), 1e-5f);
  // Case: mimic = multiplier x master + offset, and a mimic of a mimic follows too.
  model.setPosition("Yaw", 0.5f);
  EXPECT_NEAR(model.position("Echo"), 1.1f, 1e-5f);
  // Case: beyond the limits a joint stops at them; a mimic at its own
  // (2 x -1.5 + 0.1 = -2.9 -> -2).
  model.setPosition("Slide", 5.0f);
  model.setPosition("Yaw", -9.0f);
  EXPECT_EQ(std::vector<float>({model.position("Slide"), model.position("Yaw"), model.position("Follow")}),
            std::vector<float>({0.3f, -1.5f, -2.0f}));
  // Case: refusals say why and change nothing.
  EXPECT_EQ(model.checkSettable("Follow", 0.0f), "Joint Follow follows joint Yaw and cannot be set.");
  EXPECT_EQ(model.checkSettable("TorsoMount", 0.0f), "Unknown joint TorsoMount.");
  EXPECT_THROW(model.setPosition("Yaw", INFINITY), std::invalid_argument);
  EXPECT_EQ(model.position("Yaw"), -1.5f);
}

TEST(RobotModelTest, RefusesDescriptionsItCannotUseWithOneSentence) {
  const std::string links = R"(<robot name="r"><link name="Torso"/><link name="A"/>)";
  const struct {
    std::string xml, message;  // message: the start of what() after "test.urdf"
  } refusals[] = {
      {"this is not a robot", ": "},
      {R"(<robot name="r"><link name="Torso"/><joint name="j" type="fixed"><parent link="Torso"/>
          <child link="Nowhere"/></joint></robot>)", ": "},
      {links + R"(<joint name="j" type="continuous"><parent link="Torso"/><child link="A"/><mimic joint="ghost"/>
                  </joint></robot>)", ": joint j mimics unknown joint ghost"},
      {links + R"(<link name="B"/><joint name="a" type="continuous"><parent link="Torso"/><child link="A"/><mimic joint="b"/></joint>
                  <joint name="b" type="continuous"><parent link="A"/><child link="B"/><mimic joint="a"/></joint>
                  </robot>)", ": joint a mimics itself through a cycle"},
  };
  for (const auto& r : refusals) {
    const std::string what = test::errorOf([&] { RobotModel::fromText(r.xml, "Torso", "test.urdf"); });
    EXPECT_EQ(what.rfind("Cannot read robot description test.urdf" + r.message, 0), 0u) << what;
  }
  EXPECT_THROW(RobotModel::fromFile(kRobotFile, "Chest"), RobotModelError);  // no such torso link
}

}  // namespace
}  // namespace KQ
