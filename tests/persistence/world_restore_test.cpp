// Stories of a restart with --restore, on real databases and archives in the
// fixture's data directory. A crash is played by putting back the archive of
// the last save after the world has gone (its exit saves once more).
#include "persistence/world_restore.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "middleware/error.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

class WorldRestoreTest : public WorldFixture {
 protected:
  void TearDown() override {
    WorldFixture::TearDown();
    KQWorldRepresentation::setStartOptions({});
  }
  // The world as it restarts after a crash that left the archive of the last save().
  void crashAndRestore(const std::string& nodes, const std::string& edges) {
    destroyWorld();
    writeFile(dataDir() + "/nodes.xml", nodes);
    writeFile(dataDir() + "/edges.xml", edges);
    KQWorldRepresentation::setStartOptions({true, 0});
    createWorld();
  }
  std::vector<float> at(float x) { return {x, 0.0f, 0.5f, 0, 0, 0}; }
};

TEST_F(WorldRestoreTest, EachObjectComesBackFromTheNewerOfArchiveAndRows) {
  ASSERT_EQ(0, world().createObjectCategory("cups", false));
  ASSERT_EQ(0, world().addAttributeToCategory("cups", "weight", list({list({"kg", "float"})})));
  for (const char* name : {"table", "shelf"})
    ASSERT_EQ(0, world().storeObject(name, "World", at(1), "frame", list({})));
  for (const char* name : {"savedMove", "lateMove", "earlyMove", "gone", "onShelf"})
    ASSERT_EQ(0, world().storeObject(name, name == std::string("onShelf") ? "shelf" : "table", at(0), "cups",
                                     list({list({"Display", list({list({"model", "cup"})})})})));
  ASSERT_EQ(0, world().storeObject("held", "HeadYaw", at(0.1f), "cups", list({})));
  ASSERT_EQ(0, world().updatePosition("earlyMove", at(2), false));
  ASSERT_EQ(0, world().save());
  const std::string nodes = readFile(dataDir() + "/nodes.xml"), edges = readFile(dataDir() + "/edges.xml");
  // After the last archive: a saved and an unsaved move, a store, a clear,
  // and the shelf loses its rows (its child's parent cannot come back).
  ASSERT_EQ(0, world().updatePosition("savedMove", at(3), true));
  ASSERT_EQ(0, world().updatePosition("lateMove", at(4), false));
  ASSERT_EQ(0, world().storeObject("late", "table", at(5), "cups", list({})));
  ASSERT_EQ(0, world().clearObject("gone"));
  ASSERT_EQ(0, world().deleteObjectAttribute("shelf", "positions", "TimeS > 0"));

  crashAndRestore(nodes, edges);
  struct Case {
    const char* name;
    const char* parent;
    float x;
  } const cases[] = {{"savedMove", "table", 3}, {"lateMove", "table", 0}, {"earlyMove", "table", 2},
                     {"late", "table", 5},      {"held", "HeadYaw", 0.1f}, {"onShelf", "World", 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(c.parent, world().getObjectParentName(c.name)) << c.name;
    expectFloatsNear(at(c.x), world().getPosition6D(c.parent, c.name), 1e-4f, c.name);
  }
  EXPECT_FALSE(world().findObject("gone"));
  EXPECT_FALSE(world().findObject("shelf"));
  EXPECT_EQ("cups", world().getObjectCategory("late"));
  EXPECT_EQ(3, world().getAttributesFromCategory("cups").getSize());  // positions, Display, weight
  EXPECT_EQ((std::vector<std::string>{"earlyMove", "lateMove", "onShelf", "savedMove"}),
            memory().getData(KQWorldRepresentation::displayRequiredEventName_).toStringVector());
  const std::vector<std::string> log = worldLog();
  EXPECT_NE(log.end(), std::find(log.begin(), log.end(),
                                 "warning restore: Object onShelf: its parent shelf cannot be restored; placed "
                                 "under World."));
  // The robot's own rows never bring a second joint back.
  const std::vector<std::string> names = world().getObjectNames();
  EXPECT_EQ(1, std::count(names.begin(), names.end(), "HeadYaw"));
}

TEST_F(WorldRestoreTest, ABrokenArchiveEndsTheStartAndChangesNothing) {
  ASSERT_EQ(0, world().storeObject("table", "World", at(1), "frame", list({})));
  destroyWorld();
  const std::string edges = readFile(dataDir() + "/edges.xml");
  const std::string rows = std::to_string(sqliteScalar(databasePath("frame"), "SELECT count(*) FROM positions"));
  writeFile(dataDir() + "/nodes.xml", "<?xml half");
  KQWorldRepresentation::setStartOptions({true, 0});
  EXPECT_EQ("KQWorldRepresentation.load: " + dataDir() + "/nodes.xml is truncated.", errorOf([&] { createWorld(); }));
  EXPECT_EQ("<?xml half", readFile(dataDir() + "/nodes.xml"));
  EXPECT_EQ(edges, readFile(dataDir() + "/edges.xml"));
  EXPECT_EQ(rows, std::to_string(sqliteScalar(databasePath("frame"), "SELECT count(*) FROM positions")));
}

}  // namespace
}  // namespace test
}  // namespace KQ
