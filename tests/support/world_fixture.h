// WorldFixture: a running KQWorldRepresentation for module tests, on a real
// broker, with a scripted robot body ("KQMotion") and a recording memory
// module ("KQMemory"), its category databases in a fresh data directory.
//
// After SetUp the world holds what init() builds from the default body:
// World > Robot (odometry edge) > Robot_Torso ("Torso" in space 2) > HeadYaw,
// LShoulderPitch, RShoulderPitch, and LWristGhost (listed by the body, but
// unknown to getTransform: identity).
//
// Hooks: configureModules() scripts the body or arms faults before the world
// exists; createWorldInSetUp() returning false leaves createWorld() to the
// test. destroyWorld() + createWorld() restart on the same data directory.
#ifndef KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_
#define KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/broker.h"
#include "module/world_representation.h"
#include "support/checks.h"
#include "support/log_capture.h"
#include "support/recording_memory_module.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace KQ::test {

class WorldFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  virtual void configureModules() {}
  virtual bool createWorldInSetUp() { return true; }

  void createWorld();   // a KQError from init reaches the caller
  void destroyWorld();  // exit() and destruction; the data directory stays

  KQWorldRepresentation& world() { return *world_; }
  RecordingMemoryModule& memory() { return *memory_; }
  ScriptedMotionModule& motion() { return *motion_; }
  LogCapture& logs() { return *logs_; }
  // The world's own log lines so far, each as "<level name> <function>: <message>".
  std::vector<std::string> worldLog() const;
  std::shared_ptr<KQBroker> broker() { return broker_; }
  const std::string& dataDir() const { return tempDir_->path(); }
  std::string databasePath(const std::string& category) const { return dataDir() + "/" + category + ".sqlite"; }

 private:
  std::unique_ptr<TempDir> tempDir_;
  std::unique_ptr<LogCapture> logs_;
  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<ScriptedMotionModule> motion_;
  std::shared_ptr<RecordingMemoryModule> memory_;
  std::shared_ptr<KQWorldRepresentation> world_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_
