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

#include "middleware/memory_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "storage/attribute_description.h"
#include "storage/attribute_rows.h"
#include "storage/caller_sql.h"
#include "storage/name_rules.h"
#include "storage/shape_checks.h"
#include "storage/world_object.h"

namespace KQ {

namespace {

// The caller's condition is always wrapped, so an empty one makes the
// statement invalid ("AND ()") and fails in the database; kept so.
std::string objectAndCondition(const std::string& objectName, const std::string& condition) {
  return objectCondition(objectName) + " AND (" + condition + ")";
}

// The last row index for "at most count rows"; 0 and negative counts mean
// every row (count - 1 < 0), without overflowing at INT_MIN.
int lastRowIndex(int count) { return count == INT_MIN ? -1 : count - 1; }

KQValue emptyArray() {
  KQValue array;
  array.arraySetSize(0);
  return array;
}

// Caller text that would leave its place in the statement is refused before
// SQLite sees it (src/storage/caller_sql.h).
bool callerTextRefused(const char* function, const char* what, const std::string& text) {
  const std::string why = whyCallerSqlEscapes(text);
  if (why.empty()) return false;
  KQWR_ERROR(function) << "Refused the " << what << " " << printableName(text) << ": " << why << ".";
  return true;
}

// An object name goes between single quotes unescaped, as callers know it;
// one holding a quote would end that literal and reach other objects' rows,
// so no statement is built with it and the call fails.
bool quotedNameRefused(const char* function, const std::string& objectName) {
  if (objectName.find('\'') == std::string::npos) return false;
  KQWR_ERROR(function) << "Object name " << printableName(objectName) << " holds a quote: no statement is built with it.";
  return true;
}

}  // namespace

ResolvedObject KQWorldRepresentation::xResolveObject(const std::string& objectName) {
  return resolveObject(objects_, graph_, databases_, objectName);
}

int KQWorldRepresentation::xStoreAttribute(KQDatabaseManager& db, const ko::os::timeval& time,
                                           const std::string& objectName, const std::string& attribute,
                                           const KQValue& values) {
  // Works on a copy: the caller's value is left exactly as it was given.
  KQValue row(values);
  addSpecialFields(row, objectName, time);
  const int status = db.insertRow(attribute, row);
  if (status != 0) return status;
  if (attribute == displayAttributeName_) addObjectToDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::storeObjectAttribute(const std::string& objectName, const std::string& attribute,
                                                const KQValue& values) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  if (!checkAttributeFieldsFormat(values)) return 1;

  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  WriterLock categoryLock(categoryLock_);
  const ResolvedObject resolved = xResolveObject(objectName);
  if (!resolved.found() || !resolved.hasAttribute(attribute)) return 1;
  // A refused insert is not reported to the caller: kept as designed.
  xStoreAttribute(*resolved.database, time, objectName, attribute, values);
  return 0;
}

int KQWorldRepresentation::xUpdateAttribute(KQDatabaseManager& db, const ko::os::timeval& time,
                                            const std::string& objectName, const std::string& attribute,
                                            const std::string& condition, const KQValue& values) {
  if (quotedNameRefused("updateAttribute", objectName)) return 1;
  // The existence test ignores the caller's condition: an object with no
  // row yet gets one inserted; one with rows only sees matching rows change.
  const KQValue existing = db.selectWithOrder(attribute, objectCondition(objectName), "TimeS DESC", "*", 0);
  if (existing.getSize() == 0) return xStoreAttribute(db, time, objectName, attribute, values);

  // Every updated row is re-stamped with this call's name and time.
  KQValue row(values);
  addSpecialFields(row, objectName, time);
  const int status = db.updateRow(attribute, row, objectAndCondition(objectName, condition));
  if (status != 0) return status;
  if (attribute == displayAttributeName_) addObjectToDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::updateAttribute(const std::string& objectName, const std::string& attribute,
                                           const std::string& condition, const KQValue& values) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  if (!checkAttributeFieldsFormat(values)) {
    KQWR_ERROR("updateAttribute") << "Fields format incorrect";
    return 1;
  }
  if (callerTextRefused("updateAttribute", "condition", condition)) return 1;

  int status = 1;
  {
    ReaderLock objectLock(objectLock_);
    ReaderLock graphLock(graphLock_);
    WriterLock categoryLock(categoryLock_);
    const ResolvedObject resolved = xResolveObject(objectName);
    if (resolved.missing == ResolvedObject::Missing::kObject) {
      KQWR_ERROR("updateAttribute") << "Object " << objectName << " not found";
      return 1;
    }
    if (!resolved.found() || !resolved.hasAttribute(attribute)) return 1;
    status = xUpdateAttribute(*resolved.database, time, objectName, attribute, condition, values);
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
  const ResolvedObject resolved = xResolveObject(objectName);
  if (resolved.missing == ResolvedObject::Missing::kObject) {
    KQWR_ERROR("xDeleteAttribute") << "Object " << objectName << " does not exist.";
    return 1;
  }
  if (!resolved.hasAttribute(attribute)) {
    KQWR_ERROR("xDeleteAttribute") << "Category " << resolved.categoryName << " does not have attribute "
                                   << attribute << ".";
    return 1;
  }
  if (!resolved.found()) {
    KQWR_ERROR("xDeleteAttribute") << "Category database " << resolved.categoryName << " not found.";
    return 1;
  }
  if (quotedNameRefused("xDeleteAttribute", objectName)) return 1;
  const int status = resolved.database->deleteRow(attribute, objectAndCondition(objectName, condition));
  if (status != 0) return status;
  if (attribute == displayAttributeName_) removeObjectFromDisplayEvent(objectName);
  return 0;
}

int KQWorldRepresentation::deleteObjectAttribute(const std::string& objectName, const std::string& attribute,
                                                 const std::string& condition) {
  if (callerTextRefused("deleteObjectAttribute", "condition", condition)) return 1;
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  WriterLock categoryLock(categoryLock_);
  return xDeleteAttribute(objectName, attribute, condition);
}

void KQWorldRepresentation::xClearAllAttributes(int nodeId) {
  auto object = std::dynamic_pointer_cast<WorldObject>(graph_.getNodeData(nodeId));
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
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  WriterLock categoryLock(categoryLock_);
  // Seconds only, in 32 bits as TimeS is stored (wrapping, never overflowing):
  // rows of the cut-off second itself stay.
  const int32_t cutOff = static_cast<int32_t>(static_cast<uint32_t>(time.tv_sec) - static_cast<uint32_t>(seconds));
  xDeleteAttribute(objectName, "positions", "TimeS < " + std::to_string(cutOff));
  return 0;
}

KQValue KQWorldRepresentation::getObjectAttributes(const std::string& objectName) {
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  ReaderLock categoryLock(categoryLock_);
  const ResolvedObject resolved = xResolveObject(objectName);
  if (resolved.missing == ResolvedObject::Missing::kObject) {
    KQWR_ERROR("getObjectAttributes") << "Object " << objectName << " does not exist.";
    return emptyArray();
  }
  if (!resolved.object || !resolved.object->getCategory()) return emptyArray();
  return describeAttributes(*resolved.object->getCategory());
}

KQValue KQWorldRepresentation::getObjectAttributeValues(const std::string& objectName, const std::string& attribute,
                                                        const int& count) {
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  ReaderLock categoryLock(categoryLock_);
  const ResolvedObject resolved = xResolveObject(objectName);
  if (resolved.missing == ResolvedObject::Missing::kObject) {
    KQWR_ERROR("getObjectAttributeValues") << "Object " << objectName << " does not exist.";
    return emptyArray();
  }
  const ObjectAttribute* fields =
      resolved.object && resolved.object->getCategory() ? resolved.category().findAttribute(attribute) : nullptr;
  if (fields == nullptr) {
    KQWR_ERROR("getObjectAttributeValues") << "Object " << objectName << " is in category " << resolved.categoryName
                                           << " that does not have attribute " << attribute << ".";
    return emptyArray();
  }
  if (!resolved.found()) {
    KQWR_ERROR("getObjectAttributeValues") << "Category " << resolved.categoryName
                                           << " not found. Cannot get value from category.";
    return emptyArray();
  }
  if (quotedNameRefused("getObjectAttributeValues", objectName)) return emptyArray();
  // Newest first, each row in field order (the special fields first).
  return resolved.database->selectWithOrder(attribute, objectCondition(objectName), "TimeS DESC",
                                            fields->getFieldList(), lastRowIndex(count));
}

KQValue KQWorldRepresentation::getObjectLatestAttributes(const std::string& objectName, const int& count) {
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  KQValue result = emptyArray();

  // The graph is held exclusively: the object's pose in its parent is
  // computed here, and a robot-driven edge (a joint, "Robot", "Robot_Torso")
  // refreshes its cached transform when it is read.
  ReaderLock objectLock(objectLock_);
  WriterLock graphLock(graphLock_);
  ReaderLock categoryLock(categoryLock_);
  const ResolvedObject resolved = xResolveObject(objectName);
  if (resolved.missing == ResolvedObject::Missing::kObject) {
    KQWR_ERROR("getObjectLatestAttributes") << "Object " << objectName << " does not exist.";
    return result;
  }
  if (!resolved.found()) {
    KQWR_ERROR("getObjectLatestAttributes") << "Category " << resolved.categoryName
                                            << " not found. Cannot get value from category.";
    return result;
  }

  if (quotedNameRefused("getObjectLatestAttributes", objectName)) return result;
  for (const ObjectAttribute& attribute : resolved.category().getAttributes()) {
    KQValue values;
    if (attribute.getName() == kPositionsAttributeName) {
      // One flat row from the graph: the pose now, not the last stored one.
      // The root has no parent: its row names none and gives the identity.
      std::string parentName;
      std::vector<float> quaternion = {1.0f, 0.0f, 0.0f, 0.0f};
      std::vector<float> translation = {0.0f, 0.0f, 0.0f};
      int parent = -1;
      if (graph_.getParent(parent, resolved.nodeId) == 0) {
        auto parentObject = std::dynamic_pointer_cast<WorldObject>(graph_.getNodeData(parent));
        if (parentObject) parentName = parentObject->getName();
        std::vector<float> q;
        std::vector<float> t;
        if (graph_.getDisplacement(q, t, parent, resolved.nodeId) == 0 && q.size() == 4 && t.size() == 3) {
          quaternion = q;  // objectInParent
          translation = t;
        }
      }
      values = positionsValues(objectName, time, parentName, quaternion, translation);
    } else {
      values = resolved.database->selectWithOrder(attribute.getName(), objectCondition(objectName), "TimeS DESC",
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
  if (callerTextRefused("select", "condition", condition) || callerTextRefused("select", "columns", columns))
    return emptyArray();
  ReaderLock categoryLock(categoryLock_);
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
  if (callerTextRefused("selectWithOrder", "condition", condition) ||
      callerTextRefused("selectWithOrder", "order", order) || callerTextRefused("selectWithOrder", "columns", columns))
    return emptyArray();
  ReaderLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_ERROR("selectWithOrder") << "Database " << category << " not found. "
                                  << "Cannot get value from database.";
    return KQValue();
  }
  return database->second.selectWithOrder(table, condition, order, columns, -1);
}

int KQWorldRepresentation::resetDatabase(const std::string& category) {
  if (!validCategoryName("resetDatabase", category)) return 1;
  WriterLock categoryLock(categoryLock_);
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
  WriterLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) return 1;
  return database->second.beginTransaction();
}

int KQWorldRepresentation::endTransaction(const std::string& category) {
  WriterLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) return 1;
  return database->second.endTransaction();
}

}  // namespace KQ
