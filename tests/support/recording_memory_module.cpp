#include "support/recording_memory_module.h"

#include <algorithm>

#include "middleware/error.h"

namespace KQ::test {
namespace {

[[noreturn]] void refuse(const std::string& method, const std::string& message) {
  throw KQError("KQMemory", method, message, "", 0);
}

}  // namespace

KQValue RecordingMemoryModule::getData(const std::string& key) {
  if (getDataFails_) refuse("getData", "memory refused to read " + key);
  return KQMemoryModule::getData(key);
}

std::vector<std::string> RecordingMemoryModule::getDataList(const std::string& filter) {
  if (getDataListFails_) refuse("getDataList", "memory refused to list " + filter);
  return KQMemoryModule::getDataList(filter);
}

void RecordingMemoryModule::declareEvent(const std::string& name) {
  KQMemoryModule::declareEvent(name);
  std::lock_guard<std::mutex> lock(mutex_);
  declared_.push_back(name);
}

void RecordingMemoryModule::raiseEvent(const std::string& name, const KQValue& value) {
  if (raiseFails_) refuse("raiseEvent", "memory refused to raise " + name);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    raised_.emplace_back(name, value);
  }
  KQMemoryModule::raiseEvent(name, value);
}

std::vector<std::string> RecordingMemoryModule::declaredEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return declared_;
}

std::vector<std::pair<std::string, KQValue>> RecordingMemoryModule::raisedEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return raised_;
}

int RecordingMemoryModule::raisedCount(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::count_if(raised_.begin(), raised_.end(), [&](const auto& event) { return event.first == name; });
}

KQValue RecordingMemoryModule::lastRaised(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto event = raised_.rbegin(); event != raised_.rend(); ++event)
    if (event->first == name) return event->second;
  return KQValue();
}

void RecordingMemoryModule::clearRecords() {
  std::lock_guard<std::mutex> lock(mutex_);
  declared_.clear();
  raised_.clear();
}

}  // namespace KQ::test
