// RecordingMemoryModule: a stand-in for the memory module ("KQMemory") that
// keeps data keys and events in memory and records what the world module
// declares and raises, so that tests can read the events back.
//
// It answers the same methods as a real memory module (insertData, getData,
// getDataList, removeData, declareEvent, raiseEvent, getEventList); raising an
// event also stores its value under the event's name, so getData on the
// event name gives the last raised value (the world's display list lives
// there). getData of an absent key is a KQError, as a real one refuses it.
//
// Fault switches make it refuse on purpose, with a KQError like a real
// refusal: every declareEvent or only the Nth one, every raiseEvent, every
// getData, every getDataList. A refused call records nothing and changes
// nothing.
//
// Threading: every member is safe from any thread (one mutex); subscriber
// callbacks run after the mutex is released.
#ifndef KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
#define KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "middleware/module.h"
#include "middleware/proxy.h"
#include "middleware/value.h"

namespace KQ {
class KQBroker;

namespace test {

class RecordingMemoryModule : public KQ::KQModule, public KQ::KQEventSource {
 public:
  RecordingMemoryModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name);
  ~RecordingMemoryModule() override;

  // Advertised methods.
  void insertData(const std::string& key, const KQValue& value);
  KQValue getData(const std::string& key);
  std::vector<std::string> getDataList(const std::string& filter);  // keys containing the text
  void removeData(const std::string& key);
  void declareEvent(const std::string& name);
  void raiseEvent(const std::string& name, const KQValue& value);
  std::vector<std::string> getEventList();

  // KQEventSource: callbacks for raised events, by event name.
  uint64_t subscribeEvent(const std::string& event, KQEventCallback callback) override;
  void unsubscribeEvent(uint64_t id) override;

  // --- C++ API for tests.
  // Events declared successfully, in call order (a name declared twice shows twice).
  std::vector<std::string> declaredEvents() const;
  // Number of declareEvent calls so far, refused ones included.
  int declareCalls() const;
  // Successful raises, in call order.
  std::vector<std::pair<std::string, KQValue>> raisedEvents() const;
  int raisedCount(const std::string& name) const;
  // Value of the last successful raise of `name`; an invalid value when never raised.
  KQValue lastRaised(const std::string& name) const;
  // Forgets declared and raised records; data keys stay.
  void clearRecords();
  // Stores a key directly, without recording anything.
  void setData(const std::string& key, const KQValue& value);
  bool hasData(const std::string& key) const;

  // Fault switches.
  void throwOnDeclare(bool enabled);
  // Refuses only the Nth declareEvent call (1-based, counted from creation,
  // see declareCalls); 0 turns it off.
  void throwOnDeclareCall(int nth);
  void throwOnRaise(bool enabled);
  void throwOnGetData(bool enabled);
  void throwOnGetDataList(bool enabled);

 private:
  [[noreturn]] void xRefuse(const std::string& method, const std::string& message) const;

  mutable std::mutex mutex_;
  std::map<std::string, KQValue> data_;
  std::vector<std::string> events_;  // declared, each once, in first-declaration order
  std::vector<std::string> declared_;
  std::vector<std::pair<std::string, KQValue>> raised_;
  std::map<uint64_t, std::pair<std::string, KQEventCallback>> subscribers_;
  uint64_t nextSubscriberId_ = 1;
  int declareCalls_ = 0;
  int declareFailsAt_ = 0;
  bool declareFails_ = false;
  bool raiseFails_ = false;
  bool getDataFails_ = false;
  bool getDataListFails_ = false;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_RECORDING_MEMORY_MODULE_H_
