// Categories through the running module, on real database files in the
// fixture's data directory: one file per category with its fixed tables,
// attributes added, described and removed, rows stamped with the object's
// name and the time, rows that survive a reload or a restart, and the files
// found again at load.
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

bool fileExists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

// The [name, type] pairs of one attribute as getAttributesFromCategory gives them.
std::vector<std::string> fieldsText(const KQValue& fields) {
  std::vector<std::string> out;
  for (int i = 0; i < fields.getSize(); ++i) out.push_back(fields[i][0].toString() + " " + fields[i][1].toString());
  return out;
}

const std::vector<std::string> kPositionsFields = {"ObjectName text", "TimeS int", "TimeUS int", "ParentName text",
                                                   "QuatW float",     "QuatX float", "QuatY float", "QuatZ float",
                                                   "X float",         "Y float",     "Z float"};
const std::vector<std::string> kDisplayFields = {"ObjectName text", "TimeS int",    "TimeUS int",
                                                 "colorR float",    "colorG float", "colorB float",
                                                 "scaleX float",    "scaleY float", "scaleZ float",
                                                 "model text"};
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

TEST_F(CategoryDatabasesTest, ACategoryIsOneFileWithTheFixedTablesMadeOnce) {
  // Case: the first creation makes the category and its file, with the
  // fixed tables on disk and in its description.
  EXPECT_FALSE(world().objectCategoryExists("Cups"));
  EXPECT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_TRUE(world().objectCategoryExists("Cups"));
  EXPECT_EQ(kPositionsFields, tableColumns(databasePath("Cups"), "positions"));
  EXPECT_EQ(kDisplayFields, tableColumns(databasePath("Cups"), "Display"));
  const KQValue attributes = world().getAttributesFromCategory("Cups");
  ASSERT_EQ(2, attributes.getSize());
  EXPECT_EQ("positions", attributes[0][0].toString());
  EXPECT_EQ(kPositionsFields, fieldsText(attributes[0][1]));
  EXPECT_EQ("Display", attributes[1][0].toString());
  EXPECT_EQ(kDisplayFields, fieldsText(attributes[1][1]));

  // Case: the second is refused with a warning and leaves the rows alone,
  // even when it asks for a reset.
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups", kNoAttributes));
  logs().clear();
  EXPECT_EQ(1, world().createObjectCategory("Cups", true));
  EXPECT_EQ(std::vector<std::string>{"warning createObjectCategory: Category Cups already exists!"}, worldLog());
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "positions", "*").getSize());

  // Case: the built-in categories are there after start-up.
  for (const char* builtIn : {"joints", "root", "frame", "kqmemoryobjects"}) {
    EXPECT_TRUE(world().objectCategoryExists(builtIn)) << builtIn;
    EXPECT_TRUE(fileExists(databasePath(builtIn))) << builtIn;
  }
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

TEST_F(CategoryDatabasesTest, AddingAttributes) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  logs().clear();

  // Case: a new attribute gets the special fields first and its own table.
  EXPECT_EQ(0, world().addAttributeToCategory("Cups", "weight", list({list({"kg", "float"})})));
  KQValue attributes = world().getAttributesFromCategory("Cups");
  ASSERT_EQ(3, attributes.getSize());
  EXPECT_EQ("weight", attributes[2][0].toString());
  EXPECT_EQ((std::vector<std::string>{"ObjectName text", "TimeS int", "TimeUS int", "kg float"}),
            fieldsText(attributes[2][1]));
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups",
                                   list({list({"weight", list({list({"kg", 0.25f})})})})));
  EXPECT_EQ(1, world().select("1", "Cups", "weight", "ObjectName, TimeS, TimeUS, kg").getSize());
  EXPECT_TRUE(worldLog().empty());

  // Case: the same attribute again, or a fixed one, is refused.
  EXPECT_EQ(1, world().addAttributeToCategory("Cups", "weight", list({list({"g", "int"})})));
  EXPECT_EQ(1, world().addAttributeToCategory("Cups", "positions", list({})));
  EXPECT_EQ(1, world().addAttributeToCategory("Cups", "Display", list({})));
  EXPECT_EQ((std::vector<std::string>{
                "warning xAddAttributeToCategory: Category Cups already has an attribute weight",
                "warning xAddAttributeToCategory: Category Cups already has an attribute "
                "positions",
                "warning xAddAttributeToCategory: Category Cups already has an attribute "
                "Display"}),
            worldLog());
  logs().clear();

  // Case: an unknown category and malformed fields are errors; nothing is added.
  EXPECT_EQ(1, world().addAttributeToCategory("Nope", "weight", list({list({"kg", "float"})})));
  EXPECT_EQ(1, world().addAttributeToCategory("Cups", "volume", list({list({"l", 2})})));
  EXPECT_EQ(1, world().addAttributeToCategory("Cups", "volume", KQValue("l float")));
  EXPECT_EQ((std::vector<std::string>{
                "error xAddAttributeToCategory: Category Nope does not exist.",
                "error xAddAttributeToCategory: Invalid attribute fields format.",
                "error xAddAttributeToCategory: Invalid attribute fields format."}),
            worldLog());
  EXPECT_EQ(3, world().getAttributesFromCategory("Cups").getSize());
  EXPECT_FALSE(world().objectCategoryExists("Nope"));

  // Case: the remote path gives the same answer as the direct call.
  EXPECT_EQ(KQValue(0), world().callMethod("addAttributeToCategory",
                                           list({"Cups", "volume", list({list({"l", "float"})})})));
  EXPECT_EQ(4, world().getAttributesFromCategory("Cups").getSize());
}

