#include "storage/attribute_description.h"

namespace KQ {

KQValue describeAttributes(const ObjectCategory& category) {
  KQValue attributes;
  attributes.arraySetSize(0);
  for (const ObjectAttribute& attribute : category.getAttributes()) {
    KQValue fields;
    fields.arraySetSize(0);
    for (const AttributeField& field : attribute.getFields()) {
      KQValue pair;
      pair.arraySetSize(0);
      pair.arrayPush(KQValue(field.getName()));
      pair.arrayPush(KQValue(field.getType()));
      fields.arrayPush(pair);
    }
    KQValue entry;
    entry.arraySetSize(0);
    entry.arrayPush(KQValue(attribute.getName()));
    entry.arrayPush(fields);
    attributes.arrayPush(entry);
  }
  return attributes;
}

}  // namespace KQ
