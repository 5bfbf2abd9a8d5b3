// The world archive against real files in the fixture's data directory.
//
// Most stories start from the fixture's world with a tray carried by the
// robot and a table standing in the room:
//
//   World
//   |-- Robot                      (odometry: x 1, y 2, theta 0.3 when saved)
//   |   `-- Robot_Torso            (motion)
//   |       |-- HeadYaw            (motion: yaw 0.5, z 0.1265 when saved)
//   |       |-- LShoulderPitch
//   |       |-- RShoulderPitch
//   |       |-- LWristGhost
//   |       `-- tray               (frame)
//   |           |-- cup1           (cups)
//   |           |   `-- saucer     (cups)
//   |           `-- cup2           (cups)
//   `-- table                      (frame)
//
// Load pairs edges with nodes in one walk that needs the parents of the
// saved edges in ascending order of their saved ids; this tree is stored in
// an order that gives it (TheMergeWalkKeepsItsOrderRules shows the rest).
#include "persistence/world_archive.h"

#include <cmath>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/archive/xml_oarchive.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "middleware/error.h"
#include "middleware/value.h"
#include "persistence/save_visitor.h"
#include "spatial/edge_interface.h"
#include "spatial/scene_graph.h"
#include "storage/object_category.h"
#include "storage/world_object.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const std::vector<float> kHeadYawInTorso = {std::cos(0.5f), -std::sin(0.5f), 0, 0,       //
                                            std::sin(0.5f), std::cos(0.5f),  0, 0,       //
                                            0,              0,               1, 0.1265f};
const std::vector<float> kIdentityTransform = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
}

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

void expectPose(const std::vector<float>& expected, const std::vector<float>& actual, const std::string& what) {
  ASSERT_EQ(expected.size(), actual.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], 1e-4) << what << " [" << i << "]";
}

// The message of the KQError that `action` throws, or a failure.
template <class Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const KQError& e) {
    EXPECT_EQ("load", e.getMethodName());
    return e.getMessage();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "not a KQError: " << e.what();
    return "";
  }
  ADD_FAILURE() << "nothing thrown";
  return "";
}

// Writes both archive files by hand, for orders that save never produces.
void writeArchives(const std::string& dir, const SavedNodes& nodes, const SavedEdges& edges) {
  {
    std::ofstream file(dir + "/nodes.xml", std::ios::trunc);
    boost::archive::xml_oarchive archive(file, 0);
    writeNodesArchive(archive, nodes);
  }
  std::ofstream file(dir + "/edges.xml", std::ios::trunc);
  boost::archive::xml_oarchive archive(file, 0);
  writeEdgesArchive(archive, edges);
}

SaveVisitor::Edge edge(int parentId, const std::string& parentName, int childId, const std::string& childName,
                       const Math::Position6D& childInParent = Math::Position6D()) {
  SaveVisitor::Edge saved;
  saved.parentId = parentId;
  saved.parentName = parentName;
  saved.childId = childId;
  saved.childName = childName;
  saved.position = childInParent;
  return saved;
}

class WorldArchiveTest : public WorldFixture {
 protected:
  void configureModules() override {
    clock_ = std::make_unique<ManualClock>();
    motion().setTransform("HeadYaw", 0, kHeadYawInTorso);
    motion().setRobotPosition(1.0f, 2.0f, 0.3f);
  }
  void TearDown() override {
    WorldFixture::TearDown();
    clock_.reset();
  }

