// Start-up and shutdown of the module on the scripted body:
//
//   World                      (root)
//   `-- Robot                  (frame, odometry)
//       `-- Robot_Torso        (frame, "Torso" in space 2; no node of its own for "Torso")
//           |-- HeadYaw        (joints; scripted: yaw 0.5 rad, z 0.1265 m)
//           |-- LShoulderPitch (joints; identity)
//           |-- RShoulderPitch (joints; identity)
//           `-- LWristGhost    (joints; the body cannot give its transform)
#include <cmath>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/module.h"
#include "middleware/value.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

const std::vector<float> kHeadYawInTorso = {std::cos(0.5f), -std::sin(0.5f), 0, 0,       //
                                            std::sin(0.5f), std::cos(0.5f),  0, 0,       //
                                            0,              0,               1, 0.1265f};

const std::vector<std::string> kEvents = {"KQWorldRepresentation/DisplayRequired",
                                          "KQWorldRepresentation/PositionChanged",
                                          "KQWorldRepresentation/AttributeChanged"};

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

KQValue emptyList() {
  KQValue list;
  list.arraySetSize(0);
  return list;
}

class StartupTest : public WorldFixture {
 protected:
  void configureModules() override {
    clock_ = std::make_unique<ManualClock>(ManualClock::kDefaultStartSeconds, 250000);
    motion().setTransform("HeadYaw", 0, kHeadYawInTorso);
  }
  void TearDown() override {
    WorldFixture::TearDown();
    clock_.reset();
  }

  std::unique_ptr<ManualClock> clock_;
};

TEST_F(StartupTest, InitBuildsTheRobotFramesAndOneNodePerJoint) {
  // Case: every object, breadth first; "Torso" itself gets no second node.
  EXPECT_EQ((std::vector<std::string>{"World", "Robot", "Robot_Torso", "HeadYaw", "LShoulderPitch", "RShoulderPitch",
                                      "LWristGhost"}),
            world().getObjectNames());
  EXPECT_FALSE(world().findObject("Torso"));
  EXPECT_EQ("Robot_Torso", world().getObjectParentName("HeadYaw"));

  // Case: the built-in categories.
  EXPECT_EQ("root", world().getObjectCategory("World"));
  EXPECT_EQ("frame", world().getObjectCategory("Robot_Torso"));
  EXPECT_EQ("joints", world().getObjectCategory("LWristGhost"));
  EXPECT_TRUE(world().objectCategoryExists("kqmemoryobjects"));

  // Case: one position row per joint, under "Robot_Torso", stamped with the
  // start-up time, holding the transform read from the body.
  const KQValue rows = world().selectWithOrder(
      "1", "ObjectName", "joints", "positions", "ObjectName, TimeS, TimeUS, ParentName, QuatW, QuatX, QuatY, QuatZ, X, Y, Z");
  ASSERT_TRUE(rows.isArray());
  ASSERT_EQ(4, rows.getSize()) << rows;
  EXPECT_EQ(KQValue("HeadYaw"), rows[0][0]);
  EXPECT_EQ(KQValue("LWristGhost"), rows[2][0]);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(KQValue(static_cast<int>(ManualClock::kDefaultStartSeconds)), rows[i][1]) << rows[i];
    EXPECT_EQ(KQValue(250000), rows[i][2]) << rows[i];
    EXPECT_EQ(KQValue("Robot_Torso"), rows[i][3]) << rows[i];
  }
  EXPECT_NEAR(std::cos(0.25f), rows[0][4].toFloat(), 1e-6);
  EXPECT_NEAR(std::sin(0.25f), rows[0][7].toFloat(), 1e-6);
  EXPECT_NEAR(0.1265f, rows[0][10].toFloat(), 1e-6);

  // Case: the part the body cannot resolve still has its node and an
  // identity row, and its displacement said so once, at verbose level.
  const std::vector<float> ghost = {1, 0, 0, 0, 0, 0, 0};
  for (int column = 4; column < 11; ++column)
    EXPECT_FLOAT_EQ(ghost[column - 4], rows[2][column].toFloat()) << "column " << column;
  const std::vector<ko::log::Record> notes = logs().find("KQMotionDisplacement");
  ASSERT_EQ(1u, notes.size());
  EXPECT_EQ(ko::log::verbose, notes[0].level);
  EXPECT_EQ("Could not update transform of object LWristGhost: KQMotion.getTransform: Unknown body part LWristGhost",
            notes[0].message);
  EXPECT_EQ(0u, logs().count(ko::log::error) + logs().count(ko::log::warning));
}

TEST_F(StartupTest, InitDeclaresTheEventsAndStartsWithAnEmptyDisplay) {
  // Case: the three events in order, then one raise of an empty display list.
  EXPECT_EQ(kEvents, memory().declaredEvents());
  const auto raised = memory().raisedEvents();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(kEvents[0], raised[0].first);
  EXPECT_EQ(emptyList(), raised[0].second);
  EXPECT_EQ(emptyList(), memory().getData(kEvents[0]));
}

class RefusedDeclarationTest : public WorldFixture {
 protected:
  void configureModules() override { memory().throwOnDeclareCall(1); }
};

TEST_F(RefusedDeclarationTest, ARefusedFirstDeclarationSkipsTheOtherCalls) {
  // Case: no further declaration and no raise; one warning; the module runs.
  EXPECT_EQ(1, memory().declareCalls());
  EXPECT_TRUE(memory().declaredEvents().empty());
  EXPECT_EQ(0, memory().raisedCount(kEvents[0]));
  EXPECT_EQ(1u, logs().messagesOf("init").size());
  EXPECT_TRUE(logs().contains(ko::log::warning, "init",
                              "Could not declare display and update events, objects will not be displayed nor "
                              "updated."));
  EXPECT_TRUE(world().findObject("HeadYaw"));
}

class ShutdownTest : public WorldFixture {
 protected:
  bool createWorldInSetUp() override { return false; }
};

TEST_F(ShutdownTest, ExitAndDestructionEachSave) {
  const std::string nodes = dataDir() + "/nodes.xml";
  const std::string edges = dataDir() + "/edges.xml";
  auto module = KQModule::createModule<KQWorldRepresentation>(broker(), "KQWorldRepresentation");
  ASSERT_FALSE(fileExists(nodes));  // start-up saves nothing
  module->startMemoryCheck(0);

  // Case: exit stops the watcher, saves, and leaves the broker.
  module->exit();
  EXPECT_TRUE(fileExists(nodes));
  EXPECT_TRUE(fileExists(edges));
  EXPECT_EQ(nullptr, broker()->getModule("KQWorldRepresentation"));

  // Case: destruction saves a second time.
  std::remove(nodes.c_str());
  std::remove(edges.c_str());
  module.reset();
  EXPECT_TRUE(fileExists(nodes));
  EXPECT_TRUE(fileExists(edges));
}

}  // namespace
}  // namespace test
}  // namespace KQ
