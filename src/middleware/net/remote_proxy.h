// Proxies to the modules of another broker (a process started with
// --parent): KQProxy subclasses that call "<Module>.<method>" through one
// shared RpcClient, list methods through "broker.methods" and subscribe to
// events at that broker.
//
// Threading: proxies share the client, which is safe from any thread.
#ifndef KQ_MIDDLEWARE_NET_REMOTE_PROXY_H_
#define KQ_MIDDLEWARE_NET_REMOTE_PROXY_H_

#include <memory>
#include <string>

#include "middleware/broker.h"
#include "middleware/proxy.h"

namespace KQ {
namespace net {

class RpcClient;

class KQRemoteProxy : public KQProxy {
 public:
  KQRemoteProxy(std::shared_ptr<RpcClient> client, std::string moduleName);

  const std::string& getModuleName() const override { return moduleName_; }
  KQValue callMethod(const std::string& method, const KQValue& args) override;
  // Signatures are not sent over the network: each description's signature
  // is empty.
  std::vector<KQMethodDescription> getMethodList() override;
  uint64_t subscribe(const std::string& event, KQEventCallback callback) override;
  void unsubscribe(uint64_t id) override;

 private:
  std::shared_ptr<RpcClient> client_;
  std::string moduleName_;
};

// One client for url, created now and shared by every proxy the factory makes;
// it connects at its first use.
KQBroker::RemoteProxyFactory makeRemoteProxyFactory(const std::string& url, const std::string& token);

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_REMOTE_PROXY_H_
