// KQDatabaseManager and the world-info records against real SQLite files in
// a temporary folder. The tables are the ones every category gets
// ("positions", "Display"), made from the records' own column lists, so
// these tests also hold the records and the engine to one format.
#include "storage/database_manager.h"

#include <sqlite3.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/log.h"
#include "storage/object_category.h"
#include "support/temp_dir.h"

namespace KQ {
namespace {

ObjectAttribute withSpecialFields(const std::string& name) {
  ObjectAttribute attribute(name);
  attribute.addField("ObjectName", "text");
  attribute.addField("TimeS", "int");
  attribute.addField("TimeUS", "int");
  return attribute;
}

ObjectCategory cupsCategory() {
  ObjectCategory category("Cups");
  ObjectAttribute positions = withSpecialFields("positions");
  positions.addField("ParentName", "text");
  for (const char* name : {"QuatW", "QuatX", "QuatY", "QuatZ", "X", "Y", "Z"}) positions.addField(name, "float");
  category.addAttribute(positions);
  ObjectAttribute display = withSpecialFields("Display");
  for (const char* name : {"colorR", "colorG", "colorB", "scaleX", "scaleY", "scaleZ"}) display.addField(name, "float");
  display.addField("model", "text");
  category.addAttribute(display);
  return category;
}

KQValue pair(const std::string& column, const KQValue& value) {
  return KQValue(std::vector<KQValue>{KQValue(column), value});
}

// A "positions" row as the module writes it: fields first, the three special
// pairs appended last.
KQValue positionRow(const std::string& object, int timeS, float x, const std::string& parent = "World") {
  return KQValue(std::vector<KQValue>{pair("ParentName", parent), pair("QuatW", 1.0f), pair("QuatX", 0.0f),
                                      pair("QuatY", 0.0f), pair("QuatZ", 0.0f), pair("X", x), pair("Y", 0.0f),
                                      pair("Z", 0.0f), pair("ObjectName", object), pair("TimeS", timeS),
                                      pair("TimeUS", 0)});
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A second, independent connection to the same file, for looking at what the
// manager left on disk.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) {
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr));
  }
  ~RawConnection() { sqlite3_close_v2(db_); }
  // Every row's columns as text, joined with "|"; rows joined with "\n".
  std::string query(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) return std::string("error: ") + sqlite3_errmsg(db_);
    std::string out;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      if (!out.empty()) out += "\n";
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        if (i != 0) out += "|";
        const unsigned char* text = sqlite3_column_text(stmt, i);
        out += text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
      }
    }
    sqlite3_finalize(stmt);
    return out;
  }
  int exec(const std::string& sql) { return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }

 private:
  sqlite3* db_ = nullptr;
};

class DatabaseManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_ = std::make_shared<ko::log::CaptureSink>();
    ko::log::addSink(capture_);
  }
  void TearDown() override { ko::log::removeSink(capture_); }

  std::string path() const { return dir_.file("Cups.sqlite"); }

  // Cups.sqlite with the "positions" and "Display" tables, empty.
  KQDatabaseManager openCups() {
    KQDatabaseManager db(path(), true);
    ObjectCategory cups = cupsCategory();
    EXPECT_EQ(0, db.createTable("positions", cups.getAttributeTable("positions")));
    EXPECT_EQ(0, db.createTable("Display", cups.getAttributeTable("Display")));
    return db;
  }

  std::vector<std::string> messages(const std::string& function) const {
    std::vector<std::string> out;
    for (const ko::log::Record& record : capture_->find("KQDatabaseManager", function)) out.push_back(record.message);
    return out;
  }

  int positionCount(KQDatabaseManager& db) { return db.select("positions", "1", "*").getSize(); }

  test::TempDir dir_;
  std::shared_ptr<ko::log::CaptureSink> capture_;
};

