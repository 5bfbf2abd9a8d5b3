#include "middleware/module.h"

#include "middleware/broker.h"

namespace KQ {

KQModuleCore::KQModuleCore(std::shared_ptr<KQBroker> broker, const std::string& name)
    : broker_(broker), name_(name) {}

KQModuleCore::~KQModuleCore() = default;

void KQModuleCore::functionName(const std::string& name, const std::string& /*className*/,
                                const std::string& description, int /*mask*/) {
  pendingName_ = name;
  pendingDescription_ = description;
}

void KQModuleCore::advertiseMethod(binding::Invoker invoker, std::string signature) {
  Method method{KQMethodDescription{pendingName_, pendingDescription_, std::move(signature)}, std::move(invoker)};
  auto found = methodIndex_.find(pendingName_);
  if (found != methodIndex_.end()) {
    // A name bound twice keeps its place in the list and takes the new member.
    methods_[found->second] = std::move(method);
  } else {
    methodIndex_[pendingName_] = methods_.size();
    methods_.push_back(std::move(method));
  }
  pendingName_.clear();
  pendingDescription_.clear();
}

std::vector<KQMethodDescription> KQModuleCore::getMethodList() const {
  std::vector<KQMethodDescription> list;
  list.reserve(methods_.size());
  for (const Method& method : methods_) list.push_back(method.description);
  return list;
}

bool KQModuleCore::hasMethod(const std::string& name) const { return methodIndex_.count(name) != 0; }

KQValue KQModuleCore::callMethod(const std::string& name, const KQValue& args) {
  auto found = methodIndex_.find(name);
  if (found == methodIndex_.end())
    throw KQUnknownMethodError(name_, name, "no method " + name + " in module " + name_, "", 0);
  return methods_[found->second].invoker(args);
}

void KQModuleCore::initModule() {
  std::shared_ptr<KQBroker> broker = broker_.lock();
  if (broker) broker->registerModule(shared_from_this());
}

void KQModuleCore::exit() {
  std::shared_ptr<KQBroker> broker = broker_.lock();
  if (broker) broker->unregisterModule(name_);
}

KQModule::KQModule(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModuleCore(broker, name) {}

KQModule::~KQModule() = default;

}  // namespace KQ
