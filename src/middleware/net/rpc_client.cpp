#include "middleware/net/rpc_client.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include "middleware/error.h"
#include "middleware/net/json_codec.h"
#include "middleware/net/rpc_dispatcher.h"

namespace KQ {
namespace net {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using json = nlohmann::json;

namespace {

// Replies are built by the server we chose to talk to; the bound only keeps
// a broken one from exhausting the stack.
constexpr int kMaxReplyDepth = 512;

// How long a lost connection with live subscriptions waits before it is
// opened again.
constexpr std::chrono::seconds kReconnectDelay(1);

struct Endpoint {
  std::string host;  // without brackets
  std::string port;
  std::string target;
};

Endpoint parseUrl(const std::string& url) {
  const std::size_t separator = url.find("://");
  if (separator == std::string::npos)
    throw KQError("", "", "Cannot use " + url + ": expected http://host:port or ws://host:port");
  const std::string scheme = url.substr(0, separator);
  if (scheme != "http" && scheme != "ws")
    throw KQError("", "", "Cannot use " + url + ": only http:// and ws:// are supported");
  std::string rest = url.substr(separator + 3);
  std::string path;
  const std::size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    path = rest.substr(slash);
    rest = rest.substr(0, slash);
  }
  Endpoint endpoint;
  std::string portText;
  if (!rest.empty() && rest.front() == '[') {
    const std::size_t close = rest.find(']');
    if (close == std::string::npos) throw KQError("", "", "Cannot use " + url + ": unclosed [");
    endpoint.host = rest.substr(1, close - 1);
    if (close + 1 < rest.size() && rest[close + 1] == ':') portText = rest.substr(close + 2);
  } else {
    const std::size_t colon = rest.rfind(':');
    endpoint.host = rest.substr(0, colon);
    if (colon != std::string::npos) portText = rest.substr(colon + 1);
  }
  if (endpoint.host.empty()) throw KQError("", "", "Cannot use " + url + ": no host");
  endpoint.port = portText.empty() ? "80" : portText;
  // ws:// may name the endpoint's path; http:// names the server, whose
  // WebSocket is at /ws.
  endpoint.target = (scheme == "ws" && !path.empty() && path != "/") ? path : "/ws";
  return endpoint;
}

[[noreturn]] void throwReplyError(const json& error) {
  const auto code = error.find("code");
  const auto message = error.find("message");
  const std::string text = (message != error.end() && message->is_string()) ? message->get<std::string>()
                                                                            : std::string("the server refused");
  const int number = (code != error.end() && code->is_number_integer()) ? code->get<int>() : kMethodFailed;
  if (number == kInvalidParams) throw KQArgumentError("", "", text);
  if (number == kMethodNotFound) throw KQUnknownMethodError("", "", text);
  throw KQError("", "", text);
}

}  // namespace

// One WebSocket connection. The socket, buffer and write queue belong to the
// I/O thread; pending calls are guarded by mutex.
struct Link : std::enable_shared_from_this<Link> {
  explicit Link(asio::io_context& io) : resolver(io), ws(io), readyFuture(ready.get_future().share()) {}

  tcp::resolver resolver;
  websocket::stream<beast::tcp_stream> ws;
  beast::flat_buffer buffer;
  http::response<http::string_body> handshakeResponse;
  std::deque<std::string> queue;  // I/O thread
  bool writing = false;           // I/O thread

  std::promise<void> ready;  // set once: connected, or why not
  std::shared_future<void> readyFuture;

  std::mutex mutex;
  std::map<uint64_t, std::shared_ptr<std::promise<json>>> pending;  // guarded by mutex
  bool dead = false;                                                // guarded by mutex
};

class RpcClient::Impl : public std::enable_shared_from_this<RpcClient::Impl> {
 public:
  Impl(std::string url, std::string token) : url_(std::move(url)), token_(std::move(token)) {
    endpoint_ = parseUrl(url_);
    ioThread_ = std::thread([this] { io_.run(); });
    eventThread_ = std::thread([this] { runEvents(); });
  }

