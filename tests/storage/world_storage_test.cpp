// Categories and attribute rows through the running module, on real files:
// what it adds to the database manager. The clock stays at kT0 until moved.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "middleware/error.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const int kT0 = 1'700'000'000;

class WorldStorageTest : public WorldFixture {
 protected:
  void configureModules() override { clock_ = std::make_unique<ManualClock>(kT0, 0); }
  void storeIn(const std::string& category, const std::string& object, const std::string& parent = "World") {
    ASSERT_EQ(0, world().storeObject(object, parent, {0, 0, 0, 0, 0, 0}, category, list({})));
  }

  std::unique_ptr<ManualClock> clock_;
};

TEST_F(WorldStorageTest, ACategoryIsOneFileWithTheFixedTablesMadeOnce) {
  EXPECT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_EQ(
      "ObjectName text, TimeS int, TimeUS int, ParentName text, QuatW float, QuatX float, QuatY float, "
      "QuatZ float, X float, Y float, Z float",
      sqliteRows(databasePath("Cups"),
                 "SELECT group_concat(name || ' ' || lower(type), ', ') FROM pragma_table_info('positions')")[0][0]);
  EXPECT_EQ(10, sqliteScalar(databasePath("Cups"), "SELECT count(*) FROM pragma_table_info('Display')"));
  // Case: a second creation is refused and keeps the rows, even when it asks for a reset.
  storeIn("Cups", "cup1");
  logs().clear();
  EXPECT_EQ(1, world().createObjectCategory("Cups", true));
  EXPECT_EQ(std::vector<std::string>{"warning createObjectCategory: Category Cups already exists!"}, worldLog());
  EXPECT_EQ(1, world().select("1", "Cups", "positions", "*").getSize());
}

TEST_F(WorldStorageTest, LoadReopensTheSqliteFilesAndCreationMeetsThemAgain) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  storeIn("Cups", "cup1");
  writeFile(dataDir() + "/notes.txt", "not a database");
  ASSERT_EQ(0, ::mkdir((dataDir() + "/old.sqlite").c_str(), 0700));
  // Case: a restart forgets the databases; load opens the *.sqlite files, each under its stem.
  destroyWorld();  // exit() saves the archive that load reads back
  createWorld();
  EXPECT_FALSE(world().objectCategoryExists("Cups"));
  ASSERT_EQ(0, world().load());
  std::vector<std::string> loaded;
  for (const std::string& line : worldLog())
    if (line.rfind("verbose load: Loading ", 0) == 0) loaded.push_back(line.substr(22));
  std::sort(loaded.begin(), loaded.end());
  EXPECT_EQ((std::vector<std::string>{"Cups", "frame", "joints", "kqmemoryobjects", "root"}), loaded);
  // Case: the built-in categories are emptied at every start: a joint has this start's row only.
  EXPECT_EQ(list({list({"Robot_Torso"})}), world().select("ObjectName='HeadYaw'", "joints", "positions", "ParentName"));
  // Case: creating the category again keeps the open file and its rows.
  EXPECT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_EQ(1, world().select("1", "Cups", "positions", "*").getSize());
}

TEST_F(WorldStorageTest, RemovingACategoryTakesItsObjectsAndItsFile) {
  for (const char* category : {"Furniture", "Cups"}) ASSERT_EQ(0, world().createObjectCategory(category, false));
  storeIn("Furniture", "table");
  storeIn("Cups", "cup1", "table");
  EXPECT_EQ(0, world().removeObjectCategory("Cups"));
  EXPECT_FALSE(world().findObject("cup1"));
  EXPECT_TRUE(world().findObject("table"));
  // Case: the log goes with the file: it would be replayed into a later category of that name.
  EXPECT_FALSE(fileExists(databasePath("Cups")) || fileExists(databasePath("Cups") + "-wal"));
  EXPECT_EQ(1, world().removeObjectCategory("Cups"));
}

//   World -- table (Furniture) -- cup1, cup2 (Cups: stock [count int, kg float, note text])
class AttributeRowsTest : public WorldStorageTest {
 protected:
  void SetUp() override {
    WorldStorageTest::SetUp();
    for (const char* category : {"Furniture", "Cups"}) ASSERT_EQ(0, world().createObjectCategory(category, false));
    ASSERT_EQ(0, world().addAttributeToCategory(
                     "Cups", "stock", list({list({"count", "int"}), list({"kg", "float"}), list({"note", "text"})})));
    storeIn("Furniture", "table");
    storeIn("Cups", "cup1", "table");
    storeIn("Cups", "cup2", "table");
  }
  KQValue rows(const std::string& columns) { return world().select("1", "Cups", "stock", columns); }
};

