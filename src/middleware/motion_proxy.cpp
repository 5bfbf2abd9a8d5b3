#include "middleware/motion_proxy.h"

namespace KQ {

KQMotionProxy::KQMotionProxy(std::shared_ptr<KQProxy> proxy) : proxy_(std::move(proxy)) {}

std::vector<std::string> KQMotionProxy::getBodyNames(const std::string& group) {
  return proxy_->call("getBodyNames", group).toStringVector();
}

std::vector<float> KQMotionProxy::getTransform(const std::string& name, const int& space, const bool& useSensors) {
  return proxy_->call("getTransform", name, space, useSensors).toFloatVector();
}

std::vector<float> KQMotionProxy::getRobotPosition(const bool& useSensors) {
  return proxy_->call("getRobotPosition", useSensors).toFloatVector();
}

void KQMotionProxy::setAngles(const std::vector<std::string>& names, const std::vector<float>& angles) {
  proxy_->call("setAngles", names, angles);
}

void KQMotionProxy::setRobotPosition(const std::vector<float>& pose) { proxy_->call("setRobotPosition", pose); }

}  // namespace KQ
