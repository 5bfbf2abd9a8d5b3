// The world archive against real files in the fixture's data directory.
// buildTable() adds a tray carried by the robot and a table in the room:
//   World -- Robot (x 1, y 2, theta 0.3) -- Robot_Torso -- HeadYaw (yaw 0.5, z 0.1265), ...
//                                                       `- tray -- cup1 -- saucer; cup2   (cups)
//         `- table
#include "persistence/world_archive.h"

#include <gtest/gtest.h>

#include <boost/archive/xml_oarchive.hpp>
#include <memory>
#include <cmath>
#include <future>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "middleware/error.h"
#include "persistence/save_visitor.h"
#include "spatial/scene_graph.h"
#include "storage/object_category.h"
#include "storage/world_object.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

// An archive's text written by hand, for records that save never produces.
template <class Records>
std::string archiveText(void (*write)(boost::archive::xml_oarchive&, const Records&), const Records& records) {
  std::ostringstream text;
  {
    boost::archive::xml_oarchive archive(text, 0);
    write(archive, records);
  }
  return text.str();
}

std::string nodesText(const SavedNodes& nodes) { return archiveText(writeNodesArchive, nodes); }
std::string edgesText(const SavedEdges& edges) { return archiveText(writeEdgesArchive, edges); }

SaveVisitor::Edge edge(int parentId, const std::string& parent, int childId, const std::string& child) {
  return SaveVisitor::Edge{parentId, parent, childId, child, Math::Position6D(1, 0, 0, 0, 0, 0)};
}

std::shared_ptr<WorldObject> frame(const std::string& name) {
  return std::make_shared<WorldObject>(name, std::make_shared<ObjectCategory>("frame"));
}

