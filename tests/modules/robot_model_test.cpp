// RobotModel: reading URDF descriptions (good, broken, odd) and composing
// link frames down a kinematic tree.
#include "middleware/modules/robot_model.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>


namespace KQ {
namespace {

constexpr float kTolerance = 1e-5f;

// The fixture robot, every joint kind at once, several levels deep:
//
//   base_link (root, ground frame)
//    |-- TorsoMount (fixed, z 0.5) -- Torso
//    |     `-- Yaw (revolute z, +-1.5, at x 0.1) -- Arm
//    |           `-- Slide (prismatic x, [0, 0.3], at x 0.2) -- Slider
//    |                 `-- Follow (revolute z, mimics Yaw x2 +0.1, +-2) -- Tip
//    |                       `-- Echo (revolute z, mimics Follow x1) -- Finger
//    `-- Wheel (continuous y, at y 0.2) -- WheelLink
const char* const kFixtureUrdf = R"(<?xml version="1.0"?>
<robot name="fixture">
  <link name="base_link"/> <link name="Torso"/> <link name="Arm"/> <link name="Slider"/>
  <link name="Tip"/> <link name="Finger"/> <link name="WheelLink"/>
  <joint name="Yaw" type="revolute">
    <parent link="Torso"/> <child link="Arm"/> <origin xyz="0.1 0 0"/> <axis xyz="0 0 1"/>
    <limit lower="-1.5" upper="1.5" effort="1" velocity="1"/>
  </joint>
  <joint name="TorsoMount" type="fixed">
    <parent link="base_link"/> <child link="Torso"/> <origin xyz="0 0 0.5"/>
  </joint>
  <joint name="Slide" type="prismatic">
    <parent link="Arm"/> <child link="Slider"/> <origin xyz="0.2 0 0"/> <axis xyz="2 0 0"/>
    <limit lower="0" upper="0.3" effort="1" velocity="1"/>
  </joint>
  <joint name="Follow" type="revolute">
    <parent link="Slider"/> <child link="Tip"/> <axis xyz="0 0 1"/>
    <limit lower="-2" upper="2" effort="1" velocity="1"/>
    <mimic joint="Yaw" multiplier="2" offset="0.1"/>
  </joint>
  <joint name="Echo" type="revolute">
    <parent link="Tip"/> <child link="Finger"/> <axis xyz="0 0 1"/>
    <limit lower="-3" upper="3" effort="1" velocity="1"/>
    <mimic joint="Follow"/>
  </joint>
  <joint name="Wheel" type="continuous">
    <parent link="base_link"/> <child link="WheelLink"/> <origin xyz="0 0.2 0"/> <axis xyz="0 1 0"/>
  </joint>
</robot>)";

void expectTranslation(const Math::Transform& t, float x, float y, float z) {
  EXPECT_NEAR(t.r[0][3], x, kTolerance);
  EXPECT_NEAR(t.r[1][3], y, kTolerance);
  EXPECT_NEAR(t.r[2][3], z, kTolerance);
}

std::string loadError(const std::string& xml, const std::string& torso = "Torso") {
  try {
    RobotModel::fromText(xml, torso, "test.urdf");
  } catch (const RobotModelError& e) {
    return e.what();
  }
  return "loaded";
}

TEST(RobotModelTest, ReadsEveryJointKindInDocumentOrder) {
  const RobotModel model = RobotModel::fromText(kFixtureUrdf, "Torso", "fixture");
  EXPECT_EQ(model.rootLink(), "base_link");
  // Case: urdfdom sorts joints by name; the description's order is kept,
  // fixed joints left out, mimic joints kept (their links move).
  EXPECT_EQ(model.movableJoints(), (std::vector<std::string>{"Yaw", "Slide", "Follow", "Echo", "Wheel"}));
  EXPECT_EQ(model.mimicMaster("Follow"), "Yaw");
  EXPECT_EQ(model.mimicMaster("Yaw"), "");
  EXPECT_FALSE(model.isMovable("TorsoMount"));
}

TEST(RobotModelTest, ComposesLinkFramesDownTheTree) {
  RobotModel model = RobotModel::fromText(kFixtureUrdf, "Torso", "fixture");

  // Case: at rest the chain is a sum of origins; Follow starts at its
  // offset 0.1 (2 x 0 + 0.1), which only turns the Tip.
  expectTranslation(model.linkInRoot("Torso"), 0.0f, 0.0f, 0.5f);
  expectTranslation(model.linkInRoot("Slider"), 0.3f, 0.0f, 0.5f);
  EXPECT_NEAR(model.position("Follow"), 0.1f, kTolerance);

  // Case: a revolute joint turns everything below it about its own origin:
  // Yaw at pi/2 swings the slider from +x to +y of the arm.
  model.setPosition("Yaw", static_cast<float>(M_PI / 2) - 0.2f);  // within the 1.5 limit
  const float yaw = model.position("Yaw");
  const Math::Transform sliderInRoot = model.linkInRoot("Slider");
  expectTranslation(sliderInRoot, 0.1f + 0.2f * std::cos(yaw), 0.2f * std::sin(yaw), 0.5f);

  // Case: a prismatic joint slides along its axis, normalised (the file says
  // 2 0 0, the joint moves 1 m per metre).
  model.setPosition("Yaw", 0.0f);
  model.setPosition("Slide", 0.25f);
  expectTranslation(model.linkInRoot("Slider"), 0.55f, 0.0f, 0.5f);

  // Case: a continuous joint turns without limit and moves only its own
  // branch.
  model.setPosition("Wheel", 20.0f);
  EXPECT_NEAR(model.position("Wheel"), 20.0f, kTolerance);
  expectTranslation(model.linkInRoot("WheelLink"), 0.0f, 0.2f, 0.0f);
}

TEST(RobotModelTest, ClampsToLimitsAndMimicJointsFollowTheirMaster) {
  RobotModel model = RobotModel::fromText(kFixtureUrdf, "Torso", "fixture");

  // Case: beyond the limits the joint stops at them.
  model.setPosition("Slide", 5.0f);
  EXPECT_NEAR(model.position("Slide"), 0.3f, kTolerance);
  model.setPosition("Yaw", -9.0f);
  EXPECT_NEAR(model.position("Yaw"), -1.5f, kTolerance);

  // Case: mimic = multiplier x master + offset, clamped to the mimic's own
  // limits (2 x -1.5 + 0.1 = -2.9 -> -2), and a mimic of a mimic follows too.
  EXPECT_NEAR(model.position("Follow"), -2.0f, kTolerance);
  EXPECT_NEAR(model.position("Echo"), -2.0f, kTolerance);
  model.setPosition("Yaw", 0.5f);
  EXPECT_NEAR(model.position("Follow"), 1.1f, kTolerance);
  EXPECT_NEAR(model.position("Echo"), 1.1f, kTolerance);

  // Case: refusals say why and change nothing.
  EXPECT_EQ(model.checkSettable("Follow", 0.0f), "Joint Follow follows joint Yaw and cannot be set.");
  EXPECT_EQ(model.checkSettable("TorsoMount", 0.0f), "Unknown joint TorsoMount.");
  EXPECT_EQ(model.checkSettable("Ghost", 0.0f), "Unknown joint Ghost.");
  EXPECT_EQ(model.checkSettable("Yaw", std::nanf("")), "The position of joint Yaw is not a finite number.");
  EXPECT_THROW(model.setPosition("Yaw", INFINITY), std::invalid_argument);
  EXPECT_NEAR(model.position("Yaw"), 0.5f, kTolerance);
}

TEST(RobotModelTest, RefusesDescriptionsItCannotUseWithOneSentence) {
  // Case: not XML at all.
  EXPECT_EQ(loadError("this is not a robot").rfind("Cannot read robot description test.urdf: ", 0), 0u);
  // Case: a joint naming a link that does not exist (urdfdom's reason is kept).
  const std::string dangling = loadError(R"(<robot name="r"><link name="Torso"/>
      <joint name="j" type="fixed"><parent link="Torso"/><child link="Nowhere"/></joint></robot>)");
  EXPECT_EQ(dangling.rfind("Cannot read robot description test.urdf: ", 0), 0u) << dangling;
  EXPECT_GT(dangling.size(), std::string("Cannot read robot description test.urdf: ").size());
  // Case: the torso link asked for is not in the description.
  EXPECT_EQ(loadError(kFixtureUrdf, "Chest"), "Robot description test.urdf has no link named Chest");
  // Case: a mimic of a joint that does not exist, and a mimic cycle.
  EXPECT_EQ(loadError(R"(<robot name="r"><link name="Torso"/><link name="A"/>
      <joint name="j" type="revolute"><parent link="Torso"/><child link="A"/>
      <limit lower="-1" upper="1" effort="1" velocity="1"/><mimic joint="ghost"/></joint></robot>)"),
            "Cannot read robot description test.urdf: joint j mimics unknown joint ghost");
  EXPECT_EQ(loadError(R"(<robot name="r"><link name="Torso"/><link name="A"/><link name="B"/>
      <joint name="a" type="continuous"><parent link="Torso"/><child link="A"/><mimic joint="b"/></joint>
      <joint name="b" type="continuous"><parent link="A"/><child link="B"/><mimic joint="a"/></joint></robot>)"),
            "Cannot read robot description test.urdf: joint a mimics itself through a cycle");
}

}  // namespace
}  // namespace KQ
