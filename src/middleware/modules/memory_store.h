// KQMemoryStore: where KQMemory keeps its values and events when they must
// outlive this process and be shared with others (RedisMemoryStore). Without
// one, KQMemory keeps them in its own map, as a process of its own.
//
// Invariants a store keeps: a key holds exactly one value, of the kind it was
// given; raiseEvent stores the value under the event's name, declares the
// event and publishes the raise; every raise published by any process sharing
// the store reaches the sink of every process's startDelivery once, in the
// order in which one process raised them.
//
// Errors: every operation throws KQMemoryStoreError (what() is the whole
// message, e.g. "memory store unavailable: redis://127.0.0.1:6379: Connection
// refused"); the module turns it into a KQError of its own method.
//
// Threading: every operation is safe from any thread. The sink runs on the
// store's own delivery thread, one raise at a time.
#ifndef KQ_MIDDLEWARE_MODULES_MEMORY_STORE_H_
#define KQ_MIDDLEWARE_MODULES_MEMORY_STORE_H_

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "middleware/value.h"

namespace KQ {

class KQMemoryStoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KQMemoryStore {
 public:
  using EventSink = std::function<void(const std::string& name, const KQValue& value)>;

  virtual ~KQMemoryStore() = default;

  virtual void insertData(const std::string& key, const KQValue& value) = 0;
  virtual std::optional<KQValue> getData(const std::string& key) = 0;  // nullopt: no such key
  virtual std::vector<std::string> getDataList(const std::string& filter) = 0;  // sorted, each once
  virtual void removeData(const std::string& key) = 0;
  virtual void declareEvent(const std::string& name) = 0;
  virtual std::vector<std::string> getEventList() = 0;  // declaration order
  virtual void raiseEvent(const std::string& name, const KQValue& value) = 0;

  // Starts handing every raise published from now on to sink; stopDelivery
  // returns once the sink runs no more. Each is called once.
  virtual void startDelivery(EventSink sink) = 0;
  virtual void stopDelivery() = 0;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_MEMORY_STORE_H_
