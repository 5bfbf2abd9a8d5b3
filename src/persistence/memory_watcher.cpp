// The memory watcher: a thread that polls the memory keys "Object/" + name
// and mirrors each into the world as an object of "kqmemoryobjects" with a
// "Display" attribute, until it is stopped.
//
// It holds no module lock of its own: every change goes through the public
// operations, which take theirs. running is true from the start request
// until the thread has left its loop, its wind-up included; stop waits for
// it, so once stopMemoryCheck returns the thread touches the module no more
// (exit and the destructor stop it before anything is saved or destroyed).
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "middleware/memory_proxy.h"
#include "middleware/os.h"
#include "module/module_log.h"
#include "module/world_representation.h"
#include "persistence/memory_object.h"
#include "storage/attribute_rows.h"

namespace KQ {

namespace {

// The object's name: the key cut at the prefix's length, not after the place
// where the prefix was found.
std::string objectNameFromMemoryKey(const std::string& key, const std::string& prefix) {
  if (key.find(prefix) == std::string::npos) return std::string();
  return key.substr(prefix.size());
}

const char* const kMemoryObjectPrefix = "Object/";
const char* const kMemoryObjectCategory = "kqmemoryobjects";

}  // namespace

void KQWorldRepresentation::startMemoryCheck(const int& period) {
  std::lock_guard<std::mutex> stopLock(stopMutex_);
  {
    // running is claimed here rather than by the new thread, so that a
    // second start cannot make a second thread and a stop issued right now
    // waits for this one.
    std::lock_guard<std::mutex> runningLock(runningMutex_);
    if (running_) {
      KQWR_WARNING("startMemoryCheck") << "Memory check is already running";
      return;
    }
    running_ = true;
  }
  memoryCheckPeriod_ = period;
  keepRunning_ = true;
  try {
    std::thread(&KQWorldRepresentation::checkMemory, this).detach();
  } catch (const std::system_error& e) {
    keepRunning_ = false;
    std::lock_guard<std::mutex> runningLock(runningMutex_);
    running_ = false;
    runningCondition_.notify_all();
    KQWR_ERROR("startMemoryCheck") << "Cannot start the memory check: " << e.what();
  }
}

void KQWorldRepresentation::stopMemoryCheck() {
  {
    std::lock_guard<std::mutex> stopLock(stopMutex_);
    keepRunning_ = false;
  }
  stopCondition_.notify_all();  // a watcher asleep between passes wakes now
  // Returns once the thread has finished its pass, its pending sleep of up
  // to one period and its wind-up.
  std::unique_lock<std::mutex> runningLock(runningMutex_);
  runningCondition_.wait(runningLock, [this] { return !running_; });
}

void KQWorldRepresentation::mirrorMemoryKey(const std::string& key) {
  const std::string name = objectNameFromMemoryKey(key, kMemoryObjectPrefix);
  const KQValue value = memoryProxy_->getData(key);
  if (value.getSize() == 0) {
    // An emptied key takes the object off the display; the object stays.
    deleteObjectAttribute(name, displayAttributeName_, "1");
    return;
  }
  if (!hasMemoryObjectFormat(value)) {
    KQWR_WARNING("xCheckMemory") << "Object in key " << key << " has not valid format: " << value;
    return;
  }
  const std::string& reference = value[1].toString();
  std::vector<float> position = value[2].toFloatVector();
  position.resize(6, 0.0f);  // x, y, z alone: no rotation
  const KQValue display = displayValues(name, value);

  if (!findObject(name)) {
    KQValue attributes;
    attributes.arrayPush(fieldPair(displayAttributeName_.c_str(), display));
    storeObject(name, reference, position, kMemoryObjectCategory, attributes);
  } else {
    // Its own name as reference keeps an existing object where it is;
    // any other reference is ignored for an existing object.
    if (reference == name) position = getPosition6D(getObjectParentName(name), name);
    updateAttribute(name, displayAttributeName_, objectCondition(name), display);
    updatePosition(name, position, true);
  }
}

void KQWorldRepresentation::checkMemory() {
  // Linux keeps 15 bytes of a thread name: "KQWorldRep-KQMe".
  ko::os::setCurrentThreadName("KQWorldRep-KQMemory");
  {
    std::lock_guard<std::mutex> runningLock(runningMutex_);
    running_ = true;
    runningCondition_.notify_all();
  }

  while (keepRunning_) {
    ko::os::timeval passStart;
    ko::os::gettimeofday(&passStart);
    // A key that fails (gone between the listing and the read, an operation
    // that throws) is logged and skipped; the others are still mirrored, and
    // a memory module that cannot list is asked again next pass. The watcher
    // stops only when asked.
    std::vector<std::string> keys;
    try {
      keys = memoryProxy_->getDataList(kMemoryObjectPrefix);
    } catch (const std::exception& e) {
      KQWR_ERROR("xCheckMemory") << "Cannot list the memory keys: " << e.what();
    }
    for (const std::string& key : keys) {
      try {
        mirrorMemoryKey(key);
      } catch (const std::exception& e) {
        KQWR_ERROR("xCheckMemory") << "Key " << key << " skipped this pass: " << e.what();
      }
    }
    // The period is counted from the start of the pass, in whole seconds:
    // a pass longer than the period is followed at once by the next. A
    // wall clock set back during the pass never stretches the sleep past
    // one period, and a stop ends the sleep at once.
    ko::os::timeval passEnd;
    ko::os::gettimeofday(&passEnd);
    long long wait =
        static_cast<long long>(memoryCheckPeriod_) - static_cast<long long>(passEnd.tv_sec - passStart.tv_sec);
    if (wait > memoryCheckPeriod_) wait = memoryCheckPeriod_;
    if (wait > 0) {
      std::unique_lock<std::mutex> stopLock(stopMutex_);
      stopCondition_.wait_for(stopLock, std::chrono::seconds(wait), [this] { return !keepRunning_; });
    }
  }
  // Every object still published leaves the display with the watcher.
  try {
    for (const std::string& key : memoryProxy_->getDataList(kMemoryObjectPrefix))
      deleteObjectAttribute(objectNameFromMemoryKey(key, kMemoryObjectPrefix), displayAttributeName_, "1");
  } catch (const std::exception& e) {
    KQWR_ERROR("xCheckMemory") << "Cannot take the memory objects off the display: " << e.what();
  }

  std::lock_guard<std::mutex> runningLock(runningMutex_);
  running_ = false;
  runningCondition_.notify_all();
  // Nothing of the module is touched after this point: a waiting stop may
  // return, and the module may go, as soon as the mutex is released.
}

}  // namespace KQ
