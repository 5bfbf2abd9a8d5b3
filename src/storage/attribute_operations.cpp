// Attribute storage and queries: the rows of an object's attributes in its
// category's database, stamped with the object's name and the time read at
// the start of each public write; the raw select passthroughs; pruning of
// old positions; reset and transactions of one database.
//
// Locks: object, graph, category, in that order. Writers of rows hold the
// category lock exclusively, readers shared. Attribute descriptions
// (ObjectCategory) change under the category lock, so they are read only
// with it held.
#include <climits>
#include <cstdint>
#include <string>

#include <boost/thread/locks.hpp>

#include "middleware/memory_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "storage/attribute_description.h"
#include "storage/world_object.h"

namespace KQ {

namespace {

using SharedLock = boost::shared_lock<boost::shared_mutex>;
using UniqueLock = boost::unique_lock<boost::shared_mutex>;

std::string objectCondition(const std::string& objectName) { return "ObjectName='" + objectName + "'"; }

// The caller's condition is always wrapped, so an empty one makes the
// statement invalid ("AND ()") and fails in the database; kept so.
std::string objectCondition(const std::string& objectName, const std::string& condition) {
  return objectCondition(objectName) + " AND (" + condition + ")";
}

// The last row index for "at most count rows"; 0 and negative counts mean
// every row (count - 1 < 0), without overflowing at INT_MIN.
int lastRowIndex(int count) { return count == INT_MIN ? -1 : count - 1; }

std::shared_ptr<WorldObject> objectOnNode(const KQSceneGraph& graph, int id) {
  return std::dynamic_pointer_cast<WorldObject>(graph.getNodeData(id));
}

KQValue emptyArray() {
  KQValue array;
  array.arraySetSize(0);
  return array;
}

}  // namespace

int KQWorldRepresentation::xStoreAttribute(KQDatabaseManager& db, const ko::os::timeval& time,
                                           const std::string& objectName, const std::string& attribute,
                                           const KQValue& values) {
  // Works on a copy: the caller's value is left exactly as it was given.
  KQValue row(values);
  xAddSpecialFields(row, objectName, time);
  const int status = db.insertRow(attribute, row);
  if (status != 0) return status;
  if (attribute == displayAttributeName_) xAddObjectToDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::storeObjectAttribute(const std::string& objectName, const std::string& attribute,
                                                const KQValue& values) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  if (!xCheckAttributeFieldsFormat(values)) return 1;

  SharedLock objectLock(objectLock_);
  SharedLock graphLock(graphLock_);
  auto found = objects_.find(objectName);
  if (found == objects_.end()) return 1;
  auto object = objectOnNode(graph_, found->second);
  if (!object || !object->getCategory()) return 1;

  UniqueLock categoryLock(categoryLock_);
  if (!object->getCategory()->hasAttribute(attribute)) return 1;
  auto database = databases_.find(object->getCategory()->getCategoryName());
  if (database == databases_.end()) return 1;
  // A refused insert is not reported to the caller: kept as designed.
  xStoreAttribute(database->second, time, objectName, attribute, values);
  return 0;
}

int KQWorldRepresentation::xUpdateAttribute(KQDatabaseManager& db, const ko::os::timeval& time,
                                            const std::string& objectName, const std::string& attribute,
                                            const std::string& condition, const KQValue& values) {
  // The existence test ignores the caller's condition: an object with no
  // row yet gets one inserted; one with rows only sees matching rows change.
  const KQValue existing = db.selectWithOrder(attribute, objectCondition(objectName), "TimeS DESC", "*", 0);
  if (existing.getSize() == 0) return xStoreAttribute(db, time, objectName, attribute, values);

  // Every updated row is re-stamped with this call's name and time.
  KQValue row(values);
  xAddSpecialFields(row, objectName, time);
  const int status = db.updateRow(attribute, row, objectCondition(objectName, condition));
  if (status != 0) return status;
  if (attribute == displayAttributeName_) xAddObjectToDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::updateAttribute(const std::string& objectName, const std::string& attribute,
                                           const std::string& condition, const KQValue& values) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  if (!xCheckAttributeFieldsFormat(values)) {
    KQWR_ERROR("updateAttribute") << "Fields format incorrect";
    return 1;
  }

  int status = 1;
  {
    SharedLock objectLock(objectLock_);
    SharedLock graphLock(graphLock_);
    auto found = objects_.find(objectName);
    if (found == objects_.end()) {
      KQWR_ERROR("updateAttribute") << "Object " << objectName << " not found";
      return 1;
    }
    auto object = objectOnNode(graph_, found->second);
    if (!object || !object->getCategory()) return 1;

    UniqueLock categoryLock(categoryLock_);
    if (!object->getCategory()->hasAttribute(attribute)) return 1;
    auto database = databases_.find(object->getCategory()->getCategoryName());
    if (database == databases_.end()) return 1;
    status = xUpdateAttribute(database->second, time, objectName, attribute, condition, values);
  }
  if (status != 0) return status;

  // Raised once the locks are released, so that a listener may call back
  // into the world. A memory module that refuses the raise is not caught
  // here: its error reaches the caller, the rows stay updated.
  KQValue payload;
  payload.arraySetSize(0);
  payload.arrayPush(KQValue(objectName));
  payload.arrayPush(KQValue(attribute));
  payload.arrayPush(values);
  memoryProxy_->raiseEvent(attributeChangedEventName_, payload);
  return 0;
}

int KQWorldRepresentation::xDeleteAttribute(const std::string& objectName, const std::string& attribute,
                                            const std::string& condition) {
  // object lock and graph lock held (shared or exclusive), category lock X held.
  auto found = objects_.find(objectName);
  if (found == objects_.end()) {
    KQWR_ERROR("xDeleteAttribute") << "Object " << objectName << " does not exist.";
    return 1;
  }
  auto object = objectOnNode(graph_, found->second);
  const std::string category = object ? object->getCategoryName() : std::string("None");
  if (!object || !object->getCategory() || !object->getCategory()->hasAttribute(attribute)) {
    KQWR_ERROR("xDeleteAttribute") << "Category " << category << " does not have attribute " << attribute << ".";
    return 1;
  }
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_ERROR("xDeleteAttribute") << "Category database " << category << " not found.";
    return 1;
  }
  const int status = database->second.deleteRow(attribute, objectCondition(objectName, condition));
  if (status != 0) return status;
  if (attribute == displayAttributeName_) xRemoveObjectFromDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::deleteObjectAttribute(const std::string& objectName, const std::string& attribute,
                                                 const std::string& condition) {
  SharedLock objectLock(objectLock_);
  SharedLock graphLock(graphLock_);
  UniqueLock categoryLock(categoryLock_);
  return xDeleteAttribute(objectName, attribute, condition);
}

void KQWorldRepresentation::xClearAllAttributes(int nodeId) {
  // object lock and graph lock held, category lock X held.
  auto object = objectOnNode(graph_, nodeId);
  if (!object || !object->getCategory()) return;
  // Names first: the deletions must not walk the description they read.
  std::vector<std::string> attributes;
  for (const ObjectAttribute& attribute : object->getCategory()->getAttributes())
    attributes.push_back(attribute.getName());
  // "1" is always true: every row of the object goes.
  for (const std::string& attribute : attributes) xDeleteAttribute(object->getName(), attribute, "1");
}

int KQWorldRepresentation::clearOldPositions(const std::string& objectName, const int& seconds) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  // The graph lock (shared) is held too: the object's category is read from
  // its node.
  SharedLock objectLock(objectLock_);
  SharedLock graphLock(graphLock_);
  UniqueLock categoryLock(categoryLock_);
  // Seconds only, in 32 bits as TimeS is stored (wrapping, never overflowing):
  // rows of the cut-off second itself stay.
  const int32_t cutOff = static_cast<int32_t>(static_cast<uint32_t>(time.tv_sec) - static_cast<uint32_t>(seconds));
  xDeleteAttribute(objectName, "positions", "TimeS < " + std::to_string(cutOff));
  return 0;
}