  // Adds the tray, cups and table of the sketch and lets the odometry
  // throttle pass, so that the robot frame reads its scripted pose.
  void buildTable() {
    ASSERT_EQ(0, world().createObjectCategory("cups", true));
    ASSERT_EQ(0, world().storeObject("tray", "Robot_Torso", {0.2f, 0.0f, 0.1f, 0, 0, 0}, "frame", list({})));
    ASSERT_EQ(0, world().storeObject("cup1", "tray", {0.1f, 0.0f, 0.05f, 0, 0, 0}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("cup2", "tray", {-0.1f, 0.2f, 0.05f, 0, 0, 1.0f}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("saucer", "cup1", {0.0f, 0.0f, -0.01f, 0, 0, 0}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("table", "World", {1.0f, 0.0f, 0.7f, 0, 0, 0}, "frame", list({})));
    clock_->advanceMilliseconds(100);
  }

  std::string nodesPath() const { return dataDir() + "/nodes.xml"; }
  std::string edgesPath() const { return dataDir() + "/edges.xml"; }

  std::unique_ptr<ManualClock> clock_;
};

TEST_F(WorldArchiveTest, SaveAndLoadGiveBackTheTreeWithFixedEdges) {
  buildTable();
  const std::vector<std::string> savedNames = world().getObjectNames();
  ASSERT_EQ(0, world().save());

  // Case: the world changes after the save: an object comes, one goes, one
  // moves, the robot drives on and the head turns.
  ASSERT_EQ(0, world().storeObject("spoon", "tray", {0, 0, 0, 0, 0, 0}, "cups", list({})));
  ASSERT_EQ(0, world().clearObject("cup2"));
  ASSERT_EQ(0, world().updatePosition("cup1", {0.5f, 0.5f, 0, 0, 0, 0}, false));
  motion().setTransform("HeadYaw", 0, kIdentityTransform);
  motion().setRobotPosition(5.0f, 5.0f, 0.0f);
  clock_->advanceMilliseconds(100);
  expectPose({0, 0, 0, 0, 0, 0}, world().getPosition6D("Robot_Torso", "HeadYaw"), "live head before load");
  expectPose({5, 5, 0, 0, 0, 0}, world().getPosition6D("World", "Robot"), "live robot before load");

  // Case: load brings back exactly the saved objects, in breadth-first order.
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ(savedNames, world().getObjectNames());
  EXPECT_FALSE(world().findObject("spoon"));
  EXPECT_TRUE(world().findObject("cup2"));

  // Case: every object keeps its parent and its category (name, parent, category).
  const std::vector<std::vector<std::string>> kept = {
      {"World", "", "root"},          {"Robot", "World", "frame"},   {"Robot_Torso", "Robot", "frame"},
      {"HeadYaw", "Robot_Torso", "joints"}, {"LWristGhost", "Robot_Torso", "joints"}, {"table", "World", "frame"},
      {"tray", "Robot_Torso", "frame"}, {"cup1", "tray", "cups"},  {"saucer", "cup1", "cups"},
      {"cup2", "tray", "cups"}};
  for (const std::vector<std::string>& object : kept) {
    EXPECT_EQ(object[1], world().getObjectParentName(object[0])) << object[0];
    EXPECT_EQ(object[2], world().getObjectCategory(object[0])) << object[0];
  }

  // Case: poses are the saved ones, the moved cup's included.
  expectPose({0.1f, 0.0f, 0.05f, 0, 0, 0}, world().getPosition6D("tray", "cup1"), "cup1 in tray");
  expectPose({-0.1f, 0.2f, 0.05f, 0, 0, 1.0f}, world().getPosition6D("tray", "cup2"), "cup2 in tray");
  expectPose({1.0f, 0.0f, 0.7f, 0, 0, 0}, world().getPosition6D("World", "table"), "table in World");

  // Case: the live frames come back fixed at their saved pose: the motion
  // module's new values no longer reach them.
  clock_->advanceMilliseconds(100);
  expectPose({0, 0, 0.1265f, 0, 0, 0.5f}, world().getPosition6D("Robot_Torso", "HeadYaw"), "head after load");
  expectPose({1, 2, 0, 0, 0, 0.3f}, world().getPosition6D("World", "Robot"), "robot after load");

  // Case: the joint set is rebuilt from the "joints" category, so a joint
  // still refuses to be moved by a caller (0, nothing changes).
  EXPECT_EQ(0, world().updatePosition("HeadYaw", {1, 1, 1, 0, 0, 0}, false));
  expectPose({0, 0, 0.1265f, 0, 0, 0.5f}, world().getPosition6D("Robot_Torso", "HeadYaw"), "joint after update");

  // Case: the category databases are reopened from the data directory.
  EXPECT_TRUE(logs().contains(ko::log::verbose, "load", "Loading cups"));
  EXPECT_TRUE(world().objectCategoryExists("cups"));
}

TEST_F(WorldArchiveTest, ACategorySharedByObjectsIsWrittenOnceAndSharedAgain) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesText = readFile(nodesPath());

  // Case: the "cups" record appears once although three objects hold it;
  // the other two refer to it.
  EXPECT_EQ(1u, countOf(nodesText, "<name>cups</name>"));
  EXPECT_EQ(1u, countOf(nodesText, "<name>joints</name>"));

  // Case: read back, the cups share one category object again.
  const SavedNodes nodes = parseNodesArchive(nodesPath(), nodesText);
  std::vector<const ObjectCategory*> cupCategories;
  for (const auto& node : nodes) {
    ASSERT_TRUE(node.second);
    if (node.second->getCategoryName() == "cups") cupCategories.push_back(node.second->getCategory().get());
  }
  ASSERT_EQ(3u, cupCategories.size());
  EXPECT_EQ(cupCategories[0], cupCategories[1]);
  EXPECT_EQ(cupCategories[0], cupCategories[2]);

  // Case: the shared record is complete: its attributes and their fields
  // (the special fields first) survive the trip.
  const ObjectAttribute* positions = cupCategories[0]->findAttribute("positions");
  ASSERT_NE(nullptr, positions);
  ASSERT_GE(positions->getFields().size(), 4u);
  EXPECT_EQ(AttributeField("ObjectName", "text"), positions->getFields()[0]);
  EXPECT_EQ("ParentName", positions->getFields()[3].getName());
  EXPECT_TRUE(cupCategories[0]->hasAttribute("Display"));
}

TEST_F(WorldArchiveTest, SavingTwiceWritesIdenticalFilesAndLeavesNoTemporaryFile) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesFirst = readFile(nodesPath());
  const std::string edgesFirst = readFile(edgesPath());
  ASSERT_EQ(0, world().save());

  // Case: nothing changed, so both files are byte for byte the same.
  EXPECT_EQ(nodesFirst, readFile(nodesPath()));
  EXPECT_EQ(edgesFirst, readFile(edgesPath()));

  // Case: the temporary files were renamed into place, none is left over.
  EXPECT_FALSE(fileExists(nodesPath() + ".tmp"));
  EXPECT_FALSE(fileExists(edgesPath() + ".tmp"));

  // Case: the files carry the element names and record order of the format.
  EXPECT_NE(std::string::npos, nodesFirst.find("<nodes "));
  EXPECT_NE(std::string::npos, edgesFirst.find("<edges "));
  const std::size_t tableEdge = edgesFirst.find("<childName>table</childName>");
  ASSERT_NE(std::string::npos, tableEdge);
  const std::size_t item = edgesFirst.rfind("<parentId>", tableEdge);
  const std::string record = edgesFirst.substr(item, edgesFirst.find("</position>", tableEdge) - item);
  const char* order[] = {"<parentId>0</parentId>", "<parentName>World</parentName>", "<childId>",
                         "<childName>table</childName>", "<position", "<x>1.000000000e+00</x>",
                         "<y>0.000000000e+00</y>", "<z>6.999999881e-01</z>", "<wx>", "<wy>", "<wz>"};
  std::size_t at = 0;
  for (const char* piece : order) {
    const std::size_t found = record.find(piece, at);
    EXPECT_NE(std::string::npos, found) << piece << " in " << record;
    if (found != std::string::npos) at = found;
  }
}

TEST_F(WorldArchiveTest, SaveNeverWaitsForABusyGraph) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesBefore = readFile(nodesPath());
  const std::string edgesBefore = readFile(edgesPath());
  ASSERT_EQ(0, world().storeObject("spoon", "tray", {0, 0, 0, 0, 0, 0}, "cups", list({})));

