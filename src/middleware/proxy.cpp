#include "middleware/proxy.h"

#include "middleware/error.h"

namespace KQ {

uint64_t KQProxy::subscribe(const std::string& event, KQEventCallback /*callback*/) {
  throw KQError(getModuleName(), "subscribe", "module " + getModuleName() + " raises no events (" + event + ")",
                "", 0);
}

void KQProxy::unsubscribe(uint64_t /*id*/) {}

KQLocalProxy::KQLocalProxy(std::shared_ptr<KQModuleCore> module) : module_(std::move(module)) {}

const std::string& KQLocalProxy::getModuleName() const { return module_->getName(); }

KQValue KQLocalProxy::callMethod(const std::string& method, const KQValue& args) {
  return module_->callMethod(method, args);
}

std::vector<KQMethodDescription> KQLocalProxy::getMethodList() { return module_->getMethodList(); }

uint64_t KQLocalProxy::subscribe(const std::string& event, KQEventCallback callback) {
  auto* source = dynamic_cast<KQEventSource*>(module_.get());
  if (source == nullptr) return KQProxy::subscribe(event, std::move(callback));
  return source->subscribeEvent(event, std::move(callback));
}

void KQLocalProxy::unsubscribe(uint64_t id) {
  auto* source = dynamic_cast<KQEventSource*>(module_.get());
  if (source != nullptr) source->unsubscribeEvent(id);
}

}  // namespace KQ
