#include "support/scripted_motion_module.h"

#include <algorithm>

#include "middleware/broker.h"
#include "middleware/error.h"

namespace KQ::test {

ScriptedMotionModule::ScriptedMotionModule(std::shared_ptr<KQBroker> broker, const std::string& name)
    : KQModule(std::move(broker), name) {
  functionName("getBodyNames", getName(), "Names of the robot's body parts in a group.", 0);
  advertiseMethod(&ScriptedMotionModule::getBodyNames);
  functionName("getTransform", getName(), "Transform of a body part in a space, 12 floats row by row.", 0);
  advertiseMethod(&ScriptedMotionModule::getTransform);
  functionName("getRobotPosition", getName(), "The robot's odometry pose x, y, theta.", 0);
  advertiseMethod(&ScriptedMotionModule::getRobotPosition);
  functionName("setAngles", getName(), "Sets joint angles in radians.", 0);
  advertiseMethod(&ScriptedMotionModule::setAngles);
  functionName("setRobotPosition", getName(), "Sets the robot's odometry pose x, y, theta.", 0);
  advertiseMethod(
      static_cast<void (ScriptedMotionModule::*)(const std::vector<float>&)>(&ScriptedMotionModule::setRobotPosition));
}

void ScriptedMotionModule::xRefuse(const std::string& method, const std::string& message) const {
  throw KQError(getName(), method, message, "", 0);
}

bool ScriptedMotionModule::xIsKnown(const std::string& name) const {
  return std::find(bodyNames_.begin(), bodyNames_.end(), name) != bodyNames_.end() ||
         std::any_of(transforms_.begin(), transforms_.end(), [&](const auto& t) { return t.first.first == name; });
}

std::vector<std::string> ScriptedMotionModule::getBodyNames(const std::string& /*group*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (bodyNamesThrows_) xRefuse("getBodyNames", "Could not read the body names");
  return bodyNames_;
}

std::vector<float> ScriptedMotionModule::getTransform(const std::string& name, const int& space, const bool&) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (unknown_.count(name) != 0) xRefuse("getTransform", "Unknown body part " + name);
  if (space < 0 || space > 2) xRefuse("getTransform", "Invalid space " + std::to_string(space));
  auto it = transforms_.find(std::make_pair(name, space));
  if (it != transforms_.end()) return it->second;
  if (xIsKnown(name)) return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  xRefuse("getTransform", "Unknown body part " + name);
}

std::vector<float> ScriptedMotionModule::getRobotPosition(const bool& /*useSensors*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (robotPositionFails_) xRefuse("getRobotPosition", "Could not read the robot position");
  return robotPosition_;
}

void ScriptedMotionModule::setAngles(const std::vector<std::string>& names, const std::vector<float>& angles) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (names.size() != angles.size())
    xRefuse("setAngles", "Got " + std::to_string(names.size()) + " names and " + std::to_string(angles.size()) +
                             " angles");
  for (const auto& name : names)
    if (unknown_.count(name) != 0 || !xIsKnown(name)) xRefuse("setAngles", "Unknown body part " + name);
  for (std::size_t i = 0; i < names.size(); ++i) angles_[names[i]] = angles[i];
}

void ScriptedMotionModule::setRobotPosition(const std::vector<float>& pose) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (pose.size() != 3)
    xRefuse("setRobotPosition", "Expected 3 floats (x, y, theta), got " + std::to_string(pose.size()));
  robotPosition_ = pose;
}

void ScriptedMotionModule::setBodyNames(const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(mutex_);
  bodyNames_ = names;
}

void ScriptedMotionModule::setTransform(const std::string& name, int space, const std::vector<float>& transform) {
  std::lock_guard<std::mutex> lock(mutex_);
  transforms_[std::make_pair(name, space)] = transform;
  unknown_.erase(name);
}

void ScriptedMotionModule::setUnknown(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  unknown_.insert(name);
}

void ScriptedMotionModule::setRobotPosition(float x, float y, float theta) { setRobotPosition({x, y, theta}); }

void ScriptedMotionModule::setRobotPositionFails(bool fails) {
  std::lock_guard<std::mutex> lock(mutex_);
  robotPositionFails_ = fails;
}

void ScriptedMotionModule::setBodyNamesThrows(bool throws) {
  std::lock_guard<std::mutex> lock(mutex_);
  bodyNamesThrows_ = throws;
}

float ScriptedMotionModule::getAngle(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = angles_.find(name);
  return it == angles_.end() ? 0.0f : it->second;
}

}  // namespace KQ::test