TEST_F(DatabaseManagerTest, ResultsComeBackTypedByColumn) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1700000000, 0.25f)));

  // Case: "*" lists the special columns first, each typed by its declared type.
  KQValue rows = db.select("positions", "ObjectName='cup'", "*");
  ASSERT_EQ(1, rows.getSize());
  const KQValue& row = rows[0];
  ASSERT_EQ(11, row.getSize());
  EXPECT_EQ(KQValue("cup"), row[0]);
  EXPECT_EQ(KQValue(1700000000), row[1]);
  EXPECT_EQ(KQValue("World"), row[3]);
  EXPECT_EQ(KQValue(0.25f), row[8]);

  // Case: a column the row did not name reads back as an invalid value.
  ASSERT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("colorR", 0.5f), pair("ObjectName", "cup")})));
  rows = db.select("Display", "ObjectName='cup'", "colorR, colorG, model, TimeS");
  ASSERT_EQ(1, rows.getSize());
  EXPECT_EQ(KQValue(0.5f), rows[0][0]);
  EXPECT_FALSE(rows[0][1].isValid() || rows[0][2].isValid() || rows[0][3].isValid());

  // Case: the declared type decides, not what the caller handed in: an int
  // into a "text" column reads back as a string, an int into a "float"
  // column as a float, a numeric string into an "int" column as an int, and
  // a bool binds as an int.
  ASSERT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("model", 7), pair("scaleX", 3),
                                                                    pair("ObjectName", "mug"), pair("TimeS", "42"),
                                                                    pair("TimeUS", true)})));
  rows = db.select("Display", "ObjectName='mug'", "model, scaleX, TimeS, TimeUS");
  ASSERT_EQ(1, rows.getSize());
  EXPECT_EQ(KQValue("7"), rows[0][0]);
  EXPECT_EQ(KQValue(3.0f), rows[0][1]);
  EXPECT_EQ(KQValue(42), rows[0][2]);
  EXPECT_EQ(KQValue(1), rows[0][3]);

  // Case: expression columns have no declared type and read by what SQLite
  // computed.
  rows = db.select("positions", "ObjectName='cup'", "TimeS + 1, X * 2, ObjectName || '!', NULL");
  ASSERT_EQ(1, rows.getSize());
  EXPECT_EQ(KQValue(1700000001), rows[0][0]);
  EXPECT_EQ(KQValue(0.5f), rows[0][1]);
  EXPECT_EQ(KQValue("cup!"), rows[0][2]);
  EXPECT_FALSE(rows[0][3].isValid());

  // Case: no row matches, or the table is empty: an empty array, no error.
  KQValue none = db.select("positions", "ObjectName='plate'", "*");
  EXPECT_TRUE(none.isArray() && none.getSize() == 0);
  EXPECT_EQ(0, db.resetDatabase());
  none = db.selectWithOrder("positions", "1", "TimeS DESC", "*", -1);
  EXPECT_TRUE(none.isArray() && none.getSize() == 0);
  EXPECT_TRUE(capture_->find("KQDatabaseManager").empty());
}

TEST_F(DatabaseManagerTest, RowsOfTheWrongShapeAreRefusedAndNothingIsWritten) {
  KQDatabaseManager db = openCups();

  // Case: an array value has no column form.
  KQValue withArray(std::vector<KQValue>{pair("model", KQValue(std::vector<float>{1.0f})), pair("ObjectName", "cup")});
  EXPECT_NE(0, db.insertRow("Display", withArray));
  EXPECT_EQ((std::vector<std::string>{"Cannot bind a value of type array to column model"}), messages("insertRow"));

  // Case: a row that is not a list of pairs.
  capture_->clear();
  EXPECT_NE(0, db.insertRow("Display", KQValue("cup")));
  EXPECT_NE(0, db.insertRow("Display", KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{KQValue(1), KQValue(2)})})));
  EXPECT_NE(0, db.updateRow("Display", KQValue(std::vector<KQValue>{}), "1"));
  EXPECT_EQ((std::vector<std::string>{"Row for Display is not a list of [column, value] pairs: \"cup\"",
                                      "Row for Display is not a list of [column, value] pairs: [[1, 2]]"}),
            messages("insertRow"));
  EXPECT_EQ((std::vector<std::string>{"Row for Display is not a list of [column, value] pairs: []"}),
            messages("updateRow"));

  // Case: a column the table does not have.
  EXPECT_NE(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("weight", 2.0f)})));
  // Case: a table that does not exist.
  EXPECT_NE(0, db.insertRow("Handles", positionRow("cup", 1, 0.0f)));

  EXPECT_EQ(0, db.select("Display", "1", "*").getSize());
}

