#include "middleware/modules/robot_model.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <sys/stat.h>

#include <console_bridge/console.h>
#include <tinyxml.h>
#include <urdf_parser/urdf_parser.h>

namespace KQ {
namespace {

// urdfdom reports why it refuses a description only through console_bridge,
// whose output handler is process-wide: while one parse runs, its messages
// are kept here instead of going to stderr, and the first error becomes the
// reason we give.
class CapturingOutput : public console_bridge::OutputHandler {
 public:
  void log(const std::string& text, console_bridge::LogLevel level, const char* /*filename*/,
           int /*line*/) override {
    if (level >= console_bridge::CONSOLE_BRIDGE_LOG_ERROR && firstError.empty()) firstError = text;
  }
  std::string firstError;
};

std::mutex& parserMutex() {
  static std::mutex mutex;
  return mutex;
}

urdf::ModelInterfaceSharedPtr parseQuietly(const std::string& xml, std::string& reason) {
  std::lock_guard<std::mutex> lock(parserMutex());
  CapturingOutput capture;
  console_bridge::OutputHandler* previous = console_bridge::getOutputHandler();
  console_bridge::useOutputHandler(&capture);
  urdf::ModelInterfaceSharedPtr model;
  try {
    model = urdf::parseURDF(xml);
  } catch (const std::exception& e) {
    capture.firstError = e.what();
  }
  console_bridge::useOutputHandler(previous);
  reason = capture.firstError;
  return model;
}

// Joint names as the description lists them (urdfdom keeps them sorted).
std::vector<std::string> jointNamesInDocumentOrder(const std::string& xml) {
  std::vector<std::string> names;
  TiXmlDocument document;
  document.Parse(xml.c_str());
  const TiXmlElement* robot = document.FirstChildElement("robot");
  if (robot == nullptr) return names;
  for (const TiXmlElement* joint = robot->FirstChildElement("joint"); joint != nullptr;
       joint = joint->NextSiblingElement("joint")) {
    const char* name = joint->Attribute("name");
    if (name != nullptr) names.push_back(name);
  }
  return names;
}

Math::Transform transformFromPose(const urdf::Pose& pose) {
  Math::Transform t = Math::transformFromQuaternion(
      Math::Quaternion(static_cast<float>(pose.rotation.w), static_cast<float>(pose.rotation.x),
                       static_cast<float>(pose.rotation.y), static_cast<float>(pose.rotation.z)));
  t.r[0][3] = static_cast<float>(pose.position.x);
  t.r[1][3] = static_cast<float>(pose.position.y);
  t.r[2][3] = static_cast<float>(pose.position.z);
  return t;
}

}  // namespace

RobotModel RobotModel::fromFile(const std::string& path, const std::string& torsoLink) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0)
    throw RobotModelError("Cannot read robot description " + path + ": " + std::strerror(errno));
  if (!S_ISREG(status.st_mode)) throw RobotModelError("Cannot read robot description " + path + ": not a file");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw RobotModelError("Cannot read robot description " + path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw RobotModelError("Cannot read robot description " + path + ": read error");
  return fromText(text.str(), torsoLink, path);
}

