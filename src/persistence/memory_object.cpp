#include "persistence/memory_object.h"

namespace KQ {

namespace {

bool isNumber(const KQValue& value) { return value.isInt() || value.isFloat(); }

bool isNumberArray(const KQValue& value, int size) {
  if (!value.isArray() || value.getSize() != size) return false;
  for (int i = 0; i < size; ++i)
    if (!isNumber(value[i])) return false;
  return true;
}

KQValue pair(const char* field, const KQValue& value) {
  KQValue entry;
  entry.arrayPush(KQValue(field));
  entry.arrayPush(value);
  return entry;
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
  values.arrayPush(pair("ObjectName", KQValue(name)));
  values.arrayPush(pair("colorR", colour[0]));
  values.arrayPush(pair("colorG", colour[1]));
  values.arrayPush(pair("colorB", colour[2]));
  values.arrayPush(pair("scaleX", scale[0]));
  values.arrayPush(pair("scaleY", scale[1]));
  values.arrayPush(pair("scaleZ", scale[2]));
  values.arrayPush(pair("model", model));
  return values;
}

}  // namespace KQ
