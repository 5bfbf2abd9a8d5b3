// KQ::Math: the conversions every pose of the world goes through. The faults
// looked for: angle conventions mixed up (order of the elementary rotations,
// w last instead of first), round trips that drift, and angle extraction that
// falls apart at pitch +-pi/2 where roll and yaw turn about the same axis.
#include "middleware/math.h"

#include <cmath>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

namespace KQ {
namespace Math {
namespace {

constexpr float kPi = 3.14159265358979f;
constexpr float kHalfPi = kPi / 2.0f;

void expectTransformNear(const Transform& expected, const Transform& actual, float tolerance) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j)
      EXPECT_NEAR(expected.r[i][j], actual.r[i][j], tolerance) << "entry " << i << "," << j;
}

void expectQuaternionNear(const Quaternion& expected, const Quaternion& actual, float tolerance) {
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(expected.toVector()[i], actual.toVector()[i], tolerance) << "element " << i;
}

// q and -q stand for the same rotation.
void expectSameRotation(const Quaternion& expected, const Quaternion& actual) {
  const float dot = expected.w * actual.w + expected.x * actual.x + expected.y * actual.y + expected.z * actual.z;
  EXPECT_NEAR(1.0f, std::fabs(dot), 1e-6f) << expected << " against " << actual;
}

void expectPositionNear(const Position3D& expected, const Position3D& actual, float tolerance) {
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(expected.toVector()[i], actual.toVector()[i], tolerance) << "element " << i;
}

// Angle difference folded into (-pi, pi].
float angleBetween(float a, float b) { return std::remainder(a - b, 2.0f * kPi); }

Quaternion randomUnitQuaternion(std::mt19937& random) {
  std::normal_distribution<float> normal(0.0f, 1.0f);
  Quaternion q(normal(random), normal(random), normal(random), normal(random));
  const float n = q.norm();
  return Quaternion(q.w / n, q.x / n, q.y / n, q.z / n);
}

TEST(MathTest, Position6DAnglesAreRollPitchYawAboutFixedAxes) {
  // Case: a yaw alone turns x into y (a right-handed turn about z).
  Transform yaw = transformFromPosition6D(Position6D(0, 0, 0, 0, 0, kHalfPi));
  EXPECT_NEAR(0.0f, yaw.r[0][0], 1e-6f);
  EXPECT_NEAR(1.0f, yaw.r[1][0], 1e-6f);

  // Case: a pitch alone turns x into -z; a roll alone turns y into z.
  Transform pitch = transformFromPosition6D(Position6D(0, 0, 0, 0, kHalfPi, 0));
  EXPECT_NEAR(-1.0f, pitch.r[2][0], 1e-6f);
  Transform roll = transformFromPosition6D(Position6D(0, 0, 0, kHalfPi, 0, 0));
  EXPECT_NEAR(1.0f, roll.r[2][1], 1e-6f);

  // Case: the order is Rz * Ry * Rx: roll is applied first, about the fixed x axis.
  const Position6D pose(1.0f, 2.0f, 3.0f, 0.3f, -0.4f, 1.2f);
  const Transform composed = transformFromPosition6D(Position6D(0, 0, 0, 0, 0, pose.wz)) *
                             transformFromPosition6D(Position6D(0, 0, 0, 0, pose.wy, 0)) *
                             transformFromPosition6D(Position6D(0, 0, 0, pose.wx, 0, 0));
  Transform expected = composed;
  expected.r[0][3] = 1.0f;
  expected.r[1][3] = 2.0f;
  expected.r[2][3] = 3.0f;
  expectTransformNear(expected, transformFromPosition6D(pose), 1e-6f);
}

TEST(MathTest, Position6DAndTransformRoundTrip) {
  // Case: angles inside the principal ranges come back as they went in.
  std::mt19937 random(7);
  std::uniform_real_distribution<float> full(-3.1f, 3.1f);
  std::uniform_real_distribution<float> half(-1.5f, 1.5f);
  for (int i = 0; i < 200; ++i) {
    const Position6D pose(full(random), full(random), full(random), full(random), half(random), full(random));
    const Position6D back = position6DFromTransform(transformFromPosition6D(pose));
    EXPECT_EQ(pose.x, back.x);
    EXPECT_EQ(pose.y, back.y);
    EXPECT_EQ(pose.z, back.z);
    EXPECT_NEAR(0.0f, angleBetween(pose.wx, back.wx), 2e-4f) << pose;
    EXPECT_NEAR(pose.wy, back.wy, 2e-4f) << pose;
    EXPECT_NEAR(0.0f, angleBetween(pose.wz, back.wz), 2e-4f) << pose;
  }

  // Case: any rotation survives transform -> angles -> transform, including
  // the ones whose pitch lies outside +-pi/2 (they come back re-expressed).
  for (int i = 0; i < 200; ++i) {
    const Transform original = transformFromQuaternion(randomUnitQuaternion(random));
    expectTransformNear(original, transformFromPosition6D(position6DFromTransform(original)), 2e-6f);
  }
}

TEST(MathTest, PitchAtHalfPiFoldsRollIntoYaw) {
  // Case: pitch +pi/2: only yaw - roll is defined; it comes back as yaw with roll 0.
  const Transform up = transformFromPosition6D(Position6D(0, 0, 0, 0.3f, kHalfPi, 0.5f));
  const Position6D upAngles = position6DFromTransform(up);
  EXPECT_EQ(0.0f, upAngles.wx);
  EXPECT_NEAR(kHalfPi, upAngles.wy, 1e-6f);
  EXPECT_NEAR(0.2f, upAngles.wz, 1e-6f);
  expectTransformNear(up, transformFromPosition6D(upAngles), 1e-6f);

  // Case: pitch -pi/2: yaw + roll is what is defined.
  const Transform down = transformFromPosition6D(Position6D(0, 0, 0, 0.3f, -kHalfPi, 0.5f));
  const Position6D downAngles = position6DFromTransform(down);
  EXPECT_EQ(0.0f, downAngles.wx);
  EXPECT_NEAR(-kHalfPi, downAngles.wy, 1e-6f);
  EXPECT_NEAR(0.8f, downAngles.wz, 1e-6f);
  expectTransformNear(down, transformFromPosition6D(downAngles), 1e-6f);

  // Case: close to the singularity, where roll and yaw are scaled by a tiny
  // cos(pitch), the round trip still reproduces the rotation.
  for (float offset : {1e-2f, 1e-3f, 1e-4f, 1e-5f, 3e-7f}) {
    for (float sign : {1.0f, -1.0f}) {
      const Transform original =
          transformFromPosition6D(Position6D(0.1f, 0.2f, 0.3f, -2.0f, sign * (kHalfPi - offset), 2.5f));
      expectTransformNear(original, transformFromPosition6D(position6DFromTransform(original)), 2e-6f);
    }
  }
}

TEST(MathTest, QuaternionsAreWFirstHamiltonProducts) {
  // Case: the default is the identity and the vector order is w, x, y, z.
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), Quaternion().toVector());
  // Case: a list too short is no quaternion: the identity.
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), Quaternion(std::vector<float>{0.0f, 1.0f}).toVector());

  // Case: i * j = k, j * i = -k (the Hamilton product, left operand first).
  const Quaternion i(0, 1, 0, 0), j(0, 0, 1, 0);
  EXPECT_EQ((std::vector<float>{0, 0, 0, 1}), (i * j).toVector());
  EXPECT_EQ((std::vector<float>{0, 0, 0, -1}), (j * i).toVector());

  // Case: a quarter turn about z rotates x onto y.
  const Quaternion quarterZ(std::cos(kPi / 4), 0, 0, std::sin(kPi / 4));
  expectPositionNear(Position3D(0, 1, 0), quarterZ * Position3D(1, 0, 0), 1e-6f);

  // Case: rotating by a product is rotating by the right factor first.
  std::mt19937 random(11);
  const Quaternion a = randomUnitQuaternion(random), b = randomUnitQuaternion(random);
  const Position3D v(0.3f, -1.2f, 2.0f);
  expectPositionNear(a * (b * v), (a * b) * v, 1e-5f);

  // Case: the inverse is exact also for a quaternion that is not unit, and
  // a non-unit quaternion rotates without scaling.
  const Quaternion scaled(2.0f, 0.0f, 0.0f, 2.0f);
  expectQuaternionNear(Quaternion(), scaled * scaled.inverse(), 1e-6f);
  expectPositionNear(quarterZ * v, scaled * v, 1e-5f);

  // Case: the zero quaternion is no rotation and breaks nothing.
  const Quaternion zero(0, 0, 0, 0);
  EXPECT_EQ(zero.toVector(), zero.inverse().toVector());
  expectTransformNear(Transform(), transformFromQuaternion(zero), 0.0f);
}