  ~Impl() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closing_ = true;
    }
    close();
    work_.reset();
    io_.stop();
    if (ioThread_.joinable()) ioThread_.join();
    {
      std::lock_guard<std::mutex> lock(eventMutex_);
      eventsStopping_ = true;
    }
    eventReady_.notify_all();
    if (eventThread_.joinable()) eventThread_.join();
    link_.reset();
  }

  const std::string& url() const { return url_; }

  KQValue call(const std::string& method, const KQValue& params) {
    json request = {{"jsonrpc", "2.0"}, {"method", method}};
    if (params.isArray()) {
      request["params"] = toJson(params);
    } else if (params.isValid()) {
      request["params"] = json::array({toJson(params)});
    }
    const json reply = roundTrip(std::move(request));
    const auto error = reply.find("error");
    if (error != reply.end() && error->is_object()) throwReplyError(*error);
    const auto result = reply.find("result");
    if (result == reply.end()) throw KQError("", "", "Reply from " + url_ + " has neither result nor error");
    try {
      return fromJson(*result);
    } catch (const KQError& e) {
      throw KQError("", "", "Unreadable reply from " + url_ + ": " + e.getMessage());
    }
  }

  uint64_t subscribe(const std::string& event, KQEventCallback callback) {
    uint64_t id = 0;
    bool first = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      id = nextSubscriptionId_++;
      first = eventCounts_[event]++ == 0;
      subscriptions_[id] = Subscription{event, std::move(callback)};
    }
    if (first) {
      try {
        call("subscribe", KQValue(std::vector<std::string>{event}));
      } catch (...) {
        forget(id);
        throw;
      }
    }
    return id;
  }

  void unsubscribe(uint64_t id) {
    const std::string event = forget(id);
    if (event.empty()) return;
    bool last = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      last = eventCounts_.count(event) == 0;
    }
    if (last) {
      try {
        call("unsubscribe", KQValue(std::vector<std::string>{event}));
      } catch (const KQError&) {
        // A lost connection has dropped the subscription already.
      }
    }
  }

  void close() {
    std::shared_ptr<Link> link;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      link.swap(link_);
      closedByUser_ = true;
    }
    if (!link) return;
    fail(link, "Connection to " + url_ + " closed");
    std::promise<void> done;
    asio::post(io_, [link, &done] {
      beast::error_code ignored;
      beast::get_lowest_layer(link->ws).socket().shutdown(tcp::socket::shutdown_both, ignored);
      beast::get_lowest_layer(link->ws).socket().close(ignored);
      done.set_value();
    });
    // The I/O thread is stopped only by the destructor, after this returns.
    done.get_future().wait();
  }

 private:
  struct Subscription {
    std::string event;
    KQEventCallback callback;
  };

  // Removes a local subscription; returns its event ("" when unknown).
  std::string forget(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = subscriptions_.find(id);
    if (found == subscriptions_.end()) return std::string();
    std::string event = found->second.event;
    subscriptions_.erase(found);
    if (--eventCounts_[event] == 0) eventCounts_.erase(event);
    return event;
  }

  json roundTrip(json request) {
    const std::shared_ptr<Link> link = connected();
    const uint64_t id = nextCallId_++;
    request["id"] = id;
    auto promise = std::make_shared<std::promise<json>>();
    std::future<json> reply = promise->get_future();
    {
      std::lock_guard<std::mutex> lock(link->mutex);
      if (link->dead) throw KQError("", "", "Connection to " + url_ + " lost");
      link->pending[id] = promise;
    }
    std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace);
    // The server would refuse it without reading its id, and the answer
    // could not be matched to this call: refuse it here, in the same words.
    if (jsonDepthExceeds(text, kMaxJsonDepth)) {
      std::lock_guard<std::mutex> lock(link->mutex);
      link->pending.erase(id);
      throw KQError("", "", "Invalid Request: nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
    send(link, std::move(text));
    return reply.get();
  }

  // The open link, opening one when there is none; throws KQError when the
  // server cannot be reached or refuses the upgrade.
  std::shared_ptr<Link> connected() {
    std::shared_ptr<Link> link;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closing_) throw KQError("", "", "Client of " + url_ + " is closing");
      closedByUser_ = false;
      if (link_) {
        std::lock_guard<std::mutex> linkLock(link_->mutex);
        if (link_->dead) link_.reset();
      }
      if (!link_) {
        link_ = std::make_shared<Link>(io_);
        xStart(link_);
      }
      link = link_;
    }
    link->readyFuture.get();  // rethrows why the connection failed
    return link;
  }

  // Opens link: resolve, connect, upgrade, then read for as long as it lives.
  // Called with mutex_ held; everything it starts runs on the I/O thread.
  void xStart(const std::shared_ptr<Link>& link) {
    asio::post(io_, [this, link] {
      link->resolver.async_resolve(
          endpoint_.host, endpoint_.port,
          [this, link](beast::error_code ec, tcp::resolver::results_type results) {
            if (ec) return connectFailed(link, ec.message());
            beast::get_lowest_layer(link->ws).expires_after(std::chrono::seconds(10));
            beast::get_lowest_layer(link->ws).async_connect(
                results, [this, link](beast::error_code connectError, const tcp::endpoint&) {
                  if (connectError) return connectFailed(link, connectError.message());
                  handshake(link);
                });
          });
    });
  }

  void handshake(const std::shared_ptr<Link>& link) {
    beast::error_code ignored;
    beast::get_lowest_layer(link->ws).socket().set_option(tcp::no_delay(true), ignored);
    beast::get_lowest_layer(link->ws).expires_never();
    link->ws.set_option(websocket::stream_base::timeout::suggested(beast::role_type::client));
    const std::string token = token_;
    link->ws.set_option(websocket::stream_base::decorator([token](websocket::request_type& request) {
      if (!token.empty()) request.set(http::field::authorization, "Bearer " + token);
    }));
    const std::string host =
        (endpoint_.host.find(':') != std::string::npos ? "[" + endpoint_.host + "]" : endpoint_.host) + ":" +
        endpoint_.port;
    link->ws.async_handshake(link->handshakeResponse, host, endpoint_.target, [this, link](beast::error_code ec) {
      if (ec) {
        const unsigned status = link->handshakeResponse.result_int();
        if (ec == websocket::error::upgrade_declined && status != 0)
          return connectFailed(link, "the server answered " + std::to_string(status) + " " +
                                          std::string(link->handshakeResponse.reason()));
        return connectFailed(link, ec.message());
      }
      // A new connection carries none of the old one's subscriptions.
      std::vector<std::string> events;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : eventCounts_) events.push_back(entry.first);
      }
      for (const std::string& event : events)
        queue(link, json{{"jsonrpc", "2.0"}, {"method", "subscribe"}, {"params", json::array({event})}}.dump());
      link->ready.set_value();
      read(link);
    });
  }

  void connectFailed(const std::shared_ptr<Link>& link, const std::string& reason) {
    {
      std::lock_guard<std::mutex> lock(link->mutex);
      link->dead = true;
    }
    link->ready.set_exception(
        std::make_exception_ptr(KQError("", "", "Cannot connect to " + url_ + ": " + reason)));
    scheduleReconnect(link);
  }

  void read(const std::shared_ptr<Link>& link) {
    link->ws.async_read(link->buffer, [this, link](beast::error_code ec, std::size_t) {
      if (ec) {
        fail(link, "Connection to " + url_ + " lost: " + ec.message());
        scheduleReconnect(link);
        return;
      }
      const std::string text = beast::buffers_to_string(link->buffer.data());
      link->buffer.consume(link->buffer.size());
      deliver(link, text);
      read(link);
    });
  }

  // One message from the server: a reply to a pending call or an event.
  void deliver(const std::shared_ptr<Link>& link, const std::string& text) {
    json message;
    if (parseJson(text, message, kMaxReplyDepth) != ParseOutcome::Ok || !message.is_object()) return;
    const auto method = message.find("method");
    if (method != message.end()) {
      const auto params = message.find("params");
      if (*method == "event" && params != message.end() && params->is_array() && params->size() == 2 &&
          (*params)[0].is_string()) {
        KQValue value;
        try {
          value = fromJson((*params)[1]);
        } catch (const KQError&) {
          return;
        }
        {
          std::lock_guard<std::mutex> lock(eventMutex_);
          events_.emplace_back((*params)[0].get<std::string>(), std::move(value));
        }
        eventReady_.notify_one();
      }
      return;
    }
    const auto id = message.find("id");
    if (id == message.end() || !id->is_number_unsigned()) return;
    std::shared_ptr<std::promise<json>> promise;
    {
      std::lock_guard<std::mutex> lock(link->mutex);
      const auto found = link->pending.find(id->get<uint64_t>());
      if (found == link->pending.end()) return;
      promise = std::move(found->second);
      link->pending.erase(found);
    }
    promise->set_value(std::move(message));
  }

  // Ends a link: every call still waiting on it fails with reason.
  void fail(const std::shared_ptr<Link>& link, const std::string& reason) {
    std::map<uint64_t, std::shared_ptr<std::promise<json>>> pending;
    {
      std::lock_guard<std::mutex> lock(link->mutex);
      link->dead = true;
      pending.swap(link->pending);
    }
    for (auto& entry : pending) entry.second->set_exception(std::make_exception_ptr(KQError("", "", reason)));
  }

  // A listener (live subscriptions) must not stay deaf after a lost
  // connection: open it again after a pause, until it works or the client
  // is closed. Runs on the I/O thread.
  void scheduleReconnect(const std::shared_ptr<Link>& lost) {
    auto timer = std::make_shared<asio::steady_timer>(io_, kReconnectDelay);
    timer->async_wait([this, timer, lost](beast::error_code ec) {
      if (ec) return;
      std::lock_guard<std::mutex> lock(mutex_);
      if (closing_ || closedByUser_ || eventCounts_.empty() || link_ != lost) return;
      link_ = std::make_shared<Link>(io_);
      xStart(link_);
    });
  }

  void send(const std::shared_ptr<Link>& link, std::string text) {
    asio::post(io_, [this, link, text = std::move(text)]() mutable { queue(link, std::move(text)); });
  }

  // I/O thread: one write at a time.
  void queue(const std::shared_ptr<Link>& link, std::string text) {
    link->queue.push_back(std::move(text));
    if (!link->writing) write(link);
  }

  void write(const std::shared_ptr<Link>& link) {
    link->writing = true;
    link->ws.text(true);
    link->ws.async_write(asio::buffer(link->queue.front()), [this, link](beast::error_code ec, std::size_t) {
      link->writing = false;
      if (ec) {
        link->queue.clear();
        fail(link, "Connection to " + url_ + " lost: " + ec.message());
        return;
      }
      link->queue.pop_front();
      if (!link->queue.empty()) write(link);
    });
  }

  // The event thread: callbacks one at a time, in arrival order, never on the
  // I/O thread (a callback may make calls, whose replies that thread reads).
  void runEvents() {
    for (;;) {
      std::pair<std::string, KQValue> event;
      {
        std::unique_lock<std::mutex> lock(eventMutex_);
        eventReady_.wait(lock, [this] { return eventsStopping_ || !events_.empty(); });
        if (eventsStopping_) return;
        event = std::move(events_.front());
        events_.pop_front();
      }
      std::vector<KQEventCallback> callbacks;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : subscriptions_)
          if (entry.second.event == event.first) callbacks.push_back(entry.second.callback);
      }
      for (const KQEventCallback& callback : callbacks) {
        try {
          callback(event.first, event.second);
        } catch (...) {
          // A failing callback must not silence the others.
        }
      }
    }
  }

  std::string url_;
  std::string token_;
  Endpoint endpoint_;
  std::atomic<uint64_t> nextCallId_{1};

  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::thread ioThread_;

  std::mutex mutex_;
  std::shared_ptr<Link> link_;  // guarded by mutex_
  std::map<uint64_t, Subscription> subscriptions_;  // guarded by mutex_
  std::map<std::string, int> eventCounts_;          // local subscriptions per event; guarded by mutex_
  uint64_t nextSubscriptionId_ = 1;                 // guarded by mutex_
  bool closing_ = false;                            // guarded by mutex_
  bool closedByUser_ = false;                       // guarded by mutex_

  std::mutex eventMutex_;
  std::condition_variable eventReady_;
  std::deque<std::pair<std::string, KQValue>> events_;  // guarded by eventMutex_
  bool eventsStopping_ = false;                         // guarded by eventMutex_
  std::thread eventThread_;
};

RpcClient::RpcClient(const std::string& url, const std::string& token)
    : impl_(std::make_shared<Impl>(url, token)) {}

RpcClient::~RpcClient() = default;

KQValue RpcClient::call(const std::string& method, const KQValue& params) { return impl_->call(method, params); }

uint64_t RpcClient::subscribe(const std::string& event, KQEventCallback callback) {
  return impl_->subscribe(event, std::move(callback));
}

void RpcClient::unsubscribe(uint64_t id) { impl_->unsubscribe(id); }

void RpcClient::close() { impl_->close(); }

const std::string& RpcClient::url() const { return impl_->url(); }

}  // namespace net
}  // namespace KQ