RobotModel RobotModel::fromText(const std::string& xml, const std::string& torsoLink, const std::string& sourceName) {
  std::string reason;
  urdf::ModelInterfaceSharedPtr urdfModel = parseQuietly(xml, reason);
  if (!urdfModel || !urdfModel->getRoot()) {
    if (reason.empty()) reason = "not a valid URDF robot description";
    throw RobotModelError("Cannot read robot description " + sourceName + ": " + reason);
  }

  RobotModel model;
  model.robotName_ = urdfModel->getName();
  model.rootLink_ = urdfModel->getRoot()->name;
  model.torsoLink_ = torsoLink;

  std::vector<std::string> order = jointNamesInDocumentOrder(xml);
  // Any joint urdfdom knows but the scan missed still gets a place (sorted).
  for (const auto& entry : urdfModel->joints_) {
    bool listed = false;
    for (const auto& name : order) listed = listed || name == entry.first;
    if (!listed) order.push_back(entry.first);
  }

  for (const std::string& name : order) {
    auto found = urdfModel->joints_.find(name);
    if (found == urdfModel->joints_.end() || model.jointIndex_.count(name) != 0) continue;
    const urdf::Joint& source = *found->second;
    Joint joint;
    joint.name = name;
    joint.parentLink = source.parent_link_name;
    joint.childLink = source.child_link_name;
    joint.jointInParent = transformFromPose(source.parent_to_joint_origin_transform);
    const double length =
        std::sqrt(source.axis.x * source.axis.x + source.axis.y * source.axis.y + source.axis.z * source.axis.z);
    const bool hasAxis = std::isfinite(length) && length > 1e-9;
    if (hasAxis) {
      joint.axis[0] = static_cast<float>(source.axis.x / length);
      joint.axis[1] = static_cast<float>(source.axis.y / length);
      joint.axis[2] = static_cast<float>(source.axis.z / length);
    }
    switch (source.type) {
      case urdf::Joint::REVOLUTE:
      case urdf::Joint::CONTINUOUS:
        joint.motion = hasAxis ? Motion::Rotation : Motion::None;
        break;
      case urdf::Joint::PRISMATIC:
        joint.motion = hasAxis ? Motion::Translation : Motion::None;
        break;
      default:  // fixed, floating, planar: held where the description puts them
        joint.motion = Motion::None;
        break;
    }
    if (source.type != urdf::Joint::CONTINUOUS && source.limits && source.limits->upper > source.limits->lower) {
      joint.clamps = true;
      joint.lower = static_cast<float>(source.limits->lower);
      joint.upper = static_cast<float>(source.limits->upper);
    }
    joint.position = model.clamp(joint, 0.0f);
    model.jointIndex_[name] = static_cast<int>(model.joints_.size());
    model.joints_.push_back(joint);
  }

  // Mimic references, once every joint has its index.
  for (Joint& joint : model.joints_) {
    const urdf::Joint& source = *urdfModel->joints_.at(joint.name);
    if (!source.mimic) continue;
    const int master = model.jointIndex(source.mimic->joint_name);
    if (master < 0)
      throw RobotModelError("Cannot read robot description " + sourceName + ": joint " + joint.name +
                            " mimics unknown joint " + source.mimic->joint_name);
    joint.mimicOf = master;
    joint.multiplier = static_cast<float>(source.mimic->multiplier);
    joint.offset = static_cast<float>(source.mimic->offset);
  }
  for (const Joint& joint : model.joints_) {
    int step = joint.mimicOf;
    for (std::size_t hops = 0; step >= 0; ++hops) {
      if (hops > model.joints_.size())
        throw RobotModelError("Cannot read robot description " + sourceName + ": joint " + joint.name +
                              " mimics itself through a cycle");
      step = model.joints_[static_cast<std::size_t>(step)].mimicOf;
    }
  }

  for (const auto& entry : urdfModel->links_) model.links_[entry.first] = -1;
  for (std::size_t i = 0; i < model.joints_.size(); ++i) model.links_[model.joints_[i].childLink] = static_cast<int>(i);
  for (const Joint& joint : model.joints_) {
    if (joint.motion != Motion::None) model.movableJoints_.push_back(joint.name);
  }

  if (!model.hasLink(torsoLink))
    throw RobotModelError("Robot description " + sourceName + " has no link named " + torsoLink);
  return model;
}

int RobotModel::jointIndex(const std::string& name) const {
  auto found = jointIndex_.find(name);
  return found == jointIndex_.end() ? -1 : found->second;
}

std::vector<std::string> RobotModel::links() const {
  std::vector<std::string> names{rootLink_};
  for (const Joint& joint : joints_) names.push_back(joint.childLink);
  return names;
}

