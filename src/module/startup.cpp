// Start-up and shutdown: the built-in categories, the fixed top of the frame
// tree, one live node per joint, the world restored from the data folder
// (--restore), the events, the autosave thread; exit saves.
#include <chrono>
#include <exception>
#include <memory>
#include <optional>

#include "middleware/error.h"
#include "middleware/memory_proxy.h"
#include "middleware/motion_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "persistence/autosaver.h"
#include "persistence/world_archive.h"
#include "persistence/world_restore.h"
#include "storage/attribute_rows.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/pose_conversions.h"
#include "storage/world_object.h"

namespace KQ {

void KQWorldRepresentation::init() {
  // A restore reads the archive before anything opens a database: a broken
  // archive ends the start having changed nothing on disk, and nothing is
  // saved over it on the way out.
  std::optional<WorldArchive> archive;
  if (startOptions_.restore) {
    try {
      archive = readWorldArchive(dataDirectory_);
    } catch (const KQError&) {
      saveBlocked_ = true;
      throw;
    }
  }
  // Results ignored: a category that already exists is no obstacle. A
  // restore keeps the built-in categories' rows (objects stored in "frame").
  const bool reset = !startOptions_.restore;
  createObjectCategory("joints", reset);
  createObjectCategory("root", reset);
  createObjectCategory("frame", reset);
  createObjectCategory("kqmemoryobjects", reset);

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

  std::vector<std::string> displayed;
  if (startOptions_.restore) displayed = restoreWorld(archive ? &*archive : nullptr);

  try {
    memoryProxy_->declareEvent(displayRequiredEventName_);
    memoryProxy_->declareEvent(positionChangedEventName_);
    memoryProxy_->declareEvent(attributeChangedEventName_);
    // A plain start begins with an empty display list, a restore with the
    // restored objects that have display rows.
    memoryProxy_->raiseEvent(displayRequiredEventName_, KQValue(displayed));
  } catch (const std::exception&) {
    KQWR_WARNING("init") << "Could not declare display and update events, objects "
                         << "will not be displayed nor updated.";
  }

  if (startOptions_.autosaveSeconds > 0)
    autosaver_ = std::make_unique<Autosaver>(std::chrono::seconds(startOptions_.autosaveSeconds),
                                             [this]() { return save(); });
}

std::vector<std::string> KQWorldRepresentation::restoreWorld(const WorldArchive* archive) {
  const auto start = std::chrono::steady_clock::now();
  WriterLock objectLock(objectLock_);
  WriterLock graphLock(graphLock_);
  WriterLock categoryLock(categoryLock_);
  xReopenCategories();

  std::vector<CategoryRows> rows;
  std::set<std::string> withDisplay;
  for (const auto& database : databases_) {
    int status = 0;
    const KQValue latest = database.second.readAll(latestPositionsQuery(), &status);
    if (status != 0) {
      KQWR_ERROR("restore") << "Could not read the positions of category " << database.first;
    }
    CategoryRows category{database.first, {}};
    category.rows.reserve(static_cast<std::size_t>(latest.getSize()));
    LatestPosition position;
    for (int i = 0; i < latest.getSize(); ++i)
      if (readLatestPosition(latest[i], position)) category.rows.push_back(position);
    rows.push_back(std::move(category));
    const KQValue shown = database.second.readAll(displayedObjectsQuery(), &status);
    for (int i = 0; i < shown.getSize(); ++i)
      if (shown[i][0].isString()) withDisplay.insert(shown[i][0].toString());
  }
  std::set<std::string> live;
  for (const auto& object : objects_) live.insert(object.first);

  const RestorePlan plan = planRestore(archive, rows, live, rootName_);
  std::vector<std::string> displayed;
  for (const RestoredObject& object : plan.objects) {
    int newId = -1;
    // The parent is live or placed before (the plan's order); the root
    // catches one whose own node was refused.
    auto parent = objects_.find(object.parentName);
    const int added = graph_.addNode(newId, std::make_shared<Displacement>(object.quaternion, object.translation),
                                     parent == objects_.end() ? 0 : parent->second);
    if (added != 0) {
      KQWR_ERROR("restore") << "Cannot restore " << object.name << ": " << graph_.getErrorMessage(added);
      continue;
    }
    objects_[object.name] = newId;
    graph_.setNodeData(newId, std::make_shared<WorldObject>(object.name, categories_[object.category]));
    if (withDisplay.count(object.name) != 0) displayed.push_back(object.name);
  }
  for (const auto& orphan : plan.orphans) {
    KQWR_WARNING("restore") << "Object " << orphan.first << ": its parent " << orphan.second
                            << " cannot be restored; placed under " << rootName_ << ".";
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  KQWR_LOG(::ko::log::info, "restore") << "Restored " << plan.fromArchive << " objects from the archive and "
                                       << plan.fromDatabases << " from the databases in " << seconds << " s";
  return displayed;
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
  if (autosaver_) autosaver_->stop();
  if (saveBlocked_) {
    KQModule::exit();
    return;
  }
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
