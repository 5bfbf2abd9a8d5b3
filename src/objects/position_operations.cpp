// Position updates and present-time queries. An update replaces the edge
// between an object and its parent, announces the change and optionally
// appends a "positions" row; a query composes the edges along the tree path
// between two objects.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>


#include "middleware/call_sequence.h"
#include "middleware/math.h"
#include "middleware/memory_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "spatial/edge_interface.h"
#include "spatial/path_visitor.h"
#include "spatial/pose_conversions.h"
#include "storage/attribute_rows.h"
#include "storage/world_object.h"

namespace KQ {

namespace {


const WorldObject* objectOf(const std::shared_ptr<GraphNodeData>& data) {
  return dynamic_cast<const WorldObject*>(data.get());
}

}  // namespace

int KQWorldRepresentation::updatePosition(const std::string& name, const std::vector<float>& position,
                                          const bool& save) {
  if (position.size() != 6) {
    KQWR_ERROR("updatePosition") << "Position format is not correct.";
    return 1;
  }
  ReaderLock objectLock(objectLock_);
  return xUpdatePosition(name, position, save);
}

int KQWorldRepresentation::xUpdatePosition(const std::string& name, const std::vector<float>& position,
                                           bool save) {
  const int id = xFindNodeId(name);
  if (id < 0) {
    KQWR_ERROR("updatePosition") << "Could not find child " << name;
    return 1;
  }
  {
    // The robot frames and the joints follow the motion module; a caller
    // never moves them (the answer is still success).
    ReaderLock jointLock(jointLock_);
    if (name == robotName_ || name == torsoName_ || joints_.count(name) != 0) return 0;
  }

  Math::Quaternion objectInParentRotation;
  Math::Position3D objectInParentTranslation;
  position6DToQuaternionTranslation(Math::Position6D(position), objectInParentRotation, objectInParentTranslation);
  std::vector<float> quaternion = objectInParentRotation.toVector();
  std::vector<float> translation = objectInParentTranslation.toVector();

  class InFlight {  // counts this call among the saved moves under way
   public:
    explicit InFlight(std::atomic<int>& count) : count_(count) { ++count_; }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;
    ~InFlight() { --count_; }

   private:
    std::atomic<int>& count_;
  };
  std::optional<InFlight> inFlight;
  if (save) inFlight.emplace(savedMovesInFlight_);
  std::string category;
  int result;
  KQDatabaseManager groupDatabase;  // the category's database, while the row awaits its group's commit
  uint64_t ticket = 0;              // the group commit that will hold the history row
  {
    WriterLock graphLock(graphLock_);
    // Stamps the history row, if one is written. Read under the graph lock, so
    // that a move the archive's copy of the tree missed is stamped after the
    // archive's time, and one it holds before it (restore picks the newer).
    ko::os::timeval now;
    ko::os::gettimeofday(&now);
    category = xGetObjectCategory(name);
    int parentId = -1;
    graph_.getParent(parentId, id);
    std::string parentName;
    if (const WorldObject* parent = objectOf(graph_.getNodeData(parentId))) parentName = parent->getName();

    result = graph_.setDisplacement(parentId, id, std::make_shared<Displacement>(quaternion, translation));
    if (result != 0) {
      KQWR_ERROR("updatePosition") << "Could not set displacement from " << parentName << " to " << name << ": "
                                   << graph_.getErrorMessage(result);
    } else {
      // [name, rotation w x y z, translation x y z], both in the parent's frame.
      // Raised with the locks held; a refusal of the memory module reaches
      // the caller.
      KQValue payload;
      payload.arraySetSize(3);
      payload[0] = name;
      payload[1] = KQValue(quaternion);
      payload[2] = KQValue(translation);
      memoryProxy_->raiseEvent(positionChangedEventName_, payload);
    }

    // Written even when the edge could not be set: the history then holds a
    // pose the graph never had. Kept in this order as the history's readers
    // expect it.
    if (save && savedMovesInFlight_.load() == 1 && !CallSequence::isOpen()) {
      // Alone, the row is committed at once: a group would only add its
      // BEGIN and a wait.
      WriterLock categoryLock(categoryLock_);
      auto database = databases_.find(category);
      if (database != databases_.end()) xStorePosition(database->second, name, parentName, quaternion, translation, now);
    } else if (save) {
      // Queued for the category's next group commit; the shared lock lets
      // the other saved moves queue theirs beside it.
      ReaderLock categoryLock(categoryLock_);
      auto database = databases_.find(category);
      if (database != databases_.end()) {
        ticket = xAppendPosition(database->second, name, parentName, quaternion, translation, now);
        groupDatabase = database->second;
      }
    }
  }
  // Answered only once the row is committed, with no lock but the object
  // lock held, so the next group gathers while this one is written. In a
  // batch the commit waits for the batch's end: one for all its moves.
  if (ticket != 0 && !CallSequence::deferToEnd(groupCommitKey(category), [groupDatabase, ticket]() mutable {
        groupDatabase.commitGroup(ticket);
      }))
    groupDatabase.commitGroup(ticket);
  return result;
}

int KQWorldRepresentation::updatePositionWithReference(const std::string& name, const std::string& reference,
                                                       const std::vector<float>& position, const bool& save) {
  // The object lock is taken once, shared, for the whole call; the rest
  // goes through the private forms that assume it.
  ReaderLock objectLock(objectLock_);
  if (xFindNodeId(name) < 0) {
    KQWR_ERROR("updatePositionWithReference") << "Object " << name << " does not exist.";
    return 1;
  }
  std::string parent;
  {
    ReaderLock graphLock(graphLock_);
    parent = xGetObjectParentName(name);
  }
  std::vector<float> referenceInParentQ;
  std::vector<float> referenceInParentT;
  {
    ReaderLock graphLock(graphLock_);
    xGetPosition(parent, reference, referenceInParentQ, referenceInParentT);
  }

  // An unknown reference leaves both lists empty, which read as identity:
  // the position is then taken as relative to the parent.
  const Math::Quaternion referenceQ(referenceInParentQ);
  const Math::Position3D referenceT(referenceInParentT);
  Math::Quaternion objectInReferenceQ;
  Math::Position3D objectInReferenceT;
  position6DToQuaternionTranslation(Math::Position6D(position), objectInReferenceQ, objectInReferenceT);
  Math::Position6D objectInParent;
  quaternionTranslationToPosition6D(referenceQ * objectInReferenceQ, referenceT + referenceQ * objectInReferenceT,
                                    objectInParent);
  return xUpdatePosition(name, objectInParent.toVector(), save);
}

bool KQWorldRepresentation::xComposePosition(const std::string& first, const std::string& second,
                                             Math::Quaternion& rotation, Math::Position3D& translation) const {
  const int firstId = xFindNodeId(first);
  if (firstId < 0) {
    KQWR_WARNING("xGetPosition") << "Cannot find reference";
    return false;
  }
  const int secondId = xFindNodeId(second);
  if (secondId < 0) {
    KQWR_WARNING("xGetPosition") << "Cannot find target";
    return false;
  }
  PathVisitor visitor;
  const int result = visitor.walk(graph_, firstId, secondId);
  if (result != 0) {
    KQWR_WARNING("xGetPosition") << "Cannot get displacement: " << graph_.getErrorMessage(result);
    return false;
  }
  rotation = visitor.getQuaternion();
  translation = visitor.getTranslation();
  return true;
}

void KQWorldRepresentation::xGetPosition(const std::string& first, const std::string& second,
                                         std::vector<float>& quaternionOut, std::vector<float>& translationOut) {
  quaternionOut.clear();
  translationOut.clear();
  Math::Quaternion rotation;
  Math::Position3D translation;
  if (!xComposePosition(first, second, rotation, translation)) return;
  quaternionOut = rotation.toVector();
  translationOut = translation.toVector();
}

KQValue KQWorldRepresentation::getPosition(const std::string& first, const std::string& second) {
  Math::Quaternion rotation;
  Math::Position3D translation;
  bool found;
  {
    ReaderLock objectLock(objectLock_);
    ReaderLock graphLock(graphLock_);
    found = xComposePosition(first, second, rotation, translation);
  }
  // Built in place, three allocations: this is the answer of the most
  // frequent call. A failed query answers two empty lists.
  std::vector<KQValue> rotationList;
  std::vector<KQValue> translationList;
  if (found) {
    rotationList.reserve(4);
    for (float value : {rotation.w, rotation.x, rotation.y, rotation.z}) rotationList.emplace_back(value);
    translationList.reserve(3);
    for (float value : {translation.x, translation.y, translation.z}) translationList.emplace_back(value);
  }
  std::vector<KQValue> pose;
  pose.reserve(2);
  pose.emplace_back(std::move(rotationList));
  pose.emplace_back(std::move(translationList));
  return KQValue(std::move(pose));
}

std::vector<float> KQWorldRepresentation::getPosition6D(const std::string& first, const std::string& second) {
  // The same locks and walk as getPosition, without the round trip through
  // a KQValue. After a failed query the pose is the identity: 6 zeros.
  Math::Quaternion rotation;
  Math::Position3D translation;
  {
    ReaderLock objectLock(objectLock_);
    ReaderLock graphLock(graphLock_);
    if (!xComposePosition(first, second, rotation, translation)) {
      rotation = Math::Quaternion();
      translation = Math::Position3D();
    }
  }
  Math::Position6D pose;
  quaternionTranslationToPosition6D(rotation, translation, pose);
  return pose.toVector();
}

void KQWorldRepresentation::xStorePosition(KQDatabaseManager& db, const std::string& name,
                                           const std::string& parentName, const std::vector<float>& quaternion,
                                           const std::vector<float>& translation, const ko::os::timeval& time) {
  // The pairs are built once per thread and only their values change from
  // row to row: this runs for every saved update.
  thread_local KQValue row;
  setPositionsRow(row, parentName, quaternion, translation);
  xStoreAttribute(db, time, name, kPositionsAttributeName, row);
}

uint64_t KQWorldRepresentation::xAppendPosition(KQDatabaseManager& db, const std::string& name,
                                               const std::string& parentName, const std::vector<float>& quaternion,
                                               const std::vector<float>& translation, const ko::os::timeval& time) {
  thread_local KQValue row;
  setPositionsRow(row, parentName, quaternion, translation);
  std::vector<std::pair<std::string, KQValue>> rows(1, {kPositionsAttributeName, row});
  addSpecialFields(rows[0].second, name, time);
  uint64_t ticket = 0;
  db.appendToGroup(std::move(rows), ticket);
  return ticket;
}

}  // namespace KQ
