// KQMemoryModule: the built-in "KQMemory", the robot's shared blackboard of
// named values and the hub of its events.
//
// Invariants: a key holds exactly one value; raising an event stores the
// value under the event's name (so getData of an event name answers its last
// value) and declares the event if it was not yet declared. The event list
// keeps declaration order, each name once. getDataList answers keys in
// lexicographic order.
//
// Subscribers: a callback runs on the thread that raised the event, with no
// lock of the module held (a callback may call the module again, and raises
// on several threads may run one callback at the same time). Once
// unsubscribeEvent(id) returns, that callback is not running on any other
// thread and never runs again; so a subscriber must not hold, while it
// unsubscribes, a lock its own callback takes.
//
// Store: given a KQMemoryStore (--memory, RedisMemoryStore), the values and
// events live there, shared with every process using the same store; a
// raise then reaches this module's subscribers from the store's delivery
// thread (once, in the raiser's order), not from the raising thread. A
// store's failure is a KQError of the method called, with the store's text
// ("memory store unavailable: ...").
//
// Subscriptions are filed by event name: a raise costs in proportion to its
// own event's subscribers, not to all of them.
//
// Threading: every member is safe from any thread; mutex_ guards the data,
// the events and the subscription table.
#ifndef KQ_MIDDLEWARE_MODULES_MEMORY_MODULE_H_
#define KQ_MIDDLEWARE_MODULES_MEMORY_MODULE_H_

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "middleware/module.h"
#include "middleware/modules/memory_store.h"
#include "middleware/proxy.h"
#include "middleware/value.h"

namespace KQ {

class KQBroker;

class KQMemoryModule : public KQModule, public KQEventSource {
 public:
  static constexpr const char* kModuleName = "KQMemory";

  // Without a store the values and events are kept in this process.
  KQMemoryModule(std::shared_ptr<KQBroker> broker, const std::string& name,
                 std::shared_ptr<KQMemoryStore> store = nullptr);
  ~KQMemoryModule() override;

  // Remotely callable. Virtual so that a module built on this one (a test's
  // fault switches) is reached through the same method table.
  virtual void insertData(const std::string& key, const KQValue& value);
  virtual KQValue getData(const std::string& key);  // KQError for an absent key
  virtual std::vector<std::string> getDataList(const std::string& filter);
  virtual void removeData(const std::string& key);  // an absent key is no error
  virtual void declareEvent(const std::string& name);
  virtual void raiseEvent(const std::string& name, const KQValue& value);
  virtual std::vector<std::string> getEventList();

  // KQEventSource.
  uint64_t subscribeEvent(const std::string& event, KQEventCallback callback) override;
  void unsubscribeEvent(uint64_t id) override;

 private:
  // One subscriber. No lock is held while its callback runs (callbacks on
  // two threads may raise each other's events); instead the threads running
  // it are listed, so that unsubscribing can wait for the others to finish.
  struct Subscription {
    std::string event;
    KQEventCallback callback;
    std::mutex stateMutex;
    std::condition_variable idle;              // signalled when a call ends
    bool active = true;                        // guarded by stateMutex
    std::vector<std::thread::id> runningOn;    // guarded by stateMutex
  };

  // Runs one subscriber's callback unless it was unsubscribed. Caller holds
  // no lock.
  void deliver(Subscription& subscription, const std::string& name, const KQValue& value);

  // Hands a raise to this module's subscribers of the event. Caller holds
  // no lock.
  void notifySubscribers(const std::string& name, const KQValue& value);

  // Runs one operation of the store, turning its failure into a KQError of
  // `method`.
  template <class Operation>
  auto inStore(const char* method, Operation operation) -> decltype(operation());

  // Adds the name to the event list when absent. Caller holds mutex_.
  void xDeclareEvent(const std::string& name);

  std::mutex mutex_;
  std::map<std::string, KQValue> data_;
  std::vector<std::string> events_;
  // event -> id -> subscriber, and id -> event to find it again.
  std::map<std::string, std::map<uint64_t, std::shared_ptr<Subscription>>> subscriptionsByEvent_;
  std::map<uint64_t, std::string> eventOfSubscription_;
  uint64_t nextSubscriptionId_ = 1;
  // Null: in-process. Set once at construction.
  const std::shared_ptr<KQMemoryStore> store_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_MEMORY_MODULE_H_
