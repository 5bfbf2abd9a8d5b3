// KQModuleCore / KQModule: the base of every module a broker hosts.
//
// A module has a name, a parent broker and a method table: the names,
// descriptions and invokers of its remotely callable member functions, in
// registration order. A method is registered in two steps, as the modules of
// this middleware always have: functionName(name, className, description, 0)
// opens the documentation, then advertiseMethod(&Class::member) binds the
// member under that name; its signature is read from the member's own types
// (see method_binding.h).
//
// Lifecycle: KQModule::createModule<T>(broker, name) constructs the module in
// a shared pointer, calls initModule() (which registers it with the broker, so
// that proxies can reach it), then init(); when init() throws a KQError it
// calls exit() and rethrows a copy. exit() unregisters the module.
//
// Threading: the method table is written only while the module is being
// constructed; afterwards callMethod may run from any number of threads.
#ifndef KQ_MIDDLEWARE_MODULE_H_
#define KQ_MIDDLEWARE_MODULE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "middleware/error.h"
#include "middleware/method_binding.h"
#include "middleware/value.h"

namespace KQ {

class KQBroker;

struct KQMethodDescription {
  std::string name;
  std::string description;
  std::string signature;  // e.g. "int(string, array of float, bool)"
};

class KQModuleCore : public std::enable_shared_from_this<KQModuleCore> {
 public:
  KQModuleCore(std::shared_ptr<KQBroker> broker, const std::string& name);
  virtual ~KQModuleCore();
  KQModuleCore(const KQModuleCore&) = delete;
  KQModuleCore& operator=(const KQModuleCore&) = delete;

  const std::string& getName() const { return name_; }
  std::shared_ptr<KQBroker> getParentBroker() const { return broker_.lock(); }

  // Opens the documentation of the next method bound by advertiseMethod.
  void functionName(const std::string& name, const std::string& className, const std::string& description,
                    int mask = 0);

  template <class C, class R, class... A>
  void advertiseMethod(R (C::*method)(A...)) {
    advertiseMethod(binding::makeInvoker<C, R, R (C::*)(A...), A...>(static_cast<C*>(this), method, &name_,
                                                                       pendingName_),
                     std::string(binding::resultName<R>()) + "(" + binding::parameterNames<A...>() + ")");
  }
  template <class C, class R, class... A>
  void advertiseMethod(R (C::*method)(A...) const) {
    advertiseMethod(binding::makeInvoker<C, R, R (C::*)(A...) const, A...>(static_cast<C*>(this), method, &name_,
                                                                             pendingName_),
                     std::string(binding::resultName<R>()) + "(" + binding::parameterNames<A...>() + ")");
  }

  // Names, descriptions and signatures in registration order.
  std::vector<KQMethodDescription> getMethodList() const;
  bool hasMethod(const std::string& name) const;

  // Calls a method by name with an array of arguments. Throws
  // KQUnknownMethodError for an unknown name, KQArgumentError for a wrong
  // count or type, and whatever the method itself throws.
  KQValue callMethod(const std::string& name, const KQValue& args);

  // Registers the module with its broker.
  void initModule();
  virtual void init() {}
  // Unregisters the module from its broker; overriding modules call it last.
  virtual void exit();

 private:
  void advertiseMethod(binding::Invoker invoker, std::string signature);

  struct Method {
    KQMethodDescription description;
    binding::Invoker invoker;
  };

  std::weak_ptr<KQBroker> broker_;
  std::string name_;
  std::string pendingName_;
  std::string pendingDescription_;
  std::vector<Method> methods_;
  std::map<std::string, std::size_t> methodIndex_;
};

class KQModule : public KQModuleCore {
 public:
  KQModule(std::shared_ptr<KQBroker> broker, const std::string& name);
  ~KQModule() override;

  template <class T>
  static std::shared_ptr<T> createModule(std::shared_ptr<KQBroker> broker, const std::string& name) {
    std::shared_ptr<T> module = std::make_shared<T>(broker, name);
    module->initModule();
    try {
      module->init();
    } catch (const KQError& e) {
      KQError copy(e);
      module->exit();
      throw copy;
    }
    return module;
  }
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULE_H_
