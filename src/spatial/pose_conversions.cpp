#include "spatial/pose_conversions.h"

namespace KQ {

void position6DToQuaternionTranslation(const Math::Position6D& pose, Math::Quaternion& rotation,
                                       Math::Position3D& translation) {
  rotation = Math::quaternionFromTransform(Math::transformFromPosition6D(pose));
  // Copied, not read back from the transform: x, y, z survive bit for bit.
  translation = Math::Position3D(pose.x, pose.y, pose.z);
}

void quaternionTranslationToPosition6D(const Math::Quaternion& rotation, const Math::Position3D& translation,
                                       Math::Position6D& pose) {
  pose = Math::position6DFromTransform(Math::transformFromQuaternion(rotation));
  pose.x = translation.x;
  pose.y = translation.y;
  pose.z = translation.z;
}

}  // namespace KQ
