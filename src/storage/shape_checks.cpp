// The three shape checks that guard the KQValue arguments of the attribute
// and category operations. They only answer; the callers log their refusals.
#include "module/world_representation.h"

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

bool KQWorldRepresentation::xCheckFieldsFormat(const KQValue& fields) const {
  return everyElement(fields, isFieldDeclaration);
}

bool KQWorldRepresentation::xCheckAttributeFieldsFormat(const KQValue& values) const {
  return everyElement(values, isFieldValue);
}

bool KQWorldRepresentation::xCheckAttributesFormat(const KQValue& attributes) const {
  return everyElement(attributes, isAttributeEntry);
}

}  // namespace KQ
