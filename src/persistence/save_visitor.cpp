#include "persistence/save_visitor.h"

#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/pose_conversions.h"
#include "storage/world_object.h"

namespace KQ {

void SaveVisitor::startVisit() {
  edges_.clear();
  nodes_.clear();
  complete_ = false;
}

void SaveVisitor::onNode(int id, std::shared_ptr<GraphNodeData> data) {
  // A node without a WorldObject (only the root after a failed load) is
  // written as an empty pointer.
  nodes_[id] = std::dynamic_pointer_cast<WorldObject>(data);
}

void SaveVisitor::onDownEdge(int parentId, int childId, Displacement& edge) { xAddEdge(parentId, childId, edge); }

void SaveVisitor::onDownEdge(int parentId, int childId, KQMotionDisplacement& edge) {
  xAddEdge(parentId, childId, edge);
}

void SaveVisitor::onDownEdge(int parentId, int childId, KQOdometryDisplacement& edge) {
  xAddEdge(parentId, childId, edge);
}

void SaveVisitor::xAddEdge(int parentId, int childId, DisplacementInterface& edge) {
  Edge saved;
  saved.parentId = parentId;
  auto parent = nodes_.find(parentId);
  if (parent != nodes_.end() && parent->second) saved.parentName = parent->second->getName();
  saved.childId = childId;
  // The child's onNode comes after its edge; stopVisit fills childName.
  const Math::Quaternion childRotationInParent(edge.getQuaternion());
  const Math::Position3D childInParent(edge.getTranslation());
  quaternionTranslationToPosition6D(childRotationInParent, childInParent, saved.position);
  edges_.push_back(saved);
}

void SaveVisitor::stopVisit() {
  for (Edge& edge : edges_) {
    auto child = nodes_.find(edge.childId);
    edge.childName = (child != nodes_.end() && child->second) ? child->second->getName() : std::string();
  }
  complete_ = true;
}

void SaveVisitor::takeCategories() {
  for (const auto& node : nodes_) {
    if (!node.second || !node.second->getCategory()) continue;
    std::shared_ptr<ObjectCategory>& copy = categoryCopies_[node.second->getCategory().get()];
    if (!copy) copy = std::make_shared<ObjectCategory>(*node.second->getCategory());
  }
}

void SaveVisitor::detachFromCategories() {
  // Objects keep their name and category only; each is written as a new one
  // on the category copied with the tree.
  for (auto& node : nodes_) {
    if (!node.second || !node.second->getCategory()) continue;
    node.second =
        std::make_shared<WorldObject>(node.second->getName(), categoryCopies_.at(node.second->getCategory().get()));
  }
}

}  // namespace KQ
