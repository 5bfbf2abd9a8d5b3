// ScriptedMotionModule: a stand-in for the robot's motion module ("KQMotion"),
// which needs a physical robot; tests script what the body reports.
//
// getTransform answers, in this order: a name marked with setUnknown is
// refused ("Unknown body part <name>"); a space other than 0, 1, 2 is refused
// ("Invalid space <space>"); a transform scripted for (name, space) is
// answered; a name in the body list or scripted in another space gets the
// identity; any other name is refused as unknown. Refusals are KQErrors of
// this module and method ("KQMotion.getTransform: Unknown body part X").
// Safe from any thread.
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

namespace KQ::test {

class ScriptedMotionModule : public KQModule {
 public:
  ScriptedMotionModule(std::shared_ptr<KQBroker> broker, const std::string& name);

  // Advertised, as a real motion module's.
  std::vector<std::string> getBodyNames(const std::string& group);
  std::vector<float> getTransform(const std::string& name, const int& space, const bool& useSensors);
  std::vector<float> getRobotPosition(const bool& useSensors);  // x, y, theta
  // All or nothing: sizes must match and every name be a known body part.
  void setAngles(const std::vector<std::string>& names, const std::vector<float>& angles);
  void setRobotPosition(const std::vector<float>& pose);

  // Scripting for tests.
  void setBodyNames(const std::vector<std::string>& names);
  // The 12 floats (3x4 row by row) answered for (name, space); clears setUnknown of the name.
  void setTransform(const std::string& name, int space, const std::vector<float>& transform);
  void setUnknown(const std::string& name);
  void setRobotPosition(float x, float y, float theta);
  void setRobotPositionFails(bool fails);  // "Could not read the robot position"
  void setBodyNamesThrows(bool throws);    // "Could not read the body names"
  float getAngle(const std::string& name) const;  // 0 when never set

 private:
  [[noreturn]] void xRefuse(const std::string& method, const std::string& message) const;
  bool xIsKnown(const std::string& name) const;  // with mutex_ held

  mutable std::mutex mutex_;
  std::vector<std::string> bodyNames_;
  std::map<std::pair<std::string, int>, std::vector<float>> transforms_;
  std::set<std::string> unknown_;
  std::map<std::string, float> angles_;
  std::vector<float> robotPosition_{0.0f, 0.0f, 0.0f};
  bool robotPositionFails_ = false;
  bool bodyNamesThrows_ = false;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_SCRIPTED_MOTION_MODULE_H_
