#include "middleware/modules/memory_module.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "middleware/error.h"
#include "middleware/log.h"

namespace KQ {

KQMemoryModule::KQMemoryModule(std::shared_ptr<KQBroker> broker, const std::string& name,
                               std::shared_ptr<KQMemoryStore> store)
    : KQModule(std::move(broker), name), store_(std::move(store)) {
  functionName("insertData", getName(), "Store a value under a key, replacing the previous one.");
  advertiseMethod(&KQMemoryModule::insertData);
  functionName("getData", getName(), "Get the value stored under a key.");
  advertiseMethod(&KQMemoryModule::getData);
  functionName("getDataList", getName(), "Get the keys that contain the given text.");
  advertiseMethod(&KQMemoryModule::getDataList);
  functionName("removeData", getName(), "Remove a key and its value.");
  advertiseMethod(&KQMemoryModule::removeData);
  functionName("declareEvent", getName(), "Declare an event.");
  advertiseMethod(&KQMemoryModule::declareEvent);
  functionName("raiseEvent", getName(), "Store a value under an event's name and notify its subscribers.");
  advertiseMethod(&KQMemoryModule::raiseEvent);
  functionName("getEventList", getName(), "Get the declared events.");
  advertiseMethod(&KQMemoryModule::getEventList);
  if (store_) store_->startDelivery([this](const std::string& event, const KQValue& value) {
    notifySubscribers(event, value);
  });
}

// The store's delivery thread is stopped before the subscription table goes.
KQMemoryModule::~KQMemoryModule() {
  if (store_) store_->stopDelivery();
}

template <class Operation>
auto KQMemoryModule::inStore(const char* method, Operation operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (const KQMemoryStoreError& e) {
    throw KQError(getName(), method, e.what(), "", 0);
  }
}

void KQMemoryModule::insertData(const std::string& key, const KQValue& value) {
  if (store_) return inStore("insertData", [&] { store_->insertData(key, value); });
  std::lock_guard<std::mutex> lock(mutex_);
  data_[key] = value;
}

KQValue KQMemoryModule::getData(const std::string& key) {
  std::optional<KQValue> value;
  if (store_) {
    value = inStore("getData", [&] { return store_->getData(key); });
  } else {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = data_.find(key);
    if (found != data_.end()) value = found->second;
  }
  if (!value) throw KQError(getName(), "getData", "There is no data under key " + key + ".", "", 0);
  return *value;
}

std::vector<std::string> KQMemoryModule::getDataList(const std::string& filter) {
  if (store_) return inStore("getDataList", [&] { return store_->getDataList(filter); });
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> keys;
  for (const auto& entry : data_) {
    if (entry.first.find(filter) != std::string::npos) keys.push_back(entry.first);
  }
  return keys;
}

void KQMemoryModule::removeData(const std::string& key) {
  if (store_) return inStore("removeData", [&] { store_->removeData(key); });
  std::lock_guard<std::mutex> lock(mutex_);
  data_.erase(key);
}

void KQMemoryModule::declareEvent(const std::string& name) {
  if (store_) return inStore("declareEvent", [&] { store_->declareEvent(name); });
  std::lock_guard<std::mutex> lock(mutex_);
  xDeclareEvent(name);
}

void KQMemoryModule::xDeclareEvent(const std::string& name) {
  if (std::find(events_.begin(), events_.end(), name) == events_.end()) events_.push_back(name);
}

void KQMemoryModule::raiseEvent(const std::string& name, const KQValue& value) {
  // With a store, its delivery thread brings the raise back to our subscribers.
  if (store_) return inStore("raiseEvent", [&] { store_->raiseEvent(name, value); });
  {
    std::lock_guard<std::mutex> lock(mutex_);
    xDeclareEvent(name);
    data_[name] = value;
  }
  notifySubscribers(name, value);
}

void KQMemoryModule::notifySubscribers(const std::string& name, const KQValue& value) {
  std::vector<std::shared_ptr<Subscription>> receivers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = subscriptionsByEvent_.find(name);
    if (found != subscriptionsByEvent_.end()) {
      receivers.reserve(found->second.size());
      for (const auto& entry : found->second) receivers.push_back(entry.second);
    }
  }
  // Outside mutex_: a callback may read the value back or raise another event.
  for (const auto& receiver : receivers) deliver(*receiver, name, value);
}

void KQMemoryModule::deliver(Subscription& subscription, const std::string& name, const KQValue& value) {
  const std::thread::id self = std::this_thread::get_id();
  {
    std::lock_guard<std::mutex> lock(subscription.stateMutex);
    if (!subscription.active) return;
    subscription.runningOn.push_back(self);
  }
  // Takes this thread off the list however the callback ends.
  struct Leave {
    Subscription& subscription;
    std::thread::id self;
    ~Leave() {
      std::lock_guard<std::mutex> lock(subscription.stateMutex);
      auto& running = subscription.runningOn;
      running.erase(std::find(running.begin(), running.end(), self));
      subscription.idle.notify_all();
    }
  } leave{subscription, self};
  try {
    subscription.callback(name, value);
  } catch (const std::exception& e) {
    // One failing subscriber must not keep the event from the others nor
    // fail the raiser.
    KO_LOG(ko::log::warning, getName(), "", "raiseEvent", 0) << "A subscriber of " << name << " failed: " << e.what();
  }
}

std::vector<std::string> KQMemoryModule::getEventList() {
  if (store_) return inStore("getEventList", [&] { return store_->getEventList(); });
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

uint64_t KQMemoryModule::subscribeEvent(const std::string& event, KQEventCallback callback) {
  auto subscription = std::make_shared<Subscription>();
  subscription->event = event;
  subscription->callback = std::move(callback);
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t id = nextSubscriptionId_++;
  subscriptionsByEvent_[event][id] = std::move(subscription);
  eventOfSubscription_[id] = event;
  return id;
}

void KQMemoryModule::unsubscribeEvent(uint64_t id) {
  std::shared_ptr<Subscription> subscription;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto event = eventOfSubscription_.find(id);
    if (event == eventOfSubscription_.end()) return;
    auto& ofEvent = subscriptionsByEvent_[event->second];
    const auto found = ofEvent.find(id);
    subscription = found->second;
    ofEvent.erase(found);
    if (ofEvent.empty()) subscriptionsByEvent_.erase(event->second);
    eventOfSubscription_.erase(event);
  }
  // Waits for calls running on other threads; a callback that unsubscribes
  // itself does not wait for its own call.
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock<std::mutex> lock(subscription->stateMutex);
  subscription->active = false;
  subscription->idle.wait(lock, [&] {
    for (const std::thread::id& running : subscription->runningOn)
      if (running != self) return false;
    return true;
  });
}

}  // namespace KQ
