// RecordingMemoryModule: the real "KQMemory" with fault switches and a record
// of what was declared and raised, so that tests can make it refuse like a
// failing store (a KQError; a refused call records and changes nothing) and
// read the events back. Safe from any thread.
#ifndef KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
#define KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "middleware/modules/memory_module.h"

namespace KQ::test {

class RecordingMemoryModule : public KQMemoryModule {
 public:
  using KQMemoryModule::KQMemoryModule;

  KQValue getData(const std::string& key) override;
  std::vector<std::string> getDataList(const std::string& filter) override;
  void declareEvent(const std::string& name) override;
  void raiseEvent(const std::string& name, const KQValue& value) override;

  std::vector<std::string> declaredEvents() const;
  std::vector<std::pair<std::string, KQValue>> raisedEvents() const;
  int raisedCount(const std::string& name) const;
  KQValue lastRaised(const std::string& name) const;  // invalid when never raised
  void clearRecords();                                // data keys stay
  void setData(const std::string& key, const KQValue& value) { KQMemoryModule::insertData(key, value); }

  void throwOnRaise(bool enabled) { raiseFails_ = enabled; }
  void throwOnGetData(bool enabled) { getDataFails_ = enabled; }
  void throwOnGetDataList(bool enabled) { getDataListFails_ = enabled; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> declared_;
  std::vector<std::pair<std::string, KQValue>> raised_;
  std::atomic<bool> raiseFails_{false}, getDataFails_{false}, getDataListFails_{false};
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