TEST_F(DatabaseManagerTest, SelectWithOrderCutsAfterTheLastIndex) {
  KQDatabaseManager db = openCups();
  for (int t = 1; t <= 5; ++t) ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", t, static_cast<float>(t))));
  ASSERT_EQ(0, db.insertRow("positions", positionRow("plate", 9, 9.0f)));

  // Case: -1 keeps every matching row, in the asked order.
  KQValue all = db.selectWithOrder("positions", "ObjectName='cup'", "TimeS DESC", "TimeS", -1);
  ASSERT_EQ(5, all.getSize());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(KQValue(5 - i), all[i][0]);

  // Case: 0 keeps the first row only: the latest value.
  KQValue latest = db.selectWithOrder("positions", "ObjectName='cup'", "TimeS DESC", "TimeS, X", 0);
  ASSERT_EQ(1, latest.getSize());
  EXPECT_EQ(KQValue(5), latest[0][0]);
  EXPECT_EQ(KQValue(5.0f), latest[0][1]);

  // Case: 2 keeps three rows; ascending order starts from the oldest.
  KQValue three = db.selectWithOrder("positions", "ObjectName='cup'", "TimeS ASC", "TimeS", 2);
  ASSERT_EQ(3, three.getSize());
  EXPECT_EQ(KQValue(1), three[0][0]);
  EXPECT_EQ(KQValue(3), three[2][0]);

  // Case: a cut larger than the table and INT_MAX do not wrap around.
  EXPECT_EQ(5, db.selectWithOrder("positions", "ObjectName='cup'", "TimeS", "*", 100).getSize());
  EXPECT_EQ(5, db.selectWithOrder("positions", "ObjectName='cup'", "TimeS", "*", 2147483647).getSize());

  // Case: an empty ordering is an invalid statement: empty result.
  EXPECT_EQ(0, db.selectWithOrder("positions", "ObjectName='cup'", "", "*", -1).getSize());
}

TEST_F(DatabaseManagerTest, UpdateAndDeleteTouchOnlyTheMatchingRows) {
  KQDatabaseManager db = openCups();
  for (int t = 1; t <= 4; ++t) ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", t, 0.0f)));
  ASSERT_EQ(0, db.insertRow("positions", positionRow("plate", 1, 0.0f)));

  // Case: update of one object's rows, as the attribute update wraps it.
  EXPECT_EQ(0, db.updateRow("positions", KQValue(std::vector<KQValue>{pair("X", 2.5f), pair("ParentName", "table")}),
                            "ObjectName='cup' AND (TimeS >= 3)"));
  KQValue rows = db.select("positions", "X > 2", "ObjectName, TimeS, ParentName");
  ASSERT_EQ(2, rows.getSize());
  EXPECT_EQ(KQValue("cup"), rows[0][0]);
  EXPECT_EQ(KQValue("table"), rows[1][2]);

  // Case: pruning old positions keeps the newer rows and the other object.
  EXPECT_EQ(0, db.deleteRow("positions", "ObjectName='cup' AND (TimeS < 3)"));
  EXPECT_EQ(3, positionCount(db));

  // Case: clearing an object removes all its rows.
  EXPECT_EQ(0, db.deleteRow("positions", "ObjectName='cup' AND (1)"));
  rows = db.select("positions", "1", "ObjectName");
  ASSERT_EQ(1, rows.getSize());
  EXPECT_EQ(KQValue("plate"), rows[0][0]);
}

