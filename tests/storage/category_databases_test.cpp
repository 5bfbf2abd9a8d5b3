// The category databases on disk: one file per category with its fixed
// tables, rows stamped with the object's name and the time, rows that
// survive a reload or a restart, and the files found again at load.
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "module/world_representation.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

// "name type" of every column of a table, read through a connection of our
// own (an empty list when the table does not exist). Types are lowered:
// SQLite reports the standard ones (TEXT, INT) in its own spelling.
std::vector<std::string> tableColumns(const std::string& path, const std::string& table) {
  std::vector<std::string> columns;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return columns;
  }
  sqlite3_stmt* statement = nullptr;
  const std::string sql = "PRAGMA table_info(\"" + table + "\")";
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
    while (sqlite3_step(statement) == SQLITE_ROW) {
      std::string type = reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
      std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return std::tolower(c); });
      columns.push_back(std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1))) + " " + type);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return columns;
}

std::string fileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::vector<std::string> sorted(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  return names;
}

const KQValue kNoAttributes = list({});
const std::vector<float> kAtOrigin = {0, 0, 0, 0, 0, 0};

class CategoryDatabasesTest : public WorldFixture {
 protected:
  // The "Loading <name>" notes of load, in the order written.
  std::vector<std::string> loadedNames() const {
    std::vector<std::string> names;
    for (const std::string& line : worldLog())
      if (line.rfind("verbose load: Loading ", 0) == 0) names.push_back(line.substr(22));
    return names;
  }
};

TEST_F(CategoryDatabasesTest, ACategoryIsOneFileWithTheFixedTables) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_EQ((std::vector<std::string>{"ObjectName text", "TimeS int", "TimeUS int", "ParentName text",
                                      "QuatW float", "QuatX float", "QuatY float", "QuatZ float", "X float",
                                      "Y float", "Z float"}),
            tableColumns(databasePath("Cups"), "positions"));
  EXPECT_EQ((std::vector<std::string>{"ObjectName text", "TimeS int", "TimeUS int", "colorR float", "colorG float",
                                      "colorB float", "scaleX float", "scaleY float", "scaleZ float", "model text"}),
            tableColumns(databasePath("Cups"), "Display"));
}

TEST_F(CategoryDatabasesTest, RowsAreStampedAndTheCallersValueIsLeftAlone) {
  //   World
  //   `-- cup1   (Cups: weight [kg float])
  ManualClock clock(1'700'000'000, 250'000);
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().addAttributeToCategory("Cups", "weight", list({list({"kg", "float"})})));
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups", kNoAttributes));

  // Case: the special pairs are added to a copy, not to the caller's value.
  const KQValue weight = list({list({"kg", 0.5f})});
  KQValue given = weight;
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "weight", given));
  EXPECT_EQ(weight, given);
  clock.advanceMicroseconds(1);
  EXPECT_EQ(0, world().updateAttribute("cup1", "weight", "1", given));
  EXPECT_EQ(weight, given);

  // Case: a row carries the object's name and the time of the call that wrote it.
  EXPECT_EQ(list({list({"cup1", 1'700'000'000, 250'001, 0.5f})}),
            world().select("1", "Cups", "weight", "ObjectName, TimeS, TimeUS, kg"));
  EXPECT_EQ(list({list({"cup1", 1'700'000'000, 250'000})}),
            world().select("1", "Cups", "positions", "ObjectName, TimeS, TimeUS"));

  // Case: past 2106 the seconds are cut to 32 bits, as the column keeps them.
  clock.set(4'294'967'296LL + 7, 9);
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "weight", list({list({"kg", 0.75f})})));
  EXPECT_EQ(list({list({7, 9})}), world().select("kg > 0.7", "Cups", "weight", "TimeS, TimeUS"));
}

TEST_F(CategoryDatabasesTest, RowsSurviveReloadAndRestart) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", {1, 2, 3, 0, 0, 0}, "Cups", kNoAttributes));
  ASSERT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({list({"model", "mug.dae"})})));
  const KQValue display = world().select("1", "Cups", "Display", "ObjectName, model");
  ASSERT_EQ(list({list({"cup1", "mug.dae"})}), display);

  // Case: load closes and reopens every database; the rows are still there.
  ASSERT_EQ(0, world().save());
  EXPECT_EQ(0, world().load());
  EXPECT_EQ(sorted({"Cups", "frame", "joints", "kqmemoryobjects", "root"}), sorted(loadedNames()));
  EXPECT_EQ(display, world().select("1", "Cups", "Display", "ObjectName, model"));

  // Case: a restart does not reopen earlier databases; load does.
  destroyWorld();
  createWorld();
  EXPECT_FALSE(world().objectCategoryExists("Cups"));
  EXPECT_EQ(0, world().load());
  EXPECT_TRUE(world().objectCategoryExists("Cups"));
  EXPECT_EQ(display, world().select("1", "Cups", "Display", "ObjectName, model"));
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "positions", "*").getSize());

  // Case: the built-in categories are emptied at every start: each joint
  // has the one row of this start, not one per start.
  const KQValue headYaw = world().select("ObjectName='HeadYaw'", "joints", "positions", "ParentName");
  EXPECT_EQ(list({list({"Robot_Torso"})}), headYaw);
}

