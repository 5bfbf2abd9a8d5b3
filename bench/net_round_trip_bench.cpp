// Round trips through the network front, measured against the transport's
// floor in the same run: a bare Beast server that answers each message with
// one of the reply's size, over the same kind of connection, with the same
// client code. The figure that matters is the ratio rpc / floor (target:
// median within 1.3x), since absolute times depend on the machine's load.
//
//   kq_bench_net_round_trip [round trips per figure, default 3000]
//
// Prints, for WebSocket and HTTP keep-alive: median and 90th percentile
// round trip of a getPosition-like call and of the floor; then calls per
// second with 1 and with 8 WebSocket clients, each on its own connection.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "middleware/broker.h"
#include "middleware/module.h"
#include "middleware/net/rpc_server.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

// The call measured: the shape and size of the world model's getPosition.
class PoseModule : public KQ::KQModule {
 public:
  PoseModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    functionName("getPosition", getName(), "Pose of name in reference.", 0);
    advertiseMethod(&PoseModule::getPosition);
  }
  KQ::KQValue getPosition(const std::string& reference, const std::string& name) {
    (void)reference;
    (void)name;
    KQ::KQValue pose;
    pose.arrayPush(KQ::KQValue(std::vector<float>{0.70710677f, 0.0f, 0.0f, 0.70710677f}));
    pose.arrayPush(KQ::KQValue(std::vector<float>{0.5f, -0.25f, 0.75f}));
    return pose;
  }
};

const std::string kRequest =
    R"({"jsonrpc":"2.0","method":"KQWorldRepresentation.getPosition","params":["World","cup"],"id":1})";

// The floor: one I/O thread answering each WebSocket message, or each HTTP
// request, with a fixed reply, the way the RPC server's I/O thread would if
// it had no work to hand to a worker.
class FloorServer {
 public:
  explicit FloorServer(std::string reply) : reply_(std::move(reply)), acceptor_(io_) {
    const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
    acceptor_.open(endpoint.protocol());
    acceptor_.bind(endpoint);
    acceptor_.listen();
    port_ = acceptor_.local_endpoint().port();
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~FloorServer() {
    io_.stop();
    thread_.join();
  }
  unsigned short port() const { return port_; }

 private:
  struct Session : std::enable_shared_from_this<Session> {
    Session(tcp::socket socket, const std::string& reply) : stream(std::move(socket)), reply(reply) {}
    beast::tcp_stream stream;
    std::unique_ptr<websocket::stream<beast::tcp_stream>> ws;
    beast::flat_buffer buffer;
    http::request<http::string_body> request;
    http::response<http::string_body> response;
    const std::string& reply;

    void start() {
      http::async_read(stream, buffer, request, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        if (ec) return;
        if (websocket::is_upgrade(self->request)) {
          self->ws = std::make_unique<websocket::stream<beast::tcp_stream>>(std::move(self->stream));
          self->ws->async_accept(self->request, [self](beast::error_code e) {
            if (!e) self->readMessage();
          });
        } else {
          self->answerHttp();
        }
      });
    }
    void answerHttp() {
      response = http::response<http::string_body>(http::status::ok, request.version());
      response.set(http::field::content_type, "application/json");
      response.body() = reply;
      response.keep_alive(request.keep_alive());
      response.prepare_payload();
      http::async_write(stream, response, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        if (ec) return;
        self->request = {};
        http::async_read(self->stream, self->buffer, self->request,
                         [self](beast::error_code e, std::size_t) {
                           if (!e) self->answerHttp();
                         });
      });
    }
    void readMessage() {
      ws->async_read(buffer, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        if (ec) return;
        self->buffer.consume(self->buffer.size());
        self->ws->text(true);
        self->ws->async_write(asio::buffer(self->reply), [self](beast::error_code e, std::size_t) {
          if (!e) self->readMessage();
        });
      });
    }
  };

  void accept() {
    acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
      if (ec) return;
      socket.set_option(tcp::no_delay(true));
      std::make_shared<Session>(std::move(socket), reply_)->start();
      accept();
    });
  }

  std::string reply_;
  asio::io_context io_{1};
  tcp::acceptor acceptor_;
  unsigned short port_ = 0;
  std::thread thread_;
};

// Synchronous clients: the same code measures the floor and the server.
class WsClient {
 public:
  explicit WsClient(unsigned short port) : ws_(io_) {
    tcp::resolver resolver(io_);
    beast::get_lowest_layer(ws_).connect(resolver.resolve("127.0.0.1", std::to_string(port)));
    beast::get_lowest_layer(ws_).socket().set_option(tcp::no_delay(true));
    ws_.handshake("127.0.0.1:" + std::to_string(port), "/ws");
    ws_.text(true);
  }
  std::size_t roundTrip(const std::string& text) {
    ws_.write(asio::buffer(text));
    buffer_.consume(buffer_.size());
    return ws_.read(buffer_);
  }