TEST_F(DatabaseManagerTest, RowsSurviveSaveCloseAndReopen) {
  const int before = KQDatabaseManager::openConnectionCount();
  {
    KQDatabaseManager db = openCups();
    ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 10, 1.5f)));
    ASSERT_EQ(0, db.beginTransaction());
    ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 11, 2.5f)));
    ASSERT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("model", "cup.dae"), pair("ObjectName", "cup")})));
    ASSERT_EQ(0, db.endTransaction());
    EXPECT_EQ(0, db.save());

    // Case: after save the rows are in the database file itself, not only
    // in its write-ahead log: a copy of the main file alone holds them.
    std::ofstream(dir_.file("copy.sqlite"), std::ios::binary) << readFile(path());
    RawConnection copy(dir_.file("copy.sqlite"));
    EXPECT_EQ("10|1.5\n11|2.5", copy.query("SELECT TimeS, X FROM positions ORDER BY TimeS"));
    EXPECT_EQ("cup.dae", copy.query("SELECT model FROM Display"));
  }
  EXPECT_EQ(before, KQDatabaseManager::openConnectionCount());

  // Case: a new manager on the file, after load, answers with the rows.
  KQDatabaseManager db(path(), true);
  EXPECT_EQ(0, db.load());
  EXPECT_EQ(path(), db.storagePath());
  KQValue rows = db.selectWithOrder("positions", "ObjectName='cup'", "TimeS DESC", "X", 0);
  ASSERT_EQ(1, rows.getSize());
  EXPECT_EQ(KQValue(2.5f), rows[0][0]);
  EXPECT_EQ(0, db.insertRow("positions", positionRow("cup", 12, 3.5f)));

  // Case: the file runs in WAL mode.
  RawConnection raw(path());
  EXPECT_EQ("wal", raw.query("PRAGMA journal_mode"));
}

TEST(ObjectCategoryTest, AttributesAreReplacedWholeAndTheirTableCreatesTheTable) {
  ObjectCategory cups = cupsCategory();

  // Case: adding a name again replaces the stored copy, not duplicates it;
  // the stored copy does not follow later changes of the caller's.
  ObjectAttribute display = withSpecialFields("Display");
  display.addField("model", "text");
  cups.addAttribute(display);
  display.addField("scaleX", "float");
  ASSERT_EQ(2u, cups.getAttributes().size());
  EXPECT_EQ("\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"model\" text", cups.getAttributeTable("Display"));
  EXPECT_EQ("", cups.getAttributeTable("Weight"));

  // Case: field names SQLite would otherwise misread (a keyword, a space, a
  // double quote) still make one column each, and the declared type of a
  // user attribute can be any type text SQLite accepts.
  ObjectAttribute odd = withSpecialFields("Odd");
  odd.addField("order", "text");
  odd.addField("two words", "varchar(20)");
  odd.addField("say \"hi\"", "double precision");
  cups.addAttribute(odd);
  EXPECT_EQ("\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"order\" text, \"two words\" varchar(20), "
            "\"say \"\"hi\"\"\" double precision",
            cups.getAttributeTable("Odd"));
  test::TempDir dir;
  KQDatabaseManager db(dir.file("Cups.sqlite"), true);
  ASSERT_EQ(0, db.createTable("Odd", cups.getAttributeTable("Odd")));
  ASSERT_EQ(0, db.insertRow("Odd", KQValue(std::vector<KQValue>{pair("order", "first"), pair("two words", 12),
                                                                 pair("say \"hi\"", 0.5f), pair("ObjectName", "cup")})));
  EXPECT_EQ(KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{KQValue("first"), KQValue("12"), KQValue(0.5f)})}),
            db.select("Odd", "ObjectName='cup'", "\"order\", \"two words\", \"say \"\"hi\"\"\""));
}


