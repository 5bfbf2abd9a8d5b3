// Conversions between a Position6D (x, y, z, wx, wy, wz) and the
// quaternion-plus-translation pair the scene graph composes. The rotation
// always goes through the math library's transform conversions; the
// translation is copied unchanged in both directions (never recomputed from a
// transform), and nothing is normalised.
//
// Threading: pure functions; they write only their output arguments.
#ifndef KQ_SPATIAL_POSE_CONVERSIONS_H_
#define KQ_SPATIAL_POSE_CONVERSIONS_H_

#include "middleware/math.h"

namespace KQ {

void position6DToQuaternionTranslation(const Math::Position6D& pose, Math::Quaternion& rotation,
                                       Math::Position3D& translation);
void quaternionTranslationToPosition6D(const Math::Quaternion& rotation, const Math::Position3D& translation,
                                       Math::Position6D& pose);

}  // namespace KQ

#endif  // KQ_SPATIAL_POSE_CONVERSIONS_H_
