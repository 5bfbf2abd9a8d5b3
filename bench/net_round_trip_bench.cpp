// Round trips through the network front against a bare Beast server answering each message with one of the
// reply's size (same connection kind, same client code); what matters is the ratio rpc / floor (target: median
// within 1.3x). Usage: kq_bench_net_round_trip [round trips per figure, default 3000].
#include <algorithm>
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
struct PoseModule : KQ::KQModule {
  PoseModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    functionName("getPosition", getName(), "Pose of name in reference.", 0);
    advertiseMethod(&PoseModule::getPosition);
  }
  KQ::KQValue getPosition(const std::string& /*reference*/, const std::string& /*name*/) {
    return std::vector<KQ::KQValue>{std::vector<float>{0.70710677f, 0.0f, 0.0f, 0.70710677f},
                                    std::vector<float>{0.5f, -0.25f, 0.75f}};
  }
};

const std::string kRequest =
    R"({"jsonrpc":"2.0","method":"KQWorldRepresentation.getPosition","params":["World","cup"],"id":1})";

// The floor: one I/O thread answering each WebSocket message or HTTP request with
// a fixed reply, as the RPC server's I/O thread would with no work for a worker.
struct FloorSession : std::enable_shared_from_this<FloorSession> {
  FloorSession(tcp::socket socket, const http::response<http::string_body>& reply)
      : ws(std::move(socket)), reply(reply) {}
  // Reads a request: an upgrade starts the WebSocket loop, any other is answered and the next one read.
  void start() {
    request = {};
    http::async_read(lowest(), buffer, request, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      if (ec) return;
      if (!websocket::is_upgrade(self->request))
        return http::async_write(self->lowest(), self->reply, [self](beast::error_code e, std::size_t) {
          if (!e) self->start();
        });
      self->ws.text(true);
      self->ws.async_accept(self->request, [self](beast::error_code e) { if (!e) self->echo(); });
    });
  }
  void echo() {
    buffer.consume(buffer.size());
    ws.async_read(buffer, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      if (!ec) self->ws.async_write(asio::buffer(self->reply.body()), [self](beast::error_code e, std::size_t) {
        if (!e) self->echo();
      });
    });
  }
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(ws); }

  websocket::stream<beast::tcp_stream> ws;
  beast::flat_buffer buffer;
  http::request<http::string_body> request;
  const http::response<http::string_body>& reply;
};

void acceptFloor(tcp::acceptor& acceptor, const http::response<http::string_body>& reply) {
  acceptor.async_accept([&acceptor, &reply](beast::error_code ec, tcp::socket socket) {
    if (ec) return;
    socket.set_option(tcp::no_delay(true));
    std::make_shared<FloorSession>(std::move(socket), reply)->start();
    acceptFloor(acceptor, reply);
  });
}

// A synchronous client, WebSocket or HTTP keep-alive (the WebSocket stream's lowest layer alone): the same
// code measures the floor and the server.
struct Client {
  Client(unsigned short port, bool webSocket) : isWebSocket(webSocket) {
    lowest().connect(tcp::resolver(io).resolve("127.0.0.1", std::to_string(port)));
    lowest().socket().set_option(tcp::no_delay(true));
    if (isWebSocket) ws.handshake("127.0.0.1:" + std::to_string(port), "/ws");
    ws.text(true);
  }
  std::size_t roundTrip(const std::string& text) {
    buffer.consume(buffer.size());
    if (isWebSocket) return ws.write(asio::buffer(text)), ws.read(buffer);
    http::request<http::string_body> request(http::verb::post, "/rpc", 11, text);
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::content_type, "application/json");
    request.prepare_payload();
    http::write(lowest(), request);
    http::response<http::string_body> response;
    http::read(lowest(), buffer, response);
    return response.body().size();
  }
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(ws); }

  const bool isWebSocket;
  asio::io_context io;
  websocket::stream<beast::tcp_stream> ws{io};
  beast::flat_buffer buffer;
};

// Round trips in microseconds, after a warm-up, added to `micros`.
void measure(Client& client, int count, std::vector<double>& micros) {
  for (int i = 0; i < count / 10; ++i) client.roundTrip(kRequest);
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    client.roundTrip(kRequest);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
}

// Floor and rpc in 5 alternating slices, so that a change in the machine's load falls on both alike.
void compare(const char* name, bool websocket, unsigned short rpcPort, unsigned short floorPort, int count) {
  Client rpc(rpcPort, websocket), floor(floorPort, websocket);
  std::vector<double> r, f;
  for (int slice = 0; slice < 5; ++slice) {
    measure(floor, count / 5, f);
    measure(rpc, count / 5, r);
  }
  for (std::vector<double>* v : {&r, &f}) std::sort(v->begin(), v->end());
  const auto at = [](const std::vector<double>& v, double q) { return v[static_cast<std::size_t>(v.size() * q)]; };
  std::printf("%-10s round trip  rpc median %7.1f us  p90 %7.1f us | floor median %7.1f us  p90 %7.1f us | "
              "ratio %.2f (target <= 1.30)\n",
              name, at(r, 0.5), at(r, 0.9), at(f, 0.5), at(f, 0.9), at(r, 0.5) / at(f, 0.5));
}

double callsPerSecond(unsigned short port, int clients, int callsEach) {
  std::vector<std::unique_ptr<Client>> connections;
  for (int i = 0; i < clients; ++i) connections.push_back(std::make_unique<Client>(port, true));
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (auto& client : connections)
    threads.emplace_back([&client, callsEach] { for (int k = 0; k < callsEach; ++k) client->roundTrip(kRequest); });
  for (std::thread& thread : threads) thread.join();
  return clients * callsEach / std::chrono::duration<double>(Clock::now() - start).count();
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

  // The floor answers with a reply of exactly the server's size, over HTTP/1.1 kept alive or WebSocket.
  const std::size_t size = Client(server.port(), false).roundTrip(kRequest);
  http::response<http::string_body> reply{http::status::ok, 11, std::string(size, ' ')};
  reply.set(http::field::content_type, "application/json");
  reply.prepare_payload();
  asio::io_context io{1};
  tcp::acceptor floor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  acceptFloor(floor, reply);
  std::thread floorThread([&io] { io.run(); });

  std::printf("request %zu bytes, reply %zu bytes, %d round trips per figure\n", kRequest.size(), reply.body().size(),
              count);
  compare("websocket", true, server.port(), floor.local_endpoint().port(), count);
  compare("http", false, server.port(), floor.local_endpoint().port(), count);
  for (const int clients : {1, 8}) {
    const int each = std::max(50, count / clients);
    const double rpc = callsPerSecond(server.port(), clients, each);
    const double bare = callsPerSecond(floor.local_endpoint().port(), clients, each);
    std::printf("websocket %d client%s  rpc %9.0f calls/s | floor %9.0f calls/s | ratio %.2f\n", clients,
                clients == 1 ? " " : "s", rpc, bare, bare / rpc);
  }
  io.stop();
  floorThread.join();
  server.stop();
  broker->shutdown();
}
