// The registry of named objects: store (absolutely or relative to another
// object), find, list and clear. An object is at once a scene-graph node, an
// entry of the object map, a WorldObject payload on the node and rows in its
// category's database; the operations here keep the four in step.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>


#include "middleware/call_sequence.h"
#include "middleware/math.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "spatial/edge_interface.h"
#include "spatial/names_visitor.h"
#include "spatial/pose_conversions.h"
#include "storage/attribute_rows.h"
#include "storage/shape_checks.h"
#include "storage/world_object.h"

namespace KQ {

namespace {


// Every payload the module stores is a WorldObject; a node without one (or
// with a foreign payload) reads as no object.
const WorldObject* objectOf(const std::shared_ptr<GraphNodeData>& data) {
  return dynamic_cast<const WorldObject*>(data.get());
}

}  // namespace

int KQWorldRepresentation::xFindNodeId(const std::string& name) const {
  auto found = objects_.find(name);
  return found == objects_.end() ? -1 : found->second;
}

int KQWorldRepresentation::storeObject(const std::string& name, const std::string& parentName,
                                       const std::vector<float>& position, const std::string& category,
                                       const KQValue& attributes) {
  if (!checkAttributesFormat(attributes)) {
    KQWR_ERROR("storeObject") << "Wrong attributes format.";
    return 1;
  }
  if (position.size() != 6) {
    KQWR_ERROR("storeObject") << "Position format is not correct.";
    return 1;
  }
  WriterLock objectLock(objectLock_);
  return xStoreObject(name, parentName, position, category, attributes);
}

int KQWorldRepresentation::xStoreObject(const std::string& name,
                                        const std::string& parentName, const std::vector<float>& position,
                                        const std::string& category, const KQValue& attributes) {
  if (objects_.count(name) != 0) {
    KQWR_WARNING("storeObject") << "Object " << name << " already exists.";
    return 1;
  }
  const int parentId = xFindNodeId(parentName);
  if (parentId < 0) {
    KQWR_ERROR("storeObject") << "Parent " << parentName << " does not exist.";
    return 1;
  }

  WriterLock graphLock(graphLock_);
  WriterLock categoryLock(categoryLock_);
  // One reading stamps every row this call writes; read under the graph
  // lock, as updatePosition's (the archive's time is compared with it).
  ko::os::timeval time;
  ko::os::gettimeofday(&time);
  auto categoryEntry = categories_.find(category);
  if (categoryEntry == categories_.end()) {
    KQWR_ERROR("storeObject") << "Category " << category << " does not exist.";
    return 1;
  }
  // All entries are checked before anything changes.
  const int attributeCount = attributes.getSize();
  for (int i = 0; i < attributeCount; ++i) {
    const std::string& attributeName = attributes[i][0].toString();
    if (!categoryEntry->second->hasAttribute(attributeName)) {
      KQWR_ERROR("storeObject") << "Attribute " << attributeName << " is not part of category " << category;
      return 1;
    }
  }

  Math::Quaternion objectInParentRotation;
  Math::Position3D objectInParentTranslation;
  position6DToQuaternionTranslation(Math::Position6D(position), objectInParentRotation, objectInParentTranslation);
  const std::vector<float> quaternion = objectInParentRotation.toVector();
  const std::vector<float> translation = objectInParentTranslation.toVector();

  int newId = -1;
  const int added = graph_.addNode(newId, std::make_shared<Displacement>(quaternion, translation), parentId);
  if (added != 0) {
    KQWR_ERROR("storeObject") << "Error adding node " << name << " " << graph_.getErrorMessage(added);
    return added;
  }
  objects_[name] = newId;
  graph_.setNodeData(newId, std::make_shared<WorldObject>(name, categoryEntry->second));

  // A category always has its database; one reopened without it is skipped
  // rather than given an unbound entry.
  auto database = databases_.find(category);
  if (database != databases_.end()) {
    // The rows join a transaction the caller has open on this category
    // (nothing is committed early), or get one of their own.
    KQDatabaseManager& db = database->second;
    if (CallSequence::isOpen()) {
      xAppendObjectRows(db, category, name, parentName, quaternion, translation, time, attributes);
      return 0;
    }
    db.inTransaction([&]() REQUIRES(categoryLock_) {
      xStorePosition(db, name, parentName, quaternion, translation, time);
      for (int i = 0; i < attributeCount; ++i) {
        const KQValue& entry = attributes[i];
        xStoreAttribute(db, time, name, entry[0].toString(), entry[1]);
      }
      return 0;
    });
  }
  return 0;
}

void KQWorldRepresentation::xAppendObjectRows(KQDatabaseManager& db, const std::string& category,
                                              const std::string& name, const std::string& parentName,
                                              const std::vector<float>& quaternion,
                                              const std::vector<float>& translation, const ko::os::timeval& time,
                                              const KQValue& attributes) {
  // The rows of one call are queued together, so they share one group:
  // atomic as in a transaction of their own.
  thread_local KQValue position;
  setPositionsRow(position, parentName, quaternion, translation);
  std::vector<std::pair<std::string, KQValue>> rows;
  rows.reserve(1 + static_cast<std::size_t>(attributes.getSize()));
  rows.emplace_back(kPositionsAttributeName, position);
  for (int i = 0; i < attributes.getSize(); ++i) rows.emplace_back(attributes[i][0].toString(), attributes[i][1]);
  for (auto& row : rows) addSpecialFields(row.second, name, time);
  uint64_t ticket = 0;
  if (db.appendToGroup(std::move(rows), ticket) != 0) return;
  for (int i = 0; i < attributes.getSize(); ++i) {
    if (attributes[i][0].toString() == displayAttributeName_) addObjectToDisplayEvent(name);
  }
  if (ticket == 0) return;  // joined the caller's own transaction
  // The latest ticket of a category stands for the batch's earlier ones
  // (groups are written in order).
  CallSequence::deferToEnd(groupCommitKey(category), [db, ticket]() mutable { db.commitGroup(ticket); });
}

std::string KQWorldRepresentation::groupCommitKey(const std::string& category) const {
  return "KQWorldRepresentation:" + getName() + ":" + category;
}

int KQWorldRepresentation::storeObjectWithReference(const std::string& name, const std::string& parentName,
                                                    const std::string& referenceName,
                                                    const std::vector<float>& position, const std::string& category,
                                                    const KQValue& attributes) {
  if (!checkAttributesFormat(attributes)) {
    // No final full stop, unlike storeObject's: kept as callers see it.
    KQWR_ERROR("storeObjectWithReference") << "Wrong attributes format";
    return 1;
  }

  Math::Position6D objectInParent;
  {
    ReaderLock objectLock(objectLock_);
    // Exclusive: the path may cross live robot edges, whose evaluation
    // refreshes their cached transforms.
    WriterLock graphLock(graphLock_);
    const int referenceId = xFindNodeId(referenceName);
    if (referenceId < 0) {
      KQWR_ERROR("storeObjectWithReference") << "Reference " << referenceName << " does not exist.";
      return 1;
    }
    const int parentId = xFindNodeId(parentName);
    if (parentId < 0) {
      KQWR_ERROR("storeObjectWithReference") << "Parent " << parentName << " does not exist.";
      return 1;
    }
    std::vector<float> referenceInParentQ;
    std::vector<float> referenceInParentT;
    graph_.getDisplacement(referenceInParentQ, referenceInParentT, parentId, referenceId);

    Math::Quaternion objectInReferenceQ;
    Math::Position3D objectInReferenceT;
    position6DToQuaternionTranslation(Math::Position6D(position), objectInReferenceQ, objectInReferenceT);
    const Math::Quaternion referenceQ(referenceInParentQ);
    const Math::Position3D referenceT(referenceInParentT);
    quaternionTranslationToPosition6D(referenceQ * objectInReferenceQ, referenceT + referenceQ * objectInReferenceT,
                                      objectInParent);
  }
  const std::vector<float> composed = objectInParent.toVector();

  KQValue copied(attributes);
  const int attributeCount = copied.getSize();
  for (int i = 0; i < attributeCount; ++i) {
    if (copied[i][0].toString() == "positions") copied[i][1] = KQValue(composed);
  }
  // The shared locks are released: another caller may store the same name
  // in between, and this store then fails with "already exists".
  return storeObject(name, parentName, composed, category, copied);
}

int KQWorldRepresentation::clearObject(const std::string& name) {
  // The torso is protected by its body-part name "Torso" (the frame itself
  // is "Robot_Torso"): kept as callers know it.
  if (name == rootName_ || name == "Torso") {
    KQWR_ERROR("clearObject") << "Object " << name << " cannot be removed.";
    return 1;
  }
  // Takes and releases its own shared locks before ours are taken.
  const std::string category = getObjectCategory(name);

  WriterLock objectLock(objectLock_);
  WriterLock graphLock(graphLock_);
  // Rows are deleted below, so the category lock is held too, before the
  // joint lock, which comes last.
  WriterLock categoryLock(categoryLock_);
  WriterLock jointLock(jointLock_);

  const int id = xFindNodeId(name);
  if (id < 0) {
    KQWR_ERROR("clearObject") << "Cannot clear object " << name << ": object is not found.";
    return 1;
  }
  const std::vector<std::string> descendantNames = xGetDescendantsNames(id);
  std::vector<int> descendantIds;
  const int listed = graph_.getDescendants(descendantIds, id);
  if (listed != 0) {
    KQWR_ERROR("clearObject") << "Error removing " << name << " from the graph: " << graph_.getErrorMessage(listed);
    return listed;
  }

  // Rows go while the names are still in the object map: the attribute
  // deletion looks every object up by name. One transaction per category
  // database for the whole subtree (joining one the caller opened): the
  // cost follows the subtree's rows, not one commit per row.
  descendantIds.push_back(id);
  std::vector<KQDatabaseManager*> opened;
  for (int nodeId : descendantIds) {
    auto object = std::dynamic_pointer_cast<WorldObject>(graph_.getNodeData(nodeId));
    auto database = object ? databases_.find(object->getCategoryName()) : databases_.end();
    if (database == databases_.end() || database->second.isInTransaction()) continue;
    // A transaction that cannot begin leaves the rows to one commit each.
    if (database->second.beginTransaction() == 0) opened.push_back(&database->second);
  }
  for (int nodeId : descendantIds) xClearAllAttributes(nodeId);
  for (KQDatabaseManager* database : opened) {
    if (database->endTransaction() != 0) {
      KQWR_ERROR("clearObject") << "Could not commit the deletion of the rows of " << name << "'s subtree.";
    }
  }
  for (const std::string& descendant : descendantNames) objects_.erase(descendant);

  const int removed = graph_.removeNode(id);
  if (removed != 0) {
    KQWR_ERROR("clearObject") << "Error removing " << name << " with id " << id
                              << " from the graph: " << graph_.getErrorMessage(removed);
  }
  objects_.erase(name);
  if (category == "joints") joints_.erase(name);
  return removed;
}

bool KQWorldRepresentation::findObject(const std::string& name) {
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  const int id = xFindNodeId(name);
  return id >= 0 && graph_.isNodePresent(id) == 0;
}

std::vector<std::string> KQWorldRepresentation::getObjectNames() {
  ReaderLock graphLock(graphLock_);
  return xGetObjectNames();
}

std::vector<std::string> KQWorldRepresentation::xGetObjectNames() const {
  std::vector<std::string> names;
  NamesVisitor visitor(names);
  graph_.visitBFS(visitor, 0);
  return names;
}

std::vector<std::string> KQWorldRepresentation::getChildrenNames(const std::string& name) {
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  return xGetChildren(name);
}

std::vector<std::string> KQWorldRepresentation::xGetChildren(const std::string& name) const {
  std::vector<std::string> names;
  const int id = xFindNodeId(name);
  if (id < 0) return names;
  std::vector<int> children;
  const int result = graph_.getChildren(children, id);
  if (result != 0) {
    KQWR_ERROR("getChildrenNames") << "Cannot get children of object " << name << ": "
                                   << graph_.getErrorMessage(result);
    return names;
  }
  names.reserve(children.size());
  for (int child : children) {
    if (const WorldObject* object = objectOf(graph_.getNodeData(child))) names.push_back(object->getName());
  }
  return names;
}

std::vector<std::string> KQWorldRepresentation::xGetDescendantsNames(int id) const {
  std::vector<std::string> names;
  std::vector<int> descendants;
  const int result = graph_.getDescendants(descendants, id);
  if (result != 0) {
    KQWR_ERROR("xGetDescendantsNames") << "Cannot get descendants: " << graph_.getErrorMessage(result);
    return names;
  }
  names.reserve(descendants.size());
  for (int descendant : descendants) {
    if (const WorldObject* object = objectOf(graph_.getNodeData(descendant))) names.push_back(object->getName());
  }
  return names;
}

std::string KQWorldRepresentation::getObjectParentName(const std::string& name) {
  // The root has no parent; answered without a lock or a log.
  if (name == rootName_) return std::string();
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  return xGetObjectParentName(name);
}

std::string KQWorldRepresentation::xGetObjectParentName(const std::string& name) const {
  if (name == rootName_) return std::string();
  const int id = xFindNodeId(name);
  if (id < 0) {
    KQWR_ERROR("getObjectParentName") << "Object " << name << " does not " << "exist. Cannot get object parent";
    return std::string();
  }
  int parent = -1;
  const int result = graph_.getParent(parent, id);
  if (result != 0) {
    KQWR_ERROR("getObjectParentName") << "Cannot get parent of object " << name;
    return std::string();
  }
  const WorldObject* object = objectOf(graph_.getNodeData(parent));
  return object == nullptr ? std::string() : object->getName();
}

std::string KQWorldRepresentation::getRootName() { return rootName_; }

}  // namespace KQ