TEST(MathTest, QuaternionAndTransformRoundTrip) {
  // Case: any unit quaternion comes back, as itself or as its negation with w >= 0.
  std::mt19937 random(3);
  for (int n = 0; n < 200; ++n) {
    Quaternion q = randomUnitQuaternion(random);
    if (q.w < 0) q = Quaternion(-q.w, -q.x, -q.y, -q.z);
    const Quaternion back = quaternionFromTransform(transformFromQuaternion(q));
    EXPECT_GE(back.w, 0.0f);
    expectQuaternionNear(q, back, 2e-6f);
  }

  // Case: half turns (trace -1, w = 0) about each axis, where taking w from
  // the trace alone divides by zero. With w about 0, q and -q are equally
  // good answers.
  expectSameRotation(Quaternion(0, 1, 0, 0), quaternionFromTransform(transformFromPosition6D({0, 0, 0, kPi, 0, 0})));
  expectSameRotation(Quaternion(0, 0, 1, 0), quaternionFromTransform(transformFromPosition6D({0, 0, 0, 0, kPi, 0})));
  expectSameRotation(Quaternion(0, 0, 0, 1), quaternionFromTransform(transformFromPosition6D({0, 0, 0, 0, 0, kPi})));

  // Case: a transform as the motion module sends it, rounded to a few
  // digits and so not quite orthonormal, still gives a unit quaternion.
  const Transform rounded(std::vector<float>{0.707f, -0.707f, 0, 0.1f, 0.707f, 0.707f, 0, 0.2f, 0, 0, 1, 0.3f});
  const Quaternion q = quaternionFromTransform(rounded);
  EXPECT_NEAR(1.0f, q.norm(), 1e-6f);
  expectQuaternionNear(Quaternion(std::cos(kPi / 8), 0, 0, std::sin(kPi / 8)), q, 1e-4f);
}