TEST_F(CategoryDatabasesTest, LoadReopensOnlySqliteFiles) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups", kNoAttributes));
  {
    std::ofstream notes(dataDir() + "/notes.txt");
    notes << "not a database";
  }
  ASSERT_EQ(0, ::mkdir((dataDir() + "/old.sqlite").c_str(), 0700));
  const std::string garbage = "this is not an SQLite file, and must stay exactly as it is\n";
  {
    std::ofstream broken(databasePath("Broken"), std::ios::binary);
    broken << garbage;
  }
  ASSERT_EQ(0, world().save());
  logs().clear();

  // Case: only files named *.sqlite are opened, each under its stem.
  EXPECT_EQ(0, world().load());
  EXPECT_EQ(sorted({"Broken", "Cups", "frame", "joints", "kqmemoryobjects", "root"}), sorted(loadedNames()));
  EXPECT_FALSE(world().objectCategoryExists("old"));
  EXPECT_FALSE(world().objectCategoryExists("notes"));
  EXPECT_EQ(1, world().select("1", "Cups", "positions", "*").getSize());

  // Case: a file that is no database answers with empty results, and is
  // neither rewritten nor emptied.
  EXPECT_TRUE(world().objectCategoryExists("Broken"));
  EXPECT_EQ(0, world().select("1", "Broken", "positions", "*").getSize());
  EXPECT_EQ(0, world().selectWithOrder("1", "TimeS", "Broken", "positions", "*").getSize());
  EXPECT_EQ(garbage, fileBytes(databasePath("Broken")));
}

TEST_F(CategoryDatabasesTest, AFileFoundOnDiskMeetsItsCategoryAgain) {
  for (const char* category : {"Cups", "Plates", "Saucers"})
    ASSERT_EQ(0, world().createObjectCategory(category, false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups", kNoAttributes));
  ASSERT_EQ(0, world().storeObject("plate1", "World", kAtOrigin, "Plates", kNoAttributes));
  ASSERT_EQ(0, world().storeObjectAttribute("plate1", "Display", list({list({"colorG", 1.0f})})));
  ASSERT_EQ(0, world().storeObject("saucer1", "World", kAtOrigin, "Saucers", kNoAttributes));
  // A restart forgets the descriptions; load reopens the files without them.
  destroyWorld();
  createWorld();
  ASSERT_EQ(0, world().load());
  logs().clear();

  // Case: a database without a description answers, but has no attributes
  // to describe.
  EXPECT_TRUE(world().objectCategoryExists("Cups"));
  EXPECT_THROW(world().getAttributesFromCategory("Cups"), KQError);
  EXPECT_EQ(1, world().select("1", "Cups", "positions", "*").getSize());

  // Case: creating it again keeps the open database and its rows.
  EXPECT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_EQ(1, world().select("1", "Cups", "positions", "*").getSize());
  EXPECT_EQ(2, world().getAttributesFromCategory("Cups").getSize());

  // Case: creating it with a reset empties every table and keeps them all.
  EXPECT_EQ(0, world().createObjectCategory("Plates", true));
  EXPECT_EQ(0, world().select("1", "Plates", "positions", "*").getSize());
  EXPECT_EQ(0, world().select("1", "Plates", "Display", "*").getSize());
  EXPECT_EQ(11u, tableColumns(databasePath("Plates"), "positions").size());
  EXPECT_EQ(10u, tableColumns(databasePath("Plates"), "Display").size());
  EXPECT_TRUE(worldLog().empty());

  // Case: removing a database without a description is refused after its
  // objects were cleared (kept as designed); the file stays open and on disk.
  EXPECT_EQ(1, world().removeObjectCategory("Saucers"));
  EXPECT_EQ(std::vector<std::string>{"warning removeObjectCategory: Category information for Saucers not found."},
            worldLog());
  EXPECT_FALSE(world().findObject("saucer1"));
  EXPECT_TRUE(world().objectCategoryExists("Saucers"));
  EXPECT_EQ(list({}), world().select("1", "Saucers", "positions", "*"));
  EXPECT_EQ(11u, tableColumns(databasePath("Saucers"), "positions").size());
}

}  // namespace
}  // namespace test
}  // namespace KQ
