#include "storage/shape_checks.h"

namespace KQ {

namespace {

// A pair whose both items are strings: [field name, field type].
bool isFieldDeclaration(const KQValue& element) {
  return element.isArray() && element.getSize() == 2 && element[0].isString() && element[1].isString();
}

// [field name, value]. Kept quirk: the element is not first required to be
// an array, so a non-array whose size reads as 2 (a two-byte string) is let
// through; it must not be indexed, so it passes without a look inside.
bool isFieldValue(const KQValue& element) {
  if (element.getSize() != 2) return false;
  if (!element.isArray()) return true;
  return element[0].isString();
}

// [attribute name, [[field name, value], ...]]; the inner pairs are checked
// later, attribute by attribute.
bool isAttributeEntry(const KQValue& element) {
  return element.isArray() && element.getSize() == 2 && element[0].isString() && element[1].isArray();
}

template <class Check>
bool everyElement(const KQValue& value, Check check) {
  if (!value.isArray()) return false;
  for (int i = 0; i < value.getSize(); ++i)
    if (!check(value[i])) return false;
  return true;
}

}  // namespace

bool checkFieldsFormat(const KQValue& fields) {
  return everyElement(fields, isFieldDeclaration);
}

bool checkAttributeFieldsFormat(const KQValue& values) {
  return everyElement(values, isFieldValue);
}

bool checkAttributesFormat(const KQValue& attributes) {
  return everyElement(attributes, isAttributeEntry);
}

}  // namespace KQ
