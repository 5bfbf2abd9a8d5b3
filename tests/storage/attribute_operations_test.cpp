// Attribute rows through the running module: updates and deletions with
// their refusals, pruning of old positions, the read queries, hostile raw
// selects, reset and transactions, and readers and writers running together.
//
// Every test starts from this tree (besides the robot's frames):
//
//   World
//   `-- table          (Furniture)   at x 1
//       `-- cup1       (Cups)        at z 0.8 in the table
//
// Cups has the attribute stock: count int, kg float, note text.
#include <sqlite3.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "middleware/os.h"
#include "module/world_representation.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const std::string& kAttributeChanged = KQWorldRepresentation::attributeChangedEventName_;

// Rows of a table seen through a connection of our own: what another
// process reading the file would see.
int rowsSeenFromOutside(const std::string& path, const std::string& table) {
  sqlite3* db = nullptr;
  int rows = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    const std::string sql = "SELECT count(*) FROM \"" + table + "\"";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
      rows = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return rows;
}

class AttributeOperationsTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().createObjectCategory("Furniture", false));
    ASSERT_EQ(0, world().createObjectCategory("Cups", false));
    ASSERT_EQ(0, world().addAttributeToCategory(
                     "Cups", "stock", list({list({"count", "int"}), list({"kg", "float"}), list({"note", "text"})})));
    ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0, 0, 0, 0}, "Furniture", list({})));
    ASSERT_EQ(0, world().storeObject("cup1", "table", {0, 0, 0.8f, 0, 0, 0}, "Cups", list({})));
    memory().clearRecords();
    logs().clear();
  }

  int stockRows(const std::string& condition = "1") {
    return world().select(condition, "Cups", "stock", "*").getSize();
  }
};

TEST_F(AttributeOperationsTest, StoreRefusalsAreSilent) {
  // Case: a malformed value, an unknown object, an attribute the category
  // lacks: status 1, no line, no row, no event.
  EXPECT_EQ(1, world().storeObjectAttribute("cup1", "stock", KQValue("count")));
  EXPECT_EQ(1, world().storeObjectAttribute("cup1", "stock", list({list({"count"})})));
  EXPECT_EQ(1, world().storeObjectAttribute("ghost", "stock", list({list({"count", 1})})));
  EXPECT_EQ(1, world().storeObjectAttribute("table", "stock", list({list({"count", 1})})));
  EXPECT_EQ(1, world().storeObjectAttribute("cup1", "nope", list({list({"count", 1})})));
  EXPECT_EQ(0, stockRows());
  EXPECT_TRUE(worldLog().empty());
  EXPECT_TRUE(memory().raisedEvents().empty());

  // Case: a field the table lacks is refused by the database, which the
  // caller does not hear about (kept as designed): 0, and no row.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"colour", "red"})})));
  EXPECT_EQ(0, stockRows());
}

TEST_F(AttributeOperationsTest, UpdatingAttributes) {
  ManualClock clock(1'700'000'000, 0);
  const KQValue twoKilos = list({list({"kg", 2.0f})});

  // Case: an object without a row gets one, and the change is announced
  // with the values exactly as given.
  EXPECT_EQ(0, world().updateAttribute("cup1", "stock", "1", twoKilos));
  EXPECT_EQ(1, stockRows());
  EXPECT_EQ(list({"cup1", "stock", twoKilos}), memory().lastRaised(kAttributeChanged));

  // Case: with rows, every row that matches changes and is re-stamped.
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"kg", 3.0f})})));
  clock.advanceSeconds(5);
  EXPECT_EQ(0, world().updateAttribute("cup1", "stock", "1", list({list({"kg", 4.0f})})));
  EXPECT_EQ(list({list({4.0f, 1'700'000'005}), list({4.0f, 1'700'000'005})}),
            world().select("1", "Cups", "stock", "kg, TimeS"));

  // Case: a condition that matches none of the rows changes nothing,
  // inserts nothing, and still answers 0 with the event.
  memory().clearRecords();
  EXPECT_EQ(0, world().updateAttribute("cup1", "stock", "kg > 100", list({list({"kg", 9.0f})})));
  EXPECT_EQ(2, stockRows());
  EXPECT_EQ(0, stockRows("kg = 9"));
  EXPECT_EQ(1, memory().raisedCount(kAttributeChanged));

  // Case: the refusals, with their lines; no event for any of them.
  memory().clearRecords();
  EXPECT_EQ(1, world().updateAttribute("cup1", "stock", "1", list({list({"kg"})})));
  EXPECT_EQ(1, world().updateAttribute("ghost", "stock", "1", twoKilos));
  EXPECT_EQ(1, world().updateAttribute("cup1", "nope", "1", twoKilos));
  EXPECT_EQ((std::vector<std::string>{"error updateAttribute: Fields format incorrect",
                                      "error updateAttribute: Object ghost not found"}),
            worldLog());
  EXPECT_EQ(0, memory().raisedCount(kAttributeChanged));

  // Case: an empty condition makes an invalid statement: the database's
  // status comes back, the rows are as they were, nothing is announced.
  EXPECT_NE(0, world().updateAttribute("cup1", "stock", "", list({list({"kg", 7.0f})})));
  EXPECT_EQ(0, stockRows("kg = 7"));
  EXPECT_EQ(0, memory().raisedCount(kAttributeChanged));

  // Case: a memory module that refuses the event: its error reaches the
  // caller, and the rows stay updated.
  memory().throwOnRaise(true);
  EXPECT_THROW(world().updateAttribute("cup1", "stock", "1", list({list({"kg", 5.0f})})), KQError);
  memory().throwOnRaise(false);
  EXPECT_EQ(2, stockRows("kg = 5"));
}