TEST_F(DatabaseManagerTest, TransactionsGroupWritesAndNest) {
  KQDatabaseManager db = openCups();

  // Case: rows written inside a transaction are seen by this manager at once
  // and by another connection only after the commit.
  ASSERT_EQ(0, db.beginTransaction());
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  EXPECT_EQ(1, positionCount(db));
  {
    RawConnection other(path());
    EXPECT_EQ("0", other.query("SELECT count(*) FROM positions"));
  }
  // Case: a store that brackets its rows inside the caller's transaction
  // joins it; its end does not commit the caller's work early.
  ASSERT_EQ(0, db.beginTransaction());
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 2, 0.0f)));
  ASSERT_EQ(0, db.endTransaction());
  {
    RawConnection other(path());
    EXPECT_EQ("0", other.query("SELECT count(*) FROM positions"));
  }
  // Case: createTable inside the open transaction joins it.
  EXPECT_EQ(0, db.createTable("Handles", "\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"side\" text"));
  EXPECT_EQ(0, db.endTransaction());
  {
    RawConnection other(path());
    EXPECT_EQ("2", other.query("SELECT count(*) FROM positions"));
    EXPECT_EQ("0", other.query("SELECT count(*) FROM Handles"));
  }

  // Case: a commit with no open transaction fails.
  EXPECT_NE(0, db.endTransaction());
  EXPECT_EQ(1u, messages("endTransaction").size());
}

TEST_F(DatabaseManagerTest, ResetEmptiesEveryTableAndKeepsThem) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  ASSERT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("ObjectName", "cup")})));

  EXPECT_EQ(0, db.resetDatabase());
  EXPECT_EQ(0, positionCount(db));
  EXPECT_EQ(0, db.select("Display", "1", "*").getSize());

  // Case: inserts go on into every table without a new createTable.
  EXPECT_EQ(0, db.insertRow("positions", positionRow("cup", 2, 0.0f)));
  EXPECT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("ObjectName", "cup")})));

  // Case: createTable on an existing table keeps its rows.
  EXPECT_EQ(0, db.createTable("positions", cupsCategory().getAttributeTable("positions")));
  EXPECT_EQ(1, positionCount(db));
}

TEST_F(DatabaseManagerTest, AssignedManagersShareOneConnectionClosedOnce) {
  const int before = KQDatabaseManager::openConnectionCount();

  // Case: the database map's way: a default entry, a temporary assigned
  // into it, the temporary destroyed.
  std::map<std::string, KQDatabaseManager> databases;
  EXPECT_FALSE(databases["Cups"].isOpen());
  {
    KQDatabaseManager temporary(path(), true);
    EXPECT_EQ(before + 1, KQDatabaseManager::openConnectionCount());
    databases["Cups"] = temporary;
    EXPECT_EQ(before + 1, KQDatabaseManager::openConnectionCount());
  }
  EXPECT_EQ(before + 1, KQDatabaseManager::openConnectionCount());
  ASSERT_TRUE(databases["Cups"].isOpen());
  EXPECT_EQ(0, databases["Cups"].createTable("positions", cupsCategory().getAttributeTable("positions")));
  EXPECT_EQ(0, databases["Cups"].insertRow("positions", positionRow("cup", 1, 0.0f)));

  // Case: assigning the entry onto itself, then over a copy, keeps one.
  KQDatabaseManager& entry = databases["Cups"];
  entry = databases["Cups"];
  KQDatabaseManager copy(entry);
  entry = copy;
  EXPECT_EQ(before + 1, KQDatabaseManager::openConnectionCount());

  // Case: the connection closes when the last holder goes.
  databases.clear();
  EXPECT_EQ(before + 1, KQDatabaseManager::openConnectionCount());
  EXPECT_EQ(1, positionCount(copy));
  copy = KQDatabaseManager();
  EXPECT_EQ(before, KQDatabaseManager::openConnectionCount());
}

