// GraphVisitor: what a walk over the scene graph calls. Every handler has an
// empty body, so a visitor overrides only what it needs (and writes
// `using GraphVisitor::onDownEdge;` / `onUpEdge` when it overrides only some
// overloads). The handlers' order in the class is fixed: it is the slot order
// other builds of this library rely on.
//
// SimplePathVisitor: the base of visitors that walk one path and keep the ids
// of the nodes met along it, in path order.
//
// Threading: a visitor is used by one thread, for one walk at a time.
#ifndef KQ_SPATIAL_GRAPH_VISITOR_H_
#define KQ_SPATIAL_GRAPH_VISITOR_H_

#include <memory>
#include <vector>

#include "spatial/graph_node_data.h"

namespace KQ {

class Displacement;
class KQMotionDisplacement;
class KQOdometryDisplacement;

class GraphVisitor {
 public:
  virtual ~GraphVisitor();

  // Spare handlers for edge kinds this system does not have; never called.
  virtual void onReservedDownHandler1() {}
  virtual void onReservedDownHandler2() {}

  virtual void onDownEdge(int /*from*/, int /*to*/, Displacement& /*edge*/) {}
  virtual void onDownEdge(int /*from*/, int /*to*/, KQMotionDisplacement& /*edge*/) {}
  virtual void onDownEdge(int /*from*/, int /*to*/, KQOdometryDisplacement& /*edge*/) {}

  virtual void onReservedUpHandler1() {}
  virtual void onReservedUpHandler2() {}

  virtual void onUpEdge(int /*from*/, int /*to*/, Displacement& /*edge*/) {}
  virtual void onUpEdge(int /*from*/, int /*to*/, KQMotionDisplacement& /*edge*/) {}
  virtual void onUpEdge(int /*from*/, int /*to*/, KQOdometryDisplacement& /*edge*/) {}

  virtual void onNode(int /*id*/, std::shared_ptr<GraphNodeData> /*data*/) {}
  virtual void startVisit() {}
  virtual void stopVisit() {}
};

class SimplePathVisitor : public GraphVisitor {
 public:
  void startVisit() override { path_.clear(); }
  void onNode(int id, std::shared_ptr<GraphNodeData> /*data*/) override { path_.push_back(id); }
  const std::vector<int>& getPath() const { return path_; }

 protected:
  std::vector<int> path_;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_GRAPH_VISITOR_H_