TEST(MathTest, TransformsPosesAndLists) {
  // Case: a transform is 12 floats row by row; a list of another length is the identity.
  const std::vector<float> rows{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(9.0f, Transform(rows).r[2][0]);
  EXPECT_EQ(Transform().toVector(), Transform(std::vector<float>{1, 2, 3}).toVector());
  EXPECT_EQ(Transform().toVector(), Transform(std::vector<float>(13, 1.0f)).toVector());

  // Case: a rigid transform times its inverse is the identity.
  const Transform pose = transformFromPosition6D(Position6D(1.0f, -2.0f, 0.5f, 0.2f, 0.3f, -1.1f));
  expectTransformNear(Transform(), pose * pose.inverse(), 1e-6f);
  expectPositionNear(Position3D(1.0f, -2.0f, 0.5f), position3DFromTransform(pose), 0.0f);

  // Case: a planar pose turns about z and lies on the floor.
  const Transform robotInWorld = transformFromPose2D(Pose2D(std::vector<float>{1.5f, -0.5f, kHalfPi}));
  expectTransformNear(Transform(std::vector<float>{0, -1, 0, 1.5f, 1, 0, 0, -0.5f, 0, 0, 1, 0}), robotInWorld,
                      1e-6f);
  const Pose2D back = pose2DFromTransform(robotInWorld);
  EXPECT_EQ(1.5f, back.x);
  EXPECT_EQ(-0.5f, back.y);
  EXPECT_NEAR(kHalfPi, back.theta, 1e-6f);

  // Case: printed forms, as they appear inside log lines.
  std::ostringstream text;
  text << Quaternion() << " " << Position3D(1, 2, 3) << " " << Position6D(1, 2, 3, 4, 5, 6);
  EXPECT_EQ("[1, 0, 0, 0] [1, 2, 3] [1, 2, 3, 4, 5, 6]", text.str());
}

}  // namespace
}  // namespace Math
}  // namespace KQ
