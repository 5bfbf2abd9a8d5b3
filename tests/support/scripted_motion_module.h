// ScriptedMotionModule: a stand-in for the robot's motion module ("KQMotion"),
// which needs a physical robot. Tests script what the body reports and can
// count how often the world asks.
//
// Advertised like a real motion module: getBodyNames(group),
// getTransform(name, space, useSensors) -> 12 floats (3x4 row by row),
// getRobotPosition(useSensors) -> x, y, theta, setAngles(names, angles),
// setRobotPosition([x, y, theta]).
//
// getTransform answers, in this order:
//   - a name marked with setUnknown: KQError "Unknown body part <name>";
//   - a space other than 0 (torso), 1 (world), 2 (robot ground):
//     KQError "Invalid space <space>";
//   - a transform scripted for (name, space): that transform;
//   - a name in the body list or scripted in another space: the identity;
//   - any other name: KQError "Unknown body part <name>".
// Every call is counted per name, refused ones included. getRobotPosition
// is counted the same way; it is refused ("Could not read the robot
// position") while setRobotPositionFails(true) holds. getBodyNames is refused
// ("Could not read the body names") while setBodyNamesThrows(true) holds.
// Refusals are KQErrors with this module's name and the method's name, so
// their what() reads e.g. "KQMotion.getTransform: Unknown body part LWristGhost".
//
// Threading: every member is safe from any thread (one mutex, never held
// while anything outside this class runs).
#ifndef KQ_TESTS_SUPPORT_SCRIPTED_MOTION_MODULE_H_
#define KQ_TESTS_SUPPORT_SCRIPTED_MOTION_MODULE_H_

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "middleware/module.h"

namespace KQ {
class KQBroker;

namespace test {

class ScriptedMotionModule : public KQ::KQModule {
 public:
  ScriptedMotionModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name);
  ~ScriptedMotionModule() override;

  // --- Advertised methods.
  std::vector<std::string> getBodyNames(const std::string& group);
  std::vector<float> getTransform(const std::string& name, const int& space, const bool& useSensors);
  std::vector<float> getRobotPosition(const bool& useSensors);
  // Stores the angles (radians) by joint name; sizes must match and every
  // name must be a known body part, or nothing is stored (KQError).
  void setAngles(const std::vector<std::string>& names, const std::vector<float>& angles);
  // x, y, theta; another length is a KQError.
  void setRobotPosition(const std::vector<float>& pose);

  // --- C++ scripting API for tests.
  void setBodyNames(const std::vector<std::string>& names);
  // Scripts the 12 floats answered for (name, space); also clears an
  // earlier setUnknown of the name.
  void setTransform(const std::string& name, int space, const std::vector<float>& transform);
  // From now on getTransform of this name is refused as an unknown part.
  void setUnknown(const std::string& name);
  void setRobotPosition(float x, float y, float theta);
  void setRobotPositionFails(bool fails);
  void setBodyNamesThrows(bool throws);

  int getTransformCalls(const std::string& name) const;
  int getRobotPositionCalls() const;
  // The last angle set for a joint by setAngles; 0 when never set.
  float getAngle(const std::string& name) const;

 private:
  [[noreturn]] void xRefuse(const std::string& method, const std::string& message) const;
  // Called with mutex_ held.
  bool xIsKnown(const std::string& name) const;

  mutable std::mutex mutex_;
  std::vector<std::string> bodyNames_;
  std::map<std::pair<std::string, int>, std::vector<float>> transforms_;
  std::set<std::string> unknown_;
  std::map<std::string, int> transformCalls_;
  std::map<std::string, float> angles_;
  std::vector<float> robotPosition_{0.0f, 0.0f, 0.0f};
  int robotPositionCalls_ = 0;
  bool robotPositionFails_ = false;
  bool bodyNamesThrows_ = false;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_SCRIPTED_MOTION_MODULE_H_