TEST_F(CategoryDatabasesTest, DescribingAnUnknownCategoryThrows) {
  // Case: directly, the error names the module, the method and the category.
  try {
    world().getAttributesFromCategory("Nope");
    FAIL() << "no KQError";
  } catch (const KQError& e) {
    EXPECT_EQ("KQWorldRepresentation", e.getModuleName());
    EXPECT_EQ("getAttributesFromCategory", e.getMethodName());
    EXPECT_EQ("Category Nope does not exist, cannot retrieve attributes.", e.getMessage());
  }
  // Case: a remote caller gets the same error, and the module goes on.
  EXPECT_THROW(world().callMethod("getAttributesFromCategory", list({"Nope"})), KQError);
  EXPECT_EQ(2, world().getAttributesFromCategory("joints").getSize());
}

TEST_F(CategoryDatabasesTest, RemovingACategory) {
  //   World
  //   `-- table      (Furniture)
  //       |-- cup1   (Cups)
  //       |   `-- spoon (Cutlery)
  //       `-- cup2   (Cups)
  ASSERT_EQ(0, world().createObjectCategory("Furniture", false));
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().createObjectCategory("Cutlery", false));
  ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0, 0, 0, 0}, "Furniture", list({})));
  ASSERT_EQ(0, world().storeObject("cup1", "table", {0, 0, 1, 0, 0, 0}, "Cups", kNoAttributes));
  ASSERT_EQ(0, world().storeObject("spoon", "cup1", {0, 0, 0.1f, 0, 0, 0}, "Cutlery", list({})));
  ASSERT_EQ(0, world().storeObject("cup2", "table", {0, 1, 1, 0, 0, 0}, "Cups", kNoAttributes));
  logs().clear();

  // Case: the objects go with their subtrees, the file goes, the rest stays.
  EXPECT_EQ(0, world().removeObjectCategory("Cups"));
  EXPECT_FALSE(world().findObject("cup1"));
  EXPECT_FALSE(world().findObject("cup2"));
  EXPECT_FALSE(world().findObject("spoon"));
  EXPECT_TRUE(world().findObject("table"));
  EXPECT_FALSE(world().objectCategoryExists("Cups"));
  EXPECT_FALSE(fileExists(databasePath("Cups")));
  EXPECT_FALSE(fileExists(databasePath("Cups") + "-wal"));
  EXPECT_THROW(world().getAttributesFromCategory("Cups"), KQError);
  EXPECT_EQ(0, world().select("ObjectName='spoon'", "Cutlery", "positions", "*").getSize());
  EXPECT_EQ(1, world().select("ObjectName='table'", "Furniture", "positions", "*").getSize());
  EXPECT_EQ(std::vector<std::string>{}, worldLog());

  // Case: removing it again is refused with a warning.
  EXPECT_EQ(1, world().removeObjectCategory("Cups"));
  EXPECT_EQ(std::vector<std::string>{
                "warning removeObjectCategory: Category database Cups not found."},
            worldLog());

  // Case: a category made again under the same name starts empty: no row
  // of the removed one comes back.
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_EQ(0, world().select("1", "Cups", "positions", "*").getSize());
  EXPECT_EQ(2, world().getAttributesFromCategory("Cups").getSize());
}

TEST_F(CategoryDatabasesTest, ObjectsAndTheirCategories) {
  //   World                       (root)
  //   |-- Robot                   (frame)
  //   |   `-- Robot_Torso         (frame)
  //   |       `-- HeadYaw, ...    (joints)
  //   `-- cup1                    (Cups)
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", kAtOrigin, "Cups", kNoAttributes));
  logs().clear();

  // Case: the objects of a category, in the graph's order; the root is never listed.
  EXPECT_EQ((std::vector<std::string>{"HeadYaw", "LShoulderPitch", "RShoulderPitch", kGhostJoint}),
            world().getObjectsInCategory("joints"));
  EXPECT_EQ((std::vector<std::string>{"Robot", "Robot_Torso"}), world().getObjectsInCategory("frame"));
  EXPECT_EQ(std::vector<std::string>{"cup1"}, world().getObjectsInCategory("Cups"));
  EXPECT_EQ(std::vector<std::string>{}, world().getObjectsInCategory("root"));
  EXPECT_EQ(std::vector<std::string>{}, world().getObjectsInCategory("Nope"));
  EXPECT_TRUE(worldLog().empty());

  // Case: an object's category, and an unknown object's empty answer.
  EXPECT_EQ("root", world().getObjectCategory("World"));
  EXPECT_EQ("Cups", world().getObjectCategory("cup1"));
  EXPECT_EQ("", world().getObjectCategory("ghost"));
  EXPECT_EQ(std::vector<std::string>{"warning xGetObjectCategory: Object ghost not found, "
                                     "cannot get object storage"},
            worldLog());
}

}  // namespace
}  // namespace test
}  // namespace KQ
