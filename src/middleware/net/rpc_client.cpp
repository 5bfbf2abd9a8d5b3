#include "middleware/net/rpc_client.h"

#include "middleware/error.h"

namespace KQ {
namespace net {

class RpcClient::Impl {
 public:
  std::string url;
};

RpcClient::RpcClient(const std::string& url, const std::string&) : impl_(std::make_shared<Impl>()) {
  impl_->url = url;
}
RpcClient::~RpcClient() = default;
KQValue RpcClient::call(const std::string&, const KQValue&) {
  throw KQError("RpcClient", "call", "not available yet");
}
uint64_t RpcClient::subscribe(const std::string&, KQEventCallback) {
  throw KQError("RpcClient", "subscribe", "not available yet");
}
void RpcClient::unsubscribe(uint64_t) {}
void RpcClient::close() {}
const std::string& RpcClient::url() const { return impl_->url; }

}  // namespace net
}  // namespace KQ
