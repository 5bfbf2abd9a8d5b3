#include "middleware/net/websocket_session.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/log.h"
#include "middleware/net/json_codec.h"
#include "middleware/proxy.h"

namespace KQ {
namespace net {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {
const char* const kLogCategory = "KQRpcServer";

// The text of one raised event, built once for all the subscribers one
// raise reaches: the memory module calls them one after the other on the
// raising thread with the same value, so the last text built on this thread
// serves while it is still queued somewhere and the event is the same.
std::shared_ptr<const std::string> sharedNotification(const std::string& name, const KQValue& value) {
  struct Last {
    std::string name;
    KQValue value;
    std::weak_ptr<const std::string> text;
  };
  thread_local Last last;
  if (auto text = last.text.lock())
    if (last.name == name && last.value == value) return text;
  auto text = std::make_shared<const std::string>(RpcDispatcher::eventNotification(name, value));
  last.name = name;
  last.value = value;
  last.text = text;
  return text;
}
}  // namespace

WebSocketSession::WebSocketSession(beast::tcp_stream&& stream, ServerContext& context, BudgetShare connectionShare)
    : ws_(std::move(stream)),
      context_(context),
      connectionShare_(std::move(connectionShare)),
      // Room for a burst of full-size replies and events; a client further
      // behind than this is not reading.
      maxQueuedBytes_(std::max<std::size_t>(context.options.maxMessageBytes * 16, 16u << 20)) {}

WebSocketSession::~WebSocketSession() {
  context_.connections.remove(this);
  dropQueue();
  dropSubscriptions();
}

void WebSocketSession::run(http::request<http::string_body> request) {
  context_.connections.add(this, shared_from_this());
  websocket::stream_base::timeout timeout;
  timeout.handshake_timeout = std::chrono::seconds(30);
  timeout.idle_timeout = std::chrono::seconds(context_.options.idleTimeoutSeconds);
  // Pings at half the idle time keep a listening client's connection open;
  // a peer that no longer answers them is closed.
  timeout.keep_alive_pings = true;
  ws_.set_option(timeout);
  ws_.read_message_max(context_.options.maxMessageBytes);
  ws_.async_accept(request, [self = shared_from_this()](beast::error_code ec) {
    if (ec) return self->finish();
    self->read();
  });
}

void WebSocketSession::shutdown() { finish(); }

void WebSocketSession::read() {
  if (finished_ || reading_) return;
  reading_ = true;
  ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onRead(ec); });
}

void WebSocketSession::onRead(beast::error_code ec) {
  reading_ = false;
  if (finished_) return;
  // closed, timeout, message too big, reset: the connection is over.
  if (ec) return finish();
  std::string text = beast::buffers_to_string(buffer_.data());
  buffer_.consume(buffer_.size());
  CallShare share;
  if (!context_.takeCall(text.size(), share)) {
    beast::error_code ignored;
    const auto remote = beast::get_lowest_layer(ws_).socket().remote_endpoint(ignored);
    context_.logRefusal(ignored ? std::string("a client") : remote.address().to_string(),
                        "server busy: too many calls under way");
    send(std::make_shared<const std::string>(
        R"({"error":{"code":-32000,"message":"Server busy: too many calls under way; try again"},"id":null,"jsonrpc":"2.0"})"));
    return read();
  }
  text.shrink_to_fit();
  ++callsInFlight_;
  auto self = shared_from_this();
  const bool posted = context_.postCall(
      std::move(text), this, std::make_shared<CallShare>(std::move(share)), [self](std::string reply) {
        asio::post(self->ws_.get_executor(),
                   [self, reply = std::move(reply)]() mutable { self->callDone(std::move(reply)); });
      });
  if (!posted) return finish();
  if (callsInFlight_ < kMaxCallsInFlight) read();
}

void WebSocketSession::callDone(std::string reply) {
  --callsInFlight_;
  if (finished_) return;
  if (!reply.empty()) send(std::make_shared<const std::string>(std::move(reply)));
  if (callsInFlight_ < kMaxCallsInFlight) read();
}

void WebSocketSession::send(Text text) {
  if (finished_) return;
  const std::size_t size = text->size();
  if (queuedBytes_ + size > maxQueuedBytes_) {
    KO_LOG(ko::log::warning, kLogCategory, "", "send", 0)
        << "Closing a WebSocket client that left " << queuedBytes_ << " bytes unread.";
    return cutOff("too far behind: " + std::to_string(queuedBytes_) + " bytes unread");
  }
  if (!context_.sendByteBudget.take(size)) {
    KO_LOG(ko::log::warning, kLogCategory, "", "send", 0)
        << "Closing a WebSocket client with " << queuedBytes_
        << " bytes unread: the bytes waiting for all clients reached their bound.";
    return cutOff("too far behind: the server's send budget is spent");
  }
  queuedBytes_ += size;
  queue_.push_back(std::move(text));
  if (!writing_) write();
}

