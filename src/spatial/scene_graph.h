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
// walkPath(from, to, up, down): the edges of visitPath's walk, in the same
// order, without a visitor: up(record) for each up edge, down(record) for
// each down edge, where record is the child's EdgeRecord. It is the fast path
// of present-time pose queries (no virtual call, no copy of a fixed edge's
// lists); every node's record is kept by addNode and setDisplacement.
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
  // What a walk needs of the edge joining a node to its parent. A fixed edge
  // (Displacement, immutable) is copied once, with the two values an up edge
  // derives from it, so that a walk reads plain floats; a live edge is only
  // pointed at, to be read through its getters when walked.
  struct EdgeRecord {
    enum class Kind : unsigned char { kNone, kFixed, kLive };
    Kind kind = Kind::kNone;  // kNone: the root, or an edge that carries no pose
    DisplacementInterface* live = nullptr;  // kLive only; owned by the node's edge
    Math::Quaternion rotation;              // kFixed: e
    Math::Position3D translation;           // kFixed: d
    Math::Quaternion inverseRotation;       // kFixed: inverse(e)
    Math::Position3D inverseTranslation;    // kFixed: inverse(e) * -d
  };

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
  template <class Up, class Down>
  int walkPath(int from, int to, Up&& up, Down&& down) const;
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
  // The record of the node's edge, refreshed whenever the edge changes.
  static EdgeRecord xRecordOf(EdgeInterface* edge);
  std::vector<Node> nodes_;  // indexed by id; removed ids are kept free
  std::vector<int> freeIds_;
  int count_ = 0;
};

struct KQSceneGraph::Node {
  bool present = false;
  int parent = -1;
  int depth = 0;  // the root is at depth 0
  EdgeRecord record;
  std::shared_ptr<EdgeInterface> edge;  // joins the node to its parent; empty on the root
  std::shared_ptr<GraphNodeData> data;
  std::vector<int> children;
};

inline bool KQSceneGraph::xPresent(int id) const {
  return id >= 0 && static_cast<std::size_t>(id) < nodes_.size() && nodes_[static_cast<std::size_t>(id)].present;
}

template <class Up, class Down>
int KQSceneGraph::walkPath(int from, int to, Up&& up, Down&& down) const {
  if (!xPresent(from) || !xPresent(to)) return kNodeNotFound;
  // One climb from both ends finds the common ancestor: the up edges are
  // handed over on the way (in visitPath's order), the way down is buffered
  // to be handed over in reverse once every up edge is done; on the stack
  // for ordinary depths.
  constexpr std::size_t kStackDepth = 64;
  const Node* onStack[kStackDepth];
  std::vector<const Node*> onHeap;
  std::size_t steps = 0;
  const auto climbDown = [&](const Node& node) {
    if (steps == kStackDepth) onHeap.assign(onStack, onStack + kStackDepth);
    if (steps >= kStackDepth) onHeap.push_back(&node);
    else onStack[steps] = &node;
    ++steps;
  };
  const Node* a = &nodes_[static_cast<std::size_t>(from)];
  const Node* b = &nodes_[static_cast<std::size_t>(to)];
  while (a->depth > b->depth) {
    up(a->record);
    a = &nodes_[static_cast<std::size_t>(a->parent)];
  }
  while (b->depth > a->depth) {
    climbDown(*b);
    b = &nodes_[static_cast<std::size_t>(b->parent)];
  }
  while (a != b) {
    up(a->record);
    a = &nodes_[static_cast<std::size_t>(a->parent)];
    climbDown(*b);
    b = &nodes_[static_cast<std::size_t>(b->parent)];
  }
  const Node* const* way = steps > kStackDepth ? onHeap.data() : onStack;
  for (std::size_t i = steps; i-- > 0;) down(way[i]->record);
  return kOk;
}

}  // namespace KQ

#endif  // KQ_SPATIAL_SCENE_GRAPH_H_
