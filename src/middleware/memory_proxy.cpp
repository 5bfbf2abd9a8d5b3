#include "middleware/memory_proxy.h"

namespace KQ {

KQMemoryProxy::KQMemoryProxy(std::shared_ptr<KQProxy> proxy) : proxy_(std::move(proxy)) {}

void KQMemoryProxy::insertData(const std::string& key, const KQValue& value) {
  proxy_->call("insertData", key, value);
}

KQValue KQMemoryProxy::getData(const std::string& key) { return proxy_->call("getData", key); }

std::vector<std::string> KQMemoryProxy::getDataList(const std::string& filter) {
  return proxy_->call("getDataList", filter).toStringVector();
}

void KQMemoryProxy::removeData(const std::string& key) { proxy_->call("removeData", key); }

void KQMemoryProxy::declareEvent(const std::string& name) { proxy_->call("declareEvent", name); }

void KQMemoryProxy::raiseEvent(const std::string& name, const KQValue& value) {
  proxy_->call("raiseEvent", name, value);
}

std::vector<std::string> KQMemoryProxy::getEventList() { return proxy_->call("getEventList").toStringVector(); }

uint64_t KQMemoryProxy::subscribe(const std::string& event, KQEventCallback callback) {
  return proxy_->subscribe(event, std::move(callback));
}

void KQMemoryProxy::unsubscribe(uint64_t id) { proxy_->unsubscribe(id); }

}  // namespace KQ
