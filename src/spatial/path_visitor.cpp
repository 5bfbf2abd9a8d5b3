#include "spatial/path_visitor.h"

#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"

namespace KQ {

namespace {

// The composition itself, on explicit values so that a whole walk keeps its
// pose in registers.
inline void composeDown(Math::Quaternion& q, Math::Position3D& t, const Math::Quaternion& e,
                        const Math::Position3D& d) {
  t += q * d;  // rotated by what was accumulated before this edge
  q *= e;
}

// With inverse = e.inverse() and inverseTranslation = inverse * -d, as
// xComposeUp computes them.
inline void composeUp(Math::Quaternion& q, Math::Position3D& t, const Math::Quaternion& inverse,
                      const Math::Position3D& inverseTranslation) {
  t += inverseTranslation;
  q *= inverse;
}

}  // namespace

PathVisitor::PathVisitor() : quaternion(), translation() {}

void PathVisitor::startVisit() {
  quaternion = Math::Quaternion();
  translation = Math::Position3D();
}

void PathVisitor::stopVisit() {}

void PathVisitor::xComposeDown(const Math::Quaternion& e, const Math::Position3D& d) {
  composeDown(quaternion, translation, e, d);
}

// The inverse edge's translation is added as it stands, not rotated by the
// accumulated quaternion: exact for the first up edge of a walk and for
// walks whose earlier up edges do not rotate. Kept as it has always
// behaved; callers' stored results rely on it.
void PathVisitor::xComposeUp(const Math::Quaternion& e, const Math::Position3D& d) {
  const Math::Quaternion inverse = e.inverse();
  composeUp(quaternion, translation, inverse, inverse * -d);
}

// A live edge refreshes on every read: each value is read once, down edges
// translation first, up edges rotation first, as they always were.
void PathVisitor::xDown(DisplacementInterface& edge) {
  const Math::Position3D d(edge.getTranslation());
  xComposeDown(Math::Quaternion(edge.getQuaternion()), d);
}

void PathVisitor::xUp(DisplacementInterface& edge) {
  const Math::Quaternion e(edge.getQuaternion());
  xComposeUp(e, Math::Position3D(edge.getTranslation()));
}

// A fixed edge gives back exactly its lists, so they are read in place.
void PathVisitor::onDownEdge(int, int, Displacement& edge) {
  xComposeDown(Math::Quaternion(edge.quaternion_), Math::Position3D(edge.translation_));
}
void PathVisitor::onDownEdge(int, int, KQMotionDisplacement& edge) { xDown(edge); }
void PathVisitor::onDownEdge(int, int, KQOdometryDisplacement& edge) { xDown(edge); }
void PathVisitor::onUpEdge(int, int, Displacement& edge) {
  xComposeUp(Math::Quaternion(edge.quaternion_), Math::Position3D(edge.translation_));
}
void PathVisitor::onUpEdge(int, int, KQMotionDisplacement& edge) { xUp(edge); }
void PathVisitor::onUpEdge(int, int, KQOdometryDisplacement& edge) { xUp(edge); }

int PathVisitor::walk(const KQSceneGraph& graph, int from, int to) {
  using Kind = KQSceneGraph::EdgeRecord::Kind;
  startVisit();
  Math::Quaternion q;
  Math::Position3D t;
  const int result = graph.walkPath(
      from, to,
      [&](const KQSceneGraph::EdgeRecord& edge) {
        if (edge.kind == Kind::kFixed) {
          composeUp(q, t, edge.inverseRotation, edge.inverseTranslation);
        } else if (edge.kind == Kind::kLive) {
          quaternion = q;
          translation = t;
          xUp(*edge.live);
          q = quaternion;
          t = translation;
        }
      },
      [&](const KQSceneGraph::EdgeRecord& edge) {
        if (edge.kind == Kind::kFixed) {
          composeDown(q, t, edge.rotation, edge.translation);
        } else if (edge.kind == Kind::kLive) {
          quaternion = q;
          translation = t;
          xDown(*edge.live);
          q = quaternion;
          t = translation;
        }
      });
  quaternion = q;
  translation = t;
  return result;
}

void PathVisitor::getDisplacement(std::vector<float>& quaternionOut, std::vector<float>& translationOut) const {
  quaternionOut = quaternion.toVector();
  translationOut = translation.toVector();
}

}  // namespace KQ
