// The pose of one edge at a second in the past, from the two "positions"
// rows that bracket it: a pure function of the rows, the second and the
// interpolation type, apart from fetching the rows (InterPosVisitor).
//
// Kept on purpose, because callers of the module depend on its answers:
//  - type 0 (nearest row) takes the rotation of the nearer row (the later
//    one on a tie) but the translation of the later row in both cases;
//  - type 1 (linear) interpolates the translation only and leaves the
//    caller's rotation untouched: the walk's working rotation carries over;
//  - rotations are never interpolated.
//
// Threading: pure.
#ifndef KQ_OBJECTS_POSE_INTERPOLATION_H_
#define KQ_OBJECTS_POSE_INTERPOLATION_H_

#include "middleware/math.h"
#include "storage/attribute_rows.h"

namespace KQ {

enum class InterpolationResult { kDone, kWrongType };

// `time`: whole seconds since the epoch, strictly between the rows' seconds
// (rows of the second itself are never fetched). `rotation` is written by
// type 0 only; `translation` by both.
InterpolationResult interpolatePose(const StoredPose& earlier, const StoredPose& later, int time, int type,
                                    Math::Quaternion& rotation, Math::Position3D& translation);

}  // namespace KQ

#endif  // KQ_OBJECTS_POSE_INTERPOLATION_H_
