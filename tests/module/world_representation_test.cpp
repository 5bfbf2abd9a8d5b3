// The module's spine on the scripted body: what init() builds, a remote load, a failing init().
#include "module/world_representation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "middleware/broker.h"
#include "support/checks.h"
#include "support/manual_clock.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

class WorldRepresentationTest : public WorldFixture {
 protected:
  void configureModules() override {
    // The head turned 0.5 rad, 0.1265 m above the torso.
    const float c = std::cos(0.5f), s = std::sin(0.5f);
    motion().setTransform("HeadYaw", 0, {c, -s, 0, 0, s, c, 0, 0, 0, 0, 1, 0.1265f});
  }
  ManualClock clock_{ManualClock::kDefaultStartSeconds, 250000};
};

TEST_F(WorldRepresentationTest, InitBuildsTheRobotAndItsJointsAndStartsAnEmptyDisplay) {
  // Case: "Torso" gets no node of its own: it is the robot's Robot_Torso.
  EXPECT_EQ((std::vector<std::string>{"World", "Robot", "Robot_Torso", "HeadYaw", "LShoulderPitch", "RShoulderPitch",
                                      "LWristGhost"}),
            world().getObjectNames());
  EXPECT_EQ("Robot_Torso", world().getObjectParentName("LWristGhost"));
  for (const auto& [object, category] : {std::pair{"World", "root"}, {"Robot_Torso", "frame"}, {"HeadYaw", "joints"}})
    EXPECT_EQ(category, world().getObjectCategory(object));
  EXPECT_TRUE(world().objectCategoryExists("kqmemoryobjects"));
  // Case: one row per joint under the torso, stamped at start-up, with the body's transform (or identity).
  EXPECT_EQ(
      (std::vector<std::vector<std::string>>{{"HeadYaw", "Robot_Torso", "1700000000", "250000", "0.2474", "0.1265"},
                                             {"LShoulderPitch", "Robot_Torso", "1700000000", "250000", "0.0", "0.0"},
                                             {"RShoulderPitch", "Robot_Torso", "1700000000", "250000", "0.0", "0.0"},
                                             {"LWristGhost", "Robot_Torso", "1700000000", "250000", "0.0", "0.0"}}),
      sqliteRows(databasePath("joints"),
                 "SELECT ObjectName, ParentName, TimeS, TimeUS, round(QuatZ, 4), round(Z, 4) FROM positions"));
  // Case: the three events are declared, then an empty display list is raised.
  using W = KQWorldRepresentation;
  EXPECT_EQ((std::vector<std::string>{W::displayRequiredEventName_, W::positionChangedEventName_,
                                      W::attributeChangedEventName_}),
            memory().declaredEvents());
  EXPECT_EQ((std::vector<std::pair<std::string, KQValue>>{{W::displayRequiredEventName_, list({})}}),
            memory().raisedEvents());
}

TEST_F(WorldRepresentationTest, ARemoteLoadSavesAndLoadsNothing) {
  // There is no archive yet: a real load would find none and empty the world.
  ASSERT_EQ(0, world().storeObject("cup", "World", {0, 2, 0, 0, 0, 0}, "frame", list({})));
  EXPECT_EQ(KQValue(0), broker()->getProxy("KQWorldRepresentation")->callMethod("load", list({})));
  EXPECT_TRUE(world().findObject("cup"));
  EXPECT_NE(std::string::npos, readFile(dataDir() + "/nodes.xml").find("<name>cup</name>"));
}

// init() fails because the motion module cannot list the body.
class FailingInitTest : public WorldFixture {
 protected:
  void configureModules() override { motion().setBodyNamesThrows(true); }
  bool createWorldInSetUp() override { return false; }
};

TEST_F(FailingInitTest, ACreationWhoseInitThrowsExitsBeforeTheErrorArrives) {
  // Case: the creator gets the motion module's error after exit() unlisted the module and saved.
  EXPECT_EQ("KQMotion.getBodyNames: Could not read the body names", errorOf([&] { createWorld(); }));
  EXPECT_EQ(nullptr, broker()->getModule("KQWorldRepresentation"));
  const std::string nodes = dataDir() + "/nodes.xml";
  EXPECT_NE(std::string::npos, readFile(nodes).find("<name>Robot_Torso</name>"));
  EXPECT_EQ(std::string::npos, readFile(nodes).find("<name>HeadYaw</name>"));

  // Case: the name is free again; start-up saves nothing, exit() and then destruction each save.
  motion().setBodyNamesThrows(false);
  ASSERT_EQ(0, std::remove(nodes.c_str()));
  auto module = KQModule::createModule<KQWorldRepresentation>(broker(), "KQWorldRepresentation");
  EXPECT_FALSE(fileExists(nodes));
  module->exit();
  ASSERT_EQ(0, std::remove(nodes.c_str()));
  module.reset();
  EXPECT_NE(std::string::npos, readFile(nodes).find("<name>HeadYaw</name>"));
}

}  // namespace
}  // namespace test
}  // namespace KQ
