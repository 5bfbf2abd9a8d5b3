#include "storage/object_attribute.h"

void ObjectAttribute::addField(const std::string& name, const std::string& type) {
  fields_.emplace_back(name, type);
  fieldNames_.insert(name);
}

std::string ObjectAttribute::getFieldList() const {
  // Plain names, not quoted: the list goes after SELECT as the column list of
  // the latest-values query, exactly as the callers expect to see it.
  std::string list;
  for (const AttributeField& field : fields_) {
    if (!list.empty()) list += ", ";
    list += field.getName();
  }
  return list;
}
