// KQSceneGraph: the tree of coordinate frames. Node 0 is the root and exists
// from construction; every other node hangs under one parent, joined by the
// edge it owns (the child's pose in the parent's frame). Nodes carry an
// optional payload. The graph knows nothing of names.
//
// Every operation that can fail returns a result code: 0 success, non-zero an
// error whose text getErrorMessage gives. Nothing throws for a bad id.
//
// visitPath(v, from, to): startVisit; climbing from `from` to the lowest
// common ancestor K, for each node N: onNode(N) then edge(N).acceptOnUpEdge(N,
// parent(N)); onNode(K); descending from K to `to`, for each node M:
// edge(M).acceptOnDownEdge(parent(M), M) then onNode(M); stopVisit.
// visitBFS(v, start): startVisit; breadth first from start: onNode(start),
// then for each child M of a visited node P: edge(M).acceptOnDownEdge(P, M)
// then onNode(M) (a node's onNode always after its parent's); stopVisit.
//
// Invariants it owns: every present non-root node has a present parent, a
// non-empty edge and a depth one more than its parent's; a node is listed in
// its parent's children exactly once. Ids of removed nodes are handed out
// again by later addNode calls (callers never keep an id past the node).
//
// Threading: no lock of its own. The owner serialises writers; the const
// queries and the walks may run from several threads at once while nothing
// changes the graph.
#ifndef KQ_SPATIAL_SCENE_GRAPH_H_
#define KQ_SPATIAL_SCENE_GRAPH_H_

#include <memory>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "spatial/edge_interface.h"
#include "spatial/graph_node_data.h"
#include "spatial/graph_visitor.h"

namespace KQ {

class KQSceneGraph {
 public:
  enum ResultCode : int {
    kOk = 0,
    kNodeNotFound = 1,     // an id that is not present
    kParentNotFound = 2,   // addNode under an absent parent
    kNotAChild = 3,        // setDisplacement on a pair that is not parent and child
    kIsRoot = 4,           // the root has no parent and cannot be removed
    kNullEdge = 5,         // an edge that is an empty pointer
    kNotADisplacement = 6, // getDisplacement met an edge that carries no pose
  };

  KQSceneGraph();
  ~KQSceneGraph();
  KQSceneGraph(const KQSceneGraph&) = delete;
  KQSceneGraph& operator=(const KQSceneGraph&) = delete;

  int addNode(int& newId, std::shared_ptr<EdgeInterface> edge, int parentId);
  int removeNode(int id);
  void setNodeData(int id, std::shared_ptr<GraphNodeData> data);
  std::shared_ptr<GraphNodeData> getNodeData(int id) const;
  int setDisplacement(int parentId, int childId, std::shared_ptr<EdgeInterface> edge);
  // Pose of `to` in the frame of `from` (exact composition, quaternion w first).
  int getDisplacement(std::vector<float>& quaternion, std::vector<float>& translation, int from, int to) const;
  int getChildren(std::vector<int>& out, int id) const;
  int getDescendants(std::vector<int>& out, int id) const;
  int getParent(int& parent, int id) const;
  int isNodePresent(int id) const;  // 0 when present
  int visitPath(GraphVisitor& visitor, int from, int to) const;
  int visitBFS(GraphVisitor& visitor, int start) const;
  void clearGraph();
  std::string getErrorMessage(int code) const;

  // Number of nodes present, the root included.
  int size() const;

 private:
  struct Node;
  bool xPresent(int id) const;
  // Lowest common ancestor of two present nodes.
  int xCommonAncestor(int a, int b) const;
  // Pose of `id` in the frame of `ancestor`, an ancestor of `id` (or itself).
  int xPoseBelow(Math::Quaternion& rotation, Math::Position3D& translation, int ancestor, int id) const;
  std::vector<Node> nodes_;  // indexed by id; removed ids are kept free
  std::vector<int> freeIds_;
  int count_ = 0;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_SCENE_GRAPH_H_
