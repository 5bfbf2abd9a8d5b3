#include "middleware/net/remote_proxy.h"

#include "middleware/error.h"
#include "middleware/net/rpc_client.h"

namespace KQ {
namespace net {

KQRemoteProxy::KQRemoteProxy(std::shared_ptr<RpcClient> client, std::string moduleName)
    : client_(std::move(client)), moduleName_(std::move(moduleName)) {}
KQValue KQRemoteProxy::callMethod(const std::string& method, const KQValue& args) {
  return client_->call(moduleName_ + "." + method, args);
}
std::vector<KQMethodDescription> KQRemoteProxy::getMethodList() {
  const KQValue list = client_->call("broker.methods", KQValue(std::vector<std::string>{moduleName_}));
  std::vector<KQMethodDescription> methods;
  if (!list.isArray()) return methods;
  for (const KQValue& entry : list.toArray()) {
    // [name, description]; anything else is not from a server of ours.
    if (!entry.isArray() || entry.getSize() < 2 || !entry[0].isString() || !entry[1].isString())
      throw KQError(moduleName_, "getMethodList", "unreadable method list from " + client_->url());
    methods.push_back(KQMethodDescription{entry[0].toString(), entry[1].toString(), std::string()});
  }
  return methods;
}
uint64_t KQRemoteProxy::subscribe(const std::string& event, KQEventCallback callback) {
  return client_->subscribe(event, std::move(callback));
}
void KQRemoteProxy::unsubscribe(uint64_t id) { client_->unsubscribe(id); }

KQBroker::RemoteProxyFactory makeRemoteProxyFactory(const std::string& url, const std::string& token) {
  auto client = std::make_shared<RpcClient>(url, token);
  return [client](const std::string& name) -> std::shared_ptr<KQProxy> {
    return std::make_shared<KQRemoteProxy>(client, name);
  };
}

}  // namespace net
}  // namespace KQ