KQValue KQWorldRepresentation::getObjectAttributes(const std::string& objectName) {
  KQValue result = emptyArray();
  SharedLock objectLock(objectLock_);
  auto found = objects_.find(objectName);
  if (found == objects_.end()) {
    KQWR_ERROR("getObjectAttributes") << "Object " << objectName << " does not exist.";
    return result;
  }
  SharedLock graphLock(graphLock_);
  auto object = objectOnNode(graph_, found->second);
  if (!object || !object->getCategory()) return result;
  SharedLock categoryLock(categoryLock_);
  return describeAttributes(*object->getCategory());
}

KQValue KQWorldRepresentation::getObjectAttributeValues(const std::string& objectName, const std::string& attribute,
                                                        const int& count) {
  KQValue result = emptyArray();
  SharedLock objectLock(objectLock_);
  SharedLock graphLock(graphLock_);
  if (objects_.count(objectName) == 0) {
    KQWR_ERROR("getObjectAttributeValues") << "Object " << objectName << " does not exist.";
    return result;
  }
  // The private form: the object and graph locks are already held here.
  const std::string category = xGetObjectCategory(objectName);

  SharedLock categoryLock(categoryLock_);
  auto description = categories_.find(category);
  const ObjectAttribute* fields =
      description == categories_.end() ? nullptr : description->second->findAttribute(attribute);
  if (fields == nullptr) {
    KQWR_ERROR("getObjectAttributeValues") << "Object " << objectName << " is in category " << category
                                           << " that does not have attribute " << attribute << ".";
    return result;
  }
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_ERROR("getObjectAttributeValues") << "Category " << category << " not found. Cannot get value from "
                                           << "category.";
    return result;
  }
  // Newest first, each row in field order (the special fields first).
  return database->second.selectWithOrder(attribute, objectCondition(objectName), "TimeS DESC",
                                          fields->getFieldList(), lastRowIndex(count));
}

