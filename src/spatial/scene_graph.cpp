#include "spatial/scene_graph.h"

#include <algorithm>
#include <array>
#include <utility>

namespace KQ {

KQSceneGraph::KQSceneGraph() {
  nodes_.resize(1);
  nodes_[0].present = true;
  count_ = 1;
}

KQSceneGraph::~KQSceneGraph() = default;

KQSceneGraph::EdgeRecord KQSceneGraph::xRecordOf(EdgeInterface* edge) {
  EdgeRecord record;
  if (auto* fixed = dynamic_cast<Displacement*>(edge)) {
    // The same conversions and operations as a walk through PathVisitor,
    // done once: the values are bit for bit those it computes.
    record.kind = EdgeRecord::Kind::kFixed;
    record.rotation = Math::Quaternion(fixed->getQuaternion());
    record.translation = Math::Position3D(fixed->getTranslation());
    record.inverseRotation = record.rotation.inverse();
    record.inverseTranslation = record.inverseRotation * -record.translation;
  } else if (auto* live = dynamic_cast<DisplacementInterface*>(edge)) {
    record.kind = EdgeRecord::Kind::kLive;
    record.live = live;
  }
  return record;
}

int KQSceneGraph::addNode(int& newId, std::shared_ptr<EdgeInterface> edge, int parentId) {
  if (!xPresent(parentId)) return kParentNotFound;
  if (!edge) return kNullEdge;
  int id;
  if (!freeIds_.empty()) {
    id = freeIds_.back();
    freeIds_.pop_back();
  } else {
    id = static_cast<int>(nodes_.size());
    nodes_.emplace_back();
  }
  Node& node = nodes_[static_cast<std::size_t>(id)];
  node.present = true;
  node.parent = parentId;
  node.depth = nodes_[static_cast<std::size_t>(parentId)].depth + 1;
  node.record = xRecordOf(edge.get());
  node.edge = std::move(edge);
  node.data.reset();
  node.children.clear();
  nodes_[static_cast<std::size_t>(parentId)].children.push_back(id);
  ++count_;
  newId = id;
  return kOk;
}

int KQSceneGraph::removeNode(int id) {
  if (!xPresent(id)) return kNodeNotFound;
  if (id == 0) return kIsRoot;
  std::vector<int>& siblings = nodes_[static_cast<std::size_t>(nodes_[static_cast<std::size_t>(id)].parent)].children;
  siblings.erase(std::find(siblings.begin(), siblings.end(), id));
  // The subtree is freed top-down; `pending` grows with each node's children.
  std::vector<int> pending{id};
  for (std::size_t i = 0; i < pending.size(); ++i) {
    Node& node = nodes_[static_cast<std::size_t>(pending[i])];
    pending.insert(pending.end(), node.children.begin(), node.children.end());
    node = Node();
    freeIds_.push_back(pending[i]);
    --count_;
  }
  return kOk;
}

void KQSceneGraph::setNodeData(int id, std::shared_ptr<GraphNodeData> data) {
  if (!xPresent(id)) return;
  nodes_[static_cast<std::size_t>(id)].data = std::move(data);
}

std::shared_ptr<GraphNodeData> KQSceneGraph::getNodeData(int id) const {
  if (!xPresent(id)) return nullptr;
  return nodes_[static_cast<std::size_t>(id)].data;
}

int KQSceneGraph::setDisplacement(int parentId, int childId, std::shared_ptr<EdgeInterface> edge) {
  if (!xPresent(parentId) || !xPresent(childId)) return kNodeNotFound;
  Node& child = nodes_[static_cast<std::size_t>(childId)];
  if (childId == 0 || child.parent != parentId) return kNotAChild;
  if (!edge) return kNullEdge;
  child.record = xRecordOf(edge.get());
  child.edge = std::move(edge);
  return kOk;
}

int KQSceneGraph::xCommonAncestor(int a, int b) const {
  while (nodes_[static_cast<std::size_t>(a)].depth > nodes_[static_cast<std::size_t>(b)].depth)
    a = nodes_[static_cast<std::size_t>(a)].parent;
  while (nodes_[static_cast<std::size_t>(b)].depth > nodes_[static_cast<std::size_t>(a)].depth)
    b = nodes_[static_cast<std::size_t>(b)].parent;
  while (a != b) {
    a = nodes_[static_cast<std::size_t>(a)].parent;
    b = nodes_[static_cast<std::size_t>(b)].parent;
  }
  return a;
}

int KQSceneGraph::xPoseBelow(Math::Quaternion& rotation, Math::Position3D& translation, int ancestor,
                             int id) const {
  // Composed bottom-up, pose = edge * pose, so no path buffer is needed:
  // (e, d) * (q, t) = (e q, d + rotate(e, t)).
  rotation = Math::Quaternion();
  translation = Math::Position3D();
  for (int n = id; n != ancestor; n = nodes_[static_cast<std::size_t>(n)].parent) {
    auto* edge = dynamic_cast<DisplacementInterface*>(nodes_[static_cast<std::size_t>(n)].edge.get());
    if (edge == nullptr) return kNotADisplacement;
    const Math::Quaternion e(edge->getQuaternion());
    const Math::Position3D d(edge->getTranslation());
    translation = d + e * translation;
    rotation = e * rotation;
  }
  return kOk;
}

int KQSceneGraph::getDisplacement(std::vector<float>& quaternion, std::vector<float>& translation, int from,
                                  int to) const {
  if (!xPresent(from) || !xPresent(to)) return kNodeNotFound;
  const int ancestor = xCommonAncestor(from, to);
  Math::Quaternion fromRotation, toRotation;
  Math::Position3D fromTranslation, toTranslation;
  int code = xPoseBelow(fromRotation, fromTranslation, ancestor, from);
  if (code != kOk) return code;
  code = xPoseBelow(toRotation, toTranslation, ancestor, to);
  if (code != kOk) return code;
  // toInFrom = inverse(fromInAncestor) * toInAncestor.
  const Math::Quaternion fromInverse = fromRotation.inverse();
  quaternion = (fromInverse * toRotation).toVector();
  translation = (fromInverse * (toTranslation - fromTranslation)).toVector();
  return kOk;
}

int KQSceneGraph::getChildren(std::vector<int>& out, int id) const {
  if (!xPresent(id)) return kNodeNotFound;
  out = nodes_[static_cast<std::size_t>(id)].children;
  return kOk;
}

int KQSceneGraph::getDescendants(std::vector<int>& out, int id) const {
  if (!xPresent(id)) return kNodeNotFound;
  out = nodes_[static_cast<std::size_t>(id)].children;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const std::vector<int>& children = nodes_[static_cast<std::size_t>(out[i])].children;
    out.insert(out.end(), children.begin(), children.end());
  }
  return kOk;
}