 private:
  asio::io_context io_;
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
};

class HttpClient {
 public:
  explicit HttpClient(unsigned short port) : stream_(io_) {
    tcp::resolver resolver(io_);
    stream_.connect(resolver.resolve("127.0.0.1", std::to_string(port)));
    stream_.socket().set_option(tcp::no_delay(true));
  }
  std::size_t roundTrip(const std::string& text) {
    http::request<http::string_body> request(http::verb::post, "/rpc", 11);
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::content_type, "application/json");
    request.body() = text;
    request.prepare_payload();
    http::write(stream_, request);
    http::response<http::string_body> response;
    http::read(stream_, buffer_, response);
    return response.body().size();
  }

 private:
  asio::io_context io_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
};

struct Figures {
  double median = 0;
  double p90 = 0;
};

template <class Client>
Figures measure(Client& client, int count) {
  for (int i = 0; i < count / 10; ++i) client.roundTrip(kRequest);  // warm-up
  std::vector<double> micros;
  micros.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    client.roundTrip(kRequest);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::sort(micros.begin(), micros.end());
  return Figures{micros[micros.size() / 2], micros[micros.size() * 9 / 10]};
}

// Measures rpc and floor in alternating slices, so that a change in the
// machine's load falls on both alike.
template <class Client>
void compare(const char* name, unsigned short rpcPort, unsigned short floorPort, int count) {
  Client rpc(rpcPort);
  Client floor(floorPort);
  std::vector<double> rpcMedians, floorMedians, rpcP90, floorP90;
  const int slices = 5;
  for (int slice = 0; slice < slices; ++slice) {
    const Figures f = measure(floor, count / slices);
    const Figures r = measure(rpc, count / slices);
    floorMedians.push_back(f.median);
    floorP90.push_back(f.p90);
    rpcMedians.push_back(r.median);
    rpcP90.push_back(r.p90);
  }
  const auto middle = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  const double rpcMedian = middle(rpcMedians), floorMedian = middle(floorMedians);
  std::printf("%-10s round trip  rpc median %7.1f us  p90 %7.1f us | floor median %7.1f us  p90 %7.1f us | "
              "ratio %.2f (target <= 1.30)\n",
              name, rpcMedian, middle(rpcP90), floorMedian, middle(floorP90), rpcMedian / floorMedian);
}

double callsPerSecond(unsigned short port, int clients, int callsEach) {
  std::vector<std::unique_ptr<WsClient>> connections;
  for (int i = 0; i < clients; ++i) connections.push_back(std::make_unique<WsClient>(port));
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      for (int k = 0; k < callsEach; ++k) connections[static_cast<std::size_t>(i)]->roundTrip(kRequest);
    });
  }
  const auto start = Clock::now();
  go = true;
  for (std::thread& thread : threads) thread.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return clients * callsEach / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(100, std::atoi(argv[1])) : 3000;

  auto broker = std::make_shared<KQ::KQBroker>("bench");
  auto module = KQ::KQModule::createModule<PoseModule>(broker, "KQWorldRepresentation");
  KQ::net::RpcServerOptions options;
  options.port = 0;
  KQ::net::RpcServer server(broker, options);
  server.start();

  // The floor answers with a reply of exactly the server's size.
  std::string reply;
  {
    WsClient probe(server.port());
    probe.roundTrip(kRequest);
    HttpClient sized(server.port());
    reply.assign(sized.roundTrip(kRequest), ' ');
  }
  FloorServer floor(reply);

  std::printf("request %zu bytes, reply %zu bytes, %d round trips per figure\n", kRequest.size(), reply.size(),
              count);
  compare<WsClient>("websocket", server.port(), floor.port(), count);
  compare<HttpClient>("http", server.port(), floor.port(), count);
  for (const int clients : {1, 8}) {
    const int each = std::max(50, count / clients);
    const double rpc = callsPerSecond(server.port(), clients, each);
    const double bare = callsPerSecond(floor.port(), clients, each);
    std::printf("websocket %d client%s  rpc %9.0f calls/s | floor %9.0f calls/s | ratio %.2f\n", clients,
                clients == 1 ? " " : "s", rpc, bare, bare / rpc);
  }
  server.stop();
  broker->shutdown();
  return 0;
}
