#include "objects/pose_interpolation.h"

namespace KQ {

InterpolationResult interpolatePose(const StoredPose& earlier, const StoredPose& later, int time, int type,
                                    Math::Quaternion& rotation, Math::Position3D& translation) {
  if (type == 1) {
    const float elapsed = static_cast<float>(time - earlier.timeS);
    const float span = static_cast<float>(later.timeS - earlier.timeS);
    const Math::Position3D& t1 = earlier.translation;
    const Math::Position3D& t2 = later.translation;
    translation.x = t1.x + (t2.x - t1.x) * elapsed / span;
    translation.y = t1.y + (t2.y - t1.y) * elapsed / span;
    translation.z = t1.z + (t2.z - t1.z) * elapsed / span;
    return InterpolationResult::kDone;
  }
  if (type == 0) {
    rotation = (time - earlier.timeS) >= (later.timeS - time) ? later.rotation : earlier.rotation;
    translation = later.translation;  // from the later row in both branches: kept
    return InterpolationResult::kDone;
  }
  return InterpolationResult::kWrongType;
}

}  // namespace KQ
