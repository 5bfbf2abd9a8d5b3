#include "support/world_fixture.h"

#include "middleware/path.h"

namespace KQ::test {

void WorldFixture::SetUp() {
  tempDir_ = std::make_unique<TempDir>();
  ko::path::setComponentDataPath("worldrepresentation", dataDir());
  logs_ = std::make_unique<LogCapture>();
  broker_ = std::make_shared<KQBroker>("kqtest");
  motion_ = KQModule::createModule<ScriptedMotionModule>(broker_, "KQMotion");
  motion_->setBodyNames({"Torso", "HeadYaw", "LShoulderPitch", "RShoulderPitch", "LWristGhost"});
  motion_->setUnknown("LWristGhost");
  memory_ = KQModule::createModule<RecordingMemoryModule>(broker_, "KQMemory");
  configureModules();
  if (createWorldInSetUp()) createWorld();
}

void WorldFixture::createWorld() {
  world_ = KQModule::createModule<KQWorldRepresentation>(broker_, "KQWorldRepresentation");
}

void WorldFixture::destroyWorld() {
  if (!world_) return;
  try {
    world_->exit();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "exit() of the world threw: " << e.what();
  }
  world_.reset();
}

void WorldFixture::TearDown() {
  // The world goes first: its destructor saves into the data directory and
  // closes the category databases, which must still exist then.
  destroyWorld();
  if (memory_) memory_->exit();
  if (motion_) motion_->exit();
  memory_.reset();
  motion_.reset();
  broker_.reset();
  logs_.reset();
  ko::path::setComponentDataPath("worldrepresentation", "");
  tempDir_.reset();
}

std::vector<std::string> WorldFixture::worldLog() const {
  std::vector<std::string> lines;
  for (const ko::log::Record& record : logs_->sink()->find("KQWorldRepresentation"))
    lines.push_back(std::string(ko::log::levelName(record.level)) + " " + record.function + ": " + record.message);
  return lines;
}

}  // namespace KQ::test
