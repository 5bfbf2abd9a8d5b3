// The module's spine: class-wide constants, construction with the method
// table, and destruction.
#include "module/world_representation.h"

#include <mutex>

#include "middleware/broker.h"
#include "middleware/memory_proxy.h"
#include "middleware/motion_proxy.h"
#include "middleware/path.h"
#include "module/module_log.h"
#include "persistence/autosaver.h"
#include "persistence/world_archive.h"

namespace KQ {

const char* const kModuleLogCategory = "KQWorldRepresentation";

const std::string KQWorldRepresentation::displayRequiredEventName_ = "KQWorldRepresentation/DisplayRequired";
const std::string KQWorldRepresentation::positionChangedEventName_ = "KQWorldRepresentation/PositionChanged";
const std::string KQWorldRepresentation::attributeChangedEventName_ = "KQWorldRepresentation/AttributeChanged";

namespace {
// Registers the log category when the library is loaded.
struct LogCategoryRegistration {
  LogCategoryRegistration() { ko::log::addCategory(kModuleLogCategory); }
} logCategoryRegistration;
}  // namespace

namespace {

std::mutex& startOptionsMutex() {
  static std::mutex mutex;
  return mutex;
}

KQWorldRepresentation::StartOptions& nextStartOptions() {
  static KQWorldRepresentation::StartOptions options;
  return options;
}

KQWorldRepresentation::StartOptions startOptionsForNextModule() {
  std::lock_guard<std::mutex> lock(startOptionsMutex());
  return nextStartOptions();
}

}  // namespace

KQWorldRepresentation::KQWorldRepresentation(std::shared_ptr<KQBroker> broker, const std::string& name)
    : KQModule(broker, name),
      rootName_("World"),
      robotName_("Robot"),
      torsoName_("Robot_Torso"),
      dataDirectory_(ko::path::userWritableDataPath("worldrepresentation", "")),
      // The motion proxy is fetched before the memory proxy; a KQError from
      // the broker reaches the creator and no module is made.
      motionProxy_(broker->getSpecialisedProxy<KQMotionProxy>("KQMotion")),
      memoryProxy_(broker->getSpecialisedProxy<KQMemoryProxy>("KQMemory")),
      memoryCheckPeriod_(0),
      running_(false),
      keepRunning_(false),
      displayAttributeName_("Display"),
      startOptions_(startOptionsForNextModule()) {
  registerMethods();
}

void KQWorldRepresentation::setStartOptions(const StartOptions& options) {
  std::lock_guard<std::mutex> lock(startOptionsMutex());
  nextStartOptions() = options;
}

void KQWorldRepresentation::registerMethods() {
  using W = KQWorldRepresentation;
  const std::string& cls = getName();
  functionName("addAttributeToCategory", cls, "Add an attribute to a category.", 0);
  advertiseMethod(&W::addAttributeToCategory);
  functionName("clearObject", cls, "Clear an object.", 0);
  advertiseMethod(&W::clearObject);
  functionName("clearOldPositions", cls, "Clear recording of old positions.", 0);
  advertiseMethod(&W::clearOldPositions);
  functionName("createObjectCategory", cls, "Create a new object category", 0);
  advertiseMethod(&W::createObjectCategory);
  functionName("removeObjectCategory", cls, "Remove an object category", 0);
  advertiseMethod(&W::removeObjectCategory);
  functionName("objectCategoryExists", cls, "Tells if an object category exists", 0);
  advertiseMethod(&W::objectCategoryExists);
  functionName("deleteObjectAttribute", cls, "Delete an object attribute", 0);
  advertiseMethod(&W::deleteObjectAttribute);
  functionName("findObject", cls, "Check that an object is present.", 0);
  advertiseMethod(&W::findObject);
  // "load" is bound to save(), exactly like "save": a remote "load" writes
  // the world archive and loads nothing. Kept as the method table has it.
  functionName("load", cls, "", 0);
  advertiseMethod(&W::save);
  functionName("getAttributesFromCategory", cls, "Get all attributes from a category if it exists.", 0);
  advertiseMethod(&W::getAttributesFromCategory);
  functionName("getChildrenNames", cls, "Get the direct children of an object.", 0);
  advertiseMethod(&W::getChildrenNames);
  functionName("getObjectNames", cls, "Get the name of the objects.", 0);
  advertiseMethod(&W::getObjectNames);
  functionName("getObjectAttributes", cls, "", 0);
  advertiseMethod(&W::getObjectAttributes);
  functionName("getObjectAttributeValues", cls, "", 0);
  advertiseMethod(&W::getObjectAttributeValues);
  functionName("getObjectLatestAttributes", cls, "", 0);
  advertiseMethod(&W::getObjectLatestAttributes);
  functionName("getObjectParentName", cls, "", 0);
  advertiseMethod(&W::getObjectParentName);
  functionName("getObjectsInCategory", cls, "Get the name of the objects stored in the database.", 0);
  advertiseMethod(&W::getObjectsInCategory);
  functionName("getObjectCategory", cls, "Get the name of the database where the object is stored.", 0);
  advertiseMethod(&W::getObjectCategory);
  functionName("getPosition", cls, "Get the position of an object with quaternion / translation.", 0);
  advertiseMethod(&W::getPosition);
  functionName("getPosition6D", cls, "Get the position from one object to another.", 0);
  advertiseMethod(&W::getPosition6D);
  functionName("getPosition6DAtTime", cls, "Get the interpolated position of an object", 0);
  advertiseMethod(&W::getPosition6DAtTime);
  functionName("getRootName", cls, "", 0);
  advertiseMethod(&W::getRootName);
  functionName("save", cls, "", 0);
  advertiseMethod(&W::save);
  functionName("select", cls, "Select information from a database.", 0);
  advertiseMethod(&W::select);
  functionName("selectWithOrder", cls, "Select ordered information from a database.", 0);
  advertiseMethod(&W::selectWithOrder);
  functionName("storeObject", cls, "", 0);
  advertiseMethod(&W::storeObject);
  functionName("storeObjectWithReference", cls, "", 0);
  advertiseMethod(&W::storeObjectWithReference);
  functionName("storeObjectAttribute", cls, "", 0);
  advertiseMethod(&W::storeObjectAttribute);
  functionName("updatePosition", cls, "Update the position of an object.", 0);
  advertiseMethod(&W::updatePosition);
  functionName("updatePositionWithReference", cls, "Update the position of an object relative to another.", 0);
  advertiseMethod(&W::updatePositionWithReference);
  functionName("updateAttribute", cls, "", 0);
  advertiseMethod(&W::updateAttribute);
  functionName("_startMemoryCheck", cls, "", 0);
  advertiseMethod(&W::startMemoryCheck);
  functionName("_stopMemoryCheck", cls, "", 0);
  advertiseMethod(&W::stopMemoryCheck);
  functionName("_beginTransaction", cls, "", 0);
  advertiseMethod(&W::beginTransaction);
  functionName("_endTransaction", cls, "", 0);
  advertiseMethod(&W::endTransaction);
}

KQWorldRepresentation::~KQWorldRepresentation() {
  // The memory watcher drives this module from its own thread: it must be
  // gone before anything here is torn down (exit() stopped it already when
  // it ran; stopping twice returns at once).
  stopMemoryCheck();
  if (autosaver_) autosaver_->stop();
  if (saveBlocked_) {
    databases_.clear();
    return;
  }
  // Saves once more (exit() saved already). A failing save (the data folder
  // gone, say) is logged: nothing may leave a destructor, and a service
  // that is shutting down must not die on the way.
  try {
    save();
  } catch (const std::exception& e) {
    KQWR_ERROR("~KQWorldRepresentation") << "Could not save the world: " << e.what();
  }
  // Every category database is closed before any other member goes.
  databases_.clear();
}

}  // namespace KQ
