// The conversions between a Position6D and a quaternion-plus-translation
// pair, as positions cross the module's boundary, databases and archive. The
// faults looked for: a translation recomputed (and so rounded) instead of
// copied, the two halves swapped, and a rotation lost on the way back.
#include "spatial/pose_conversions.h"

#include <cmath>

#include <gtest/gtest.h>

namespace KQ {
namespace {

using Math::Position3D;
using Math::Position6D;
using Math::Quaternion;

TEST(PoseConversionsTest, Position6DToQuaternionTranslationAndBack) {
  Quaternion rotation(9, 9, 9, 9);
  Position3D translation(9, 9, 9);

  // Case: a yaw alone is a turn about z: w = cos(yaw / 2), z = sin(yaw / 2).
  position6DToQuaternionTranslation(Position6D(0, 0, 0, 0, 0, 1.0f), rotation, translation);
  EXPECT_NEAR(std::cos(0.5f), rotation.w, 1e-6f);
  EXPECT_NEAR(std::sin(0.5f), rotation.z, 1e-6f);

  // Case: there and back: x, y, z bit for bit (copied), the angles to the
  // library's precision.
  const Position6D pose(123.456f, -0.000123f, 7.0e5f, 0.3f, -1.2f, 2.9f);
  position6DToQuaternionTranslation(pose, rotation, translation);
  Position6D back(9, 9, 9, 9, 9, 9);
  quaternionTranslationToPosition6D(rotation, translation, back);
  EXPECT_EQ(pose.x, back.x);
  EXPECT_EQ(pose.y, back.y);
  EXPECT_EQ(pose.z, back.z);
  EXPECT_NEAR(pose.wx, back.wx, 1e-5f);
  EXPECT_NEAR(pose.wy, back.wy, 1e-5f);
  EXPECT_NEAR(pose.wz, back.wz, 1e-5f);

  // Case: at pitch pi/2 the angles come back re-expressed (roll folded into
  // yaw) but stand for the same rotation.
  const Position6D upright(0, 0, 0, 0.3f, 1.5707964f, 0.5f);
  position6DToQuaternionTranslation(upright, rotation, translation);
  quaternionTranslationToPosition6D(rotation, translation, back);
  EXPECT_EQ(0.0f, back.wx);
  EXPECT_NEAR(0.2f, back.wz, 1e-5f);
  Quaternion again;
  position6DToQuaternionTranslation(back, again, translation);
  EXPECT_NEAR(1.0f, std::fabs(rotation.w * again.w + rotation.x * again.x + rotation.y * again.y +
                              rotation.z * again.z),
              1e-6f);
}

TEST(PoseConversionsTest, TheTranslationGivenWins) {
  // Case: only the rotation is taken from the quaternion; x, y, z are the
  // translation's, exactly, whatever the quaternion.
  Position6D pose(9, 9, 9, 9, 9, 9);
  const float h = std::sqrt(0.5f);
  quaternionTranslationToPosition6D(Quaternion(h, h, 0, 0), Position3D(4.5f, -6.25f, 0.001f), pose);
  EXPECT_EQ(4.5f, pose.x);
  EXPECT_EQ(-6.25f, pose.y);
  EXPECT_EQ(0.001f, pose.z);
  EXPECT_NEAR(1.5707964f, pose.wx, 1e-6f);

  // Case: a quaternion that is not unit stands for the same rotation as its unit form.
  quaternionTranslationToPosition6D(Quaternion(2 * h, 2 * h, 0, 0), Position3D(), pose);
  EXPECT_NEAR(1.5707964f, pose.wx, 1e-6f);
}

}  // namespace
}  // namespace KQ