TEST_F(AttributeOperationsTest, DeletingAttributes) {
  for (float kg : {1.0f, 2.0f, 3.0f})
    ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"kg", kg})})));

  // Case: only the object's rows that match go.
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "stock", "kg > 1.5"));
  EXPECT_EQ(list({list({1.0f})}), world().select("1", "Cups", "stock", "kg"));

  // Case: an empty condition fails in the database and deletes nothing.
  EXPECT_NE(0, world().deleteObjectAttribute("cup1", "stock", ""));
  EXPECT_EQ(1, stockRows());

  // Case: an unknown object, an attribute the category lacks.
  EXPECT_EQ(1, world().deleteObjectAttribute("ghost", "stock", "1"));
  EXPECT_EQ(1, world().deleteObjectAttribute("cup1", "nope", "1"));
  EXPECT_EQ((std::vector<std::string>{"error xDeleteAttribute: Object ghost does not exist.",
                                      "error xDeleteAttribute: Category Cups does not have attribute nope."}),
            worldLog());
  EXPECT_EQ(1, stockRows());
}

TEST_F(AttributeOperationsTest, ClearingOldPositions) {
  // cup1's position rows: one stored in SetUp (real time, before t0), then
  // one at each of t0, t0 + 1, t0 + 2; the table's rows are never touched.
  ko::os::timeval now;
  ko::os::gettimeofday(&now);
  const int t0 = static_cast<int>(now.tv_sec) + 1000;
  ManualClock clock(t0, 500'000);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(0, world().updatePosition("cup1", {0, 0, 0.8f + 0.1f * i, 0, 0, 0}, true));
    clock.advanceSeconds(1);
  }
  clock.set(t0 + 2, 999'999);
  const std::string cup1 = "ObjectName='cup1'";
  ASSERT_EQ(4, world().select(cup1, "Cups", "positions", "*").getSize());

  // Case: rows older than the cut-off second go; that second's rows stay,
  // whatever their microseconds.
  EXPECT_EQ(0, world().clearOldPositions("cup1", 1));
  EXPECT_EQ(list({list({t0 + 1}), list({t0 + 2})}), world().select(cup1, "Cups", "positions", "TimeS"));

  // Case: 0 seconds keeps only the rows of the current second.
  EXPECT_EQ(0, world().clearOldPositions("cup1", 0));
  EXPECT_EQ(list({list({t0 + 2})}), world().select(cup1, "Cups", "positions", "TimeS"));
  EXPECT_EQ(1, world().select("ObjectName='table'", "Furniture", "positions", "*").getSize());

  // Case: an unknown object still answers 0; the deletion's line is the only report.
  EXPECT_EQ(0, world().clearOldPositions("ghost", 0));
  EXPECT_EQ(std::vector<std::string>{"error xDeleteAttribute: Object ghost does not exist."}, worldLog());
}

TEST_F(AttributeOperationsTest, ReadingAttributes) {
  ManualClock clock(1'700'000'000, 0);
  for (int count = 1; count <= 5; ++count) {
    ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", count})})));
    clock.advanceSeconds(1);
  }

  // Case: the latest values, newest first, at most as many as asked; a
  // count of 0 gives them all.
  const KQValue latest = world().getObjectAttributeValues("cup1", "stock", 3);
  ASSERT_EQ(3, latest.getSize());
  EXPECT_EQ(KQValue(5), latest[0][3]);
  EXPECT_EQ(KQValue(3), latest[2][3]);
  EXPECT_EQ(5, world().getObjectAttributeValues("cup1", "stock", 0).getSize());
  EXPECT_TRUE(worldLog().empty());

  // Case: the refusals give an empty list and a line.
  EXPECT_EQ(list({}), world().getObjectAttributes("ghost"));
  EXPECT_EQ(list({}), world().getObjectAttributeValues("ghost", "stock", 1));
  EXPECT_EQ(list({}), world().getObjectAttributeValues("cup1", "nope", 1));
  EXPECT_EQ(list({}), world().getObjectLatestAttributes("ghost", 1));
  EXPECT_EQ((std::vector<std::string>{
                "error getObjectAttributes: Object ghost does not exist.",
                "error getObjectAttributeValues: Object ghost does not exist.",
                "error getObjectAttributeValues: Object cup1 is in category Cups that does not have attribute nope.",
                "error getObjectLatestAttributes: Object ghost does not exist."}),
            worldLog());
}

TEST_F(AttributeOperationsTest, LatestAttributesTakeThePositionFromTheGraph) {
  ManualClock clock(1'700'000'000, 42);
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 1})})));
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 2})})));
  // Moved without a history row: the database still holds the old pose.
  ASSERT_EQ(0, world().updatePosition("cup1", {0, 0, 0.9f, 0, 0, 0}, false));

  // Case: "positions" is one flat row: name, time of the call, parent, the
  // pose in the parent now; every other attribute gives rows, newest first.
  clock.advanceSeconds(3);
  const KQValue latest = world().getObjectLatestAttributes("cup1", 1);
  ASSERT_EQ(3, latest.getSize());
  EXPECT_EQ(list({"positions", list({"cup1", 1'700'000'003, 42, "table", 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.9f})}),
            latest[0]);
  EXPECT_EQ(list({"Display", list({})}), latest[1]);
  ASSERT_EQ(1, latest[2][1].getSize());
  EXPECT_EQ(KQValue(2), latest[2][1][0][3]);

  // Case: a joint's pose comes from its live edge (read under the graph
  // lock held exclusively), parent "Robot_Torso".
  const KQValue joint = world().getObjectLatestAttributes("HeadYaw", 1);
  ASSERT_EQ(2, joint.getSize());
  ASSERT_EQ(11, joint[0][1].getSize());
  EXPECT_EQ(KQValue("Robot_Torso"), joint[0][1][3]);
  EXPECT_EQ(list({"Display", list({})}), joint[1]);
  EXPECT_TRUE(worldLog().empty());
}

TEST_F(AttributeOperationsTest, RawSelects) {
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 1})})));
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 2})})));

  // Case: the caller's condition, order and columns, all rows.
  EXPECT_EQ(list({list({2}), list({1})}), world().selectWithOrder("1", "count DESC", "Cups", "stock", "count"));

  // Case: an unknown category gives an invalid value, not an empty list.
  EXPECT_FALSE(world().select("1", "Nope", "stock", "*").isValid());
  EXPECT_FALSE(world().selectWithOrder("1", "TimeS", "Nope", "stock", "*").isValid());
  EXPECT_EQ((std::vector<std::string>{"error select: Category Nope not found.",
                                      "error selectWithOrder: Database Nope not found. Cannot get value from "
                                      "database."}),
            worldLog());
}

