#include "middleware/broker.h"

#include <algorithm>

#include "middleware/error.h"
#include "middleware/log.h"

namespace KQ {

KQBroker::KQBroker(const std::string& name) : name_(name) {}

KQBroker::~KQBroker() = default;

void KQBroker::registerModule(const std::shared_ptr<KQModuleCore>& module) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& existing : modules_) {
    if (existing->getName() == module->getName())
      throw KQError("KQBroker", "registerModule", "a module named " + module->getName() + " is already registered",
                    "", 0);
  }
  modules_.push_back(module);
}

void KQBroker::unregisterModule(const std::string& name) {
  std::shared_ptr<KQModuleCore> removed;  // released outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = std::find_if(modules_.begin(), modules_.end(),
                            [&](const std::shared_ptr<KQModuleCore>& m) { return m->getName() == name; });
  if (found != modules_.end()) {
    removed = *found;
    modules_.erase(found);
  }
}

std::shared_ptr<KQModuleCore> KQBroker::getModule(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& module : modules_)
    if (module->getName() == name) return module;
  return nullptr;
}

std::vector<std::string> KQBroker::getModuleNames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(modules_.size());
  for (const auto& module : modules_) names.push_back(module->getName());
  return names;
}

std::shared_ptr<KQProxy> KQBroker::getProxy(const std::string& name, int /*flags*/) {
  if (std::shared_ptr<KQModuleCore> module = getModule(name)) return std::make_shared<KQLocalProxy>(module);
  RemoteProxyFactory factory;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    factory = remoteFactory_;
  }
  if (factory) {
    if (std::shared_ptr<KQProxy> proxy = factory(name)) return proxy;
  }
  throw KQError("KQBroker", "getProxy", "Cannot find module " + name + " at broker " + name_, "", 0);
}

void KQBroker::setRemoteProxyFactory(RemoteProxyFactory factory) {
  std::lock_guard<std::mutex> lock(mutex_);
  remoteFactory_ = std::move(factory);
}

std::shared_ptr<KQBrokerManager> KQBroker::getBrokerManager() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!manager_) manager_ = std::make_shared<KQBrokerManager>();
  return manager_;
}

bool KQBroker::shutdown() {
  std::vector<std::shared_ptr<KQModuleCore>> modules;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    modules = modules_;
  }
  // Last registered first: a module that uses another (the world model uses
  // the memory and motion modules) goes before what it uses. One that fails
  // to exit is logged and the others still exit.
  bool clean = true;
  for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
    try {
      (*it)->exit();
    } catch (const std::exception& e) {
      clean = false;
      KO_LOG(ko::log::error, "KQBroker", "", "shutdown", 0) << "Module " << (*it)->getName()
                                                            << " did not exit cleanly: " << e.what();
    }
  }
  return clean;
}

namespace {
std::mutex& instanceMutex() {
  static std::mutex mutex;
  return mutex;
}
std::shared_ptr<KQBrokerManager>& instanceSlot() {
  static std::shared_ptr<KQBrokerManager> instance;
  return instance;
}
}  // namespace

std::shared_ptr<KQBrokerManager> KQBrokerManager::getInstance() {
  std::lock_guard<std::mutex> lock(instanceMutex());
  if (!instanceSlot()) instanceSlot() = std::make_shared<KQBrokerManager>();
  return instanceSlot();
}

void KQBrokerManager::setInstance(std::shared_ptr<KQBrokerManager> manager) {
  std::lock_guard<std::mutex> lock(instanceMutex());
  instanceSlot() = std::move(manager);
}

void KQBrokerManager::addBroker(std::shared_ptr<KQBroker> broker) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& existing : brokers_)
    if (existing.lock() == broker) return;
  brokers_.push_back(broker);
}

void KQBrokerManager::removeBroker(const std::shared_ptr<KQBroker>& broker) {
  std::lock_guard<std::mutex> lock(mutex_);
  brokers_.erase(std::remove_if(brokers_.begin(), brokers_.end(),
                                [&](const std::weak_ptr<KQBroker>& b) {
                                  auto locked = b.lock();
                                  return !locked || locked == broker;
                                }),
                 brokers_.end());
}

std::vector<std::shared_ptr<KQBroker>> KQBrokerManager::getBrokers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<KQBroker>> out;
  for (const auto& b : brokers_)
    if (auto locked = b.lock()) out.push_back(locked);
  return out;
}

}  // namespace KQ
