#include "storage/object_attribute.h"

#include "storage/sql_identifier.h"

void ObjectAttribute::addField(const std::string& name, const std::string& type) {
  fields_.emplace_back(name, type);
  fieldNames_.insert(name);
}

std::string ObjectAttribute::getFieldList() const {
  // Quoted, so that a field named like a keyword ("order", "group") or
  // holding a blank reads back what was stored.
  std::string list;
  for (const AttributeField& field : fields_) {
    if (!list.empty()) list += ", ";
    list += KQ::quoteSqlIdentifier(field.getName());
  }
  return list;
}