  // A subscriber that blocks keeps the raising call inside its locks:
  // updatePosition raises with the graph held exclusively, a "Display"
  // store raises with it held shared.
  const std::vector<std::string> events = {KQWorldRepresentation::positionChangedEventName_,
                                           KQWorldRepresentation::displayRequiredEventName_};
  for (const std::string& event : events) {
    SCOPED_TRACE(event);
    std::promise<void> inside;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    bool signalled = false;
    const uint64_t subscription = memory().subscribeEvent(event, [&](const std::string&, const KQValue&) {
      if (signalled) return;
      signalled = true;
      inside.set_value();
      released.wait();
    });
    std::thread caller([&] {
      if (event == KQWorldRepresentation::positionChangedEventName_) {
        world().updatePosition("spoon", {0.3f, 0, 0, 0, 0, 0}, false);
      } else {
        world().storeObjectAttribute("spoon", "Display", list({list({"colorR", 1.0f})}));
      }
    });
    inside.get_future().wait();

    // Case: save answers 1 at once and the previous files stay untouched.
    EXPECT_EQ(1, world().save());
    EXPECT_EQ(nodesBefore, readFile(nodesPath()));
    EXPECT_EQ(edgesBefore, readFile(edgesPath()));
    EXPECT_FALSE(fileExists(nodesPath() + ".tmp"));

    // Case: load does not wait either, and leaves the world as it is.
    EXPECT_EQ(1, world().load());
    release.set_value();
    caller.join();
    memory().unsubscribeEvent(subscription);
    EXPECT_TRUE(world().findObject("spoon"));
  }

