// KQ::Math: the conversions every pose of the world goes through. The faults looked for: angle conventions mixed up
// (order of the elementary rotations, w last instead of first), round trips that drift, and angle extraction that falls
// apart at pitch +-pi/2 where roll and yaw turn about the same axis.
#include "middleware/math.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "support/checks.h"

namespace KQ::Math {
namespace {

using test::expectFloatsNear;
constexpr float kPi = 3.14159265358979f;
constexpr float kHalfPi = kPi / 2.0f;

Quaternion randomUnitQuaternion(std::mt19937& random) {
  std::normal_distribution<float> normal(0.0f, 1.0f);
  Quaternion q(normal(random), normal(random), normal(random), normal(random));
  const float n = q.norm() * (q.w < 0 ? -1.0f : 1.0f);  // w >= 0, the form the conversions answer
  return Quaternion(q.w / n, q.x / n, q.y / n, q.z / n);
}

std::vector<float> matrixOf(const Position6D& pose) { return transformFromPosition6D(pose).toVector(); }

TEST(MathTest, Position6DAnglesAreRollPitchYawAboutFixedAxes) {
  // Case: yaw turns x into y, pitch turns x into -z, roll turns y into z (elements r[1][0], r[2][0], r[2][1] of the 3x4
  // row-major matrix).
  EXPECT_NEAR(1.0f, matrixOf(Position6D(0, 0, 0, 0, 0, kHalfPi))[4], 1e-6f);
  EXPECT_NEAR(-1.0f, matrixOf(Position6D(0, 0, 0, 0, kHalfPi, 0))[8], 1e-6f);
  EXPECT_NEAR(1.0f, matrixOf(Position6D(0, 0, 0, kHalfPi, 0, 0))[9], 1e-6f);
  // Case: the order is Rz * Ry * Rx: roll is applied first.
  Transform expected = transformFromPosition6D(Position6D(0, 0, 0, 0, 0, 1.2f)) *
                       transformFromPosition6D(Position6D(0, 0, 0, 0, -0.4f, 0)) *
                       transformFromPosition6D(Position6D(0, 0, 0, 0.3f, 0, 0));
  expected.r[0][3] = 1.0f;
  expectFloatsNear(expected.toVector(), matrixOf(Position6D(1.0f, 0, 0, 0.3f, -0.4f, 1.2f)), 1e-6f);
}

TEST(MathTest, AnglesSurviveTheRoundTripEvenAtPitchHalfPi) {
  // Case: any rotation survives transform -> angles -> transform, including pitch outside +-pi/2 (re-expressed) and
  // close to the singularity.
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    const Transform original = transformFromQuaternion(randomUnitQuaternion(random));
    expectFloatsNear(original.toVector(), transformFromPosition6D(position6DFromTransform(original)).toVector(), 2e-6f);
  }
  for (float pitch : {kHalfPi - 1e-2f, kHalfPi - 1e-4f, kHalfPi - 3e-7f, -kHalfPi + 1e-4f, -kHalfPi + 3e-7f}) {
    const std::vector<float> t = matrixOf(Position6D(0.1f, 0.2f, 0.3f, -2.0f, pitch, 2.5f));
    expectFloatsNear(t, transformFromPosition6D(position6DFromTransform(Transform(t))).toVector(), 2e-6f);
  }
  // Case: angles in the principal ranges come back as they went in.
  const Position6D pose(0.5f, -1.0f, 2.0f, 3.0f, -1.4f, -2.9f);
  expectFloatsNear(pose.toVector(), position6DFromTransform(transformFromPosition6D(pose)).toVector(), 2e-4f);
  // Case: at pitch +pi/2 only yaw - roll is defined (yaw, roll 0); at -pi/2, yaw + roll.
  for (const float sign : {1.0f, -1.0f})
    expectFloatsNear({0, 0, 0, 0, sign * kHalfPi, 0.5f - sign * 0.3f},
                     position6DFromTransform(transformFromPosition6D(Position6D(0, 0, 0, 0.3f, sign * kHalfPi, 0.5f)))
                         .toVector(),
                     1e-6f);
}

TEST(MathTest, QuaternionsAreWFirstHamiltonProductsAndRoundTrip) {
  EXPECT_EQ((std::vector<float>{1, 0, 0, 0}), Quaternion(std::vector<float>{0.0f, 1.0f}).toVector());  // w first
  const Quaternion i(0, 1, 0, 0), j(0, 0, 1, 0);
  EXPECT_EQ((std::vector<float>{0, 0, 0, 1}), (i * j).toVector());
  EXPECT_EQ((std::vector<float>{0, 0, 0, -1}), (j * i).toVector());
  // Case: a quarter turn about z rotates x onto y; a non-unit quaternion rotates without scaling; a product rotates by
  // the right factor first.
  const Quaternion quarterZ(std::cos(kPi / 4), 0, 0, std::sin(kPi / 4));
  expectFloatsNear({0, 1, 0}, (quarterZ * Position3D(1, 0, 0)).toVector(), 1e-6f);
  expectFloatsNear({0, 1, 0}, (Quaternion(2.0f, 0.0f, 0.0f, 2.0f) * Position3D(1, 0, 0)).toVector(), 1e-6f);
  std::mt19937 random(3);
  const Position3D v(0.3f, -1.2f, 2.0f);
  for (int n = 0; n < 200; ++n) {
    const Quaternion a = randomUnitQuaternion(random), b = randomUnitQuaternion(random);
    expectFloatsNear((a * (b * v)).toVector(), ((a * b) * v).toVector(), 1e-5f);
    // Case: any unit quaternion comes back through a transform.
    expectFloatsNear(a.toVector(), quaternionFromTransform(transformFromQuaternion(a)).toVector(), 2e-6f);
  }
  // Case: the zero quaternion is no rotation.
  expectFloatsNear(Transform().toVector(), transformFromQuaternion(Quaternion(0, 0, 0, 0)).toVector(), 0.0f);
}

TEST(MathTest, RigidTransformsInvert) {
  EXPECT_EQ(Transform().toVector(), Transform(std::vector<float>(13, 1.0f)).toVector());  // 12 or identity
  const Transform pose = transformFromPosition6D(Position6D(1.0f, -2.0f, 0.5f, 0.2f, 0.3f, -1.1f));
  expectFloatsNear(Transform().toVector(), (pose * pose.inverse()).toVector(), 1e-6f);
  // Planar poses are MotionModuleTest's (tests/modules): the odometry carries them.
}

}  // namespace
}  // namespace KQ::Math