// Called by name, as a remote caller would.
TEST_F(AttributeRowsTest, RefusalsByNameChangeNothing) {
  const KQValue one = list({list({"count", 1})});
  struct Case {
    const char* method;
    KQValue arguments, answer;
    std::string line;  // the world's one log line; "" for none
  } const cases[] = {
      // Case: stores are refused silently; a field the table lacks is refused
      // by the database without the caller hearing of it (kept as designed).
      {"storeObjectAttribute", list({"cup1", "stock", "count"}), 1, ""},
      {"storeObjectAttribute", list({"cup1", "stock", list({list({"colour", "red"})})}), 0, ""},
      {"updateAttribute", list({"cup1", "stock", "1", list({list({"kg"})})}), 1,
       "error updateAttribute: Fields format incorrect"},
      {"updateAttribute", list({"ghost", "stock", "1", one}), 1, "error updateAttribute: Object ghost not found"},
      {"deleteObjectAttribute", list({"cup1", "nope", "1"}), 1,
       "error xDeleteAttribute: Category Cups does not have attribute nope."},
      {"getObjectAttributeValues", list({"cup1", "nope", 1}), list({}),
       "error getObjectAttributeValues: Object cup1 is in category Cups that does not have attribute nope."},
      {"getObjectLatestAttributes", list({"ghost", 1}), list({}),
       "error getObjectLatestAttributes: Object ghost does not exist."},
      // Case: attributes a category has, of an unknown category, or malformed.
      {"addAttributeToCategory", list({"Cups", "Display", list({})}), 1,
       "warning xAddAttributeToCategory: Category Cups already has an attribute Display"},
      {"addAttributeToCategory", list({"Nope", "weight", list({})}), 1,
       "error xAddAttributeToCategory: Category Nope does not exist."},
      {"addAttributeToCategory", list({"Cups", "volume", list({list({"l", 2})})}), 1,
       "error xAddAttributeToCategory: Invalid attribute fields format."},
      // Case: names that would leave the data folder or take SQLite's own tables.
      {"createObjectCategory", list({"../x", false}), 1, "error createObjectCategory: Category name ../x is not valid."},
      {"removeObjectCategory", list({"a/b"}), 1, "error removeObjectCategory: Category name a/b is not valid."},
      {"addAttributeToCategory", list({"Cups", "sqlite_x", list({})}), 1,
       "error xAddAttributeToCategory: Attribute name sqlite_x is not valid."},
      {"addAttributeToCategory", list({"Cups", "volume", list({list({"pragma_a", "int"})})}), 1,
       "error xAddAttributeToCategory: Field name pragma_a is not valid."},
      // Case: caller text that would leave its place never reaches SQLite.
      {"select", list({"1; DROP TABLE stock", "Cups", "stock", "*"}), list({}),
       "error select: Refused the condition 1; DROP TABLE stock: a \";\" outside a string."},
      {"selectWithOrder", list({"1", "TimeS -- x", "Cups", "stock", "*"}), list({}),
       "error selectWithOrder: Refused the order TimeS -- x: \"--\" outside a string."},
      {"deleteObjectAttribute", list({"cup1", "stock", "1) OR (1"}), 1,
       "error deleteObjectAttribute: Refused the condition 1) OR (1: a \")\" without its \"(\"."},
      // Case: raw selects of an unknown category answer an invalid value, not an empty list.
      {"select", list({"1", "Nope", "stock", "*"}), KQValue(), "error select: Category Nope not found."},
      {"selectWithOrder", list({"1", "TimeS", "Nope", "stock", "*"}), KQValue(),
       "error selectWithOrder: Database Nope not found. Cannot get value from database."},
  };
  for (const Case& c : cases) {
    logs().clear();
    EXPECT_EQ(c.answer, world().callMethod(c.method, c.arguments)) << c.method << c.arguments;
    EXPECT_EQ(c.line.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.line}, worldLog());
  }
  EXPECT_EQ(1, world().resetDatabase(".."));
  EXPECT_EQ(list({}), rows("*"));
  EXPECT_EQ(3, world().getAttributesFromCategory("Cups").getSize());
  EXPECT_THROW(world().getAttributesFromCategory("Nope"), KQError);
}

TEST_F(AttributeRowsTest, UpdateAndDeleteTouchOnlyTheObjectsOwnMatchingRows) {
  // Case: an update of an object without a row inserts one.
  ASSERT_EQ(0, world().updateAttribute("cup1", "stock", "1", list({list({"kg", 2.0f})})));
  for (const char* cup : {"cup1", "cup2"})
    ASSERT_EQ(0, world().storeObjectAttribute(cup, "stock", list({list({"kg", 3.0f})})));
  // Case: each changed row is stamped with the call's time; the caller's value is left as given.
  clock_->advanceSeconds(5);
  const KQValue given = list({list({"kg", 4.0f})});
  KQValue values = given;
  EXPECT_EQ(0, world().updateAttribute("cup1", "stock", "kg > 2.5", values));
  EXPECT_EQ(given, values);
  EXPECT_EQ(list({list({"cup1", 2.0f, kT0}), list({"cup1", 4.0f, kT0 + 5}), list({"cup2", 3.0f, kT0})}),
            rows("ObjectName, kg, TimeS"));
  EXPECT_EQ(0, world().deleteObjectAttribute("cup1", "stock", "kg > 2.5"));
  // Case: an empty condition makes an invalid statement: the database's status, no change.
  EXPECT_NE(0, world().updateAttribute("cup1", "stock", "", list({list({"kg", 7.0f})})));
  EXPECT_NE(0, world().deleteObjectAttribute("cup1", "stock", ""));
  EXPECT_EQ(list({list({"cup1", 2.0f}), list({"cup2", 3.0f})}), rows("ObjectName, kg"));
}