int KQSceneGraph::getParent(int& parent, int id) const {
  if (!xPresent(id)) return kNodeNotFound;
  if (id == 0) return kIsRoot;
  parent = nodes_[static_cast<std::size_t>(id)].parent;
  return kOk;
}

int KQSceneGraph::isNodePresent(int id) const { return xPresent(id) ? kOk : kNodeNotFound; }

int KQSceneGraph::visitPath(GraphVisitor& visitor, int from, int to) const {
  if (!xPresent(from) || !xPresent(to)) return kNodeNotFound;
  visitor.startVisit();
  const int ancestor = xCommonAncestor(from, to);

  for (int n = from; n != ancestor;) {
    const Node& node = nodes_[static_cast<std::size_t>(n)];
    visitor.onNode(n, node.data);
    node.edge->acceptOnUpEdge(n, node.parent, visitor);
    n = node.parent;
  }
  visitor.onNode(ancestor, nodes_[static_cast<std::size_t>(ancestor)].data);

  // The way down is found climbing from `to`, so it is buffered to be walked
  // in reverse: on the stack for ordinary depths, on the heap beyond.
  constexpr std::size_t kStackDepth = 32;
  std::array<int, kStackDepth> onStack;
  std::vector<int> onHeap;
  const std::size_t steps = static_cast<std::size_t>(nodes_[static_cast<std::size_t>(to)].depth -
                                                     nodes_[static_cast<std::size_t>(ancestor)].depth);
  int* down = onStack.data();
  if (steps > kStackDepth) {
    onHeap.resize(steps);
    down = onHeap.data();
  }
  std::size_t k = steps;
  for (int m = to; m != ancestor; m = nodes_[static_cast<std::size_t>(m)].parent) down[--k] = m;
  for (std::size_t i = 0; i < steps; ++i) {
    const Node& node = nodes_[static_cast<std::size_t>(down[i])];
    node.edge->acceptOnDownEdge(node.parent, down[i], visitor);
    visitor.onNode(down[i], node.data);
  }

  visitor.stopVisit();
  return kOk;
}

int KQSceneGraph::visitBFS(GraphVisitor& visitor, int start) const {
  if (!xPresent(start)) return kNodeNotFound;
  visitor.startVisit();
  visitor.onNode(start, nodes_[static_cast<std::size_t>(start)].data);
  std::vector<int> queue{start};
  for (std::size_t i = 0; i < queue.size(); ++i) {
    const int parent = queue[i];
    for (int child : nodes_[static_cast<std::size_t>(parent)].children) {
      const Node& node = nodes_[static_cast<std::size_t>(child)];
      node.edge->acceptOnDownEdge(parent, child, visitor);
      visitor.onNode(child, node.data);
      queue.push_back(child);
    }
  }
  visitor.stopVisit();
  return kOk;
}

void KQSceneGraph::clearGraph() {
  nodes_.clear();
  freeIds_.clear();
  nodes_.resize(1);
  nodes_[0].present = true;
  count_ = 1;
}

std::string KQSceneGraph::getErrorMessage(int code) const {
  switch (code) {
    case kOk:
      return "Success";
    case kNodeNotFound:
      return "Node not found";
    case kParentNotFound:
      return "Parent node not found";
    case kNotAChild:
      return "Node is not a child of the given parent";
    case kIsRoot:
      return "Operation not allowed on the root node";
    case kNullEdge:
      return "Edge is empty";
    case kNotADisplacement:
      return "Edge carries no displacement";
    default:
      return "Unknown error " + std::to_string(code);
  }
}

int KQSceneGraph::size() const { return count_; }

}  // namespace KQ
