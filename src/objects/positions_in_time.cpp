// Positions in the past: the pose of one object in the frame of another a
// number of seconds ago, composed along the tree path from the position
// histories by InterPosVisitor.
#include <cstdint>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "objects/inter_pos_visitor.h"

namespace KQ {

namespace {


// The requested instant in whole seconds since the epoch, counted back from
// the present second (32-bit like the "TimeS" column).
int requestedSecond(const ko::os::timeval& now, int secondsAgo) {
  return static_cast<int>(static_cast<int64_t>(now.tv_sec) - static_cast<int64_t>(secondsAgo));
}

}  // namespace

void KQWorldRepresentation::enterEmptyDatabases(const std::set<std::string>& categories) {
  if (categories.empty()) return;
  WriterLock categoryLock(categoryLock_);
  for (const std::string& category : categories) databases_.emplace(category, KQDatabaseManager());
}

bool KQWorldRepresentation::visitAtTime(const char* function, const std::string& reference, const std::string& object,
                                         InterPosVisitor& visitor) {
  {
    // All three shared: time queries run alongside each other and alongside
    // present-time reads, never alongside writers.
    ReaderLock objectLock(objectLock_);
    ReaderLock graphLock(graphLock_);
    ReaderLock categoryLock(categoryLock_);
    const int referenceId = xFindNodeId(reference);
    if (referenceId < 0) {
      KQWR_ERROR(function) << "Reference not found";
      return false;
    }
    const int objectId = xFindNodeId(object);
    if (objectId < 0) {
      KQWR_ERROR(function) << "Object not found";
      return false;
    }
    graph_.visitPath(visitor, referenceId, objectId);
  }
  enterEmptyDatabases(visitor.missingCategories());
  return true;
}

std::vector<float> KQWorldRepresentation::getPosition6DAtTime(const std::string& reference, const std::string& object,
                                                              const int& secondsAgo, const int& type) {
  ko::os::timeval now;
  ko::os::gettimeofday(&now);  // first thing, before any lock
  InterPosVisitor visitor(&databases_, requestedSecond(now, secondsAgo), type);
  if (!visitAtTime("getPosition6DAtTime", reference, object, visitor)) return std::vector<float>();
  return visitor.getPosition6D().toVector();
}

KQValue KQWorldRepresentation::getPositionAtTime(const std::string& reference, const std::string& object,
                                                 const int& secondsAgo, const int& type) {
  ko::os::timeval now;
  ko::os::gettimeofday(&now);  // first thing, before any lock
  InterPosVisitor visitor(&databases_, requestedSecond(now, secondsAgo), type);
  if (!visitAtTime("getPositionAtTime", reference, object, visitor)) return KQValue();
  KQValue pose;
  pose.arraySetSize(2);
  pose[0] = KQValue(visitor.getQuaternion().toVector());
  pose[1] = KQValue(visitor.getTranslation().toVector());
  return pose;
}

}  // namespace KQ
