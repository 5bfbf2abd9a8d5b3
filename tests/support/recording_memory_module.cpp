#include "support/recording_memory_module.h"

#include <algorithm>

#include "middleware/broker.h"
#include "middleware/error.h"

namespace KQ {
namespace test {

RecordingMemoryModule::RecordingMemoryModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name)
    : KQModule(std::move(broker), name) {
  functionName("insertData", getName(), "Insert a value under a key.", 0);
  advertiseMethod(&RecordingMemoryModule::insertData);
  functionName("getData", getName(), "Get the value of a key.", 0);
  advertiseMethod(&RecordingMemoryModule::getData);
  functionName("getDataList", getName(), "List the keys containing a text.", 0);
  advertiseMethod(&RecordingMemoryModule::getDataList);
  functionName("removeData", getName(), "Remove a key.", 0);
  advertiseMethod(&RecordingMemoryModule::removeData);
  functionName("declareEvent", getName(), "Declare an event.", 0);
  advertiseMethod(&RecordingMemoryModule::declareEvent);
  functionName("raiseEvent", getName(), "Raise an event with a value.", 0);
  advertiseMethod(&RecordingMemoryModule::raiseEvent);
  functionName("getEventList", getName(), "List the declared events.", 0);
  advertiseMethod(&RecordingMemoryModule::getEventList);
}

RecordingMemoryModule::~RecordingMemoryModule() = default;

void RecordingMemoryModule::xRefuse(const std::string& method, const std::string& message) const {
  throw KQError(getName(), method, message, "", 0);
}

void RecordingMemoryModule::insertData(const std::string& key, const KQValue& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  data_[key] = value;
}

KQValue RecordingMemoryModule::getData(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (getDataFails_) xRefuse("getData", "memory refused to read " + key);
  auto it = data_.find(key);
  if (it == data_.end()) xRefuse("getData", "no data under key " + key);
  return it->second;
}

std::vector<std::string> RecordingMemoryModule::getDataList(const std::string& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (getDataListFails_) xRefuse("getDataList", "memory refused to list " + filter);
  std::vector<std::string> keys;
  for (const auto& entry : data_)
    if (entry.first.find(filter) != std::string::npos) keys.push_back(entry.first);
  return keys;
}

void RecordingMemoryModule::removeData(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  data_.erase(key);
}

void RecordingMemoryModule::declareEvent(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++declareCalls_;
  if (declareFails_ || declareCalls_ == declareFailsAt_) xRefuse("declareEvent", "memory refused to declare " + name);
  declared_.push_back(name);
  if (std::find(events_.begin(), events_.end(), name) == events_.end()) events_.push_back(name);
}

void RecordingMemoryModule::raiseEvent(const std::string& name, const KQValue& value) {
  std::vector<KQEventCallback> callbacks;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (raiseFails_) xRefuse("raiseEvent", "memory refused to raise " + name);
    data_[name] = value;
    raised_.emplace_back(name, value);
    for (const auto& entry : subscribers_)
      if (entry.second.first == name) callbacks.push_back(entry.second.second);
  }
  for (const auto& callback : callbacks) callback(name, value);
}

std::vector<std::string> RecordingMemoryModule::getEventList() {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

uint64_t RecordingMemoryModule::subscribeEvent(const std::string& event, KQEventCallback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t id = nextSubscriberId_++;
  subscribers_[id] = std::make_pair(event, std::move(callback));
  return id;
}

void RecordingMemoryModule::unsubscribeEvent(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  subscribers_.erase(id);
}

std::vector<std::string> RecordingMemoryModule::declaredEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return declared_;
}

int RecordingMemoryModule::declareCalls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return declareCalls_;
}

std::vector<std::pair<std::string, KQValue>> RecordingMemoryModule::raisedEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return raised_;
}

int RecordingMemoryModule::raisedCount(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(std::count_if(raised_.begin(), raised_.end(),
                                        [&name](const std::pair<std::string, KQValue>& r) { return r.first == name; }));
}

KQValue RecordingMemoryModule::lastRaised(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = raised_.rbegin(); it != raised_.rend(); ++it)
    if (it->first == name) return it->second;
  return KQValue();
}

void RecordingMemoryModule::clearRecords() {
  std::lock_guard<std::mutex> lock(mutex_);
  declared_.clear();
  raised_.clear();
}

void RecordingMemoryModule::setData(const std::string& key, const KQValue& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  data_[key] = value;
}

bool RecordingMemoryModule::hasData(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return data_.count(key) != 0;
}

void RecordingMemoryModule::throwOnDeclare(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  declareFails_ = enabled;
}

void RecordingMemoryModule::throwOnDeclareCall(int nth) {
  std::lock_guard<std::mutex> lock(mutex_);
  declareFailsAt_ = nth;
}

void RecordingMemoryModule::throwOnRaise(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  raiseFails_ = enabled;
}

void RecordingMemoryModule::throwOnGetData(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  getDataFails_ = enabled;
}

void RecordingMemoryModule::throwOnGetDataList(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  getDataListFails_ = enabled;
}

}  // namespace test
}  // namespace KQ
