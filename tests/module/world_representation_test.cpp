// The module's spine: its method table as the broker reports it, calls by
// name through the middleware's binding, and creation when init() fails.
// The fixture's world (see world_fixture.h) with one cup on the floor:
//
//   World
//   |-- Robot -- Robot_Torso -- HeadYaw, LShoulderPitch, RShoulderPitch, LWristGhost
//   `-- cup                    (frame)
#include "module/world_representation.h"

#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/value.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

KQValue emptyList() {
  KQValue list;
  list.arraySetSize(0);
  return list;
}

KQValue args(std::vector<KQValue> values) { return values.empty() ? emptyList() : KQValue(values); }

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

// The table as remote callers see it: name and description, in order.
const std::vector<std::pair<std::string, std::string>>& expectedMethods() {
  static const std::vector<std::pair<std::string, std::string>> methods = {
      {"addAttributeToCategory", "Add an attribute to a category."},
      {"clearObject", "Clear an object."},
      {"clearOldPositions", "Clear recording of old positions."},
      {"createObjectCategory", "Create a new object category"},
      {"removeObjectCategory", "Remove an object category"},
      {"objectCategoryExists", "Tells if an object category exists"},
      {"deleteObjectAttribute", "Delete an object attribute"},
      {"findObject", "Check that an object is present."},
      {"load", ""},
      {"getAttributesFromCategory", "Get all attributes from a category if it exists."},
      {"getChildrenNames", "Get the direct children of an object."},
      {"getObjectNames", "Get the name of the objects."},
      {"getObjectAttributes", ""},
      {"getObjectAttributeValues", ""},
      {"getObjectLatestAttributes", ""},
      {"getObjectParentName", ""},
      {"getObjectsInCategory", "Get the name of the objects stored in the database."},
      {"getObjectCategory", "Get the name of the database where the object is stored."},
      {"getPosition", "Get the position of an object with quaternion / translation."},
      {"getPosition6D", "Get the position from one object to another."},
      {"getPosition6DAtTime", "Get the interpolated position of an object"},
      {"getRootName", ""},
      {"save", ""},
      {"select", "Select information from a database."},
      {"selectWithOrder", "Select ordered information from a database."},
      {"storeObject", ""},
      {"storeObjectWithReference", ""},
      {"storeObjectAttribute", ""},
      {"updatePosition", "Update the position of an object."},
      {"updatePositionWithReference", "Update the position of an object relative to another."},
      {"updateAttribute", ""},
      {"_startMemoryCheck", ""},
      {"_stopMemoryCheck", ""},
      {"_beginTransaction", ""},
      {"_endTransaction", ""}};
  return methods;
}

class WorldRepresentationTest : public WorldFixture {
 protected:
  void SetUp() override {
    WorldFixture::SetUp();
    ASSERT_EQ(0, world().storeObject("cup", "World", {1, 0, 0, 0, 0, 0}, "frame", emptyList()));
  }

  std::shared_ptr<KQProxy> proxy() { return broker()->getProxy("KQWorldRepresentation"); }

  // The argument error of a call by name, or a failure.
  std::string refusalOf(const std::string& method, const KQValue& arguments) {
    try {
      proxy()->callMethod(method, arguments);
    } catch (const KQArgumentError& e) {
      return e.what();
    } catch (const std::exception& e) {
      ADD_FAILURE() << method << " threw something else: " << e.what();
      return "";
    }
    ADD_FAILURE() << method << " was not refused";
    return "";
  }
};

TEST_F(WorldRepresentationTest, TheBrokerListsExactlyTheThirtyFiveMethodsInOrder) {
  const std::vector<KQMethodDescription> listed = proxy()->getMethodList();
  ASSERT_EQ(35u, expectedMethods().size());
  std::vector<std::pair<std::string, std::string>> actual;
  for (const KQMethodDescription& method : listed) actual.emplace_back(method.name, method.description);
  EXPECT_EQ(expectedMethods(), actual);

  // Case: signatures come from the members' own types, so "load" shows as
  // save's and the underscored names as their members'.
  auto signatureOf = [&](const std::string& name) {
    for (const KQMethodDescription& method : listed)
      if (method.name == name) return method.signature;
    return std::string("<absent>");
  };
  EXPECT_EQ("int()", signatureOf("load"));
  EXPECT_EQ(signatureOf("save"), signatureOf("load"));
  EXPECT_EQ("int(string, array of float, bool)", signatureOf("updatePosition"));
  EXPECT_EQ("array of float(string, string, int, int)", signatureOf("getPosition6DAtTime"));
  EXPECT_EQ("void(int)", signatureOf("_startMemoryCheck"));
  EXPECT_EQ("int(string)", signatureOf("_endTransaction"));

  // Case: the members that are public but not advertised stay unreachable.
  EXPECT_FALSE(world().hasMethod("getPositionAtTime"));
  EXPECT_FALSE(world().hasMethod("startMemoryCheck"));
}

