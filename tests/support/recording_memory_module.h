// RecordingMemoryModule: the real "KQMemory" (KQMemoryModule) with fault
// switches and a record of what was declared and raised, so that tests can
// make it refuse like a failing store and read the events back.
//
// A switched-on fault makes the call throw a KQError, as a real refusal
// does; a refused call records nothing and changes nothing.
//
// Threading: every member is safe from any thread.
#ifndef KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
#define KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "middleware/modules/memory_module.h"

namespace KQ {
namespace test {

class RecordingMemoryModule : public KQMemoryModule {
 public:
  RecordingMemoryModule(std::shared_ptr<KQBroker> broker, const std::string& name);

  KQValue getData(const std::string& key) override;
  std::vector<std::string> getDataList(const std::string& filter) override;
  void declareEvent(const std::string& name) override;
  void raiseEvent(const std::string& name, const KQValue& value) override;

  // Events declared successfully, in call order.
  std::vector<std::string> declaredEvents() const;
  int declareCalls() const { return declareCalls_; }  // refused ones included
  std::vector<std::pair<std::string, KQValue>> raisedEvents() const;
  int raisedCount(const std::string& name) const;
  KQValue lastRaised(const std::string& name) const;  // invalid when never raised
  void clearRecords();                                // data keys stay
  void setData(const std::string& key, const KQValue& value) { KQMemoryModule::insertData(key, value); }
  bool hasData(const std::string& key);

  // Fault switches.
  void throwOnDeclareCall(int nth) { declareFailsAt_ = nth; }  // 1-based; 0: off
  void throwOnRaise(bool enabled) { raiseFails_ = enabled; }
  void throwOnGetData(bool enabled) { getDataFails_ = enabled; }
  void throwOnGetDataList(bool enabled) { getDataListFails_ = enabled; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> declared_;
  std::vector<std::pair<std::string, KQValue>> raised_;
  std::atomic<int> declareCalls_{0};
  std::atomic<int> declareFailsAt_{0};
  std::atomic<bool> raiseFails_{false};
  std::atomic<bool> getDataFails_{false};
  std::atomic<bool> getDataListFails_{false};
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