  // Case: once the caller is gone, save writes the new world.
  ASSERT_EQ(0, world().save());
  EXPECT_NE(nodesBefore, readFile(nodesPath()));
  EXPECT_NE(std::string::npos, readFile(nodesPath()).find("<name>spoon</name>"));
}

TEST_F(WorldArchiveTest, AnInterruptedSaveLeavesThePreviousFiles) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesBefore = readFile(nodesPath());
  const std::string edgesBefore = readFile(edgesPath());

  // Case: a save that stops after writing, before its files are renamed
  // (as a crash would), leaves the old archive complete and no temporary.
  KQSceneGraph graph;
  graph.setNodeData(0, std::make_shared<WorldObject>("Elsewhere", boost::make_shared<ObjectCategory>("root")));
  {
    SaveVisitor visitor(dataDir());
    ASSERT_EQ(0, graph.visitBFS(visitor, 0));
    EXPECT_TRUE(fileExists(nodesPath() + ".tmp"));
  }
  EXPECT_EQ(nodesBefore, readFile(nodesPath()));
  EXPECT_EQ(edgesBefore, readFile(edgesPath()));
  EXPECT_FALSE(fileExists(nodesPath() + ".tmp"));
  EXPECT_FALSE(fileExists(edgesPath() + ".tmp"));

  // Case: a commit before the walk wrote anything is refused the same way.
  {
    SaveVisitor visitor(dataDir());
    EXPECT_THROW(visitor.commit(), KQError);
  }
  EXPECT_EQ(nodesBefore, readFile(nodesPath()));

  // Case: a data directory that is gone: the visitor says which file it
  // could not create.
  try {
    SaveVisitor visitor(dataDir() + "/gone");
    ADD_FAILURE() << "no error for a missing directory";
  } catch (const KQError& e) {
    EXPECT_EQ("Cannot create " + dataDir() + "/gone/nodes.xml.tmp: No such file or directory.", e.getMessage());
  }
}

TEST_F(WorldArchiveTest, AWorldOfTheRootAloneRoundTrips) {
  // Case: a graph holding only the root writes one node (id 0) and no edge.
  KQSceneGraph graph;
  graph.setNodeData(0, std::make_shared<WorldObject>("World", boost::make_shared<ObjectCategory>("root")));
  {
    SaveVisitor visitor(dataDir());
    ASSERT_EQ(0, graph.visitBFS(visitor, 0));
    visitor.commit();
  }
  EXPECT_NE(std::string::npos, readFile(nodesPath()).find("<count>1</count>"));
  EXPECT_NE(std::string::npos, readFile(nodesPath()).find("<first>0</first>"));
  EXPECT_NE(std::string::npos, readFile(edgesPath()).find("<count>0</count>"));

  // Case: loading it gives back the root alone; the robot frames are gone
  // and so is the joint set.
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ(std::vector<std::string>{"World"}, world().getObjectNames());
  EXPECT_EQ("root", world().getObjectCategory("World"));
}

