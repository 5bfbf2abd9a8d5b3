// RobotModel: the kinematic tree of a robot read from a URDF description,
// with one position per joint, answering where each link is.
//
// Frames: the root link of the description is the robot's ground frame
// ("robot" space); every link transform here is linkInRoot, a rigid 3x4
// transform in metres. The torso link is the link the caller named as the
// torso; it must exist.
//
// Joints: revolute and continuous joints rotate about their axis by their
// position (radians), prismatic joints slide along it (metres); fixed,
// floating and planar joints do not move. A mimic joint takes
// multiplier * master + offset (masters may mimic in turn) and cannot be set.
// Revolute and prismatic positions are clamped to [lower, upper]; a range of
// zero width is read as "no range given" and does not clamp.
//
// Invariants: positions are always finite and within their limits; the tree
// has exactly one root and every link but the root has one parent joint
// (urdfdom refuses anything else); mimic references name existing joints and
// form no cycle (checked here).
//
// Threading: none of its own. Loading is safe from any thread; a model is a
// plain value: concurrent reads are safe, a write needs the caller's lock.
#ifndef KQ_MIDDLEWARE_MODULES_ROBOT_MODEL_H_
#define KQ_MIDDLEWARE_MODULES_ROBOT_MODEL_H_

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "middleware/math.h"

namespace KQ {

// A description that cannot be read or used; what() is one sentence.
class RobotModelError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RobotModel {
 public:
  // Reads and parses the file. Throws RobotModelError: "Cannot read robot
  // description <path>: <reason>".
  static RobotModel fromFile(const std::string& path, const std::string& torsoLink);
  // Parses URDF text; sourceName names it in error messages.
  static RobotModel fromText(const std::string& xml, const std::string& torsoLink, const std::string& sourceName);

  const std::string& robotName() const { return robotName_; }
  const std::string& rootLink() const { return rootLink_; }
  const std::string& torsoLink() const { return torsoLink_; }

  // Joints that move (revolute, continuous, prismatic, mimic ones included),
  // in the order the description lists them.
  const std::vector<std::string>& movableJoints() const { return movableJoints_; }

  // Every link: the root first, then each joint's child link in the order of
  // the joints.
  std::vector<std::string> links() const;

  bool hasJoint(const std::string& name) const { return jointIndex_.count(name) != 0; }
  bool hasLink(const std::string& name) const { return links_.count(name) != 0; }
  bool isMovable(const std::string& joint) const;
  // The master joint's name for a mimic joint, empty otherwise.
  std::string mimicMaster(const std::string& joint) const;
  std::string childLink(const std::string& joint) const;  // throws std::out_of_range for an unknown joint

  // The joint's current position (mimic joints: their derived one).
  // Throws std::out_of_range for an unknown joint.
  float position(const std::string& joint) const;

  // Sets one position, clamped to the joint's limits. Throws
  // std::invalid_argument when the joint is unknown, does not move, is a
  // mimic joint, or the value is not finite. Callers that set several
  // positions check all of them with checkSettable first.
  void setPosition(const std::string& joint, float value);
  // Empty when setPosition(joint, value) would succeed, otherwise the reason.
  std::string checkSettable(const std::string& joint, float value) const;

  // The link's frame in the root link's frame. Throws std::out_of_range for
  // an unknown link.
  Math::Transform linkInRoot(const std::string& link) const;

 private:
  enum class Motion { None, Rotation, Translation };

  struct Joint {
    std::string name;
    Motion motion = Motion::None;
    std::string parentLink;
    std::string childLink;
    Math::Transform jointInParent;  // the joint's origin in its parent link
    float axis[3] = {1.0f, 0.0f, 0.0f};  // unit length
    bool clamps = false;
    float lower = 0.0f;
    float upper = 0.0f;
    int mimicOf = -1;  // index of the master joint
    float multiplier = 1.0f;
    float offset = 0.0f;
    float position = 0.0f;  // the set position; mimic joints derive theirs
  };

  RobotModel() = default;

  // Index of a joint, -1 when unknown.
  int jointIndex(const std::string& name) const;
  float position(int index) const;
  float clamp(const Joint& joint, float value) const;
  Math::Transform jointMotion(const Joint& joint) const;

  std::string robotName_;
  std::string rootLink_;
  std::string torsoLink_;
  std::vector<Joint> joints_;
  std::map<std::string, int> jointIndex_;
  std::map<std::string, int> links_;  // link name -> index of its parent joint (-1 for the root)
  std::vector<std::string> movableJoints_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_ROBOT_MODEL_H_
