// Category operations: create, remove, test and describe object categories,
// and the add-attribute operation every attribute passes through (the fixed
// "positions" and "Display" ones included).
//
// The category map and the database map are guarded by the category lock;
// every operation here that reads or changes them takes it exclusively,
// objectCategoryExists included, except getAttributesFromCategory (shared).
// The object lookups (getObjectsInCategory, getObjectCategory) take the
// object and graph locks shared instead.
#include <boost/filesystem.hpp>

#include "middleware/error.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "storage/attribute_description.h"
#include "storage/name_rules.h"
#include "storage/shape_checks.h"
#include "storage/world_object.h"

namespace KQ {

bool KQWorldRepresentation::validCategoryName(const char* function, const std::string& category) const {
  if (isValidCategoryName(category)) return true;
  KQWR_ERROR(function) << "Category name " << printableName(category) << " is not valid.";
  return false;
}

int KQWorldRepresentation::createObjectCategory(const std::string& category, const bool& reset) {
  if (!validCategoryName("createObjectCategory", category)) return 1;
  WriterLock categoryLock(categoryLock_);
  if (categories_.count(category) != 0) {
    KQWR_WARNING("createObjectCategory") << "Category " << category << " already exists!";
    return 1;
  }
  categories_[category] = std::shared_ptr<ObjectCategory>(new ObjectCategory(category));
  // A database file already open (found at load) is kept and only emptied
  // when asked; the fixed attributes then find their tables in place.
  xCreateDatabaseFromCategory(category, reset);
  xAddPositionsToCategory(category);
  xAddDisplayToCategory(category);
  return 0;
}

int KQWorldRepresentation::removeObjectCategory(const std::string& category) {
  if (!validCategoryName("removeObjectCategory", category)) return 1;
  // The objects go first, each clearObject taking its own locks; a refusal
  // below still leaves them cleared.
  for (const std::string& name : getObjectsInCategory(category)) clearObject(name);

  WriterLock categoryLock(categoryLock_);
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    KQWR_WARNING("removeObjectCategory") << "Category database " << category << " not found.";
    return 1;
  }
  const std::string path = database->second.storagePath();
  auto description = categories_.find(category);
  if (description == categories_.end()) {
    KQWR_WARNING("removeObjectCategory") << "Category information for " << category << " not found.";
    return 1;
  }
  databases_.erase(database);  // closes the connection: the map held the last copy
  categories_.erase(description);

  if (path.empty()) return 0;  // an unbound database has no file
  namespace fs = boost::filesystem;
  // The journal files go too: a leftover write-ahead log would be replayed
  // into a later category of the same name.
  boost::system::error_code ignored;
  fs::remove(path + "-wal", ignored);
  fs::remove(path + "-shm", ignored);
  fs::remove(path + "-journal", ignored);
  // A missing file is no error; any other failure propagates.
  fs::remove(path);
  return 0;
}

bool KQWorldRepresentation::objectCategoryExists(const std::string& category) {
  // The database map decides: a file reopened at load without its
  // description counts as a category.
  WriterLock categoryLock(categoryLock_);
  return databases_.count(category) != 0;
}

int KQWorldRepresentation::addAttributeToCategory(const std::string& category, const std::string& attribute,
                                                  const KQValue& fields) {
  WriterLock categoryLock(categoryLock_);
  return xAddAttributeToCategory(category, attribute, fields);
}

int KQWorldRepresentation::xAddAttributeToCategory(const std::string& category, const std::string& attribute,
                                                   const KQValue& fields) {
  auto found = categories_.find(category);
  if (found == categories_.end()) {
    KQWR_ERROR("xAddAttributeToCategory") << "Category " << category << " does not exist.";
    return 1;
  }
  if (!checkFieldsFormat(fields)) {
    KQWR_ERROR("xAddAttributeToCategory") << "Invalid attribute fields format.";
    return 1;
  }
  if (!isValidTableName(attribute)) {
    KQWR_ERROR("xAddAttributeToCategory") << "Attribute name " << printableName(attribute) << " is not valid.";
    return 1;
  }
  for (int i = 0; i < fields.getSize(); ++i) {
    if (!isValidTableName(fields[i][0].toString())) {
      KQWR_ERROR("xAddAttributeToCategory") << "Field name " << printableName(fields[i][0].toString())
                                            << " is not valid.";
      return 1;
    }
  }
  if (found->second->hasAttribute(attribute)) {
    KQWR_WARNING("xAddAttributeToCategory") << "Category " << category << " already has an attribute " << attribute;
    return 1;
  }
  ObjectAttribute description(attribute);
  description.addField("ObjectName", "text");
  description.addField("TimeS", "int");
  description.addField("TimeUS", "int");
  for (int i = 0; i < fields.getSize(); ++i) description.addField(fields[i][0].toString(), fields[i][1].toString());
  found->second->addAttribute(description);
  xCreateTableFromAttribute(category, attribute);
  return 0;
}

KQValue KQWorldRepresentation::getAttributesFromCategory(const std::string& category) {
  ReaderLock categoryLock(categoryLock_);
  auto found = categories_.find(category);
  if (found == categories_.end()) {
    throw KQError(getName(), "getAttributesFromCategory",
                  "Category " + category + " does not exist, cannot retrieve attributes.", "", 0);
  }
  return describeAttributes(*found->second);
}

std::vector<std::string> KQWorldRepresentation::getObjectsInCategory(const std::string& category) {
  ReaderLock graphLock(graphLock_);
  return xGetObjectsInCategory(category);
}

std::vector<std::string> KQWorldRepresentation::xGetObjectsInCategory(const std::string& category) const {
  std::vector<std::string> names;
  std::vector<int> ids;
  if (graph_.getDescendants(ids, 0) != 0) return names;
  for (int id : ids) {
    auto object = std::dynamic_pointer_cast<WorldObject>(graph_.getNodeData(id));
    if (!object || !object->getCategory()) continue;
    if (object->getCategory()->getCategoryName() == category) names.push_back(object->getName());
  }
  return names;
}

std::string KQWorldRepresentation::getObjectCategory(const std::string& objectName) {
  ReaderLock objectLock(objectLock_);
  ReaderLock graphLock(graphLock_);
  return xGetObjectCategory(objectName);
}

std::string KQWorldRepresentation::xGetObjectCategory(const std::string& objectName) const {
  auto found = objects_.find(objectName);
  if (found == objects_.end()) {
    KQWR_WARNING("xGetObjectCategory") << "Object " << objectName << " not found, "
                                       << "cannot get object storage";
    return std::string();
  }
  auto object = std::dynamic_pointer_cast<WorldObject>(graph_.getNodeData(found->second));
  if (object) return object->getCategoryName();
  KQWR_WARNING("xGetObjectCategory") << "No info for node " << objectName;
  return "None";
}

}  // namespace KQ