TEST_F(WorldArchiveTest, TheMergeWalkKeepsItsOrderRules) {
  auto category = boost::make_shared<ObjectCategory>("frame");
  auto object = [&](const std::string& name) { return std::make_shared<WorldObject>(name, category); };

  // Case: an edge whose parent comes before the node cursor is never
  // matched again: the walk runs out of nodes and drops it (and every edge
  // after it), without a message.
  //   saved ids: 0 World, 1 b, 2 a, 3 c, 4 d; edges World->a, a->c, b->d
  //   (b is never a child, so its edge meets a cursor already past it)
  writeArchives(dataDir(), {{0, object("World")}, {1, object("b")}, {2, object("a")}, {3, object("c")}, {4, object("d")}},
                {edge(0, "World", 2, "a", Math::Position6D(1, 0, 0, 0, 0, 0)), edge(2, "a", 3, "c"),
                 edge(1, "b", 4, "d")});
  logs().clear();
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ((std::vector<std::string>{"World", "a", "c"}), world().getObjectNames());
  EXPECT_FALSE(world().findObject("d"));
  expectPose({1, 0, 0, 0, 0, 0}, world().getPosition6D("World", "a"), "a in World");
  EXPECT_EQ(0u, logs().count(ko::log::error));

  // Case: the same rule in a world as the module saves it: a table with a
  // cup under World is visited (breadth first) before the torso's joints,
  // whose parent has a lower saved id; the walk has passed the torso by
  // then, so the joints and everything after them are not loaded.
  destroyWorld();
  std::remove((dataDir() + "/nodes.xml").c_str());
  createWorld();
  ASSERT_EQ(0, world().storeObject("desk", "World", {1, 0, 0, 0, 0, 0}, "frame", list({})));
  ASSERT_EQ(0, world().storeObject("mug", "desk", {0, 0, 0.7f, 0, 0, 0}, "frame", list({})));
  ASSERT_EQ(0, world().save());
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ((std::vector<std::string>{"World", "Robot", "desk", "Robot_Torso", "mug"}), world().getObjectNames());
  EXPECT_FALSE(world().findObject("HeadYaw"));

  // Case: a parent name that was never entered is entered with node 0, so
  // its child hangs under the root.
  writeArchives(dataDir(), {{0, object("World")}, {1, object("x")}, {2, object("y")}},
                {edge(1, "x", 2, "y", Math::Position6D(0, 3, 0, 0, 0, 0))});
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ((std::vector<std::string>{"World", "y"}), world().getObjectNames());
  EXPECT_EQ("World", world().getObjectParentName("y"));
  expectPose({0, 3, 0, 0, 0, 0}, world().getPosition6D("World", "y"), "y in World");
}

