// Helpers shared by the objects suites: a world on a manual clock, building
// attribute lists, reading "positions" rows straight from a category's SQLite
// file (a second connection, independent of the module), and comparing poses.
#ifndef KQ_TESTS_OBJECTS_OBJECTS_TEST_SUPPORT_H_
#define KQ_TESTS_OBJECTS_OBJECTS_TEST_SUPPORT_H_

#include <sqlite3.h>

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/value.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {

constexpr float kHalfPi = 1.57079632679f;
constexpr float kTolerance = 1e-5f;

// [field, value]
inline KQValue fieldPair(const std::string& field, const KQValue& value) {
  return KQValue(std::vector<KQValue>{KQValue(field), value});
}

// [[attribute, [[field, value], ...]]] with one attribute.
inline KQValue oneAttribute(const std::string& attribute, const std::vector<KQValue>& pairs) {
  return KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{KQValue(attribute), KQValue(pairs)})});
}

inline KQValue noAttributes() {
  KQValue empty;
  empty.arraySetSize(0);
  return empty;
}

// x, y, z, wx, wy, wz
inline std::vector<float> pose6D(float x, float y, float z, float wz = 0.0f) { return {x, y, z, 0.0f, 0.0f, wz}; }

// A 3x4 transform, row by row: rotation about z by `yaw`, then the translation.
inline std::vector<float> yawTransform(float yaw, float x, float y, float z) {
  const float c = std::cos(yaw), s = std::sin(yaw);
  return {c, -s, 0.0f, x, s, c, 0.0f, y, 0.0f, 0.0f, 1.0f, z};
}

inline void expectFloats(const std::vector<float>& actual, const std::vector<float>& expected,
                         float tolerance = kTolerance) {
  ASSERT_EQ(expected.size(), actual.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], tolerance) << "element " << i;
}

// Yaw angles near +-pi name the same rotation; compares them as angles.
inline void expectYawNear(float expected, float actual) {
  EXPECT_NEAR(0.0f, std::sin(expected - actual), kTolerance) << expected << " vs " << actual;
  EXPECT_GT(std::cos(expected - actual), 0.0f) << expected << " vs " << actual;
}

// The translation of a Position6D and its yaw, for poses rotated about z.
inline void expectPose(const std::vector<float>& actual, const std::vector<float>& translation, float yaw) {
  ASSERT_EQ(6u, actual.size());
  expectFloats({actual[0], actual[1], actual[2]}, translation);
  expectYawNear(yaw, actual[5]);
}

// One row of a "positions" table as it lies in the file.
struct HistoryRow {
  long long timeS = 0;
  long long timeUS = 0;
  std::string parentName;
  double quaternion[4] = {0, 0, 0, 0};
  double translation[3] = {0, 0, 0};
};

// Opens the category's file read-only beside the module's own connection.
class HistoryFile {
 public:
  explicit HistoryFile(const std::string& path) {
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr)) << path;
  }
  ~HistoryFile() { sqlite3_close_v2(db_); }
  HistoryFile(const HistoryFile&) = delete;
  HistoryFile& operator=(const HistoryFile&) = delete;

  // Rows of one object in insertion order.
  std::vector<HistoryRow> positions(const std::string& object) const {
    std::vector<HistoryRow> rows;
    sqlite3_stmt* stmt = prepare(
        "SELECT TimeS, TimeUS, ParentName, QuatW, QuatX, QuatY, QuatZ, X, Y, Z FROM positions "
        "WHERE ObjectName = ?1 ORDER BY rowid",
        object);
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
      HistoryRow row;
      row.timeS = sqlite3_column_int64(stmt, 0);
      row.timeUS = sqlite3_column_int64(stmt, 1);
      const unsigned char* parent = sqlite3_column_text(stmt, 2);
      row.parentName = parent ? reinterpret_cast<const char*>(parent) : "";
      for (int i = 0; i < 4; ++i) row.quaternion[i] = sqlite3_column_double(stmt, 3 + i);
      for (int i = 0; i < 3; ++i) row.translation[i] = sqlite3_column_double(stmt, 7 + i);
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
  }

  // Number of rows of `table` that belong to `object`.
  int count(const std::string& table, const std::string& object) const {
    sqlite3_stmt* stmt = prepare("SELECT COUNT(*) FROM \"" + table + "\" WHERE ObjectName = ?1", object);
    const int n = stmt && sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : -1;
    sqlite3_finalize(stmt);
    return n;
  }

 private:
  sqlite3_stmt* prepare(const std::string& sql, const std::string& object) const {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(db_);
      return nullptr;
    }
    sqlite3_bind_text(stmt, 1, object.c_str(), -1, SQLITE_TRANSIENT);
    return stmt;
  }

  sqlite3* db_ = nullptr;
};

// The world of WorldFixture on a clock that moves only when the test moves
// it: rows get known stamps and the odometry throttle never fires by itself.
class ClockedWorld : public WorldFixture {
 protected:
  ManualClock clock_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_OBJECTS_OBJECTS_TEST_SUPPORT_H_
