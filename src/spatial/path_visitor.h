// PathVisitor: composes the edges met along a scene-graph path into one pose,
// the end node in the start node's frame.
//
// Down edge (e, d): t += rotate(q, d); q = q * e.
// Up edge (e, d):   e' = inverse(e); t += rotate(e', -d); q = q * e'.
// The up-edge translation is deliberately not rotated by the accumulated q:
// the result is exact for the first up edge of a walk (object and parent,
// siblings) and for paths whose earlier up edges do not rotate. Kept as is.
// Nothing is normalised.
//
// Threading: one walk, one thread.
#ifndef KQ_SPATIAL_PATH_VISITOR_H_
#define KQ_SPATIAL_PATH_VISITOR_H_

#include <vector>

#include "middleware/math.h"
#include "spatial/graph_visitor.h"

namespace KQ {

class DisplacementInterface;

class PathVisitor : public GraphVisitor {
 public:
  PathVisitor();

  void startVisit() override;
  void stopVisit() override;
  void onDownEdge(int from, int to, Displacement& edge) override;
  void onDownEdge(int from, int to, KQMotionDisplacement& edge) override;
  void onDownEdge(int from, int to, KQOdometryDisplacement& edge) override;
  void onUpEdge(int from, int to, Displacement& edge) override;
  void onUpEdge(int from, int to, KQMotionDisplacement& edge) override;
  void onUpEdge(int from, int to, KQOdometryDisplacement& edge) override;

  void getDisplacement(std::vector<float>& quaternion, std::vector<float>& translation) const;

 private:
  // Live edges: read through the getters, in the order they always were.
  void xDown(DisplacementInterface& edge);
  void xUp(DisplacementInterface& edge);
  // The composition itself, from an edge's rotation e and translation d.
  void xComposeDown(const Math::Quaternion& e, const Math::Position3D& d);
  void xComposeUp(const Math::Quaternion& e, const Math::Position3D& d);

  Math::Quaternion quaternion;
  Math::Position3D translation;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_PATH_VISITOR_H_
