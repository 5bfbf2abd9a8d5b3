// The layout of attribute rows, in one place: the special fields every row
// starts with ("ObjectName", "TimeS", "TimeUS"), the "positions" row (parent
// name, rotation w x y z, translation x y z in metres, in the parent's
// frame), and the condition text that picks one object's rows.
//
// Rows given to the database manager are arrays of [column, value] pairs;
// rows read back are arrays of column values in table order, so a "*"
// select of "positions" reads ObjectName, TimeS, TimeUS, ParentName, QuatW,
// QuatX, QuatY, QuatZ, X, Y, Z.
//
// Threading: free functions of their arguments; the field lists are
// immutable once built.
#ifndef KQ_STORAGE_ATTRIBUTE_ROWS_H_
#define KQ_STORAGE_ATTRIBUTE_ROWS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "middleware/os.h"
#include "middleware/value.h"

namespace KQ {

extern const char* const kPositionsAttributeName;  // "positions"
extern const char* const kDisplayAttributeName;    // "Display"

// [column, value]: one pair of a row given to the database manager.
KQValue fieldPair(const std::string& column, const KQValue& value);

// "ObjectName='name'". The name is not escaped: a name holding a quote
// makes the statement fail, as callers of the module know it.
std::string objectCondition(const std::string& objectName);

// Appends the three special pairs; TimeS is the epoch second cut to 32 bits,
// as the "int" column keeps it.
void addSpecialFields(KQValue& row, const std::string& objectName, const ko::os::timeval& time);

// The [field, type] pairs of "positions" and "Display" after the special fields.
const KQValue& positionsFieldList();
const KQValue& displayFieldList();

// Sets `row` to the 8 [field, value] pairs of a "positions" row. Missing
// elements of short lists read as 0. Reuses the pairs already in `row`, so
// a row kept per thread costs no allocation on the saved-move path.
void setPositionsRow(KQValue& row, const std::string& parentName, const std::vector<float>& quaternion,
                     const std::vector<float>& translation);

// The flat values of a "positions" row as a "*" select would read them.
KQValue positionsValues(const std::string& objectName, const ko::os::timeval& time, const std::string& parentName,
                        const std::vector<float>& quaternion, const std::vector<float>& translation);

// A "positions" row read back: its second and pose.
struct StoredPose {
  int timeS = 0;
  Math::Quaternion rotation;
  Math::Position3D translation;
};

// Reads a "*" row of "positions"; false when it is too short or holds a
// non-number (NULL, text a caller stored) where a number belongs. Ints read
// as floats.
bool readStoredPose(const KQValue& row, StoredPose& out);

// The statement that reads each object's latest "positions" row, as "*"
// rows (the newest by TimeS, TimeUS; SQLite takes the bare columns from the
// row that holds the max).
std::string latestPositionsQuery();
// The statement that lists the objects with at least one "Display" row.
std::string displayedObjectsQuery();

// A latest "positions" row read back whole.
struct LatestPosition {
  std::string objectName;
  std::string parentName;
  int64_t timeS = 0;
  int64_t timeUS = 0;
  std::vector<float> quaternion;   // w, x, y, z
  std::vector<float> translation;  // x, y, z, metres in the parent's frame
};

// Reads a row of latestPositionsQuery; false as readStoredPose, or when the
// names are not text.
bool readLatestPosition(const KQValue& row, LatestPosition& out);

}  // namespace KQ

#endif  // KQ_STORAGE_ATTRIBUTE_ROWS_H_
