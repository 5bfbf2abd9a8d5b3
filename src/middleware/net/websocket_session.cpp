#include "middleware/net/websocket_session.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>

#include "middleware/broker.h"
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
}  // namespace

WebSocketSession::WebSocketSession(beast::tcp_stream&& stream, ServerContext& context)
    : ws_(std::move(stream)),
      context_(context),
      // Room for a burst of full-size replies and events; a client further
      // behind than this is not reading.
      maxQueuedBytes_(std::max<std::size_t>(context.options.maxMessageBytes * 16, 16u << 20)) {}

WebSocketSession::~WebSocketSession() {
  context_.connections.remove(this);
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
  ++callsInFlight_;
  auto self = shared_from_this();
  const bool posted = context_.pool.post([self, text = std::move(text)]() {
    std::string reply = self->context_.dispatcher.handle(text, self.get());
    asio::post(self->ws_.get_executor(),
               [self, reply = std::move(reply)]() mutable { self->callDone(std::move(reply)); });
  });
  if (!posted) return finish();
  if (callsInFlight_ < kMaxCallsInFlight) read();
}

void WebSocketSession::callDone(std::string reply) {
  --callsInFlight_;
  if (finished_) return;
  if (!reply.empty()) send(std::move(reply));
  if (callsInFlight_ < kMaxCallsInFlight) read();
}

void WebSocketSession::send(std::string text) {
  if (finished_) return;
  queuedBytes_ += text.size();
  if (queuedBytes_ > maxQueuedBytes_) {
    KO_LOG(ko::log::warning, kLogCategory, "", "send", 0)
        << "Closing a WebSocket client that left " << queuedBytes_ << " bytes unread.";
    return finish();
  }
  queue_.push_back(std::move(text));
  if (!writing_) write();
}

void WebSocketSession::write() {
  writing_ = true;
  ws_.text(true);
  ws_.async_write(asio::buffer(queue_.front()), [self = shared_from_this()](beast::error_code ec, std::size_t) {
    self->writing_ = false;
    if (self->finished_) return;
    if (ec) return self->finish();
    self->queuedBytes_ -= self->queue_.front().size();
    self->queue_.pop_front();
    if (!self->queue_.empty()) self->write();
  });
}

void WebSocketSession::finish() {
  if (finished_) return;
  finished_ = true;
  queue_.clear();
  queuedBytes_ = 0;
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
      std::string text = RpcDispatcher::eventNotification(name, value);
      asio::post(self->ws_.get_executor(),
                 [self, text = std::move(text)]() mutable { self->send(std::move(text)); });
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
