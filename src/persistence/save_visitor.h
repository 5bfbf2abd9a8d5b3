// SaveVisitor: one breadth-first walk of the scene graph from the root that
// copies what the world archive keeps: every node's WorldObject (the map
// node id -> object) and every down edge (parent, child and the child's pose
// in the parent's frame, read at save time, so a live edge is copied with the
// pose it has now). writeWorldArchive (world_archive.h) writes the copy.
//
// The walk copies ids, names, poses and the objects' shared pointers;
// takeCategories() copies the categories they point to, so that after
// detachFromCategories() the copy is the tree at that moment and can be
// written with no lock of the world held.
//
// Threading: one visitor per save, used by the saving thread only; the walk
// runs under the graph lock (shared is enough: live edges guard their own
// refresh) and takeCategories under the category lock, both held by the
// caller; detachFromCategories needs no lock.
#ifndef KQ_PERSISTENCE_SAVE_VISITOR_H_
#define KQ_PERSISTENCE_SAVE_VISITOR_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "spatial/graph_visitor.h"

class ObjectCategory;
class WorldObject;

namespace KQ {

class DisplacementInterface;

class SaveVisitor : public GraphVisitor {
 public:
  // One saved edge: the child's pose in its parent's frame (metres, radians).
  struct Edge {
    int32_t parentId = 0;
    std::string parentName;
    int32_t childId = 0;
    std::string childName;
    Math::Position6D position;

    template <class Archive>
    void serialize(Archive& ar, unsigned int version);  // world_archive.cpp
  };

  SaveVisitor() = default;
  SaveVisitor(const SaveVisitor&) = delete;
  SaveVisitor& operator=(const SaveVisitor&) = delete;

  void startVisit() override;
  void stopVisit() override;
  void onNode(int id, std::shared_ptr<GraphNodeData> data) override;
  void onDownEdge(int parentId, int childId, Displacement& edge) override;
  void onDownEdge(int parentId, int childId, KQMotionDisplacement& edge) override;
  void onDownEdge(int parentId, int childId, KQOdometryDisplacement& edge) override;

  // True once stopVisit has run: the walk finished and the copy is whole.
  bool complete() const { return complete_; }
  // Copies each category the walked objects point to, once (categories
  // change in place when an attribute is added); run under the category
  // lock, right after the walk.
  void takeCategories();
  // Puts each copied object on its category's copy, so that the copy can be
  // written after the world's locks are released; needs no lock.
  void detachFromCategories();
  const std::map<int, std::shared_ptr<WorldObject>>& getNodes() const { return nodes_; }
  const std::vector<Edge>& getEdges() const { return edges_; }

 private:
  // Appends one edge read from a live or fixed displacement; nodes_ holds
  // the parent already (breadth-first order).
  void xAddEdge(int parentId, int childId, DisplacementInterface& edge);

  std::map<int, std::shared_ptr<WorldObject>> nodes_;
  std::vector<Edge> edges_;
  bool complete_ = false;
  std::map<const ObjectCategory*, std::shared_ptr<ObjectCategory>> categoryCopies_;  // by the original
};

}  // namespace KQ

#endif  // KQ_PERSISTENCE_SAVE_VISITOR_H_