bool RobotModel::isMovable(const std::string& joint) const {
  const int index = jointIndex(joint);
  return index >= 0 && joints_[static_cast<std::size_t>(index)].motion != Motion::None;
}

std::string RobotModel::mimicMaster(const std::string& joint) const {
  const int index = jointIndex(joint);
  if (index < 0) return std::string();
  const int master = joints_[static_cast<std::size_t>(index)].mimicOf;
  return master < 0 ? std::string() : joints_[static_cast<std::size_t>(master)].name;
}

std::string RobotModel::childLink(const std::string& joint) const {
  const int index = jointIndex(joint);
  if (index < 0) throw std::out_of_range("unknown joint " + joint);
  return joints_[static_cast<std::size_t>(index)].childLink;
}

float RobotModel::clamp(const Joint& joint, float value) const {
  if (!joint.clamps) return value;
  if (value < joint.lower) return joint.lower;
  if (value > joint.upper) return joint.upper;
  return value;
}

float RobotModel::position(int index) const {
  const Joint& joint = joints_[static_cast<std::size_t>(index)];
  if (joint.mimicOf < 0) return joint.position;
  // Cycles were refused at load, so the recursion ends.
  const float derived = joint.multiplier * position(joint.mimicOf) + joint.offset;
  return std::isfinite(derived) ? clamp(joint, derived) : clamp(joint, 0.0f);
}

float RobotModel::position(const std::string& joint) const {
  const int index = jointIndex(joint);
  if (index < 0) throw std::out_of_range("unknown joint " + joint);
  return position(index);
}

std::string RobotModel::checkSettable(const std::string& joint, float value) const {
  const int index = jointIndex(joint);
  if (index < 0 || joints_[static_cast<std::size_t>(index)].motion == Motion::None)
    return "Unknown joint " + joint + ".";
  const Joint& j = joints_[static_cast<std::size_t>(index)];
  if (j.mimicOf >= 0)
    return "Joint " + joint + " follows joint " + joints_[static_cast<std::size_t>(j.mimicOf)].name +
           " and cannot be set.";
  if (!std::isfinite(value)) return "The position of joint " + joint + " is not a finite number.";
  return std::string();
}

void RobotModel::setPosition(const std::string& joint, float value) {
  const std::string refusal = checkSettable(joint, value);
  if (!refusal.empty()) throw std::invalid_argument(refusal);
  Joint& j = joints_[static_cast<std::size_t>(jointIndex(joint))];
  j.position = clamp(j, value);
}

Math::Transform RobotModel::jointMotion(const Joint& joint) const {
  const float q = position(jointIndex_.at(joint.name));
  switch (joint.motion) {
    case Motion::Rotation: {
      const float s = std::sin(q * 0.5f);
      return Math::transformFromQuaternion(
          Math::Quaternion(std::cos(q * 0.5f), s * joint.axis[0], s * joint.axis[1], s * joint.axis[2]));
    }
    case Motion::Translation:
      return Math::transformFromPosition3D(Math::Position3D(q * joint.axis[0], q * joint.axis[1], q * joint.axis[2]));
    case Motion::None:
      break;
  }
  return Math::Transform();
}

Math::Transform RobotModel::linkInRoot(const std::string& link) const {
  auto found = links_.find(link);
  if (found == links_.end()) throw std::out_of_range("unknown link " + link);
  // Walk up to the root: linkInRoot = parentInRoot * jointInParent * motion.
  Math::Transform linkInAncestor;
  int index = found->second;
  for (std::size_t hops = 0; index >= 0 && hops <= joints_.size(); ++hops) {
    const Joint& joint = joints_[static_cast<std::size_t>(index)];
    linkInAncestor = joint.jointInParent * jointMotion(joint) * linkInAncestor;
    index = links_.at(joint.parentLink);
  }
  return linkInAncestor;
}

}  // namespace KQ