void WebSocketSession::write() {
  writing_ = true;
  ws_.text(true);
  // The handler holds the text: the queue may be dropped while it is sent.
  Text text = queue_.front();
  ws_.async_write(asio::buffer(*text), [self = shared_from_this(), text](beast::error_code ec, std::size_t) {
    self->writing_ = false;
    if (self->finished_) return;
    if (ec) return self->finish();
    const std::size_t size = text->size();
    self->queuedBytes_ -= size;
    self->context_.sendByteBudget.give(size);
    self->queue_.pop_front();
    if (!self->queue_.empty()) self->write();
  });
}

void WebSocketSession::dropQueue() {
  queue_.clear();
  context_.sendByteBudget.give(queuedBytes_);
  queuedBytes_ = 0;
}

void WebSocketSession::cutOff(const std::string& reason) {
  if (finished_) return;
  // A write under way holds its own text; the close frame waits for it.
  finished_ = true;
  dropSubscriptions();
  dropQueue();
  ws_.async_close(websocket::close_reason(websocket::close_code::policy_error, reason),
                  [self = shared_from_this()](beast::error_code) {
                    beast::error_code ec;
                    auto& socket = beast::get_lowest_layer(self->ws_).socket();
                    socket.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
                    socket.close(ec);
                  });
}

void WebSocketSession::finish() {
  if (finished_) return;
  finished_ = true;
  dropQueue();
  dropSubscriptions();
  beast::error_code ec;
  auto& socket = beast::get_lowest_layer(ws_).socket();
  socket.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  socket.close(ec);
}

void WebSocketSession::dropSubscriptions() {
  std::map<std::string, uint64_t> dropped;
  std::shared_ptr<KQProxy> memory;
  {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    subscriptionsClosed_ = true;
    dropped.swap(subscribed_);
    memory = memory_;
  }
  if (!memory) return;
  for (const auto& entry : dropped) {
    try {
      memory->unsubscribe(entry.second);
    } catch (const std::exception& e) {
      KO_LOG(ko::log::warning, kLogCategory, "", "dropSubscriptions", 0)
          << "Cannot unsubscribe from " << entry.first << ": " << e.what();
    }
  }
}

bool WebSocketSession::subscribe(const std::string& event) {
  std::shared_ptr<KQProxy> memory;
  {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    if (subscriptionsClosed_ || subscribed_.count(event) || subscribing_.count(event)) return false;
    const std::size_t limit = static_cast<std::size_t>(std::max(context_.options.maxSubscriptions, 0));
    if (subscribed_.size() + subscribing_.size() >= limit)
      throw KQError("", "subscribe", "A connection holds at most " + std::to_string(limit) + " subscriptions.");
    subscribing_.insert(event);
    memory = memory_;
  }
  uint64_t id = 0;
  try {
    if (!memory) memory = context_.dispatcher.broker()->getProxy("KQMemory");
    std::weak_ptr<WebSocketSession> weak = shared_from_this();
    id = memory->subscribe(event, [weak](const std::string& name, const KQValue& value) {
      // Any thread: build the text here, hand it to the I/O thread.
      std::shared_ptr<WebSocketSession> self = weak.lock();
      if (!self) return;
      asio::post(self->ws_.get_executor(),
                 [self, text = sharedNotification(name, value)]() mutable { self->send(std::move(text)); });
    });
  } catch (...) {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    subscribing_.erase(event);
    throw;
  }
  {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    subscribing_.erase(event);
    if (!memory_) memory_ = memory;
    if (!subscriptionsClosed_) {
      subscribed_[event] = id;
      return true;
    }
  }
  // The connection ended while the subscription was being made.
  memory->unsubscribe(id);
  return false;
}

bool WebSocketSession::unsubscribe(const std::string& event) {
  std::shared_ptr<KQProxy> memory;
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    const auto found = subscribed_.find(event);
    if (found == subscribed_.end()) return false;
    id = found->second;
    subscribed_.erase(found);
    memory = memory_;
  }
  memory->unsubscribe(id);
  return true;
}

}  // namespace net
}  // namespace KQ
