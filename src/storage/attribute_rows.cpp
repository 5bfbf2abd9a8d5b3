#include "storage/attribute_rows.h"

#include <cstdint>
#include <initializer_list>
#include <utility>

namespace KQ {

const char* const kPositionsAttributeName = "positions";
const char* const kDisplayAttributeName = "Display";

namespace {

constexpr int kPoseColumn = 4;  // QuatW in a "*" row
constexpr const char* kPositionsFields[8] = {"ParentName", "QuatW", "QuatX", "QuatY", "QuatZ", "X", "Y", "Z"};

KQValue pair(KQValue first, KQValue second) {
  KQValue result;
  result.arraySetSize(2);
  result[0] = std::move(first);
  result[1] = std::move(second);
  return result;
}

KQValue fieldList(std::initializer_list<std::pair<const char*, const char*>> fields) {
  KQValue list;
  list.arraySetSize(0);
  for (const auto& field : fields) list.arrayPush(pair(KQValue(field.first), KQValue(field.second)));
  return list;
}

float at(const std::vector<float>& values, std::size_t index) { return index < values.size() ? values[index] : 0.0f; }

// "int" columns come back as ints, "float" columns as floats.
bool number(const KQValue& cell, float& out) {
  if (cell.isFloat()) {
    out = cell.toFloat();
    return true;
  }
  if (cell.isInt()) {
    out = static_cast<float>(cell.toInt());
    return true;
  }
  return false;
}

int timeSeconds(const ko::os::timeval& time) { return static_cast<int>(static_cast<int32_t>(time.tv_sec)); }

}  // namespace

KQValue fieldPair(const std::string& column, const KQValue& value) { return pair(KQValue(column), value); }

std::string objectCondition(const std::string& objectName) { return "ObjectName='" + objectName + "'"; }

void addSpecialFields(KQValue& row, const std::string& objectName, const ko::os::timeval& time) {
  row.arrayPush(pair(KQValue("ObjectName"), KQValue(objectName)));
  row.arrayPush(pair(KQValue("TimeS"), KQValue(timeSeconds(time))));
  row.arrayPush(pair(KQValue("TimeUS"), KQValue(static_cast<int>(time.tv_usec))));
}

const KQValue& positionsFieldList() {
  static const KQValue fields = fieldList({{"ParentName", "text"},
                                           {"QuatW", "float"},
                                           {"QuatX", "float"},
                                           {"QuatY", "float"},
                                           {"QuatZ", "float"},
                                           {"X", "float"},
                                           {"Y", "float"},
                                           {"Z", "float"}});
  return fields;
}

const KQValue& displayFieldList() {
  static const KQValue fields = fieldList({{"colorR", "float"},
                                           {"colorG", "float"},
                                           {"colorB", "float"},
                                           {"scaleX", "float"},
                                           {"scaleY", "float"},
                                           {"scaleZ", "float"},
                                           {"model", "text"}});
  return fields;
}

void setPositionsRow(KQValue& row, const std::string& parentName, const std::vector<float>& quaternion,
                     const std::vector<float>& translation) {
  if (!row.isArray() || row.getSize() != 8) {
    row.arraySetSize(8);
    for (int i = 0; i < 8; ++i) row[i] = pair(KQValue(kPositionsFields[i]), KQValue());
  }
  row[0][1] = parentName;
  for (int i = 0; i < 4; ++i) row[1 + i][1] = at(quaternion, static_cast<std::size_t>(i));
  for (int i = 0; i < 3; ++i) row[5 + i][1] = at(translation, static_cast<std::size_t>(i));
}

KQValue positionsValues(const std::string& objectName, const ko::os::timeval& time, const std::string& parentName,
                        const std::vector<float>& quaternion, const std::vector<float>& translation) {
  KQValue values;
  values.arraySetSize(0);
  values.arrayPush(KQValue(objectName));
  values.arrayPush(KQValue(timeSeconds(time)));
  values.arrayPush(KQValue(static_cast<int>(time.tv_usec)));
  values.arrayPush(KQValue(parentName));
  for (float q : quaternion) values.arrayPush(KQValue(q));
  for (float t : translation) values.arrayPush(KQValue(t));
  return values;
}

bool readStoredPose(const KQValue& row, StoredPose& out) {
  if (!row.isArray() || row.getSize() < kPoseColumn + 7) return false;
  const KQValue& seconds = row[1];
  if (seconds.isInt()) {
    out.timeS = seconds.toInt();
  } else if (seconds.isFloat()) {
    out.timeS = static_cast<int>(seconds.toFloat());
  } else {
    return false;
  }
  float v[7];
  for (int i = 0; i < 7; ++i) {
    if (!number(row[kPoseColumn + i], v[i])) return false;
  }
  out.rotation = Math::Quaternion(v[0], v[1], v[2], v[3]);
  out.translation = Math::Position3D(v[4], v[5], v[6]);
  return true;
}

std::string latestPositionsQuery() {
  return "SELECT \"ObjectName\", \"TimeS\", \"TimeUS\", \"ParentName\", \"QuatW\", \"QuatX\", \"QuatY\", "
         "\"QuatZ\", \"X\", \"Y\", \"Z\", max(\"TimeS\" * 1000000 + \"TimeUS\") FROM \"positions\" "
         "GROUP BY \"ObjectName\"";
}

std::string displayedObjectsQuery() { return "SELECT DISTINCT \"ObjectName\" FROM \"Display\""; }

bool readLatestPosition(const KQValue& row, LatestPosition& out) {
  StoredPose pose;
  if (!readStoredPose(row, pose) || !row[0].isString() || !row[kPoseColumn - 1].isString() || !row[2].isInt())
    return false;
  out.objectName = row[0].toString();
  out.parentName = row[kPoseColumn - 1].toString();
  out.timeS = pose.timeS;
  out.timeUS = row[2].toInt();
  out.quaternion = pose.rotation.toVector();
  out.translation = pose.translation.toVector();
  return true;
}

}  // namespace KQ
