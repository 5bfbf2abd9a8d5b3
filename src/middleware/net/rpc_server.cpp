#include "middleware/net/rpc_server.h"

#include "middleware/broker.h"
#include "middleware/error.h"

namespace KQ {
namespace net {

class RpcServer::Impl {};

RpcServer::RpcServer(std::shared_ptr<KQBroker>, RpcServerOptions) {}
RpcServer::~RpcServer() = default;
void RpcServer::start() { throw KQError("RpcServer", "start", "not available yet"); }
unsigned short RpcServer::port() const { return 0; }
void RpcServer::stop() {}

}  // namespace net
}  // namespace KQ