class WorldArchiveTest : public WorldFixture {
 protected:
  void configureModules() override {
    clock_ = std::make_unique<ManualClock>();
    motion().setTransform(
        "HeadYaw", 0, {std::cos(0.5f), -std::sin(0.5f), 0, 0, std::sin(0.5f), std::cos(0.5f), 0, 0, 0, 0, 1, 0.1265f});
    motion().setRobotPosition(1.0f, 2.0f, 0.3f);
  }
  void TearDown() override {
    WorldFixture::TearDown();
    clock_.reset();
  }
  void buildTable() {
    ASSERT_EQ(0, world().createObjectCategory("cups", true));
    ASSERT_EQ(0, world().storeObject("tray", "Robot_Torso", {0.2f, 0.0f, 0.1f, 0, 0, 0}, "frame", list({})));
    ASSERT_EQ(0, world().storeObject("cup1", "tray", {0.1f, 0.0f, 0.05f, 0, 0, 0}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("cup2", "tray", {-0.1f, 0.2f, 0.05f, 0, 0, 1.0f}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("saucer", "cup1", {0.0f, 0.0f, -0.01f, 0, 0, 0}, "cups", list({})));
    ASSERT_EQ(0, world().storeObject("table", "World", {1.0f, 0.0f, 0.7f, 0, 0, 0}, "frame", list({})));
    clock_->advanceMilliseconds(100);  // past the odometry throttle: the robot reads its scripted pose
  }
  std::string nodesPath() const { return dataDir() + "/nodes.xml"; }
  std::string edgesPath() const { return dataDir() + "/edges.xml"; }

  std::unique_ptr<ManualClock> clock_;
};

TEST_F(WorldArchiveTest, LoadGivesBackTheSavedTreeWithFixedEdges) {
  buildTable();
  const std::vector<std::string> savedNames = world().getObjectNames();
  ASSERT_EQ(0, world().save());
  // The world changes after the save: an object comes, one goes, one moves, the robot drives on.
  ASSERT_EQ(0, world().storeObject("spoon", "tray", {0, 0, 0, 0, 0, 0}, "cups", list({})));
  ASSERT_EQ(0, world().clearObject("cup2"));
  ASSERT_EQ(0, world().updatePosition("cup1", {0.5f, 0.5f, 0, 0, 0, 0}, false));
  motion().setRobotPosition(5.0f, 5.0f, 0.0f);
  // Case: exactly the saved objects, in breadth-first order, with their parents, categories and poses.
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ(savedNames, world().getObjectNames());
  EXPECT_EQ("cup1", world().getObjectParentName("saucer"));
  EXPECT_EQ("joints", world().getObjectCategory("HeadYaw"));
  expectFloatsNear({0.1f, 0.0f, 0.05f, 0, 0, 0}, world().getPosition6D("tray", "cup1"), 1e-4f, "cup1");
  expectFloatsNear({-0.1f, 0.2f, 0.05f, 0, 0, 1.0f}, world().getPosition6D("tray", "cup2"), 1e-4f, "cup2");
  // Case: the robot's live frames come back fixed at their saved pose; a
  // caller still cannot move a joint (the joint set is rebuilt).
  clock_->advanceMilliseconds(100);
  EXPECT_EQ(0, world().updatePosition("HeadYaw", {1, 1, 1, 0, 0, 0}, false));
  expectFloatsNear({0, 0, 0.1265f, 0, 0, 0.5f}, world().getPosition6D("Robot_Torso", "HeadYaw"), 1e-4f, "head");
  expectFloatsNear({1, 2, 0, 0, 0, 0.3f}, world().getPosition6D("World", "Robot"), 1e-4f, "robot");
}

TEST_F(WorldArchiveTest, ACategorySharedByObjectsIsWrittenOnceAndSharedAgain) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string text = readFile(nodesPath());
  EXPECT_EQ(text.find("<name>cups</name>"), text.rfind("<name>cups</name>"));
  // Case: read back, the three cups share one whole category again.
  std::set<const ObjectCategory*> cups;
  const SavedNodes nodes = parseNodesArchive(nodesPath(), text);  // kept: the categories live in it
  for (const auto& node : nodes)
    if (node.second->getCategoryName() == "cups") cups.insert(node.second->getCategory().get());
  ASSERT_EQ(1u, cups.size());
  EXPECT_TRUE((*cups.begin())->hasAttribute("Display"));
}

// Kept quirk: load pairs edges with nodes in one walk that needs the parents
// of the saved edges in ascending order of their saved ids.
TEST_F(WorldArchiveTest, TheMergeWalkDropsEdgesWhoseParentWasSavedAfterTheirChild) {
  //   saved ids: 0 World, 1 b, 2 a, 3 c, 4 d; edges World->a, a->c, b->d
  //   (b is never a child, so its edge meets a cursor already past it)
  writeFile(nodesPath(),
            nodesText({{0, frame("World")}, {1, frame("b")}, {2, frame("a")}, {3, frame("c")}, {4, frame("d")}}));
  writeFile(edgesPath(), edgesText({edge(0, "World", 2, "a"), edge(2, "a", 3, "c"), edge(1, "b", 4, "d")}));
  EXPECT_LE(world().load(), 0);
  EXPECT_EQ((std::vector<std::string>{"World", "a", "c"}), world().getObjectNames());
  expectFloatsNear({1, 0, 0, 0, 0, 0}, world().getPosition6D("World", "a"));
  EXPECT_EQ(0u, logs().count(ko::log::error));
}

TEST_F(WorldArchiveTest, ABrokenArchiveIsRefusedNamingTheFile) {
  buildTable();
  ASSERT_EQ(0, world().save());
  const std::string nodes = readFile(nodesPath());
  const std::string edges = readFile(edgesPath());
  std::string forged = edges;
  forged.replace(forged.find("<count>"), forged.find("</count>") - forged.find("<count>"), "<count>40000000");
  const std::string missing = "\x01";
  struct Case {
    std::string nodes, edges, message;
  } const cases[] = {
      {nodes, missing, edgesPath() + " does not exist."},
      {"", edges, nodesPath() + " is empty."},
      {nodes.substr(0, nodes.size() / 2), edges, nodesPath() + " is truncated."},
      {"hello\n", edges, nodesPath() + " is malformed: it is not an XML archive."},
      {edges, nodes, edgesPath() + " is malformed: element <nodes> where <edges> belongs."},
      {nodes, forged, edgesPath() + " is malformed: the count of <edges> does not match its items."},
      {nodesText({{0, frame("World")}}), edgesText({edge(0, "World", 7, "ghost")}),
       edgesPath() + " is malformed: the edge to node 7 names a node that nodes.xml does not hold."},
      {nodesText({{3, frame("World")}}), edgesText({}), nodesPath() + " is malformed: it holds no root node 0."},
  };
  for (const Case& c : cases) {
    for (const auto& file : {std::make_pair(nodesPath(), c.nodes), std::make_pair(edgesPath(), c.edges)}) {
      if (file.second != missing) writeFile(file.first, file.second);
      if (file.second == missing) std::remove(file.first.c_str());
    }
    EXPECT_EQ("KQWorldRepresentation.load: " + c.message, errorOf([&] { world().load(); }));
    // Case: the world is left cleared, as designed.
    EXPECT_EQ(std::vector<std::string>{}, world().getObjectNames()) << c.message;
  }
}

TEST_F(WorldArchiveTest, SaveAndLoadNeverWaitForABusyGraph) {
  buildTable();
  // A subscriber that blocks keeps updatePosition inside its graph lock, held exclusively.
  std::promise<void> inside, release;
  std::shared_future<void> released = release.get_future().share();
  const uint64_t subscription = memory().subscribeEvent(KQWorldRepresentation::positionChangedEventName_,
                                                        [&](const std::string&, const KQValue&) {
                                                          inside.set_value();
                                                          released.wait();
                                                        });
  std::thread caller([&] { world().updatePosition("cup1", {0.3f, 0, 0, 0, 0, 0}, false); });
  inside.get_future().wait();
  // Case: both answer 1 at once; the world stays as it was.
  EXPECT_EQ(1, world().save());
  EXPECT_EQ(1, world().load());
  release.set_value();
  caller.join();
  memory().unsubscribeEvent(subscription);
  EXPECT_TRUE(world().findObject("saucer"));
}

// A crash at any moment of a save leaves one whole pair: the previous before the commit marker, the new after.
TEST_F(WorldArchiveTest, AHalfWrittenPairReadsAsOneWholeSave) {
  const ArchiveStamp oldSave = newArchiveStamp(), newSave = newArchiveStamp();
  writeWorldArchive(dataDir(), {{0, frame("World")}, {1, frame("b")}}, {edge(0, "World", 1, "b")}, newSave);
  const std::string newNodes = readFile(nodesPath()), newEdges = readFile(edgesPath());
  writeWorldArchive(dataDir(), {{0, frame("World")}, {1, frame("a")}}, {edge(0, "World", 1, "a")}, oldSave);
  writeFile(nodesPath() + ".tmp", newNodes);  // Case: written, not committed.
  writeFile(edgesPath() + ".tmp", newEdges);
  EXPECT_EQ("a", readWorldArchive(dataDir())->edges[0].childName);
  writeFile(dataDir() + "/archive.commit", "");  // Case: committed, nodes.xml renamed, edges.xml not yet.
  std::rename((nodesPath() + ".tmp").c_str(), nodesPath().c_str());
  EXPECT_EQ(newSave.saveId, readWorldArchive(dataDir())->stamp.saveId);
  EXPECT_EQ("b", readWorldArchive(dataDir())->edges[0].childName);
  std::remove((dataDir() + "/archive.commit").c_str());  // Case: two saves' files, no commit: broken.
  EXPECT_EQ("KQWorldRepresentation.load: " + edgesPath() + " is not from the save that wrote " + nodesPath() +
                " (save " + std::to_string(oldSave.saveId) + ", not " + std::to_string(newSave.saveId) + ").",
            errorOf([&] { readWorldArchive(dataDir()); }));
}

}  // namespace
}  // namespace test
}  // namespace KQ
