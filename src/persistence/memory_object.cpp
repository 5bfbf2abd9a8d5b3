#include "persistence/memory_object.h"

#include "storage/attribute_rows.h"

namespace KQ {

namespace {

bool isNumber(const KQValue& value) { return value.isInt() || value.isFloat(); }

bool isNumberArray(const KQValue& value, int size) {
  if (!value.isArray() || value.getSize() != size) return false;
  for (int i = 0; i < size; ++i)
    if (!isNumber(value[i])) return false;
  return true;
}

}  // namespace

bool hasMemoryObjectFormat(const KQValue& value) {
  if (!value.isArray() || value.getSize() != 6) return false;
  if (!value[0].isString() || !value[1].isString() || !value[3].isString()) return false;
  if (!isNumberArray(value[2], 6) && !isNumberArray(value[2], 3)) return false;
  return isNumberArray(value[4], 3) && isNumberArray(value[5], 3);
}

KQValue displayValues(const std::string& name, const KQValue& value) {
  const KQValue& model = value[3];
  const KQValue& scale = value[4];
  const KQValue& colour = value[5];
  KQValue values;
  values.arrayPush(fieldPair("ObjectName", KQValue(name)));
  values.arrayPush(fieldPair("colorR", colour[0]));
  values.arrayPush(fieldPair("colorG", colour[1]));
  values.arrayPush(fieldPair("colorB", colour[2]));
  values.arrayPush(fieldPair("scaleX", scale[0]));
  values.arrayPush(fieldPair("scaleY", scale[1]));
  values.arrayPush(fieldPair("scaleZ", scale[2]));
  values.arrayPush(fieldPair("model", model));
  return values;
}

}  // namespace KQ
