#include "objects/inter_pos_visitor.h"

#include <string>

#include "module/module_log.h"
#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/pose_conversions.h"
#include "objects/pose_interpolation.h"
#include "storage/attribute_rows.h"
#include "storage/database_manager.h"
#include "storage/world_object.h"

namespace KQ {


InterPosVisitor::InterPosVisitor(DatabaseMap* databases, int time, int type)
    : time_(time), type_(type), databases_(databases) {}

void InterPosVisitor::startVisit() {
  SimplePathVisitor::startVisit();
  currentName_.clear();
  currentCategory_.clear();
  upRecords_.clear();
  downRecords_.clear();
  upPoses_.clear();
  downPoses_.clear();
  quaternion_ = Math::Quaternion();
  translation_ = Math::Position3D();
}

void InterPosVisitor::onNode(int id, std::shared_ptr<GraphNodeData> data) {
  SimplePathVisitor::onNode(id, data);
  // Every node the module makes carries a WorldObject; a bare node is
  // treated as an object without name or category (it has no history).
  const WorldObject* object = dynamic_cast<const WorldObject*>(data.get());
  if (object == nullptr) {
    currentName_.clear();
    currentCategory_.clear();
    return;
  }
  currentName_ = object->getName();
  currentCategory_ = object->getCategoryName();
}

void InterPosVisitor::xRecordUp(DisplacementInterface& edge) {
  // The node being left is the edge's child.
  upRecords_.emplace_back(currentName_, currentCategory_);
  upPoses_.emplace_back(Math::Quaternion(edge.getQuaternion()), Math::Position3D(edge.getTranslation()));
}

void InterPosVisitor::xRecordDown(DisplacementInterface& edge) {
  // The current node is still the edge's parent here; stopVisit shifts.
  downRecords_.emplace_back(currentName_, currentCategory_);
  downPoses_.emplace_back(Math::Quaternion(edge.getQuaternion()), Math::Position3D(edge.getTranslation()));
}

void InterPosVisitor::onUpEdge(int, int, Displacement& edge) { xRecordUp(edge); }
void InterPosVisitor::onUpEdge(int, int, KQMotionDisplacement& edge) { xRecordUp(edge); }
void InterPosVisitor::onUpEdge(int, int, KQOdometryDisplacement& edge) { xRecordUp(edge); }
void InterPosVisitor::onDownEdge(int, int, Displacement& edge) { xRecordDown(edge); }
void InterPosVisitor::onDownEdge(int, int, KQMotionDisplacement& edge) { xRecordDown(edge); }
void InterPosVisitor::onDownEdge(int, int, KQOdometryDisplacement& edge) { xRecordDown(edge); }

void InterPosVisitor::stopVisit() {
  if (!downRecords_.empty()) {
    downRecords_.erase(downRecords_.begin());
    downRecords_.emplace_back(currentName_, currentCategory_);
  }

  // One working pose for the whole walk: xInterpolate of type 1 does not
  // write the rotation, so an edge inherits the rotation the previous edge
  // left here. Kept as callers rely on these answers.
  Math::Quaternion q;
  Math::Position3D t;

  for (std::size_t i = 0; i < upRecords_.size(); ++i) {
    const Pose& present = upPoses_[i];
    Math::Position3D negated;
    if (xInterpolate(upRecords_[i].first, upRecords_[i].second, q, t) == 0) {
      q = q.inverse();
      negated = -t;
    } else {
      q = present.first.inverse();
      negated = -present.second;
    }
    // Only negated, not rotated by the inverse rotation: kept on purpose.
    t = negated;
    translation_ += quaternion_ * negated;
    quaternion_ = quaternion_ * q;
  }

  for (std::size_t i = 0; i < downRecords_.size(); ++i) {
    if (xInterpolate(downRecords_[i].first, downRecords_[i].second, q, t) != 0) {
      q = downPoses_[i].first;
      t = downPoses_[i].second;
    }
    translation_ += quaternion_ * t;
    quaternion_ = quaternion_ * q;
  }
}

Math::Position6D InterPosVisitor::getPosition6D() const {
  Math::Position6D pose;
  quaternionTranslationToPosition6D(quaternion_, translation_, pose);
  return pose;
}

int InterPosVisitor::xInterpolate(const std::string& name, const std::string& category,
                                  Math::Quaternion& quaternion, Math::Position3D& translation) {
  // A category without an open database is queried through an empty
  // (unbound) manager that answers every query with no rows; the module then
  // enters such an empty entry in its map (see missingCategories).
  static const KQDatabaseManager kEmptyDatabase;
  auto found = databases_->find(category);
  if (found == databases_->end()) missingCategories_.insert(category);
  const KQDatabaseManager& db = found != databases_->end() ? found->second : kEmptyDatabase;

  // A name holding a quote builds no statement: the edge keeps its present pose.
  if (name.find('\'') != std::string::npos) return 1;
  // Rows of the requested second match neither search ("<" and ">").
  KQValue earlier;
  KQValue later;
  db.selectAroundSecond(kPositionsAttributeName, name, time_, earlier, later);

  if (!earlier.isArray() || earlier.getSize() == 0) return 1;
  if (!later.isArray() || later.getSize() == 0) return 2;

  // A row that cannot be read (a cell a caller stored as text, or NULL)
  // counts as absent: the edge keeps its present pose.
  StoredPose earlierPose;
  StoredPose laterPose;
  if (!readStoredPose(earlier[0], earlierPose)) return 1;
  if (!readStoredPose(later[0], laterPose)) return 2;
  if (interpolatePose(earlierPose, laterPose, time_, type_, quaternion, translation) == InterpolationResult::kDone)
    return 0;
  KQWR_ERROR("xInterpolate") << "Wrong interpolation type: " << type_ << ". Must be 0 or 1.";
  return 1;
}

void InterPosVisitor::xSlerp(const Math::Quaternion&, const Math::Quaternion&, float, Math::Quaternion) {}

}  // namespace KQ
