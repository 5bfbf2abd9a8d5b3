// Edges of the scene graph. Each non-root node owns the edge that joins it to
// its parent; the edge gives the child's frame in the parent's frame.
//
// EdgeInterface only double-dispatches to a visitor: acceptOnUpEdge calls
// visitor.onUpEdge(from, to, *this) and acceptOnDownEdge calls
// visitor.onDownEdge(from, to, *this) with the overload of the concrete class.
// DisplacementInterface adds the pose: getQuaternion() gives w, x, y, z and
// getTranslation() x, y, z in metres, each a new list, read again on every
// call (so a live edge answers with its current value). Displacement is the
// fixed edge: it gives back exactly the lists it was built from.
//
// Threading: a Displacement is immutable. Live edges (motion_displacement.h,
// odometry_displacement.h) refresh a cache when read; see there.
#ifndef KQ_SPATIAL_EDGE_INTERFACE_H_
#define KQ_SPATIAL_EDGE_INTERFACE_H_

#include <vector>

namespace KQ {

class GraphVisitor;

class EdgeInterface {
 public:
  EdgeInterface() = default;
  EdgeInterface(const EdgeInterface&) = default;
  EdgeInterface& operator=(const EdgeInterface&) = default;
  virtual ~EdgeInterface();
  virtual void acceptOnUpEdge(int from, int to, GraphVisitor& visitor) = 0;
  virtual void acceptOnDownEdge(int from, int to, GraphVisitor& visitor) = 0;
};

class DisplacementInterface : public EdgeInterface {
 public:
  virtual std::vector<float> getQuaternion() = 0;   // w, x, y, z
  virtual std::vector<float> getTranslation() = 0;  // x, y, z
};

class Displacement : public DisplacementInterface {
 public:
  Displacement(const std::vector<float>& quaternion, const std::vector<float>& translation);
  void acceptOnUpEdge(int from, int to, GraphVisitor& visitor) override;
  void acceptOnDownEdge(int from, int to, GraphVisitor& visitor) override;
  std::vector<float> getQuaternion() override { return quaternion_; }
  std::vector<float> getTranslation() override { return translation_; }

 private:
  // Reads the lists in place: a walk composes thousands of fixed edges per
  // second, and the getters' copies would be its main cost.
  friend class PathVisitor;

  std::vector<float> quaternion_;
  std::vector<float> translation_;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_EDGE_INTERFACE_H_