TEST_F(WorldArchiveTest, ABrokenArchiveIsAnErrorThatNamesTheFile) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesGood = readFile(nodesPath());
  const std::string edgesGood = readFile(edgesPath());
  auto expectClearedWorld = [&](const std::string& story) {
    EXPECT_EQ(std::vector<std::string>{}, world().getObjectNames()) << story;
    EXPECT_FALSE(world().findObject("World")) << story;
    EXPECT_FALSE(world().findObject("cup1")) << story;
  };

  // Case: a missing edges.xml is named as missing (not as the library's
  // "input stream error") and the world is left cleared, as designed.
  std::remove(edgesPath().c_str());
  EXPECT_EQ(edgesPath() + " does not exist.", errorOf([&] { world().load(); }));
  expectClearedWorld("missing edges.xml");
  // The databases were not reopened, so they are still there.
  EXPECT_TRUE(world().objectCategoryExists("cups"));

  // Case: a missing nodes.xml.
  writeFile(edgesPath(), edgesGood);
  std::remove(nodesPath().c_str());
  EXPECT_EQ(nodesPath() + " does not exist.", errorOf([&] { world().load(); }));

  // Case: an empty file, and one of blanks only.
  writeFile(nodesPath(), "");
  EXPECT_EQ(nodesPath() + " is empty.", errorOf([&] { world().load(); }));
  writeFile(nodesPath(), " \n\n");
  EXPECT_EQ(nodesPath() + " is empty.", errorOf([&] { world().load(); }));

  // Case: a file cut short, as a full disk leaves it.
  writeFile(nodesPath(), nodesGood.substr(0, nodesGood.size() / 2));
  EXPECT_EQ(nodesPath() + " is truncated.", errorOf([&] { world().load(); }));

  // Case: something that is not an archive at all.
  writeFile(nodesPath(), "hello\n");
  EXPECT_EQ(nodesPath() + " is malformed: it is not an XML archive.", errorOf([&] { world().load(); }));

  // Case: the two files swapped: the root element does not match.
  writeFile(nodesPath(), edgesGood);
  writeFile(edgesPath(), nodesGood);
  EXPECT_EQ(edgesPath() + " is malformed: element <nodes> where <edges> belongs.", errorOf([&] { world().load(); }));
  expectClearedWorld("swapped files");

  // Case: a forged element count is refused before anything is allocated.
  std::string forged = edgesGood;
  const std::size_t count = forged.find("<count>");
  forged.replace(count, forged.find("</count>") - count, "<count>40000000");
  writeFile(nodesPath(), nodesGood);
  writeFile(edgesPath(), forged);
  EXPECT_EQ(edgesPath() + " is malformed: the count of <edges> does not match its items.",
            errorOf([&] { world().load(); }));

  // Case: an edge to a node that nodes.xml does not hold.
  writeArchives(dataDir(), {{0, std::make_shared<WorldObject>("World", nullptr)}}, {edge(0, "World", 7, "ghost")});
  EXPECT_EQ(edgesPath() + " is malformed: the edge to node 7 names a node that nodes.xml does not hold.",
            errorOf([&] { world().load(); }));

  // Case: a nodes map without the root node.
  writeArchives(dataDir(), {{3, std::make_shared<WorldObject>("World", nullptr)}}, {});
  EXPECT_EQ(nodesPath() + " is malformed: it holds no root node 0.", errorOf([&] { world().load(); }));

  // Case: the good files load again after all this.
  writeFile(nodesPath(), nodesGood);
  writeFile(edgesPath(), edgesGood);
  EXPECT_LE(world().load(), 0);
  EXPECT_TRUE(world().findObject("saucer"));
}

TEST_F(WorldArchiveTest, DamagedArchiveTextNeverCrashesTheReader) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodesGood = readFile(nodesPath());
  const std::string edgesGood = readFile(edgesPath());

  // Every damaged text either still reads or is a KQError; anything else
  // (another exception, a crash, a runaway allocation) fails the story.
  int refused = 0;
  auto tryRead = [&](const std::string& nodesText, const std::string& edgesText) {
    try {
      checkArchiveText(nodesPath(), nodesText, ArchiveKind::kNodes);
      checkArchiveText(edgesPath(), edgesText, ArchiveKind::kEdges);
      const SavedNodes nodes = parseNodesArchive(nodesPath(), nodesText);
      const SavedEdges edges = parseEdgesArchive(edgesPath(), edgesText);
      checkArchiveRecords(nodesPath(), nodes, edgesPath(), edges);
    } catch (const KQError&) {
      ++refused;
    }
  };

  // Case: a piece cut out of the middle, the trailer kept (a stride that is
  // prime to the indentation, so every kind of place gets its turn).
  for (const std::string* good : {&nodesGood, &edgesGood}) {
    for (std::size_t at = 0; at + 1 < good->size(); at += 17) {
      for (std::size_t length : {1u, 9u}) {
        std::string damaged = *good;
        damaged.erase(at, std::min(length, damaged.size() - at - 1));
        if (good == &nodesGood) tryRead(damaged, edgesGood);
        else tryRead(nodesGood, damaged);
      }
    }
  }
  // Case: digits made large (ids, references, counts, versions).
  for (const std::string* good : {&nodesGood, &edgesGood}) {
    for (std::size_t at = good->find_first_of("0123456789"); at != std::string::npos;
         at = good->find_first_of("0123456789", at + 5)) {
      std::string damaged = *good;
      damaged.insert(at, "99");
      if (good == &nodesGood) tryRead(damaged, edgesGood);
      else tryRead(nodesGood, damaged);
    }
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace test
}  // namespace KQ
