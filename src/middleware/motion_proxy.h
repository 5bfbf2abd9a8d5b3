// KQMotionProxy: the typed face of a proxy to the motion module ("KQMotion").
// Transforms are 12 floats (3x4 row by row); spaces: 0 torso, 1 world,
// 2 robot ground frame. Every call may throw KQError (an unknown body part).
#ifndef KQ_MIDDLEWARE_MOTION_PROXY_H_
#define KQ_MIDDLEWARE_MOTION_PROXY_H_

#include <memory>
#include <string>
#include <vector>

#include "middleware/proxy.h"

namespace KQ {

class KQMotionProxy {
 public:
  explicit KQMotionProxy(std::shared_ptr<KQProxy> proxy);

  std::vector<std::string> getBodyNames(const std::string& group);
  std::vector<float> getTransform(const std::string& name, const int& space, const bool& useSensors);
  std::vector<float> getRobotPosition(const bool& useSensors);  // x, y, theta
  void setAngles(const std::vector<std::string>& names, const std::vector<float>& angles);
  void setRobotPosition(const std::vector<float>& pose);  // x, y, theta

  const std::shared_ptr<KQProxy>& getGenericProxy() const { return proxy_; }

 private:
  std::shared_ptr<KQProxy> proxy_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MOTION_PROXY_H_
