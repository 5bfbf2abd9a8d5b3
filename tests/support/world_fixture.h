// WorldFixture: a running KQWorldRepresentation for module tests, on a real
// broker, with a scripted robot body ("KQMotion") and a recording memory
// module ("KQMemory"), its category databases in a fresh temporary data
// directory.
//
// After SetUp the world holds what init() builds from the default body:
//
//   World
//   `-- Robot                      (odometry edge)
//       `-- Robot_Torso            (motion edge, "Torso" in space 2)
//           |-- HeadYaw
//           |-- LShoulderPitch
//           |-- RShoulderPitch
//           `-- LWristGhost        (listed by the body, no transform: identity)
//
// Hooks: override configureModules() to script the body or arm the memory
// module's faults before the world exists; override createWorldInSetUp() to
// return false and call createWorld() yourself (e.g. to expect it to throw).
// destroyWorld() + createWorld() restart the module on the same data
// directory. Logs from the world's creation on are in logs().
//
// TearDown exits and drops the world first, then the other modules and the
// broker, and removes the data directory last.
#ifndef KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_
#define KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_

#include <initializer_list>
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

namespace KQ {
namespace test {

class WorldFixture : public ::testing::Test {
 public:
  // The default body as the motion module reports it ("Torso" included, it
  // gets no joint node of its own).
  static const std::vector<std::string>& defaultBodyNames();
  // A body part in the default body that the motion module cannot resolve.
  static const char* const kGhostJoint;  // "LWristGhost"

 protected:
  void SetUp() override;
  void TearDown() override;

  // Called after the motion and memory modules exist, before the world.
  virtual void configureModules() {}
  virtual bool createWorldInSetUp() { return true; }

  // Creates the world module (init() runs); a KQError from init reaches the caller.
  void createWorld();
  // exit() and destruction of the world; the data directory stays.
  void destroyWorld();

  KQWorldRepresentation& world() { return *world_; }
  std::shared_ptr<KQWorldRepresentation> worldPtr() { return world_; }
  RecordingMemoryModule& memory() { return *memory_; }
  ScriptedMotionModule& motion() { return *motion_; }
  LogCapture& logs() { return *logs_; }
  // The world's own log lines (category "KQWorldRepresentation") so far, each
  // as "<level name> <function>: <message>".
  std::vector<std::string> worldLog() const;
  std::shared_ptr<KQBroker> broker() { return broker_; }
  const std::string& dataDir() const { return dataDir_; }
  // dataDir() + "/" + category + ".sqlite"
  std::string databasePath(const std::string& category) const;

 private:
  std::unique_ptr<TempDir> tempDir_;
  std::string dataDir_;
  std::unique_ptr<LogCapture> logs_;
  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<ScriptedMotionModule> motion_;
  std::shared_ptr<RecordingMemoryModule> memory_;
  std::shared_ptr<KQWorldRepresentation> world_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_WORLD_FIXTURE_H_