KQValue KQWorldRepresentation::getObjectLatestAttributes(const std::string& objectName, const int& count) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  KQValue result = emptyArray();

  // The object map is read under the object lock. The graph is held
  // exclusively: the object's pose in its parent is computed here, and a
  // robot-driven edge (a joint, "Robot", "Robot_Torso") refreshes its cached
  // transform when it is read.
  SharedLock objectLock(objectLock_);
  UniqueLock graphLock(graphLock_);
  auto found = objects_.find(objectName);
  if (found == objects_.end()) {
    KQWR_ERROR("getObjectLatestAttributes") << "Object " << objectName << " does not exist.";
    return result;
  }
  const int id = found->second;
  auto object = objectOnNode(graph_, id);
  const std::string category = object ? object->getCategoryName() : std::string("None");

  SharedLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end() || !object || !object->getCategory()) {
    KQWR_ERROR("getObjectLatestAttributes") << "Category " << category << " not found. Cannot get value from "
                                            << "category.";
    return result;
  }

  for (const ObjectAttribute& attribute : object->getCategory()->getAttributes()) {
    KQValue values;
    if (attribute.getName() == "positions") {
      // One flat row from the graph, in the table's column order: the pose
      // now, not the last stored one. The root has no parent: its row names
      // none and gives the identity.
      std::string parentName;
      std::vector<float> quaternion = {1.0f, 0.0f, 0.0f, 0.0f};
      std::vector<float> translation = {0.0f, 0.0f, 0.0f};
      int parent = -1;
      if (graph_.getParent(parent, id) == 0) {
        auto parentObject = objectOnNode(graph_, parent);
        if (parentObject) parentName = parentObject->getName();
        std::vector<float> q;
        std::vector<float> t;
        if (graph_.getDisplacement(q, t, parent, id) == 0 && q.size() == 4 && t.size() == 3) {
          quaternion = q;  // objectInParent
          translation = t;
        }
      }
      values.arraySetSize(0);
      values.arrayPush(KQValue(objectName));
      values.arrayPush(KQValue(static_cast<int>(static_cast<int32_t>(time.tv_sec))));
      values.arrayPush(KQValue(static_cast<int>(time.tv_usec)));
      values.arrayPush(KQValue(parentName));
      for (float q : quaternion) values.arrayPush(KQValue(q));
      for (float t : translation) values.arrayPush(KQValue(t));
    } else {
      values = database->second.selectWithOrder(attribute.getName(), objectCondition(objectName), "TimeS DESC",
                                                attribute.getFieldList(), lastRowIndex(count));
    }
    KQValue entry;
    entry.arraySetSize(0);
    entry.arrayPush(KQValue(attribute.getName()));
    entry.arrayPush(values);
    result.arrayPush(entry);
  }
  return result;
}

KQValue KQWorldRepresentation::select(const std::string& condition, const std::string& category,
                                      const std::string& table, const std::string& columns) {
  SharedLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_ERROR("select") << "Category " << category << " not found.";
    return KQValue();  // invalid, not an empty array: kept as designed
  }
  return database->second.select(table, condition, columns);
}

KQValue KQWorldRepresentation::selectWithOrder(const std::string& condition, const std::string& order,
                                               const std::string& category, const std::string& table,
                                               const std::string& columns) {
  SharedLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_ERROR("selectWithOrder") << "Database " << category << " not found. "
                                  << "Cannot get value from database.";
    return KQValue();
  }
  return database->second.selectWithOrder(table, condition, order, columns, -1);
}

int KQWorldRepresentation::resetDatabase(const std::string& category) {
  UniqueLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    // No space between the name and "not": the text is kept exactly so.
    KQWR_ERROR("resetDatabase") << "Database " << category << "not "
                                << "found. Cannot reset database.";
    return 1;
  }
  return database->second.resetDatabase();
}

int KQWorldRepresentation::beginTransaction(const std::string& category) {
  // The lock is released on return: the transaction spans later calls.
  UniqueLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) return 1;
  return database->second.beginTransaction();
}

int KQWorldRepresentation::endTransaction(const std::string& category) {
  UniqueLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) return 1;
  return database->second.endTransaction();
}

}  // namespace KQ