TEST_F(AttributeOperationsTest, HostileSelectsAreRefusedAndTheDatabaseStaysIntact) {
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 1})})));
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({list({"model", "mug.dae"})})));
  const KQValue positionsBefore = world().select("1", "Cups", "positions", "*");
  ASSERT_EQ(1, positionsBefore.getSize());
  auto intact = [&]() {
    EXPECT_EQ(positionsBefore, world().select("1", "Cups", "positions", "*"));
    EXPECT_EQ(1, stockRows());
    EXPECT_EQ(1, world().select("1", "Cups", "Display", "*").getSize());
  };

  // Case: a second statement after the condition, the order or the table
  // name never runs; a select may not reach another file or load code.
  EXPECT_EQ(0, world().select("1; DROP TABLE positions", "Cups", "positions", "*").getSize());
  EXPECT_EQ(0, world().selectWithOrder("1", "TimeS; DELETE FROM stock", "Cups", "stock", "*").getSize());
  EXPECT_EQ(0, world().select("1", "Cups", "positions; DROP TABLE Display; --", "*").getSize());
  const std::string other = databasePath("Furniture");
  EXPECT_EQ(0, world().select("1; ATTACH DATABASE '" + other + "' AS other", "Cups", "stock", "*").getSize());
  EXPECT_EQ(0, world().select("1", "Cups", "stock", "load_extension('/tmp/kq-nothing.so')").getSize());
  intact();

  // Case: a recursive query that never ends is interrupted; the module and
  // the database go on.
  EXPECT_EQ(0, world().select("ObjectName IN (WITH RECURSIVE r(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM r) "
                              "SELECT i FROM r)",
                              "Cups", "stock", "*")
                   .getSize());
  intact();
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 2})})));
  EXPECT_EQ(2, stockRows());
  EXPECT_EQ(1, rowsSeenFromOutside(databasePath("Cups"), "positions"));
}

