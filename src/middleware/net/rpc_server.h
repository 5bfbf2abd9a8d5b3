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
// Budgets (a hostile or greedy client must not crash the service, grow it
// without bound or starve the others): a request's header bytes are counted
// across reads (maxHeaderBytes, 431), a chunked body's extensions and
// trailers likewise (400), and the whole request must arrive within
// requestTimeoutSeconds of its first byte; an upgrade that declares a body
// is refused (400). Past maxConnections a new connection is answered 503 and
// closed. Calls queued or running across all connections are bounded in
// number (maxCalls) and bytes (maxQueuedBytes); so are the bytes of replies
// and events waiting to be sent to all WebSocket clients together
// (maxQueuedBytes, one shared buffer per event), and a client over its share
// is closed with a reason. A reply (a batch included) never grows past
// maxReplyBytes: a call that does not fit is answered -32000 "reply too
// large". A WebSocket client holds at most maxSubscriptions subscriptions.
// Calls that take no module lock (the broker's methods, KQMemory's, and
// lockFreeMethods) run on their own lane, so they answer while every worker
// waits on a lock. Refusals are logged at most once a second per client.
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
#include <vector>

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
  std::size_t maxHeaderBytes = 16 << 10;   // one request's header, and its chunk extensions and trailers
  int requestTimeoutSeconds = 10;          // from a request's first byte to its last
  int maxConnections = 512;
  int maxCalls = 256;                      // queued or running, all connections
  std::size_t maxQueuedBytes = 64 << 20;   // call texts waiting; and, apart, bytes waiting to be sent
  std::size_t maxReplyBytes = 16 << 20;
  int maxSubscriptions = 1024;             // per WebSocket connection
  // "<Module>.<method>" names that take no module lock ("broker.*" and
  // "KQMemory.*" always do).
  std::vector<std::string> lockFreeMethods{"KQWorldRepresentation.getRootName"};
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
