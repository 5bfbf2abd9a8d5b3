#include "middleware/net/rpc_server.h"

#include <chrono>
#include <future>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/log.h"
#include "middleware/net/http_session.h"
#include "middleware/net/server_context.h"

namespace KQ {
namespace net {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {
const char* const kLogCategory = "KQRpcServer";

std::string hostPort(const std::string& host, unsigned short port) {
  const bool bare6 = host.find(':') != std::string::npos && host.front() != '[';
  return (bare6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}
}  // namespace

// Member order matters for destruction: the I/O context (and the connections
// its unrun handlers still own) goes before the context they refer to.
class RpcServer::Impl {
 public:
  Impl(std::shared_ptr<KQBroker> broker, RpcServerOptions options)
      : context_(std::move(broker), std::move(options)), acceptor_(io_), retryTimer_(io_) {}

  ~Impl() { stop(); }

  void start() {
    if (started_) throw KQError("", "", "The RPC server is already started.");
    const RpcServerOptions& options = context_.options;
    boost::system::error_code ec;
    tcp::endpoint endpoint;
    {
      tcp::resolver resolver(io_);
      const auto results = resolver.resolve(options.host, std::to_string(options.port),
                                            tcp::resolver::passive | tcp::resolver::numeric_service, ec);
      if (!ec && results.empty()) ec = asio::error::host_not_found;
      if (!ec) endpoint = results.begin()->endpoint();
    }
    if (!ec) acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
      boost::system::error_code ignored;
      acceptor_.close(ignored);
      throw KQError("", "", "Cannot listen on " + hostPort(options.host, options.port) + ": " + ec.message());
    }
    context_.port = acceptor_.local_endpoint().port();
    started_ = true;
    xAccept();
    ioThread_ = std::thread([this] { xRunIo(); });
  }

  unsigned short port() const { return context_.port; }

  void stop() {
    if (stopped_) return;
    stopped_ = true;
    if (started_) {
      std::promise<void> closed;
      asio::post(io_, [this, &closed] {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
        retryTimer_.cancel();
        for (const std::shared_ptr<Connection>& connection : context_.connections.live()) connection->shutdown();
        closed.set_value();
      });
      closed.get_future().wait();
      work_.reset();
      io_.stop();
      ioThread_.join();
    }
    // Running calls end; queued ones are dropped, with the connections they
    // held, while the I/O context still exists. The lane first: its jobs
    // hand work on to the pool.
    context_.lockFreeLane.stop();
    context_.pool.stop();
  }

 private:
  // The I/O thread. Like io_.run(), but after each burst of work it keeps
  // polling for kIoSpinWindow before it blocks in epoll: a worker's reply
  // usually arrives within that window, and is then written without the
  // cost of waking this thread.
  void xRunIo() {
    static constexpr std::chrono::microseconds kIoSpinWindow{50};
    while (!io_.stopped()) {
      if (io_.poll_one() > 0) continue;
      const auto until = std::chrono::steady_clock::now() + kIoSpinWindow;
      bool ran = false;
      while (!ran && !io_.stopped() && std::chrono::steady_clock::now() < until) {
        ran = io_.poll_one() > 0;
        if (!ran) std::this_thread::yield();
      }
      if (!ran) io_.run_one();
    }
  }

  void xAccept() {
    acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
      if (ec == asio::error::operation_aborted || !acceptor_.is_open()) return;
      if (ec) {
        // Out of descriptors, most likely: wait a little rather than spin.
        uint64_t suppressed = 0;
        if (acceptErrors_.admit(ec.message(), &suppressed)) {
          KO_LOG(ko::log::warning, kLogCategory, "", "xAccept", 0)
              << "Cannot accept a connection: " << ec.message()
              << (suppressed ? " (and " + std::to_string(suppressed) + " more in the last second)" : std::string());
        }
        retryTimer_.expires_after(std::chrono::milliseconds(100));
        retryTimer_.async_wait([this](boost::system::error_code waitError) {
          if (!waitError) xAccept();
        });
        return;
      }
      boost::system::error_code ignored;
      if (!context_.connectionBudget.take(1)) {
        xRefuseConnection(socket);
        return xAccept();
      }
      socket.set_option(tcp::no_delay(true), ignored);
      std::make_shared<HttpSession>(std::move(socket), context_, BudgetShare(context_.connectionBudget, 1))->run();
      xAccept();
    });
  }

  // Past the connection bound: one 503 sent without waiting (a fresh
  // socket's send buffer takes it whole) and the socket closed.
  void xRefuseConnection(tcp::socket& socket) {
    static const std::string kAnswer =
        "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: 25\r\n"
        "Connection: close\r\n\r\nToo many connections now.";
    boost::system::error_code ignored;
    const auto remote = socket.remote_endpoint(ignored);
    const std::string client = ignored ? std::string("a client") : remote.address().to_string();
    socket.non_blocking(true, ignored);
    socket.write_some(asio::buffer(kAnswer), ignored);
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
    uint64_t suppressed = 0;
    if (!acceptErrors_.admit("connections", &suppressed)) return;
    KO_LOG(ko::log::warning, kLogCategory, "", "xAccept", 0)
        << "Refused " << client << ": " << context_.options.maxConnections << " connections are open"
        << (suppressed ? " (and " + std::to_string(suppressed) + " more refused in the last second)" : std::string());
  }

  ServerContext context_;
  ko::log::Throttle acceptErrors_;
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  tcp::acceptor acceptor_;
  asio::steady_timer retryTimer_;
  std::thread ioThread_;
  bool started_ = false;
  bool stopped_ = false;
};

RpcServer::RpcServer(std::shared_ptr<KQBroker> broker, RpcServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(broker), std::move(options))) {}

RpcServer::~RpcServer() = default;

void RpcServer::start() { impl_->start(); }

unsigned short RpcServer::port() const { return impl_->port(); }

void RpcServer::stop() { impl_->stop(); }

}  // namespace net
}  // namespace KQ
