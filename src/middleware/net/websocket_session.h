// WebSocketSession: one WebSocket connection to the RPC server (GET /ws).
// Each message is a JSON-RPC request, notification or batch, run on the
// worker pool as soon as it arrives, so replies may come back out of order
// (clients match them by id). "subscribe"/"unsubscribe" [event] attach the
// connection to the memory module's events; each raised event is sent as
// {"jsonrpc":"2.0","method":"event","params":[event, value]}.
//
// Invariants: one write at a time, from a queue (Beast allows one); at most
// kMaxCallsInFlight calls of one connection run or wait at once, further
// reading waits for one to end, and each holds a share of the server's call
// budgets (a call past them is answered "server busy"); the queue holds
// shared immutable texts (one per raised event, whoever subscribed) and its
// bytes hold a share of the server's send budget: a connection past its own
// bound or the server's is closed with a reason rather than let grow; at
// most maxSubscriptions subscriptions; every subscription is dropped when
// the connection ends, however it ends.
//
// Threading: socket, queue and counters belong to the I/O thread. Event
// callbacks arrive on any thread and only post to it. subscribe/unsubscribe
// run on workers and guard the subscription table with subscriptionMutex_,
// which is never held while the memory module is called.
#ifndef KQ_MIDDLEWARE_NET_WEBSOCKET_SESSION_H_
#define KQ_MIDDLEWARE_NET_WEBSOCKET_SESSION_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "middleware/net/rpc_dispatcher.h"
#include "middleware/net/server_context.h"

namespace KQ {

class KQProxy;

namespace net {

class WebSocketSession : public Connection,
                         public RpcSubscriptions,
                         public std::enable_shared_from_this<WebSocketSession> {
 public:
  static constexpr int kMaxCallsInFlight = 64;

  WebSocketSession(boost::beast::tcp_stream&& stream, ServerContext& context, BudgetShare connectionShare);
  ~WebSocketSession() override;

  // Completes the upgrade asked by request.
  void run(boost::beast::http::request<boost::beast::http::string_body> request);
  void shutdown() override;

  // RpcSubscriptions, on worker threads.
  bool subscribe(const std::string& event) override;
  bool unsubscribe(const std::string& event) override;

 private:
  void read();
  void onRead(boost::beast::error_code ec);
  void callDone(std::string reply);
  using Text = std::shared_ptr<const std::string>;
  void send(Text text);  // queues one message; I/O thread
  void write();
  void finish();  // closes the socket and drops subscriptions; I/O thread
  void cutOff(const std::string& reason);  // closes with a reason, then finishes; I/O thread
  void dropQueue();
  // Drops every subscription; takes subscriptionMutex_ itself (any thread).
  void dropSubscriptions();

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
  boost::beast::flat_buffer buffer_;
  ServerContext& context_;
  BudgetShare connectionShare_;
  std::size_t maxQueuedBytes_;

  // I/O thread only.
  std::deque<Text> queue_;
  std::size_t queuedBytes_ = 0;
  bool writing_ = false;
  bool reading_ = false;
  bool finished_ = false;
  int callsInFlight_ = 0;

  std::mutex subscriptionMutex_;
  std::shared_ptr<KQProxy> memory_;              // guarded by subscriptionMutex_
  std::map<std::string, uint64_t> subscribed_;   // event -> id at the memory module; guarded
  std::set<std::string> subscribing_;            // calls under way; guarded
  bool subscriptionsClosed_ = false;             // guarded
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_WEBSOCKET_SESSION_H_