TEST_F(WorldRepresentationTest, ARemoteLoadSavesAndLeavesTheWorldAlone) {
  // The archive on disk holds "ghost" and no "cup2": a real load would
  // bring the one back and drop the other.
  ASSERT_EQ(0, world().storeObject("ghost", "World", {0, 1, 0, 0, 0, 0}, "frame", emptyList()));
  ASSERT_EQ(0, world().save());
  ASSERT_EQ(0, world().clearObject("ghost"));
  ASSERT_EQ(0, world().storeObject("cup2", "World", {0, 2, 0, 0, 0, 0}, "frame", emptyList()));
  const std::vector<std::string> before = world().getObjectNames();

  // Case: "load" answers what save answers and writes the archive anew.
  EXPECT_EQ(KQValue(0), proxy()->callMethod("load", args({})));
  EXPECT_EQ(before, world().getObjectNames());
  EXPECT_FALSE(world().findObject("ghost"));
  const std::string nodes = readFile(dataDir() + "/nodes.xml");
  EXPECT_NE(std::string::npos, nodes.find("<name>cup2</name>"));
  EXPECT_EQ(std::string::npos, nodes.find("<name>ghost</name>"));
}

TEST_F(WorldRepresentationTest, CallsByNameAreRefusedBeforeTheMethodRuns) {
  // Case: a wrong number of arguments.
  EXPECT_EQ("KQWorldRepresentation.findObject: expects 1 argument, got 0", refusalOf("findObject", args({})));
  EXPECT_EQ("KQWorldRepresentation.getRootName: expects 0 arguments, got 1",
            refusalOf("getRootName", args({KQValue("World")})));

  // Case: a wrong type names the argument, and the method does not run.
  EXPECT_EQ("KQWorldRepresentation.updatePosition: argument 2 must be array of float, not string \"1, 1, 1\"",
            refusalOf("updatePosition", args({KQValue("cup"), KQValue("1, 1, 1"), KQValue(true)})));
  EXPECT_EQ(
      "KQWorldRepresentation.updatePosition: argument 3 must be bool, not int 1",
      refusalOf("updatePosition", args({KQValue("cup"), KQValue(std::vector<float>{5, 5, 5, 0, 0, 0}), KQValue(1)})));
  EXPECT_EQ("KQWorldRepresentation.updatePosition: argument 2 must be array of float, not array [1, \"a\"]",
            refusalOf("updatePosition",
                      args({KQValue("cup"), KQValue(std::vector<KQValue>{KQValue(1), KQValue("a")}), KQValue(true)})));
  EXPECT_FLOAT_EQ(1.0f, world().getPosition6D("World", "cup")[0]);
  EXPECT_EQ("KQWorldRepresentation.getObjectAttributeValues: argument 3 must be int, not float 2.5",
            refusalOf("getObjectAttributeValues", args({KQValue("cup"), KQValue("Display"), KQValue(2.5f)})));

  // Case: ints are accepted where floats are expected, and the call runs.
  const KQValue intPosition(
      std::vector<KQValue>{KQValue(2), KQValue(3), KQValue(4), KQValue(0), KQValue(0), KQValue(0)});
  EXPECT_EQ(KQValue(0), proxy()->callMethod("updatePosition", args({KQValue("cup"), intPosition, KQValue(false)})));
  EXPECT_EQ((std::vector<float>{2, 3, 4, 0, 0, 0}), world().getPosition6D("World", "cup"));

  // Case: results come back as values of the member's result type.
  EXPECT_EQ(KQValue("World"), proxy()->callMethod("getObjectParentName", args({KQValue("cup")})));
}

// init() fails because the motion module cannot list the body.
class FailingInitTest : public WorldFixture {
 protected:
  void configureModules() override { motion().setBodyNamesThrows(true); }
  bool createWorldInSetUp() override { return false; }
};

TEST_F(FailingInitTest, ACreationWhoseInitThrowsExitsBeforeTheErrorArrives) {
  // Case: the creator receives the motion module's own error.
  try {
    createWorld();
    ADD_FAILURE() << "creation succeeded";
  } catch (const KQError& e) {
    EXPECT_EQ("KQMotion.getBodyNames: Could not read the body names", std::string(e.what()));
  }

  // Case: exit() ran first: it unregistered the module from the broker and
  // saved what init() had built so far (the robot frames, no joint).
  EXPECT_EQ(nullptr, broker()->getModule("KQWorldRepresentation"));
  const std::string nodes = readFile(dataDir() + "/nodes.xml");
  EXPECT_NE(std::string::npos, nodes.find("<name>Robot_Torso</name>"));
  EXPECT_EQ(std::string::npos, nodes.find("<name>HeadYaw</name>"));
  EXPECT_FALSE(fileExists(dataDir() + "/nodes.xml.tmp"));

  // Case: the name is free again; once the body answers, creation works.
  motion().setBodyNamesThrows(false);
  createWorld();
  EXPECT_TRUE(world().findObject("HeadYaw"));
}

}  // namespace
}  // namespace test
}  // namespace KQ
