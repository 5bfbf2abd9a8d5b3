// InterPosVisitor: walks one scene-graph path and composes the pose the end
// node had, in the start node's frame, at a given second in the past.
//
// Every edge whose child object has a position history contributes a pose
// taken from the two "positions" rows that bracket the requested second
// (TimeS strictly before and strictly after it; TimeUS is never read). An
// edge without such rows (robot frames, joints, objects never saved with
// history) contributes its present pose.
//
// Kept on purpose, because callers of the module depend on its answers:
//  - type 0 (nearest row) takes the rotation of the nearer row but the
//    translation of the later row in both cases;
//  - type 1 (linear) interpolates the translation only; the rotation is the
//    working rotation left by the previous edge (identity on the first);
//  - an up edge with history contributes its rotation inverted and its
//    translation only negated, not rotated back;
//  - rotations are never interpolated (xSlerp does nothing, nobody calls it);
//  - a category with no open database gets an empty database entry in the
//    module's map, which stays there.
//
// Invariants: after stopVisit every down record names the child of its edge
// (onDownEdge runs while the current node is still the edge's parent, so the
// records are shifted by one at the end).
//
// Threading: one walk, one thread. The database map is the module's; the
// caller holds the object, graph and category locks shared for the whole walk.
#ifndef KQ_OBJECTS_INTER_POS_VISITOR_H_
#define KQ_OBJECTS_INTER_POS_VISITOR_H_

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "middleware/math.h"
#include "middleware/value.h"
#include "spatial/graph_visitor.h"

namespace KQ {

class DisplacementInterface;
class KQDatabaseManager;

class InterPosVisitor : public SimplePathVisitor {
 public:
  using DatabaseMap = std::map<std::string, KQDatabaseManager>;

  // `time`: whole seconds since the epoch; `type`: 0 nearest row, 1 linear
  // translation. The map is not owned and must outlive the visitor.
  InterPosVisitor(DatabaseMap* databases, int time, int type);

  void startVisit() override;
  void stopVisit() override;
  void onNode(int id, std::shared_ptr<GraphNodeData> data) override;
  void onDownEdge(int from, int to, Displacement& edge) override;
  void onDownEdge(int from, int to, KQMotionDisplacement& edge) override;
  void onDownEdge(int from, int to, KQOdometryDisplacement& edge) override;
  void onUpEdge(int from, int to, Displacement& edge) override;
  void onUpEdge(int from, int to, KQMotionDisplacement& edge) override;
  void onUpEdge(int from, int to, KQOdometryDisplacement& edge) override;

  const Math::Quaternion& getQuaternion() const { return quaternion_; }
  const Math::Position3D& getTranslation() const { return translation_; }
  Math::Position6D getPosition6D() const;

  // Pose of the object's edge at the visitor's second from its history.
  // 0 done, 1 no earlier row (or a wrong type), 2 no later row. `quaternion`
  // is written only by type 0; type 1 leaves the caller's value in place.
  int xInterpolate(const std::string& name, const std::string& category, Math::Quaternion& quaternion,
                   Math::Position3D& translation);
  // Categories met without an open database. The walk runs under shared
  // locks, so it queries an empty database in their place instead of writing
  // the map; the caller enters the empty entries once it holds the category
  // lock exclusively.
  const std::set<std::string>& missingCategories() const { return missingCategories_; }
  // Never called: rotations are deliberately not interpolated.
  void xSlerp(const Math::Quaternion& q1, const Math::Quaternion& q2, float fraction, Math::Quaternion q);

 private:
  using Record = std::pair<std::string, std::string>;  // object name, category name
  using Pose = std::pair<Math::Quaternion, Math::Position3D>;

  void xRecordUp(DisplacementInterface& edge);
  void xRecordDown(DisplacementInterface& edge);

  std::string currentName_;
  std::string currentCategory_;
  std::vector<Record> upRecords_;
  std::vector<Record> downRecords_;
  std::vector<Pose> upPoses_;
  std::vector<Pose> downPoses_;
  int time_;
  int type_;
  Math::Quaternion quaternion_;   // accumulated rotation, w first
  Math::Position3D translation_;  // accumulated translation, metres
  const DatabaseMap* databases_;
  std::set<std::string> missingCategories_;
};

}  // namespace KQ

#endif  // KQ_OBJECTS_INTER_POS_VISITOR_H_
