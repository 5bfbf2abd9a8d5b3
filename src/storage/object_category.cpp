#include "storage/object_category.h"

#include "storage/sql_identifier.h"

void ObjectCategory::addAttribute(const ObjectAttribute& attribute) {
  const std::string& name = attribute.getName();
  if (attributeNames_.count(name) != 0) {
    for (ObjectAttribute& existing : attributes_) {
      if (existing.getName() == name) {
        existing = attribute;
        return;
      }
    }
  }
  attributeNames_.insert(name);
  attributes_.push_back(attribute);
}

void ObjectCategory::getAttribute(const std::string& name, ObjectAttribute& out) const {
  const ObjectAttribute* found = findAttribute(name);
  if (found != nullptr) out = *found;
}

const ObjectAttribute* ObjectCategory::findAttribute(const std::string& name) const {
  if (attributeNames_.count(name) == 0) return nullptr;
  for (const ObjectAttribute& attribute : attributes_) {
    if (attribute.getName() == name) return &attribute;
  }
  return nullptr;
}

std::string ObjectCategory::getAttributeTable(const std::string& name) const {
  // `"ObjectName" text, "TimeS" int, ...`: the type goes in as declared, since
  // any type text SQLite accepts is allowed and decides the column affinity.
  const ObjectAttribute* attribute = findAttribute(name);
  if (attribute == nullptr) return std::string();
  std::string columns;
  for (const AttributeField& field : attribute->getFields()) {
    if (!columns.empty()) columns += ", ";
    columns += KQ::quoteSqlIdentifier(field.getName());
    if (!field.getType().empty()) columns += " " + field.getType();
  }
  return columns;
}
