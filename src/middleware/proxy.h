// KQProxy: how one module calls another, by method name, without knowing
// where the other lives. KQLocalProxy calls a module of the same broker
// directly; the network layer provides a proxy to a module at another broker
// with the same interface.
//
// Events: a proxy to a module that raises events (the memory module) can
// subscribe a callback; other proxies throw KQError from subscribe.
//
// Threading: proxies are safe to use from several threads at once.
#ifndef KQ_MIDDLEWARE_PROXY_H_
#define KQ_MIDDLEWARE_PROXY_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "middleware/module.h"
#include "middleware/value.h"

namespace KQ {

using KQEventCallback = std::function<void(const std::string& event, const KQValue& value)>;

// Implemented by modules that raise events (the memory module).
class KQEventSource {
 public:
  virtual ~KQEventSource() = default;
  virtual uint64_t subscribeEvent(const std::string& event, KQEventCallback callback) = 0;
  virtual void unsubscribeEvent(uint64_t id) = 0;
};

class KQProxy {
 public:
  virtual ~KQProxy() = default;
  virtual const std::string& getModuleName() const = 0;
  // args is an array of positional arguments.
  virtual KQValue callMethod(const std::string& method, const KQValue& args) = 0;
  virtual std::vector<KQMethodDescription> getMethodList() = 0;
  virtual uint64_t subscribe(const std::string& event, KQEventCallback callback);
  virtual void unsubscribe(uint64_t id);

  // call("getData", key) packs the arguments into an array.
  template <class... A>
  KQValue call(const std::string& method, const A&... args) {
    KQValue array;
    array.arraySetSize(0);
    (array.arrayPush(KQValue(args)), ...);
    return callMethod(method, array);
  }
};

class KQLocalProxy : public KQProxy {
 public:
  explicit KQLocalProxy(std::shared_ptr<KQModuleCore> module);
  const std::string& getModuleName() const override;
  KQValue callMethod(const std::string& method, const KQValue& args) override;
  std::vector<KQMethodDescription> getMethodList() override;
  uint64_t subscribe(const std::string& event, KQEventCallback callback) override;
  void unsubscribe(uint64_t id) override;

 private:
  std::shared_ptr<KQModuleCore> module_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_PROXY_H_
