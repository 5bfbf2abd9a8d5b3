// KQ::Math: the conversions every pose of the world goes through. The faults
// looked for: angle conventions mixed up (order of the elementary rotations,
// w last instead of first), round trips that drift, and angle extraction that
// falls apart at pitch +-pi/2 where roll and yaw turn about the same axis.
#include "middleware/math.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

namespace KQ::Math {
namespace {

constexpr float kPi = 3.14159265358979f;
constexpr float kHalfPi = kPi / 2.0f;

void expectNear(const std::vector<float>& expected, const std::vector<float>& actual, float tolerance) {
  ASSERT_EQ(expected.size(), actual.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], tolerance) << "element " << i;
}

Quaternion randomUnitQuaternion(std::mt19937& random) {
  std::normal_distribution<float> normal(0.0f, 1.0f);
  Quaternion q(normal(random), normal(random), normal(random), normal(random));
  const float n = q.norm();
  return Quaternion(q.w / n, q.x / n, q.y / n, q.z / n);
}

TEST(MathTest, Position6DAnglesAreRollPitchYawAboutFixedAxes) {
  // Case: yaw turns x into y, pitch turns x into -z, roll turns y into z.
  EXPECT_NEAR(1.0f, transformFromPosition6D(Position6D(0, 0, 0, 0, 0, kHalfPi)).r[1][0], 1e-6f);
  EXPECT_NEAR(-1.0f, transformFromPosition6D(Position6D(0, 0, 0, 0, kHalfPi, 0)).r[2][0], 1e-6f);
  EXPECT_NEAR(1.0f, transformFromPosition6D(Position6D(0, 0, 0, kHalfPi, 0, 0)).r[2][1], 1e-6f);
  // Case: the order is Rz * Ry * Rx: roll is applied first.
  const Position6D pose(1.0f, 2.0f, 3.0f, 0.3f, -0.4f, 1.2f);
  Transform expected = transformFromPosition6D(Position6D(0, 0, 0, 0, 0, pose.wz)) *
                       transformFromPosition6D(Position6D(0, 0, 0, 0, pose.wy, 0)) *
                       transformFromPosition6D(Position6D(0, 0, 0, pose.wx, 0, 0));
  expected.r[0][3] = 1.0f;
  expected.r[1][3] = 2.0f;
  expected.r[2][3] = 3.0f;
  expectNear(expected.toVector(), transformFromPosition6D(pose).toVector(), 1e-6f);
}

TEST(MathTest, AnglesSurviveTheRoundTripEvenAtPitchHalfPi) {
  // Case: any rotation survives transform -> angles -> transform, including
  // pitch outside +-pi/2 (re-expressed) and close to the singularity.
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    const Transform original = transformFromQuaternion(randomUnitQuaternion(random));
    expectNear(original.toVector(), transformFromPosition6D(position6DFromTransform(original)).toVector(), 2e-6f);
  }
  for (float offset : {1e-2f, 1e-4f, 3e-7f})
    for (float sign : {1.0f, -1.0f}) {
      const Transform t = transformFromPosition6D(Position6D(0.1f, 0.2f, 0.3f, -2.0f, sign * (kHalfPi - offset), 2.5f));
      expectNear(t.toVector(), transformFromPosition6D(position6DFromTransform(t)).toVector(), 2e-6f);
    }
  // Case: angles in the principal ranges come back as they went in.
  const Position6D pose(0.5f, -1.0f, 2.0f, 3.0f, -1.4f, -2.9f);
  const Position6D back = position6DFromTransform(transformFromPosition6D(pose));
  expectNear(pose.toVector(), back.toVector(), 2e-4f);
  // Case: at pitch +pi/2 only yaw - roll is defined (yaw, roll 0); at -pi/2, yaw + roll.
  expectNear({0, 0, 0, 0, kHalfPi, 0.2f},
             position6DFromTransform(transformFromPosition6D(Position6D(0, 0, 0, 0.3f, kHalfPi, 0.5f))).toVector(),
             1e-6f);
  expectNear({0, 0, 0, 0, -kHalfPi, 0.8f},
             position6DFromTransform(transformFromPosition6D(Position6D(0, 0, 0, 0.3f, -kHalfPi, 0.5f))).toVector(),
             1e-6f);
}