TEST_F(AttributeRowsTest, WhatCanBeStoredCanBeReadAndAQuoteReachesNoOtherRows) {
  // Case: fields named like keywords or with blanks read back; computed columns work.
  ASSERT_EQ(0, world().addAttributeToCategory("Cups", "odd", list({list({"order", "int"}), list({"a b", "text"})})));
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "odd", list({list({"order", 3}), list({"a b", "x"})})));
  EXPECT_EQ(list({list({"cup1", kT0, 0, 3, "x"})}), world().getObjectAttributeValues("cup1", "odd", 1));
  EXPECT_EQ(list({list({2, 1})}), world().select("1", "Cups", "positions", "count(*), 1"));
  // Case: a name holding a quote builds no statement: nothing of cup1 or cup2 changes.
  storeIn("Cups", "z' OR ''='");
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"kg", 3.0f})})));
  EXPECT_NE(0, world().updateAttribute("z' OR ''='", "stock", "1", list({list({"kg", 9.0f})})));
  EXPECT_NE(0, world().deleteObjectAttribute("z' OR ''='", "stock", "1"));
  EXPECT_EQ(0, world().clearObject("z' OR ''='"));
  EXPECT_EQ(list({list({"cup1", 3.0f})}), rows("ObjectName, kg"));
  EXPECT_EQ(list({list({3})}), world().select("1", "Cups", "positions", "count(*)"));
}

TEST_F(AttributeRowsTest, ClearingOldPositionsKeepsTheRowsOfTheCutOffSecond) {
  // cup1's rows: kT0 (stored in SetUp), then kT0 + 10, + 11, + 12.
  for (int i = 0; i < 3; ++i) {
    clock_->set(kT0 + 10 + i, 0);
    ASSERT_EQ(0, world().updatePosition("cup1", {0, 0, 0.1f * i, 0, 0, 0}, true));
  }
  clock_->set(kT0 + 12, 999'999);
  auto times = [this] { return world().selectWithOrder("1", "ObjectName, TimeS", "Cups", "positions", "TimeS"); };
  EXPECT_EQ(0, world().clearOldPositions("cup1", 1));
  EXPECT_EQ(list({list({kT0 + 11}), list({kT0 + 12}), list({kT0})}), times());  // cup1's, then cup2's
  EXPECT_EQ(0, world().clearOldPositions("cup1", 0));
  EXPECT_EQ(list({list({kT0 + 12}), list({kT0})}), times());
}

TEST_F(AttributeRowsTest, ReadsGiveNewestRowsFirstAndThePoseFromTheGraph) {
  for (int count = 1; count <= 3; ++count) {
    clock_->set(kT0 + count, 42);
    ASSERT_EQ(0, world().storeObjectAttribute("cup1", "stock", list({list({"count", count})})));
  }
  // Case: an added attribute is described with the special fields first.
  EXPECT_EQ(list({list({"ObjectName", "text"}), list({"TimeS", "int"}), list({"TimeUS", "int"}), list({"count", "int"}),
                  list({"kg", "float"}), list({"note", "text"})}),
            world().getAttributesFromCategory("Cups")[2][1]);
  // Case: at most the count asked, newest first; 0 asks for all.
  const KQValue newest = list({"cup1", kT0 + 3, 42, 3, KQValue(), KQValue()});
  EXPECT_EQ(list({newest, list({"cup1", kT0 + 2, 42, 2, KQValue(), KQValue()})}),
            world().getObjectAttributeValues("cup1", "stock", 2));
  EXPECT_EQ(3, world().getObjectAttributeValues("cup1", "stock", 0).getSize());
  // Case: "positions" is one flat row: name, time of the call, parent and
  // the pose in the parent now, though the move wrote no history row.
  ASSERT_EQ(0, world().updatePosition("cup1", {0, 0, 0.9f, 0, 0, 0}, false));
  clock_->set(kT0 + 9, 7);
  EXPECT_EQ(list({list({"positions", list({"cup1", kT0 + 9, 7, "table", 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.9f})}),
                  list({"Display", list({})}), list({"stock", list({newest})})}),
            world().getObjectLatestAttributes("cup1", 1));
  // Case: a joint's pose comes from its live edge, under "Robot_Torso".
  EXPECT_EQ(KQValue("Robot_Torso"), world().getObjectLatestAttributes("HeadYaw", 1)[0][1][3]);
}

}  // namespace
}  // namespace test
}  // namespace KQ