TEST_F(DatabaseManagerTest, UnboundManagerFailsEveryOperation) {
  KQDatabaseManager db;
  EXPECT_NE(0, db.load());
  EXPECT_NE(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  EXPECT_EQ(0, db.select("positions", "1", "*").getSize());
  EXPECT_TRUE(db.selectWithOrder("positions", "1", "TimeS", "*", -1).isArray());
  EXPECT_NE(0, db.beginTransaction());
  EXPECT_EQ((std::vector<std::string>{"No database is open."}), messages("select"));
}

TEST_F(DatabaseManagerTest, BrokenConditionsFailCleanly) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));

  // Case: an object name holding a quote breaks the statement it is placed
  // in, unescaped, as the module builds it.
  EXPECT_EQ(0, db.select("positions", "ObjectName='O'Brien'", "*").getSize());
  EXPECT_EQ((std::vector<std::string>{
                "Could not prepare SELECT * FROM \"positions\" WHERE ObjectName='O'Brien': near \"Brien\": syntax error"}),
            messages("select"));
  EXPECT_NE(0, db.deleteRow("positions", "ObjectName='O'Brien' AND (1)"));
  EXPECT_NE(0, db.updateRow("positions", positionRow("O'Brien", 1, 0.0f), "ObjectName='O'Brien' AND (1)"));

  // Case: an empty caller condition, wrapped as the module wraps it.
  EXPECT_NE(0, db.deleteRow("positions", "ObjectName='cup' AND ()"));
  EXPECT_EQ(0, db.select("positions", "", "*").getSize());

  // Case: the quote works where it is a proper value.
  EXPECT_EQ(0, db.insertRow("positions", positionRow("O'Brien", 1, 0.0f)));
  EXPECT_EQ(1, db.select("positions", "ObjectName='O''Brien'", "*").getSize());
  EXPECT_EQ(2, positionCount(db));
}

