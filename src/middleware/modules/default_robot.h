// The robot description the simulated KQMotion uses when none is given:
// data/robot/kq_robot.urdf, built into the program so that the service runs
// from any folder.
#ifndef KQ_MIDDLEWARE_MODULES_DEFAULT_ROBOT_H_
#define KQ_MIDDLEWARE_MODULES_DEFAULT_ROBOT_H_

#include <string>

namespace KQ {

// The URDF text of data/robot/kq_robot.urdf as it was at build time.
const std::string& defaultRobotDescription();

// How error messages name it.
constexpr const char* kDefaultRobotSource = "kq_robot.urdf (built in)";

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_DEFAULT_ROBOT_H_
