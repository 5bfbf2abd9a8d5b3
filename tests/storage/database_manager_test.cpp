// Without a running world: the row layout on values made by hand; KQDatabaseManager on real files read
// back from outside.
#include "storage/database_manager.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <climits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "storage/attribute_rows.h"
#include "storage/object_category.h"
#include "support/checks.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace KQ {
namespace test {
namespace {

TEST(RowLayout, SpecialFieldsFollowTheValuesWithTheSecondCutTo32Bits) {
  KQValue row = list({list({"kg", 0.5f})});
  addSpecialFields(row, "cup1", ko::os::timeval{4'294'967'296LL + 7, 9});
  EXPECT_EQ(list({list({"kg", 0.5f}), list({"ObjectName", "cup1"}), list({"TimeS", 7}), list({"TimeUS", 9})}), row);
}

TEST(RowLayout, AStoredPoseIsReadOnlyFromAWholeRowOfNumbers) {
  const KQValue stored = positionsValues("cup", ko::os::timeval{5, 0}, "World", {0, 0, 0, 1}, {1, 2, 3});
  // Case: an int where a float belongs reads as that float; a NULL, a
  // caller's text (in a pose or time column) or a cut row is refused.
  for (const auto& cell : std::map<int, KQValue>{{8, 6}, {1, "5"}, {4, "1"}, {7, KQValue()}, {11, {}}}) {
    KQValue changed = stored;
    changed.arraySetSize(cell.first < 11 ? 11 : 10);
    if (cell.first < 11) changed[cell.first] = cell.second;
    StoredPose pose;
    EXPECT_EQ(cell.first == 8, readStoredPose(changed, pose)) << cell.first;
    EXPECT_TRUE(cell.first != 8 || pose.translation.x == 6.0f);
  }
}

// The column list of an attribute with these [name, type] fields.
std::string tableOf(const KQValue& fields) {
  ObjectAttribute attribute("t");
  attribute.addField("ObjectName", "text");
  attribute.addField("TimeS", "int");
  attribute.addField("TimeUS", "int");
  for (int i = 0; i < fields.getSize(); ++i) attribute.addField(fields[i][0].toString(), fields[i][1].toString());
  ObjectCategory category("Cups");
  category.addAttribute(attribute);
  return category.getAttributeTable("t");
}

// A "positions" row as the module writes it.
KQValue positionRow(const std::string& object, int timeS, float x = 0.0f) {
  KQValue row;
  setPositionsRow(row, "World", {1, 0, 0, 0}, {x, 0, 0});
  addSpecialFields(row, object, ko::os::timeval{timeS, 0});
  return row;
}

// Cups.sqlite with the two tables every category gets, empty.
class DatabaseManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db_ = KQDatabaseManager(path(), true);
    ASSERT_EQ(0, db_.createTable("positions", tableOf(positionsFieldList())));
    ASSERT_EQ(0, db_.createTable("Display", tableOf(displayFieldList())));
  }
  std::string path() const { return dir_.file("Cups.sqlite"); }
  void addPositions(const std::string& object, int from, int to) {
    for (int t = from; t <= to; ++t) ASSERT_EQ(0, db_.insertRow("positions", positionRow(object, t)));
  }
  long long outsideCount(const std::string& table) { return sqliteScalar(path(), "SELECT count(*) FROM " + table); }

  TempDir dir_;
  LogCapture logs_;
  KQDatabaseManager db_;
};

TEST_F(DatabaseManagerTest, ValuesReadBackTypedByTheDeclaredColumnType) {
  ASSERT_EQ(0, db_.insertRow("positions", positionRow("cup", 1'700'000'000, 0.25f)));
  // Case: "*" reads a positions row in the order the row layout gives it.
  EXPECT_EQ(list({positionsValues("cup", ko::os::timeval{1'700'000'000, 0}, "World", {1, 0, 0, 0}, {0.25f, 0, 0})}),
            db_.select("positions", "1", "*"));
  // Case: the declared type decides, not the value given; a column not given is invalid.
  ASSERT_EQ(0, db_.insertRow("Display", list({list({"model", 7}), list({"scaleX", 3}), list({"TimeS", "42"}),
                                              list({"TimeUS", true})})));
  EXPECT_EQ(list({list({"7", 3.0f, 42, 1, KQValue()})}),
            db_.select("Display", "1", "model, scaleX, TimeS, TimeUS, colorR"));
  // Case: field names SQLite would misread unquoted (a keyword, a space) make one column each.
  ASSERT_EQ(0, db_.createTable("Odd", tableOf(list({list({"order", "text"}), list({"two words", "varchar(20)"})}))));
  ASSERT_EQ(0, db_.insertRow("Odd", list({list({"order", "first"}), list({"two words", 12})})));
  EXPECT_EQ(list({list({"first", "12"})}), db_.select("Odd", "1", "\"order\", \"two words\""));
  // Case: expressions have no declared type and read as SQLite computed them.
  EXPECT_EQ(list({list({1'700'000'001, 0.5f, "cup!", KQValue()})}),
            db_.select("positions", "1", "TimeS + 1, X * 2, ObjectName || '!', NULL"));
  EXPECT_EQ(list({}), db_.select("positions", "ObjectName='plate'", "*"));
  EXPECT_TRUE(logs_.records().empty());
}

TEST_F(DatabaseManagerTest, SelectWithOrderKeepsTheRowsUpToTheLastIndex) {
  addPositions("cup", 1, 3);
  auto times = [this](int last, const char* order) {
    return db_.selectWithOrder("positions", "ObjectName='cup'", order, "TimeS", last);
  };
  const KQValue newestFirst = list({list({3}), list({2}), list({1})});
  EXPECT_EQ(newestFirst, times(-1, "TimeS DESC"));
  EXPECT_EQ(list({list({3})}), times(0, "TimeS DESC"));
  EXPECT_EQ(newestFirst, times(INT_MAX, "TimeS DESC"));  // must not wrap around
  EXPECT_EQ(list({}), times(-1, ""));                    // no ordering: an invalid statement
}

TEST_F(DatabaseManagerTest, SaveLeavesTheRowsInTheDatabaseFileItself) {
  addPositions("cup", 10, 10);
  EXPECT_EQ(0, db_.save());
  // Case: a copy of the main file alone, without its write-ahead log, holds the row.
  writeFile(dir_.file("copy.sqlite"), readFile(path()));
  EXPECT_EQ(10, sqliteScalar(dir_.file("copy.sqlite"), "SELECT TimeS FROM positions"));
  EXPECT_EQ(std::vector<std::vector<std::string>>{{"wal"}}, sqliteRows(path(), "PRAGMA journal_mode"));
}

TEST_F(DatabaseManagerTest, ACallersTransactionCommitsOnlyAtItsEnd) {
  ASSERT_EQ(0, db_.beginTransaction());
  // Case: a second begin is refused and changes nothing.
  EXPECT_NE(0, db_.beginTransaction());
  // Case: a store's own bracket joins the caller's transaction: nothing is committed early.
  EXPECT_EQ(0, db_.inTransaction([&] {
    addPositions("cup", 1, 2);
    return 0;
  }));
  EXPECT_EQ(2, db_.select("positions", "1", "*").getSize());
  EXPECT_EQ(0, outsideCount("positions"));
  ASSERT_EQ(0, db_.endTransaction());
  EXPECT_EQ(2, outsideCount("positions"));
  EXPECT_NE(0, db_.endTransaction());
  // Case: one left open when the connection closes is committed, not lost.
  ASSERT_EQ(0, db_.beginTransaction());
  addPositions("mug", 1, 1);
  db_ = KQDatabaseManager();
  EXPECT_EQ(3, outsideCount("positions"));
}

TEST_F(DatabaseManagerTest, ResetEmptiesEveryTableAndKeepsThem) {
  addPositions("cup", 1, 1);
  ASSERT_EQ(0, db_.insertRow("Display", list({list({"ObjectName", "cup"})})));
  EXPECT_EQ(0, db_.resetDatabase());
  EXPECT_EQ(0, outsideCount("positions") + outsideCount("Display"));
  EXPECT_EQ(0, db_.insertRow("Display", list({list({"ObjectName", "cup"})})));
}

// Each refusal fails, logs one line saying why, and leaves the file as it was.
TEST_F(DatabaseManagerTest, WhatIsNotOneReadOfThisDatabaseIsRefused) {
  addPositions("cup", 1, 1);
  const std::string other = dir_.file("other.sqlite");
  const std::vector<std::pair<bool, std::string>> cases = {
      {db_.insertRow("Display", list({list({"model", list({1.0f})})})) != 0,
       "Cannot bind a value of type array to column model"},
      {db_.insertRow("Display", KQValue("cup")) != 0, "not a list of [column, value] pairs: \"cup\""},
      {db_.updateRow("Display", list({}), "1") != 0, "not a list of [column, value] pairs: []"},
      // Case: a second statement never runs, whichever caller text carries it.
      {db_.deleteRow("positions", "ObjectName='x' AND (1); DROP TABLE positions") != 0,
       "Refused more than one statement: DELETE FROM \"positions\" WHERE ObjectName='x' AND (1); DROP TABLE positions"},
      {db_.select("positions", "1; DROP TABLE positions", "*") == list({}), "Refused more than one statement"},
      {db_.select("positions", "1", "* FROM positions; DROP TABLE positions; --") == list({}), "more than one"},
      {db_.selectWithOrder("positions", "1", "TimeS; DELETE FROM positions", "*", -1) == list({}), "more than one"},
      {db_.select("positions", "1; ATTACH '" + other + "' AS other", "*") == list({}), "more than one"},
      // Case: only this database's own tables are read, and no code is loaded.
      {db_.select("positions", "EXISTS (SELECT name FROM sqlite_master)", "*") == list({}),
       "access to sqlite_master.name is prohibited"},
      {db_.deleteRow("positions", "EXISTS (SELECT name FROM sqlite_master)") != 0, "prohibited"},
      {db_.select("positions", "EXISTS (SELECT * FROM pragma_table_info('positions'))", "*") == list({}), "prohibited"},
      {db_.select("positions", "load_extension('libm.so.6') IS NULL", "*") == list({}), "not authorized"},
  };
  const std::vector<std::string> lines = logs_.messages();
  ASSERT_EQ(cases.size(), lines.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_TRUE(cases[i].first) << cases[i].second;
    EXPECT_NE(std::string::npos, lines[i].find(cases[i].second)) << lines[i];
  }
  EXPECT_EQ(1, outsideCount("positions"));
  EXPECT_EQ(0, outsideCount("Display"));
  EXPECT_FALSE(fileExists(other));
  // Case: a subquery on this database's own tables and trailing blanks stay allowed.
  EXPECT_EQ(1, db_.select("positions", "ObjectName IN (SELECT ObjectName FROM positions) ;  \n", "*").getSize());
}

TEST_F(DatabaseManagerTest, ARunawayQueryIsInterruptedAndTheConnectionGoesOn) {
  addPositions("cup", 1, 1);
  db_.setQueryDeadline(200);
  // No row ever has x < 0: the recursion never ends on its own.
  const std::string endless =
      "EXISTS (WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) SELECT 1 FROM n WHERE x < 0)";
  EXPECT_EQ(list({}), db_.select("positions", endless, "*"));
  EXPECT_EQ(std::vector<std::string>{"Statement interrupted at its deadline of 200 ms (--sql-timeout-ms): SELECT * "
                                     "FROM \"positions\" WHERE " + endless},
            logs_.messagesOf("select"));
  // Case: conditions of updates and deletes have the same deadline, and change nothing.
  EXPECT_NE(0, db_.deleteRow("positions", endless));
  EXPECT_NE(0, db_.updateRow("positions", list({list({"X", 1.0f})}), endless));
  // Case: the interrupted statement goes back to the cache and is usable again.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(list({}), db_.selectWithOrder("positions", endless, "TimeS", "*", 0));
  EXPECT_EQ(1, db_.select("positions", "1", "*").getSize());
}

TEST_F(DatabaseManagerTest, EveryTableHasTheObjectTimeIndexAgainAfterLoad) {
  const std::string indexes = "SELECT name FROM sqlite_master WHERE type='index' ORDER BY name";
  const std::vector<std::vector<std::string>> both = {{"Display_ObjectName_TimeS"}, {"positions_ObjectName_TimeS"}};
  EXPECT_EQ(both, sqliteRows(path(), indexes));
  // Case: a file whose index went missing gets it back on load.
  sqlite3* other = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &other));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(other, "DROP INDEX positions_ObjectName_TimeS", nullptr, nullptr, nullptr));
  sqlite3_close(other);
  EXPECT_EQ(0, db_.load());
  EXPECT_EQ(both, sqliteRows(path(), indexes));
}

TEST(DatabaseManagerFileTest, ANonDatabaseFileOrNoFileFailsEveryOperation) {
  TempDir dir;
  LogCapture logs;
  const std::string text = "shopping list: cups, plates\n";
  KQDatabaseManager notADatabase(dir.writeFile("Notes.sqlite", text), true), unbound;
  for (KQDatabaseManager* db : {&notADatabase, &unbound}) {
    EXPECT_NE(0, db->load());
    EXPECT_NE(0, db->insertRow("positions", positionRow("cup", 1)));
    EXPECT_EQ(list({}), db->select("positions", "1", "*"));
  }
  // Case: the file is left exactly as it was.
  EXPECT_EQ(text, readFile(dir.file("Notes.sqlite")));
  EXPECT_NE(std::string::npos, logs.messagesOf("load").at(0).find("file is not a database"));
}

TEST_F(DatabaseManagerTest, ConcurrentReadersOnOneConnectionEachGetTheirOwnRows) {
  for (int object = 0; object < 8; ++object) addPositions("obj" + std::to_string(object), 0, object);
  // Eight readers run the same statement texts at once: a statement reset
  // under a reader would cut its rows short or mix them up.
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int object = 0; object < 8; ++object)
    readers.emplace_back([&, object]() {
      const std::string where = "ObjectName='obj" + std::to_string(object) + "'";
      for (int i = 0; i < 200; ++i)
        wrong += db_.selectWithOrder("positions", where, "TimeS DESC", "TimeS", 0) != list({list({object})}) ||
                 db_.selectWithOrder("positions", "1", "TimeS DESC", "TimeS", 0) != list({list({7})});
    });
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(0, wrong.load());
}

TEST_F(DatabaseManagerTest, GroupedRowsShareACommitAndKeepTheCallOrder) {
  const auto append = [this](const std::string& object, int timeS) {
    uint64_t ticket = 0;
    EXPECT_EQ(0, db_.appendToGroup({{"positions", positionRow(object, timeS)}}, ticket));
    return ticket;
  };
  // Case: rows queued before any commit share one group; its commit puts both on disk.
  const uint64_t first = append("cup", 1);
  EXPECT_EQ(first, append("cup", 2));
  EXPECT_EQ(0, outsideCount("positions"));
  EXPECT_EQ(0, db_.commitGroup(first));
  EXPECT_EQ(2, outsideCount("positions"));
  // Case: any other use writes the queued rows first: a read sees them, a delete removes them.
  const uint64_t second = append("mug", 3);
  EXPECT_NE(first, second);
  EXPECT_EQ(3, db_.select("positions", "1", "*").getSize());
  append("mug", 4);
  ASSERT_EQ(0, db_.deleteRow("positions", "ObjectName='mug'"));
  EXPECT_EQ(0, db_.commitGroup(second));
  EXPECT_EQ(2, outsideCount("positions"));
  // Case: inside a caller's transaction the row joins it: ticket 0, on disk at its end.
  ASSERT_EQ(0, db_.beginTransaction());
  EXPECT_EQ(0u, append("bowl", 5));
  ASSERT_EQ(0, db_.endTransaction());
  EXPECT_EQ(3, outsideCount("positions"));
  // Case: eight threads appending and committing at once: each returns with its rows on disk.
  std::atomic<int> missing{0};
  std::vector<std::thread> movers;
  for (int mover = 0; mover < 8; ++mover)
    movers.emplace_back([&, mover]() {
      const std::string object = "mover" + std::to_string(mover);
      for (int timeS = 1; timeS <= 50; ++timeS) {
        EXPECT_EQ(0, db_.commitGroup(append(object, timeS)));
        missing += sqliteScalar(path(), "SELECT count(*) FROM positions WHERE ObjectName='" + object + "'") != timeS;
      }
    });
  for (std::thread& mover : movers) mover.join();
  EXPECT_EQ(0, missing.load());
  EXPECT_EQ(3 + 8 * 50, outsideCount("positions"));
  EXPECT_TRUE(logs_.records().empty());
}

}  // namespace
}  // namespace test
}  // namespace KQ