TEST(MathTest, QuaternionsAreWFirstHamiltonProducts) {
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), Quaternion(std::vector<float>{0.0f, 1.0f}).toVector());  // w first
  const Quaternion i(0, 1, 0, 0), j(0, 0, 1, 0);
  EXPECT_EQ((std::vector<float>{0, 0, 0, 1}), (i * j).toVector());
  EXPECT_EQ((std::vector<float>{0, 0, 0, -1}), (j * i).toVector());
  // Case: a quarter turn about z rotates x onto y; a product rotates by the
  // right factor first; a non-unit quaternion rotates without scaling.
  const Quaternion quarterZ(std::cos(kPi / 4), 0, 0, std::sin(kPi / 4));
  expectNear({0, 1, 0}, (quarterZ * Position3D(1, 0, 0)).toVector(), 1e-6f);
  std::mt19937 random(11);
  const Quaternion a = randomUnitQuaternion(random), b = randomUnitQuaternion(random);
  const Position3D v(0.3f, -1.2f, 2.0f);
  expectNear((a * (b * v)).toVector(), ((a * b) * v).toVector(), 1e-5f);
  const Quaternion scaled(2.0f, 0.0f, 0.0f, 2.0f);
  expectNear((quarterZ * v).toVector(), (scaled * v).toVector(), 1e-5f);
  expectNear({1, 0, 0, 0}, (scaled * scaled.inverse()).toVector(), 1e-6f);
  // Case: the zero quaternion is no rotation and breaks nothing.
  expectNear(Transform().toVector(), transformFromQuaternion(Quaternion(0, 0, 0, 0)).toVector(), 0.0f);
}

TEST(MathTest, QuaternionAndTransformRoundTrip) {
  // Case: any unit quaternion comes back, with w >= 0.
  std::mt19937 random(3);
  for (int n = 0; n < 200; ++n) {
    Quaternion q = randomUnitQuaternion(random);
    if (q.w < 0) q = Quaternion(-q.w, -q.x, -q.y, -q.z);
    expectNear(q.toVector(), quaternionFromTransform(transformFromQuaternion(q)).toVector(), 2e-6f);
  }
  // Case: half turns (w = 0), where w from the trace alone divides by zero;
  // q and -q are equally good answers.
  for (int axis = 0; axis < 3; ++axis) {
    Position6D halfTurn;
    (axis == 0 ? halfTurn.wx : axis == 1 ? halfTurn.wy : halfTurn.wz) = kPi;
    const std::vector<float> q = quaternionFromTransform(transformFromPosition6D(halfTurn)).toVector();
    EXPECT_NEAR(1.0f, std::fabs(q[axis + 1]), 1e-6f) << axis;
  }
  // Case: a transform rounded to a few digits, not quite orthonormal, still
  // gives a unit quaternion.
  const Quaternion q = quaternionFromTransform(
      Transform(std::vector<float>{0.707f, -0.707f, 0, 0.1f, 0.707f, 0.707f, 0, 0.2f, 0, 0, 1, 0.3f}));
  EXPECT_NEAR(1.0f, q.norm(), 1e-6f);
  expectNear({std::cos(kPi / 8), 0, 0, std::sin(kPi / 8)}, q.toVector(), 1e-4f);
}

TEST(MathTest, RigidAndPlanarTransforms) {
  EXPECT_EQ(Transform().toVector(), Transform(std::vector<float>(13, 1.0f)).toVector());  // 12 or identity
  const Transform pose = transformFromPosition6D(Position6D(1.0f, -2.0f, 0.5f, 0.2f, 0.3f, -1.1f));
  expectNear(Transform().toVector(), (pose * pose.inverse()).toVector(), 1e-6f);
  expectNear({1.0f, -2.0f, 0.5f}, position3DFromTransform(pose).toVector(), 0.0f);
  // Case: a planar pose turns about z and lies on the floor.
  const Transform robot = transformFromPose2D(Pose2D(std::vector<float>{1.5f, -0.5f, kHalfPi}));
  expectNear({0, -1, 0, 1.5f, 1, 0, 0, -0.5f, 0, 0, 1, 0}, robot.toVector(), 1e-6f);
  const Pose2D back = pose2DFromTransform(robot);
  expectNear({1.5f, -0.5f, kHalfPi}, {back.x, back.y, back.theta}, 1e-6f);
}

}  // namespace
}  // namespace KQ::Math
