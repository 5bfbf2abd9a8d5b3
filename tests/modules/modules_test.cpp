// The built-in modules as the world model meets them, through a broker and their typed proxies: KQMemory with real
// subscribers on real threads, and the simulated KQMotion on the robot drawn in test_robot.urdf, which RobotModel reads
// (URDF descriptions good, broken and odd; link frames composed down a kinematic tree).
#include <atomic>
#include <cmath>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "middleware/memory_proxy.h"
#include "middleware/modules/memory_module.h"
#include "middleware/modules/motion_module.h"
#include "middleware/modules/robot_model.h"
#include "middleware/motion_proxy.h"
#include "support/checks.h"
#include "support/log_capture.h"

namespace KQ {
namespace {

using test::errorOf;
using Names = std::vector<std::string>;
constexpr float kHalfPi = 1.57079632679f;

class MemoryModuleTest : public ::testing::Test {
 protected:
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<KQBroker> broker_ = std::make_shared<KQBroker>("memory-test");
  std::shared_ptr<KQMemoryModule> module_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
  std::shared_ptr<KQMemoryProxy> memory_ = broker_->getSpecialisedProxy<KQMemoryProxy>("KQMemory");
};

TEST_F(MemoryModuleTest, KeysHoldOneValueAndRaisedEventsKeepTheirLast) {
  // Case: an absent key is an error, not an invalid value a caller would mistake for a stored one; a second insert
  // replaces the value; removing twice is no error; the filter matches anywhere in the key (keys may carry a prefix).
  EXPECT_EQ(errorOf([&] { memory_->getData("Object/cup"); }),
            "KQMemory.getData: There is no data under key Object/cup.");
  memory_->insertData("Object/cup", KQValue(1));
  for (const char* key : {"Object/cup", "robot/Object/box", "Objects", "gone"}) memory_->insertData(key, KQValue(key));
  for (int twice = 0; twice < 2; ++twice) memory_->removeData("gone");
  EXPECT_EQ(memory_->getData("Object/cup"), KQValue("Object/cup"));
  const std::pair<const char*, Names> lists[] = {{"Object/", {"Object/cup", "robot/Object/box"}},
                                                 {"", {"Object/cup", "Objects", "robot/Object/box"}}};
  for (const auto& [filter, names] : lists) EXPECT_EQ(memory_->getDataList(filter), names) << filter;
  // Case: a raised value reads back with getData; declaring twice lists once; raising an undeclared event declares it.
  for (int twice = 0; twice < 2; ++twice) memory_->declareEvent("Display");
  memory_->raiseEvent("Display", KQValue(Names{"cup"}));
  memory_->raiseEvent("Undeclared", KQValue(3));
  EXPECT_EQ(memory_->getData("Display"), KQValue(Names{"cup"}));
  EXPECT_EQ(memory_->getEventList(), (Names{"Display", "Undeclared"}));
}

TEST_F(MemoryModuleTest, SubscribersRunOutsideTheLockAndOneFailureSparesTheOthers) {
  test::LogCapture log;
  Names seen;
  auto proxy = memory_->getGenericProxy();
  // Case: a callback may read the module back (its lock is not held); a throwing one is logged, the next still called.
  const uint64_t reader = proxy->subscribe("Ping", [&](const std::string& event, const KQValue& value) {
    seen.push_back(event + "=" + memory_->getData("Ping").toText() + "/" + value.toText());
  });
  proxy->subscribe("Ping", [](const std::string&, const KQValue&) { throw std::runtime_error("viewer crashed"); });
  const uint64_t other =
      proxy->subscribe("Other", [&](const std::string&, const KQValue&) { seen.push_back("wrong event"); });
  memory_->raiseEvent("Ping", KQValue(7));
  // Case: after unsubscribing (twice is harmless), a callback is not called again.
  proxy->unsubscribe(reader);
  proxy->unsubscribe(reader);
  memory_->raiseEvent("Ping", KQValue(8));
  // Case: an event whose last subscriber left takes new ones (subscriptions are filed by event name).
  proxy->unsubscribe(other);
  proxy->subscribe("Other", [&](const std::string& event, const KQValue&) { seen.push_back(event); });
  memory_->raiseEvent("Other", KQValue(1));
  EXPECT_EQ(seen, (Names{"Ping=7/7", "Other"}));
  EXPECT_EQ(log.lines(), (Names(2, "warning KQMemory raiseEvent: A subscriber of Ping failed: viewer crashed")));
}

TEST_F(MemoryModuleTest, UnsubscribeWaitsForARunningCallbackSoItsOwnerMayGo) {
  // A network session unsubscribes when its client leaves and is then destroyed: a callback still running on the
  // raising thread must have finished by the time unsubscribe returns.
  std::promise<void> entered, release;
  std::atomic<int> calls{0};
  const uint64_t id = module_->subscribeEvent("Slow", [&, released = release.get_future().share()](
                                                          const std::string&, const KQValue&) {
    entered.set_value();
    released.wait();
    ++calls;
  });
  std::thread raiser([&] { module_->raiseEvent("Slow", KQValue(1)); });
  entered.get_future().wait();
  int callsWhenUnsubscribed = -1;
  std::thread leaver([&] {
    module_->unsubscribeEvent(id);
    callsWhenUnsubscribed = calls;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // time for a faulty unsubscribe to return early
  release.set_value();
  raiser.join();
  leaver.join();
  EXPECT_EQ(callsWhenUnsubscribed, 1);
  // Case: a callback may unsubscribe itself without deadlocking.
  uint64_t self = 0;
  self = module_->subscribeEvent("Once", [&](const std::string&, const KQValue&) { module_->unsubscribeEvent(self); });
  module_->raiseEvent("Once", KQValue(1));
}

const std::string kRobotFile = KQ_SOURCE_DIR "/tests/modules/test_robot.urdf";

void expectTranslation(const Math::Transform& t, float x, float y, float z) {
  test::expectFloatsNear({x, y, z}, {t.r[0][3], t.r[1][3], t.r[2][3]}, 1e-5f);
}

TEST(RobotModelTest, ReadsEveryJointKindInDocumentOrder) {
  const RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  EXPECT_EQ(model.rootLink(), "base_link");
  // Case: the description's order, not urdfdom's by name; fixed joints left out, mimic joints kept (their links move).
  EXPECT_EQ(model.movableJoints(), (std::vector<std::string>{"Yaw", "Slide", "Follow", "Echo", "Wheel"}));
  EXPECT_EQ(model.mimicMaster("Follow"), "Yaw");
}

TEST(RobotModelTest, ComposesLinkFramesDownTheTree) {
  RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  // Case: at rest the chain is a sum of origins.
  expectTranslation(model.linkInRoot("Slider"), 0.3f, 0.0f, 0.5f);
  // Case: a revolute joint turns everything below it about its own origin.
  model.setPosition("Yaw", 1.2f);
  expectTranslation(model.linkInRoot("Slider"), 0.1f + 0.2f * std::cos(1.2f), 0.2f * std::sin(1.2f), 0.5f);
  // Case: a prismatic joint slides along its axis, normalised (1 m per metre).
  model.setPosition("Yaw", 0.0f);
  model.setPosition("Slide", 0.25f);
  expectTranslation(model.linkInRoot("Slider"), 0.55f, 0.0f, 0.5f);
  // Case: a continuous joint turns without limit and moves only its own branch.
  model.setPosition("Wheel", 20.0f);
  EXPECT_NEAR(model.position("Wheel"), 20.0f, 1e-5f);
  expectTranslation(model.linkInRoot("WheelLink"), 0.0f, 0.2f, 0.0f);
}

TEST(RobotModelTest, ClampsToLimitsAndMimicJointsFollowTheirMaster) {
  RobotModel model = RobotModel::fromFile(kRobotFile, "Torso");
  // Case: at rest a mimic stands at its offset, which turns its own link.
  EXPECT_NEAR(model.position("Follow"), 0.1f, 1e-5f);
  EXPECT_NEAR(model.linkInRoot("Tip").r[1][0], std::sin(0.1f), 1e-5f);
  // Case: mimic = multiplier x master + offset, and a mimic of a mimic follows too.
  model.setPosition("Yaw", 0.5f);
  EXPECT_NEAR(model.position("Echo"), 1.1f, 1e-5f);
  // Case: beyond the limits a joint stops at them; a mimic at its own (2 x -1.5 + 0.1 = -2.9 -> -2).
  model.setPosition("Slide", 5.0f);
  model.setPosition("Yaw", -9.0f);
  EXPECT_EQ(std::vector<float>({model.position("Slide"), model.position("Yaw"), model.position("Follow")}),
            std::vector<float>({0.3f, -1.5f, -2.0f}));
  // Case: refusals say why and change nothing.
  EXPECT_EQ(model.checkSettable("Follow", 0.0f), "Joint Follow follows joint Yaw and cannot be set.");
  EXPECT_EQ(model.checkSettable("TorsoMount", 0.0f), "Unknown joint TorsoMount.");
  EXPECT_THROW(model.setPosition("Yaw", INFINITY), std::invalid_argument);
  EXPECT_EQ(model.position("Yaw"), -1.5f);
}

// Unknown links and a missing torso link are e2e's (test_robot.py), as the service reports them.
TEST(RobotModelTest, RefusesDescriptionsItCannotUseWithOneSentence) {
  const std::string links = R"(<robot name="r"><link name="Torso"/><link name="A"/>)";
  const std::pair<std::string, std::string> refusals[] = {  // the text, the start of what() after "test.urdf"
      {"this is not a robot", ": "},
      {links + R"(<joint name="j" type="continuous"><parent link="Torso"/><child link="A"/><mimic joint="ghost"/>
                  </joint></robot>)", ": joint j mimics unknown joint ghost"},
      {links + R"(<link name="B"/><joint name="a" type="continuous"><parent link="Torso"/><child link="A"/><mimic joint="b"/></joint>
                  <joint name="b" type="continuous"><parent link="A"/><child link="B"/><mimic joint="a"/></joint>
                  </robot>)", ": joint a mimics itself through a cycle"},
  };
  for (const auto& refusal : refusals) {
    const std::string what = errorOf([&] { RobotModel::fromText(refusal.first, "Torso", "test.urdf"); });
    EXPECT_EQ(what.rfind("Cannot read robot description test.urdf" + refusal.second, 0), 0u) << what;
  }
}

class MotionModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    module_->initModule();
    motion_ = broker_->getSpecialisedProxy<KQMotionProxy>("KQMotion");
  }
  void TearDown() override { broker_->shutdown(); }
  std::vector<float> where(const std::string& name, int space) {  // the translation column of a 3x4 transform
    const std::vector<float> t = motion_->getTransform(name, space, true);
    return {t.at(3), t.at(7), t.at(11)};
  }

  std::shared_ptr<KQBroker> broker_ = std::make_shared<KQBroker>("motion-test");
  std::shared_ptr<KQMotionModule> module_ =
      std::make_shared<KQMotionModule>(broker_, "KQMotion", RobotModel::fromFile(kRobotFile, "Torso"));
  std::shared_ptr<KQMotionProxy> motion_;
};

TEST_F(MotionModuleTest, BodyNamesAreTheTorsoThenTheMovableJoints) {
  // Case: "Body" is what the world model hangs under Robot_Torso: the torso under its fixed name, then each moving
  // joint (mimic ones too), never the fixed mount.
  EXPECT_EQ(motion_->getBodyNames("Body"), (Names{"Torso", "Yaw", "Slide", "Follow", "Echo", "Wheel"}));
  EXPECT_EQ(motion_->getBodyNames("Links").front(), "base_link");
}

TEST_F(MotionModuleTest, TransformsInTheThreeSpacesAgree) {
  // Case: the torso stands 0.5 m over the ground (robot space) and is identity in torso space (no mount height).
  test::expectFloatsNear({0, 0, 0.5f}, where("Torso", 2));
  EXPECT_EQ(motion_->getTransform("Torso", 0, true), (std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}));
  test::expectFloatsNear({0.1f, 0, 0}, where("Yaw", 0));
  // Case: world space applies the odometry: the robot at (1, 2) turned a quarter left carries the arm's +x offset onto
  // world +y; torso space does not move with the robot.
  motion_->setRobotPosition({1.0f, 2.0f, kHalfPi});
  test::expectFloatsNear({1.0f, 2.1f, 0.5f}, where("Yaw", 1));
  test::expectFloatsNear({0.1f, 0, 0}, where("Yaw", 0));
}

TEST_F(MotionModuleTest, AnglesClampAndTheHeadingWraps) {
  motion_->setAngles({"Slide", "Yaw"}, {5.0f, 1.0f});
  EXPECT_EQ(module_->getAngles({"Slide", "Yaw"}), (std::vector<float>{0.3f, 1.0f}));
  // Case: three quarter turns left read as a quarter turn right.
  motion_->setRobotPosition({0.5f, -1.0f, 3.0f * kHalfPi});
  test::expectFloatsNear({0.5f, -1.0f, -kHalfPi}, motion_->getRobotPosition(false));
}

TEST_F(MotionModuleTest, RefusalsNameTheirReasonAndChangeNothing) {
  motion_->setAngles({"Yaw"}, {1.0f});
  const std::pair<std::function<void()>, std::string> refusals[] = {
      {[&] { motion_->getBodyNames("Legs"); }, "getBodyNames: Unknown group Legs: use Body, Joints or Links."},
      {[&] { motion_->getTransform("Yaw", 3, true); },
       "getTransform: Unknown space 3: use 0 (torso), 1 (world) or 2 (robot)."},
      // One bad name or value refuses the whole call (which ones are RobotModelTest's).
      {[&] { motion_->setAngles({"Yaw", "Follow"}, {0, 0}); },
       "setAngles: Joint Follow follows joint Yaw and cannot be set."},
      {[&] { motion_->setAngles({"Yaw", "Slide"}, {0}); }, "setAngles: Got 2 joint names but 1 angles."},
      {[&] { motion_->setRobotPosition({1.0f, 2.0f}); },
       "setRobotPosition: A robot position is 3 floats x, y, theta; got 2."},
      {[&] { motion_->setRobotPosition({1.0f, 2.0f, std::nanf("")}); },
       "setRobotPosition: A robot position must hold finite numbers."},
  };
  for (const auto& [call, message] : refusals) EXPECT_EQ(errorOf(call), "KQMotion." + message);
  EXPECT_EQ(module_->getAngles({"Yaw"}), (std::vector<float>{1.0f}));
  test::expectFloatsNear({0, 0, 0}, motion_->getRobotPosition(true));
}

}  // namespace
}  // namespace KQ
