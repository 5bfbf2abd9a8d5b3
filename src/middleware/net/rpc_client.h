// RpcClient: a JSON-RPC 2.0 client of an RpcServer over one kept-open
// WebSocket. "http://host:port" and "ws://host:port" name the same server; the
// client always talks to its /ws endpoint.
//
// The connection is opened at the first call or subscription and opened again
// after it was lost (subscriptions are then renewed). Replies are matched to
// calls by id, so calls from several threads share the connection and a slow
// call does not hold back a quick one.
//
// Errors: a -32602 reply throws KQArgumentError, -32601 KQUnknownMethodError,
// any other error reply KQError, each with the server's message as its
// message; a transport failure (refused, lost, 401) throws KQError.
//
// Events: callbacks run on the client's own event thread, one at a time, in
// the order the events arrived; a callback may call the client.
//
// Threading: every member is safe from any thread. The destructor must not
// run on the event thread (i.e. inside a callback).
#ifndef KQ_MIDDLEWARE_NET_RPC_CLIENT_H_
#define KQ_MIDDLEWARE_NET_RPC_CLIENT_H_

#include <cstdint>
#include <memory>
#include <string>

#include "middleware/proxy.h"
#include "middleware/value.h"

namespace KQ {
namespace net {

class RpcClient {
 public:
  explicit RpcClient(const std::string& url, const std::string& token = "");
  ~RpcClient();
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  // method is "Module.method" (or "broker.modules" ...); params an array of
  // positional arguments (an invalid value sends no params).
  KQValue call(const std::string& method, const KQValue& params);

  // Subscribes at the server on the first callback for an event; the returned
  // id is local to this client.
  uint64_t subscribe(const std::string& event, KQEventCallback callback);
  void unsubscribe(uint64_t id);

  // Closes the connection; pending calls fail with KQError. Later calls open
  // it again.
  void close();

  const std::string& url() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_RPC_CLIENT_H_
