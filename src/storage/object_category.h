// ObjectCategory: a named set of attributes, looked up by attribute name.
// Shared (std::shared_ptr) between the module's category map and every
// WorldObject of the category; the archive writes one record per category
// and restores the sharing.
//
// getAttributes lists the attributes in the order they were added;
// getAttributeTable(name) gives the column list handed to
// KQDatabaseManager::createTable: `"ObjectName" text, "TimeS" int, ...` in
// field order, names double-quoted.
//
// Threading: guarded by the module's category lock (written by the category
// operations, read under the category or graph lock).
#ifndef KQ_STORAGE_OBJECT_CATEGORY_H_
#define KQ_STORAGE_OBJECT_CATEGORY_H_

#include <set>
#include <string>
#include <vector>

#include "storage/object_attribute.h"

class ObjectCategory {
 public:
  ObjectCategory() = default;
  explicit ObjectCategory(const std::string& name) : name_(name) {}

  // Stores a copy under the attribute's name (replacing one of the same name).
  void addAttribute(const ObjectAttribute& attribute);
  bool hasAttribute(const std::string& name) const { return attributeNames_.count(name) != 0; }
  // Copies the named attribute into `out`; leaves `out` unchanged when absent.
  void getAttribute(const std::string& name, ObjectAttribute& out) const;
  // Pointer to the named attribute, null when absent.
  const ObjectAttribute* findAttribute(const std::string& name) const;
  const std::vector<ObjectAttribute>& getAttributes() const { return attributes_; }
  const std::string& getCategoryName() const { return name_; }
  std::string getAttributeTable(const std::string& name) const;

 private:
  friend class boost::serialization::access;
  template <class Archive>
  void serialize(Archive& ar, unsigned int version);  // world_archive.cpp

  std::string name_;
  std::set<std::string> attributeNames_;
  std::vector<ObjectAttribute> attributes_;
};

#endif  // KQ_STORAGE_OBJECT_CATEGORY_H_
