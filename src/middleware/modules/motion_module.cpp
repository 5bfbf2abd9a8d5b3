#include "middleware/modules/motion_module.h"

#include <cmath>
#include <utility>

#include "middleware/error.h"

namespace KQ {
namespace {

constexpr float kPi = 3.14159265358979323846f;

// Keeps theta in [-pi, pi) so that a robot turned many times reads as one turn.
float wrapAngle(float theta) {
  const float twoPi = 2.0f * kPi;
  float wrapped = std::fmod(theta + kPi, twoPi);
  if (wrapped < 0.0f) wrapped += twoPi;
  return wrapped - kPi;
}

}  // namespace

KQMotionModule::KQMotionModule(std::shared_ptr<KQBroker> broker, const std::string& name, RobotModel model)
    : KQModule(std::move(broker), name), model_(std::move(model)) {
  functionName("getBodyNames", getName(), "Get the names of a group of body parts: Body, Joints or Links.");
  advertiseMethod(&KQMotionModule::getBodyNames);
  functionName("getTransform", getName(),
               "Get the 3x4 transform of a body part in space 0 (torso), 1 (world) or 2 (robot).");
  advertiseMethod(&KQMotionModule::getTransform);
  functionName("getRobotPosition", getName(), "Get the robot's odometry pose x, y, theta in the world.");
  advertiseMethod(&KQMotionModule::getRobotPosition);
  functionName("setAngles", getName(), "Move joints to the given positions, clamped to their limits.");
  advertiseMethod(&KQMotionModule::setAngles);
  functionName("getAngles", getName(), "Get the current positions of joints.");
  advertiseMethod(&KQMotionModule::getAngles);
  functionName("setRobotPosition", getName(), "Place the robot at x, y, theta in the world.");
  advertiseMethod(&KQMotionModule::setRobotPosition);
}

KQMotionModule::~KQMotionModule() = default;

std::vector<std::string> KQMotionModule::getBodyNames(const std::string& group) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  if (group == "Body") {
    names.push_back(kTorsoName);
    for (const std::string& joint : model_.movableJoints()) names.push_back(joint);
  } else if (group == "Joints") {
    names = model_.movableJoints();
  } else if (group == "Links") {
    names = model_.links();
  } else {
    throw KQError(getName(), "getBodyNames", "Unknown group " + group + ": use Body, Joints or Links.", "", 0);
  }
  return names;
}

std::string KQMotionModule::xLinkOf(const std::string& name, const char* method) const {
  if (name == kTorsoName) return model_.torsoLink();
  if (model_.isMovable(name)) return model_.childLink(name);
  if (model_.hasLink(name)) return name;
  throw KQError(getName(), method, "Unknown body part " + name + ".", "", 0);
}

std::vector<float> KQMotionModule::getTransform(const std::string& name, const int& space,
                                                const bool& /*useSensors*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string link = xLinkOf(name, "getTransform");
  const Math::Transform linkInRoot = model_.linkInRoot(link);
  switch (space) {
    case kTorsoSpace:
      return (model_.linkInRoot(model_.torsoLink()).inverse() * linkInRoot).toVector();
    case kWorldSpace:
      return (Math::transformFromPose2D(robotInWorld_) * linkInRoot).toVector();
    case kRobotSpace:
      return linkInRoot.toVector();
    default:
      break;
  }
  throw KQError(getName(), "getTransform",
                "Unknown space " + std::to_string(space) + ": use 0 (torso), 1 (world) or 2 (robot).", "", 0);
}

std::vector<float> KQMotionModule::getRobotPosition(const bool& /*useSensors*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  return robotInWorld_.toVector();
}

void KQMotionModule::setAngles(const std::vector<std::string>& names, const std::vector<float>& angles) {
  if (names.size() != angles.size())
    throw KQError(getName(), "setAngles",
                  "Got " + std::to_string(names.size()) + " joint names but " + std::to_string(angles.size()) +
                      " angles.",
                  "", 0);
  std::lock_guard<std::mutex> lock(mutex_);
  // Check everything first: a refused call moves no joint.
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string refusal = model_.checkSettable(names[i], angles[i]);
    if (!refusal.empty()) throw KQError(getName(), "setAngles", refusal, "", 0);
  }
  for (std::size_t i = 0; i < names.size(); ++i) model_.setPosition(names[i], angles[i]);
}

std::vector<float> KQMotionModule::getAngles(const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<float> angles;
  for (const std::string& name : names) {
    if (!model_.isMovable(name)) throw KQError(getName(), "getAngles", "Unknown joint " + name + ".", "", 0);
    angles.push_back(model_.position(name));
  }
  return angles;
}

void KQMotionModule::setRobotPosition(const std::vector<float>& pose) {
  if (pose.size() != 3)
    throw KQError(getName(), "setRobotPosition",
                  "A robot position is 3 floats x, y, theta; got " + std::to_string(pose.size()) + ".", "", 0);
  for (float value : pose) {
    if (!std::isfinite(value))
      throw KQError(getName(), "setRobotPosition", "A robot position must hold finite numbers.", "", 0);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  robotInWorld_ = Math::Pose2D(pose[0], pose[1], wrapAngle(pose[2]));
}

}  // namespace KQ
