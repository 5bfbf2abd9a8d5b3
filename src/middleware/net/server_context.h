// ServerContext: what the RPC server's connections share: the options, the
// dispatcher, the worker pool, the request guard's facts, and the registry of
// open connections that stop() closes.
//
// Ownership: RpcServer owns the context; every connection holds a plain
// reference to it, which stays valid because stop() closes and forgets every
// connection, and drains the worker pool, before the context goes.
//
// Threading: options, port and bound host are written before the first
// connection and only read afterwards; the registry has its own mutex.
#ifndef KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_
#define KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/net/rpc_dispatcher.h"
#include "middleware/net/rpc_server.h"
#include "middleware/net/worker_pool.h"

namespace KQ {
namespace net {

// A connection that stop() can close.
class Connection {
 public:
  virtual ~Connection() = default;
  // Runs on the I/O thread: drops subscriptions and closes the socket.
  virtual void shutdown() = 0;
};

class ConnectionRegistry {
 public:
  void add(const Connection* key, std::weak_ptr<Connection> connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_[key] = std::move(connection);
  }
  void remove(const Connection* key) {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(key);
  }
  std::vector<std::shared_ptr<Connection>> live() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<Connection>> out;
    for (const auto& entry : connections_)
      if (auto connection = entry.second.lock()) out.push_back(std::move(connection));
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::map<const Connection*, std::weak_ptr<Connection>> connections_;
};

struct ServerContext {
  ServerContext(std::shared_ptr<KQBroker> broker, RpcServerOptions serverOptions)
      : options(std::move(serverOptions)), dispatcher(std::move(broker)), pool(options.workerThreads) {}

  RpcServerOptions options;
  RpcDispatcher dispatcher;
  WorkerPool pool;
  unsigned short port = 0;  // the bound port
  ConnectionRegistry connections;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_
