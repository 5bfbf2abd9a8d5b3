// ObjectAttribute: one attribute of a category, stored as one table of the
// category's database: a name and its fields in column order (the three
// special fields "ObjectName", "TimeS", "TimeUS" first, as the category
// operations add them), with a lookup from field name.
#ifndef KQ_STORAGE_OBJECT_ATTRIBUTE_H_
#define KQ_STORAGE_OBJECT_ATTRIBUTE_H_

#include <set>
#include <string>
#include <vector>

#include "storage/attribute_field.h"

class ObjectAttribute {
 public:
  ObjectAttribute() = default;
  explicit ObjectAttribute(const std::string& name) : name_(name) {}

  // Appends one field; the order of calls is the column order. A name given
  // twice is appended twice (the caller decides what it allows).
  void addField(const std::string& name, const std::string& type);
  const std::string& getName() const { return name_; }
  const std::vector<AttributeField>& getFields() const { return fields_; }
  bool hasField(const std::string& name) const { return fieldNames_.count(name) != 0; }
  // Field names in column order, joined with ", ".
  std::string getFieldList() const;

 private:
  friend class boost::serialization::access;
  template <class Archive>
  void serialize(Archive& ar, unsigned int version);  // world_archive.cpp

  std::string name_;
  std::set<std::string> fieldNames_;
  std::vector<AttributeField> fields_;
};

#endif  // KQ_STORAGE_OBJECT_ATTRIBUTE_H_
