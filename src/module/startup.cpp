// Start-up and shutdown: the built-in categories, the fixed top of the frame
// tree, one live node per joint, the events; exit saves.
#include <memory>
#include <exception>

#include "middleware/error.h"
#include "middleware/memory_proxy.h"
#include "middleware/motion_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/pose_conversions.h"
#include "storage/world_object.h"

namespace KQ {

void KQWorldRepresentation::init() {
  // Results ignored: a category that already exists is no obstacle.
  createObjectCategory("joints", true);
  createObjectCategory("root", true);
  createObjectCategory("frame", true);
  createObjectCategory("kqmemoryobjects", true);

  {
    // The module is already reachable through the broker, so the top of the
    // tree is built under the object and graph locks.
    WriterLock objectLock(objectLock_);
    WriterLock graphLock(graphLock_);
    ReaderLock categoryLock(categoryLock_);
    auto categoryOf = [this](const std::string& name) REQUIRES_SHARED(categoryLock_) {
      auto found = categories_.find(name);
      return found == categories_.end() ? std::shared_ptr<ObjectCategory>() : found->second;
    };
    graph_.setNodeData(0, std::make_shared<WorldObject>(rootName_, categoryOf("root")));
    objects_[rootName_] = 0;

    int robotId = -1;
    graph_.addNode(robotId, std::make_shared<KQOdometryDisplacement>(motionProxy_), 0);
    graph_.setNodeData(robotId, std::make_shared<WorldObject>(robotName_, categoryOf("frame")));
    objects_[robotName_] = robotId;

    int torsoId = -1;
    graph_.addNode(torsoId, std::make_shared<KQMotionDisplacement>(motionProxy_, "Torso", 2), robotId);
    graph_.setNodeData(torsoId, std::make_shared<WorldObject>(torsoName_, categoryOf("frame")));
    objects_[torsoName_] = torsoId;
  }

  for (const std::string& bodyName : motionProxy_->getBodyNames("Body")) {
    if (bodyName != "Torso") addJoint(bodyName);
  }

  try {
    memoryProxy_->declareEvent(displayRequiredEventName_);
    memoryProxy_->declareEvent(positionChangedEventName_);
    memoryProxy_->declareEvent(attributeChangedEventName_);
    // Every start begins with an empty display list.
    memoryProxy_->raiseEvent(displayRequiredEventName_, KQValue(std::vector<std::string>()));
  } catch (const std::exception&) {
    KQWR_WARNING("init") << "Could not declare display and update events, objects "
                         << "will not be displayed nor updated.";
  }
}

void KQWorldRepresentation::addJoint(const std::string& name) {
  ko::os::timeval now;
  ko::os::gettimeofday(&now);
  WriterLock objectLock(objectLock_);
  WriterLock graphLock(graphLock_);
  // The joint's first row is a database write, so the category lock is held
  // too (before the joint lock, which comes last here as in clearObject).
  WriterLock categoryLock(categoryLock_);
  WriterLock jointLock(jointLock_);
  try {
    auto joint = std::make_shared<KQMotionDisplacement>(motionProxy_, name, 0);
    // Reads the motion module once; an unknown body part is swallowed by the
    // displacement and gives the identity.
    const Math::Transform jointInTorso(joint->getTransform());

    int newId = -1;
    const int result = graph_.addNode(newId, joint, objects_[torsoName_]);
    if (result != 0) {
      KQWR_ERROR("addJoint") << "Cannot add joint " << name << ": " << graph_.getErrorMessage(result);
      return;
    }
    auto jointsCategory = categories_.find("joints");
    graph_.setNodeData(newId, std::make_shared<WorldObject>(name, jointsCategory == categories_.end()
                                                                      ? std::shared_ptr<ObjectCategory>()
                                                                      : jointsCategory->second));
    objects_[name] = newId;
    joints_.insert(name);

    const Math::Quaternion rotation = Math::quaternionFromTransform(jointInTorso);
    const Math::Position3D translation = Math::position3DFromTransform(jointInTorso);
    auto jointsDb = databases_.find("joints");
    if (jointsDb != databases_.end())
      xStorePosition(jointsDb->second, name, torsoName_, rotation.toVector(), translation.toVector(), now);
  } catch (const KQError&) {
    KQWR_ERROR("addJoint") << "Unknown joint " << name << ". Cannot add joint";
  }
}

void KQWorldRepresentation::exit() {
  stopMemoryCheck();
  // A save that fails (data folder gone, disk full, archive unwritable) is
  // logged and reported once the module base has exited, so that the
  // process still stops and ends with a status that says so.
  std::string failure;
  try {
    if (save() != 0) failure = "the world was busy and could not be saved";
  } catch (const std::exception& e) {
    failure = e.what();
  }
  if (!failure.empty()) {
    KQWR_ERROR("exit") << "Could not save the world: " << failure;
  }
  KQModule::exit();
  if (!failure.empty()) throw KQError(getName(), "exit", "Could not save the world: " + failure, "", 0);
}

}  // namespace KQ
