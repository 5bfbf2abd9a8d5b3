// RpcDispatcher: turns one JSON-RPC 2.0 message (single request,
// notification or batch) into the text of its reply, by calling the broker's
// modules. Knows nothing of sockets: the HTTP and WebSocket sessions hand it
// the text they read and send back what it returns.
//
// Error codes: -32700 parse error, -32600 invalid request (including JSON
// nested deeper than 64 levels and an empty batch), -32601 unknown module or
// method, -32602 wrong argument count or type (the message names the
// argument), -32000 an error raised by the method (its text as message), a
// result holding a float that is not finite (naming the method), or a reply
// past maxReplyBytes ("reply too large", per call of a batch that does not
// fit). Nothing a client sends can make it throw.
//
// Lanes: prepare() parses a message and says whether every call in it is
// lock-free (takes no module lock: the broker's methods, KQMemory's,
// subscribe/unsubscribe and the names given); the server runs those on a
// lane of their own, so that they answer while every worker is blocked.
//
// Threading: handle() may run on any number of threads at once; it holds no
// lock while a module runs. The broker is shared with its owner.
#ifndef KQ_MIDDLEWARE_NET_RPC_DISPATCHER_H_
#define KQ_MIDDLEWARE_NET_RPC_DISPATCHER_H_

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "middleware/value.h"

namespace KQ {

class KQBroker;

namespace net {

// Error codes of JSON-RPC 2.0 and the one this server adds for a method's
// own failure.
enum RpcErrorCode : int {
  kParseError = -32700,
  kInvalidRequest = -32600,
  kMethodNotFound = -32601,
  kInvalidParams = -32602,
  kMethodFailed = -32000,
};

// What a connection offers beyond plain calls: the WebSocket sessions take
// "subscribe"/"unsubscribe"; over HTTP these names are unknown methods.
class RpcSubscriptions {
 public:
  virtual ~RpcSubscriptions() = default;
  // Both return true when they changed something (a second subscribe to the
  // same event is not a second subscription). May throw KQError.
  virtual bool subscribe(const std::string& event) = 0;
  virtual bool unsubscribe(const std::string& event) = 0;
};

// A message parsed by prepare(), ready to run.
struct PreparedMessage {
  nlohmann::json document;
  std::string reply;      // the answer already, when answered
  bool answered = false;  // parse errors need no call
  bool lockFree = true;   // every call in it takes no module lock
};

class RpcDispatcher {
 public:
  static constexpr std::size_t kDefaultMaxReplyBytes = 16 << 20;

  explicit RpcDispatcher(std::shared_ptr<KQBroker> broker, std::vector<std::string> lockFreeMethods = {},
                         std::size_t maxReplyBytes = kDefaultMaxReplyBytes);

  // The reply's text; empty when there is nothing to answer (a notification,
  // or a batch of notifications only). subscriptions may be null.
  std::string handle(std::string_view text, RpcSubscriptions* subscriptions) const;
  // handle() in two steps, so that the caller can pick the lane in between.
  PreparedMessage prepare(std::string_view text) const;
  std::string run(const PreparedMessage& message, RpcSubscriptions* subscriptions) const;

  // The notification that carries a raised event to a subscriber.
  static std::string eventNotification(const std::string& event, const KQValue& value);

  const std::shared_ptr<KQBroker>& broker() const { return broker_; }

 private:
  // One request object (or anything found where one should be); appends its
  // reply's text to out, nothing for a notification. No lock is held.
  void handleOne(const nlohmann::json& request, RpcSubscriptions* subscriptions, std::string& out) const;
  KQValue call(const std::string& method, const nlohmann::json* params, RpcSubscriptions* subscriptions) const;

  bool isLockFree(const nlohmann::json& request) const;

  std::shared_ptr<KQBroker> broker_;
  std::set<std::string, std::less<>> lockFreeMethods_;
  std::size_t maxReplyBytes_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_RPC_DISPATCHER_H_
