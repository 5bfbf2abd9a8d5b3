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
// walk(graph, from, to) gives the same result without the visitor's calls,
// over KQSceneGraph::walkPath: fixed edges come from the graph's records
// (the values this visitor would compute from them, bit for bit), live edges
// are read through their getters in the same order as visitPath reads them.
//
// Threading: one walk, one thread.
#ifndef KQ_SPATIAL_PATH_VISITOR_H_
#define KQ_SPATIAL_PATH_VISITOR_H_

#include <vector>

#include "middleware/math.h"
#include "spatial/graph_visitor.h"
#include "spatial/scene_graph.h"

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

  // Composes the path from -> to of `graph`; a KQSceneGraph result code.
  int walk(const KQSceneGraph& graph, int from, int to);
  const Math::Quaternion& getQuaternion() const { return quaternion; }
  const Math::Position3D& getTranslation() const { return translation; }

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