// Every case here ends with the same check: "positions" and its rows intact,
// and the manager answering normally.
TEST_F(DatabaseManagerTest, HostileTextIsRefusedAndChangesNothing) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  auto intact = [&]() {
    EXPECT_EQ(1, positionCount(db));
    EXPECT_EQ(0, db.insertRow("Display", KQValue(std::vector<KQValue>{pair("ObjectName", "probe")})));
    EXPECT_EQ(0, db.deleteRow("Display", "ObjectName='probe'"));
  };

  // Case: a second statement after the condition never runs, in a delete...
  EXPECT_NE(0, db.deleteRow("positions", "ObjectName='none' AND (1); DROP TABLE positions"));
  EXPECT_EQ((std::vector<std::string>{
                "Refused more than one statement: DELETE FROM \"positions\" WHERE ObjectName='none' AND (1); DROP TABLE positions"}),
            messages("deleteRow"));
  intact();
  // ...in an update...
  EXPECT_NE(0, db.updateRow("positions", KQValue(std::vector<KQValue>{pair("X", 1.0f)}), "1; DROP TABLE positions"));
  intact();
  // ...in a select, through the condition or through the column list.
  EXPECT_EQ(0, db.select("positions", "1; DROP TABLE positions", "*").getSize());
  EXPECT_EQ(0, db.select("positions", "1", "* FROM positions; DROP TABLE positions; --").getSize());
  EXPECT_EQ(0, db.selectWithOrder("positions", "1", "TimeS; DELETE FROM positions", "*", -1).getSize());
  intact();

  // Case: a select reaching for another file.
  const std::string other = dir_.file("other.sqlite");
  EXPECT_EQ(0, db.select("positions", "1; ATTACH '" + other + "' AS other", "*").getSize());
  EXPECT_EQ("", readFile(other));
  intact();

  // Case: a select reading SQLite's own tables or pragmas, in any form.
  capture_->clear();
  EXPECT_EQ(0, db.select("positions", "EXISTS (SELECT name FROM sqlite_master)", "*").getSize());
  EXPECT_EQ(0, db.select("positions", "(SELECT count(*) FROM sqlite_master) > 0", "*").getSize());
  EXPECT_EQ(0, db.select("positions", "(SELECT count(*) FROM temp.sqlite_master) >= 0", "*").getSize());
  EXPECT_EQ(0, db.select("positions", "EXISTS (SELECT * FROM pragma_table_info('positions'))", "*").getSize());
  EXPECT_EQ(0, db.select("positions", "1", "(SELECT sql FROM sqlite_schema LIMIT 1)").getSize());
  EXPECT_EQ(5u, messages("select").size());
  EXPECT_EQ("Could not prepare SELECT * FROM \"positions\" WHERE EXISTS (SELECT name FROM sqlite_master): "
            "access to sqlite_master.name is prohibited",
            messages("select")[0]);
  EXPECT_EQ("Could not prepare SELECT * FROM \"positions\" WHERE (SELECT count(*) FROM sqlite_master) > 0: "
            "not authorized",
            messages("select")[1]);
  // Case: the same reads hidden in a delete's condition are refused too.
  EXPECT_NE(0, db.deleteRow("positions", "EXISTS (SELECT name FROM sqlite_master)"));
  intact();

  // Case: loading a library from a condition.
  EXPECT_EQ(0, db.select("positions", "load_extension('/usr/lib/x86_64-linux-gnu/libsqlite3.so.0') IS NULL", "*").getSize());
  EXPECT_NE(0, db.deleteRow("positions", "load_extension('libm.so.6') IS NULL"));
  intact();

  // Case: reading the database's own tables in a subquery stays allowed.
  EXPECT_EQ(1, db.select("positions", "ObjectName IN (SELECT ObjectName FROM positions)", "*").getSize());
  EXPECT_EQ(1, db.select("positions", "1 ;  \n", "*").getSize());
}

TEST_F(DatabaseManagerTest, RunawayQueryIsInterruptedAtTheDeadline) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  db.setQueryDeadline(200);

  // Case: a recursive query that never ends (no row ever has x < 0).
  const std::string endless =
      "EXISTS (WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) SELECT 1 FROM n WHERE x < 0)";
  KQValue rows = db.select("positions", endless, "*");
  EXPECT_TRUE(rows.isArray());
  EXPECT_EQ(0, rows.getSize());
  EXPECT_EQ((std::vector<std::string>{"Query interrupted after 200 ms: SELECT * FROM \"positions\" WHERE " + endless}),
            messages("select"));

  // Case: the same through selectWithOrder; the cached statement it leaves
  // behind is usable again.
  EXPECT_EQ(0, db.selectWithOrder("positions", endless, "TimeS", "*", 0).getSize());
  EXPECT_EQ(0, db.selectWithOrder("positions", endless, "TimeS", "*", 0).getSize());

  // Case: the connection is fine afterwards, for reads and writes.
  EXPECT_EQ(1, positionCount(db));
  EXPECT_EQ(0, db.insertRow("positions", positionRow("cup", 2, 0.0f)));
  EXPECT_EQ(2, positionCount(db));
}

