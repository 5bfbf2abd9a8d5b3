// RpcServer: the network front of a broker. Serves JSON-RPC 2.0 over HTTP
// (POST /rpc) and over a WebSocket (GET /ws) and calls the broker's modules
// by "<Module>.<method>".
//
// Besides the modules' own methods it answers "broker.modules" (the hosted
// module names) and "broker.methods" ([module] -> [[name, description], ...]
// in registration order); over a WebSocket also "subscribe"/"unsubscribe"
// ([event name]), after which each raised event arrives as the notification
// {"jsonrpc":"2.0","method":"event","params":[event, value]}.
//
// Safety: binds to loopback unless told otherwise; with a token every HTTP
// request and upgrade must carry it (Authorization: Bearer, or ?token=) or is
// answered 401; requests from another site's page (Origin) get 403; a body
// over maxMessageBytes gets 413, a POST that is not application/json 415;
// JSON nested deeper than 64 levels is refused before it is built; idle
// connections are closed after idleTimeoutSeconds.
//
// Threading: one I/O thread owns every socket; calls run on a pool of
// workerThreads so that a call waiting on a module's lock delays no other
// client. start() and stop() are called from one owning thread; port() from
// any thread after start(). The broker outlives nothing here: the server
// holds it by shared pointer.
#ifndef KQ_MIDDLEWARE_NET_RPC_SERVER_H_
#define KQ_MIDDLEWARE_NET_RPC_SERVER_H_

#include <cstddef>
#include <memory>
#include <string>

namespace KQ {

class KQBroker;

namespace net {

struct RpcServerOptions {
  std::string host = "127.0.0.1";     // "0.0.0.0" or "::" only when asked for
  unsigned short port = 9480;         // 0 picks a free port (see port())
  std::string token;                  // empty: no token asked
  std::size_t maxMessageBytes = 1 << 20;
  int workerThreads = 4;
  int idleTimeoutSeconds = 300;
  std::string webRoot;                // the viewer's folder (GET /); empty: no viewer
};

class RpcServer {
 public:
  RpcServer(std::shared_ptr<KQBroker> broker, RpcServerOptions options);
  ~RpcServer();  // stops
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Binds and listens, then serves on its own threads. Throws KQError with one
  // sentence, e.g. "Cannot listen on 127.0.0.1:9480: Address already in use".
  void start();
  // The bound port (the picked one when the options asked for port 0).
  unsigned short port() const;
  // Closes the listener and every connection, waits for running calls to end.
  // Idempotent.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_RPC_SERVER_H_