TEST_F(AttributeOperationsTest, ResetKeepsTheTables) {
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 1})})));

  // Case: an unknown category, with the name and "not" run together.
  EXPECT_EQ(1, world().resetDatabase("Nope"));
  EXPECT_EQ(std::vector<std::string>{"error resetDatabase: Database Nopenot found. Cannot reset database."},
            worldLog());

  // Case: every row of the category goes; the tables and objects stay.
  EXPECT_EQ(0, world().resetDatabase("Cups"));
  EXPECT_EQ(0, stockRows());
  EXPECT_EQ(0, world().select("1", "Cups", "positions", "*").getSize());
  EXPECT_TRUE(world().findObject("cup1"));
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", 2})})));
  EXPECT_EQ(1, stockRows());
  EXPECT_EQ(1, world().select("1", "Furniture", "positions", "*").getSize());
}

TEST_F(AttributeOperationsTest, ATransactionSpansSeveralCalls) {
  // Case: an unknown category is refused without a line.
  EXPECT_EQ(1, world().beginTransaction("Nope"));
  EXPECT_EQ(1, world().endTransaction("Nope"));
  EXPECT_TRUE(worldLog().empty());

  // Case: rows written between begin and end reach the file together.
  ASSERT_EQ(0, world().beginTransaction("Cups"));
  for (int count = 1; count <= 3; ++count)
    ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", count})})));
  EXPECT_EQ(3, stockRows());  // the module sees its own writes
  EXPECT_EQ(0, rowsSeenFromOutside(databasePath("Cups"), "stock"));
  ASSERT_EQ(0, world().endTransaction("Cups"));
  EXPECT_EQ(3, rowsSeenFromOutside(databasePath("Cups"), "stock"));
}

TEST_F(AttributeOperationsTest, ReadersAndWritersTogetherNeverDeadlock) {
  // Readers that look up categories while holding shared locks, against
  // writers that wait for the same locks exclusively: a thread that took a
  // shared lock twice would hang here once a writer queued in between.
  constexpr int kRounds = 40;
  std::atomic<int> failures(0);
  std::vector<std::thread> threads;
  threads.emplace_back([&]() {
    for (int i = 0; i < kRounds; ++i) {
      if (!world().getObjectAttributeValues("cup1", "stock", 2).isArray()) ++failures;
      if (world().getObjectCategory("cup1") != "Cups") ++failures;
    }
  });
  threads.emplace_back([&]() {
    for (int i = 0; i < kRounds; ++i) {
      if (world().getObjectLatestAttributes("cup1", 1).getSize() < 3) ++failures;
      if (!world().getObjectAttributes("cup1").isArray()) ++failures;
    }
  });
  threads.emplace_back([&]() {
    for (int i = 0; i < kRounds; ++i) {
      if (world().storeObjectAttribute("cup1", "stock", list({list({"count", i})})) != 0) ++failures;
      if (world().updateAttribute("cup1", "stock", "count = -1", list({list({"kg", 1.0f})})) != 0) ++failures;
    }
  });
  threads.emplace_back([&]() {
    for (int i = 0; i < kRounds; ++i) {
      const std::string name = "extra" + std::to_string(i);
      if (world().addAttributeToCategory("Cups", name, list({list({"v", "int"})})) != 0) ++failures;
      if (!world().objectCategoryExists("Cups")) ++failures;
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(kRounds, stockRows());
  EXPECT_EQ(3 + kRounds, world().getAttributesFromCategory("Cups").getSize());
}

}  // namespace
}  // namespace test
}  // namespace KQ
