// KQBroker: hosts modules and hands out proxies to them by name.
// KQBrokerManager: the process-wide registry of brokers.
//
// getProxy(name) gives a local proxy when this broker hosts the module, and
// otherwise asks the remote-proxy factory (installed by a process started
// with --parent); with neither it throws KQError. Nothing that holds a proxy
// knows which of the two it got.
//
// Threading: every member is safe from any thread (one mutex guards the
// module list; it is never held while a module's code runs).
#ifndef KQ_MIDDLEWARE_BROKER_H_
#define KQ_MIDDLEWARE_BROKER_H_

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/module.h"
#include "middleware/proxy.h"

namespace KQ {

class KQBrokerManager;

class KQBroker : public std::enable_shared_from_this<KQBroker> {
 public:
  using RemoteProxyFactory = std::function<std::shared_ptr<KQProxy>(const std::string& moduleName)>;

  explicit KQBroker(const std::string& name = "kqbroker");
  ~KQBroker();

  const std::string& getName() const { return name_; }

  // Throws KQError when a module of that name is already registered.
  void registerModule(const std::shared_ptr<KQModuleCore>& module);
  void unregisterModule(const std::string& name);
  std::shared_ptr<KQModuleCore> getModule(const std::string& name) const;  // null when absent
  std::vector<std::string> getModuleNames() const;                           // registration order

  std::shared_ptr<KQProxy> getProxy(const std::string& name, int flags = 0);
  template <class T>
  std::shared_ptr<T> getSpecialisedProxy(const std::string& name) {
    return std::make_shared<T>(getProxy(name, 0));
  }

  void setRemoteProxyFactory(RemoteProxyFactory factory);

  // The manager this broker belongs to (created on first use).
  std::shared_ptr<KQBrokerManager> getBrokerManager();

  // Calls exit() on every hosted module, last registered first; a module
  // whose exit throws is logged and the others still exit. False when one
  // threw.
  bool shutdown();

 private:
  std::string name_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<KQModuleCore>> modules_;
  RemoteProxyFactory remoteFactory_;
  std::shared_ptr<KQBrokerManager> manager_;
};

class KQBrokerManager {
 public:
  static std::shared_ptr<KQBrokerManager> getInstance();  // created on first use
  static void setInstance(std::shared_ptr<KQBrokerManager> manager);

  void addBroker(std::shared_ptr<KQBroker> broker);  // a broker is added once
  void removeBroker(const std::shared_ptr<KQBroker>& broker);
  std::vector<std::shared_ptr<KQBroker>> getBrokers() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<KQBroker>> brokers_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_BROKER_H_