TEST_F(DatabaseManagerTest, LatestValuesQueryUsesTheObjectTimeIndex) {
  { KQDatabaseManager db = openCups(); }
  {
    RawConnection raw(path());
    // Case: each attribute table got its index when it was created.
    EXPECT_EQ("Display_ObjectName_TimeS\npositions_ObjectName_TimeS",
              raw.query("SELECT name FROM sqlite_master WHERE type='index' ORDER BY name"));
    // Case: the latest-values query searches the index instead of scanning.
    std::string plan = raw.query("EXPLAIN QUERY PLAN SELECT * FROM positions WHERE ObjectName='cup' ORDER BY TimeS DESC LIMIT 1");
    EXPECT_NE(std::string::npos, plan.find("USING INDEX positions_ObjectName_TimeS (ObjectName=?)")) << plan;
    EXPECT_EQ(std::string::npos, plan.find("TEMP B-TREE")) << plan;
    plan = raw.query("EXPLAIN QUERY PLAN SELECT * FROM positions WHERE ObjectName='cup' AND TimeS <5 ORDER BY TimeS DESC");
    EXPECT_NE(std::string::npos, plan.find("USING INDEX positions_ObjectName_TimeS (ObjectName=? AND TimeS<?)")) << plan;

    // Case: a file whose index went missing gets it back on load.
    ASSERT_EQ(SQLITE_OK, raw.exec("DROP INDEX positions_ObjectName_TimeS"));
    ASSERT_EQ(SQLITE_OK, raw.exec("CREATE TABLE Notes (body text)"));
  }
  KQDatabaseManager db(path(), true);
  EXPECT_EQ(0, db.load());
  RawConnection raw(path());
  EXPECT_EQ("Display_ObjectName_TimeS\npositions_ObjectName_TimeS",
            raw.query("SELECT name FROM sqlite_master WHERE type='index' ORDER BY name"));
}

TEST_F(DatabaseManagerTest, FileThatIsNotADatabaseIsLeftAlone) {
  const std::string text = "shopping list: cups, plates\n";
  std::ofstream(path(), std::ios::binary) << text;

  KQDatabaseManager db(path(), true);
  EXPECT_NE(0, db.load());
  EXPECT_NE(0, db.createTable("positions", cupsCategory().getAttributeTable("positions")));
  EXPECT_NE(0, db.insertRow("positions", positionRow("cup", 1, 0.0f)));
  EXPECT_EQ(0, db.select("positions", "1", "*").getSize());
  EXPECT_NE(0, db.resetDatabase());
  EXPECT_EQ(text, readFile(path()));
  ASSERT_FALSE(messages("load").empty());
  EXPECT_NE(std::string::npos, messages("load")[0].find("file is not a database")) << messages("load")[0];
}

TEST_F(DatabaseManagerTest, ConcurrentReadersShareOneConnection) {
  KQDatabaseManager db = openCups();
  ASSERT_EQ(0, db.beginTransaction());
  for (int object = 0; object < 8; ++object) {
    for (int t = 0; t <= object; ++t) {
      ASSERT_EQ(0, db.insertRow("positions", positionRow("obj" + std::to_string(object), t, static_cast<float>(object))));
    }
  }
  ASSERT_EQ(0, db.endTransaction());

  // Case: readers on several threads run the same statement texts at once;
  // each must get its own answer (a statement reset under a reader would
  // cut its rows short or mix them up).
  std::vector<std::thread> readers;
  std::vector<int> wrong(8, 0);
  for (int object = 0; object < 8; ++object) {
    readers.emplace_back([&, object]() {
      const std::string where = "ObjectName='obj" + std::to_string(object) + "'";
      for (int i = 0; i < 200; ++i) {
        KQValue all = db.select("positions", where, "ObjectName, X");
        KQValue latest = db.selectWithOrder("positions", where, "TimeS DESC", "TimeS", 0);
        KQValue shared = db.selectWithOrder("positions", "1", "TimeS DESC", "TimeS", 0);
        bool ok = all.getSize() == object + 1 && latest.getSize() == 1 && latest[0][0] == KQValue(object) &&
                  shared.getSize() == 1 && shared[0][0] == KQValue(7);
        for (int r = 0; ok && r < all.getSize(); ++r) ok = all[r][1] == KQValue(static_cast<float>(object));
        if (!ok) ++wrong[object];
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(std::vector<int>(8, 0), wrong);
}

}  // namespace
}  // namespace KQ
