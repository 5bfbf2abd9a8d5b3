// Creating, extending, describing and removing categories through the
// running module, on real database files in the fixture's data directory.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "module/world_representation.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

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

class CategoryOperationsTest : public WorldFixture {};

TEST_F(CategoryOperationsTest, CreatingACategoryTwice) {
  // Case: the first creation makes the category and its file.
  EXPECT_FALSE(world().objectCategoryExists("Cups"));
  EXPECT_EQ(0, world().createObjectCategory("Cups", false));
  EXPECT_TRUE(world().objectCategoryExists("Cups"));
  EXPECT_TRUE(fileExists(databasePath("Cups")));

  // Case: the second is refused with a warning and leaves the rows alone,
  // even when it asks for a reset.
  ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
  logs().clear();
  EXPECT_EQ(1, world().createObjectCategory("Cups", true));
  EXPECT_EQ(std::vector<std::string>{"warning createObjectCategory: Category Cups already exists!"},
            worldLog());
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "positions", "*").getSize());

  // Case: the built-in categories are there after start-up.
  for (const char* builtIn : {"joints", "root", "frame", "kqmemoryobjects"}) {
    EXPECT_TRUE(world().objectCategoryExists(builtIn)) << builtIn;
    EXPECT_TRUE(fileExists(databasePath(builtIn))) << builtIn;
  }
}

TEST_F(CategoryOperationsTest, AFreshCategoryHasPositionsAndDisplay) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  const KQValue attributes = world().getAttributesFromCategory("Cups");
  ASSERT_EQ(2, attributes.getSize());
  EXPECT_EQ("positions", attributes[0][0].toString());
  EXPECT_EQ(kPositionsFields, fieldsText(attributes[0][1]));
  EXPECT_EQ("Display", attributes[1][0].toString());
  EXPECT_EQ(kDisplayFields, fieldsText(attributes[1][1]));
}

TEST_F(CategoryOperationsTest, AddingAttributes) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  logs().clear();

  // Case: a new attribute gets the special fields first and its own table.
  EXPECT_EQ(0, world().addAttributeToCategory("Cups", "weight", list({list({"kg", "float"})})));
  KQValue attributes = world().getAttributesFromCategory("Cups");
  ASSERT_EQ(3, attributes.getSize());
  EXPECT_EQ("weight", attributes[2][0].toString());
  EXPECT_EQ((std::vector<std::string>{"ObjectName text", "TimeS int", "TimeUS int", "kg float"}),
            fieldsText(attributes[2][1]));
  ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups",
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

TEST_F(CategoryOperationsTest, DescribingAnUnknownCategoryThrows) {
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

TEST_F(CategoryOperationsTest, RemovingACategory) {
  //   World
  //   `-- table      (Furniture)
  //       |-- cup1   (Cups)
  //       |   `-- spoon (Cutlery)
  //       `-- cup2   (Cups)
  ASSERT_EQ(0, world().createObjectCategory("Furniture", false));
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().createObjectCategory("Cutlery", false));
  ASSERT_EQ(0, world().storeObject("table", "World", {1, 0, 0, 0, 0, 0}, "Furniture", list({})));
  ASSERT_EQ(0, world().storeObject("cup1", "table", {0, 0, 1, 0, 0, 0}, "Cups", list({})));
  ASSERT_EQ(0, world().storeObject("spoon", "cup1", {0, 0, 0.1f, 0, 0, 0}, "Cutlery", list({})));
  ASSERT_EQ(0, world().storeObject("cup2", "table", {0, 1, 1, 0, 0, 0}, "Cups", list({})));
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

TEST_F(CategoryOperationsTest, ObjectsAndTheirCategories) {
  //   World                       (root)
  //   |-- Robot                   (frame)
  //   |   `-- Robot_Torso         (frame)
  //   |       `-- HeadYaw, ...    (joints)
  //   `-- cup1                    (Cups)
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
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
  EXPECT_EQ("frame", world().getObjectCategory("Robot_Torso"));
  EXPECT_EQ("joints", world().getObjectCategory("HeadYaw"));
  EXPECT_EQ("Cups", world().getObjectCategory("cup1"));
  EXPECT_EQ("", world().getObjectCategory("ghost"));
  EXPECT_EQ(std::vector<std::string>{"warning xGetObjectCategory: Object ghost not found, "
                                     "cannot get object storage"},
            worldLog());
}

}  // namespace
}  // namespace test
}  // namespace KQ
