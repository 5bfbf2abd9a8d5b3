// KQMotionModule: the built-in, simulated "KQMotion". It holds a RobotModel
// (the joints' positions) and the robot's odometry pose, and answers where
// the body parts are, so that the world model's "Robot" frame and its joints
// follow what callers command with setAngles and setRobotPosition.
//
// Body parts: "Torso" (the torso link chosen at creation) and every movable
// joint, whose frame is the joint's child link; plain link names are
// accepted too. Spaces of getTransform: 0 torso frame, 1 world (odometry
// applied), 2 robot ground frame (the description's root link). Odometry is
// the planar pose x, y (metres), theta (radians, kept in [-pi, pi)) of the
// ground frame in the world. The simulation is exact: sensed values equal
// commanded ones, so useSensors changes nothing.
//
// Threading: every member is safe from any thread; mutex_ guards the model
// and the pose.
#ifndef KQ_MIDDLEWARE_MODULES_MOTION_MODULE_H_
#define KQ_MIDDLEWARE_MODULES_MOTION_MODULE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "middleware/module.h"
#include "middleware/modules/robot_model.h"

namespace KQ {

class KQBroker;

class KQMotionModule : public KQModule {
 public:
  static constexpr const char* kModuleName = "KQMotion";
  static constexpr const char* kTorsoName = "Torso";

  enum Space { kTorsoSpace = 0, kWorldSpace = 1, kRobotSpace = 2 };

  KQMotionModule(std::shared_ptr<KQBroker> broker, const std::string& name, RobotModel model);
  ~KQMotionModule() override;

  // Remotely callable.
  // "Body": "Torso" then the movable joints; "Joints": the movable joints
  // only; "Links": every link. Another group raises KQError.
  std::vector<std::string> getBodyNames(const std::string& group);
  std::vector<float> getTransform(const std::string& name, const int& space, const bool& useSensors);
  std::vector<float> getRobotPosition(const bool& useSensors);
  // All or nothing: an unknown, fixed or mimic joint, a non-finite angle or
  // lists of different lengths raise KQError and move nothing. Angles are
  // clamped to the joints' limits.
  void setAngles(const std::vector<std::string>& names, const std::vector<float>& angles);
  std::vector<float> getAngles(const std::vector<std::string>& names);
  void setRobotPosition(const std::vector<float>& pose);

 private:
  // The link that a body-part name stands for; KQError when unknown.
  // Caller holds mutex_.
  std::string xLinkOf(const std::string& name, const char* method) const;

  std::mutex mutex_;
  RobotModel model_;
  Math::Pose2D robotInWorld_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_MOTION_MODULE_H_
