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
std::vector<KQMethodDescription> KQRemoteProxy::getMethodList() { return {}; }
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
