// 100,000 objects stored by JSON-RPC batches of 1,000 storeObject calls over one HTTP connection, into the world
// model behind the real RPC server (in this process, with the built-in KQMemory): at most 2 s. Peer, same run: the
// same batches answered by a storeObject that does nothing (the transport's and dispatcher's own share).
#include <chrono>
#include <cstdio>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_server.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace http = boost::beast::http;

namespace {

const int kObjects = 100000, kBatch = 1000;

// The peer: the world model's storeObject signature, answering 0 at once.
struct FloorModule : KQ::KQModule {
  FloorModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    functionName("storeObject", getName(), "Does nothing.", 0);
    advertiseMethod(&FloorModule::storeObject);
  }
  int storeObject(const std::string&, const std::string&, const std::vector<float>&, const std::string&,
                  const KQ::KQValue&) { return 0; }
};

// Sends kObjects storeObject calls to `module` in batches; seconds taken, or -1 when a call did not answer 0.
double storeAll(unsigned short port, const std::string& module) {
  boost::asio::io_context io;
  boost::beast::tcp_stream stream(io);
  stream.connect(boost::asio::ip::tcp::resolver(io).resolve("127.0.0.1", std::to_string(port)));
  boost::beast::flat_buffer buffer;
  const auto start = std::chrono::steady_clock::now();
  for (int first = 0; first < kObjects; first += kBatch) {
    std::string body;
    for (int i = first; i < first + kBatch; ++i)
      body += (i == first ? "[" : ",") + (R"({"jsonrpc":"2.0","method":")" + module + R"(.storeObject","params":["o)") +
              std::to_string(i) + R"(","World",[0.5,0.25,0,0,0,0.1],"Load",[]],"id":1})";
    http::request<http::string_body> request(http::verb::post, "/rpc", 11, body + "]");
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::content_type, "application/json");
    request.prepare_payload();
    http::response<http::string_body> response;
    http::write(stream, request), http::read(stream, buffer, response);
    int answered = 0;
    for (std::size_t at = 0; (at = response.body().find("\"result\":0", at + 1)) != std::string::npos;) ++answered;
    if (answered != kBatch) return std::fprintf(stderr, "%.200s\n", response.body().c_str()), -1;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main() {
  KQ::test::TempDir dir;
  ko::path::setComponentDataPath("worldrepresentation", dir.path());
  auto broker = std::make_shared<KQ::KQBroker>("kqbench");
  auto memory = KQ::KQModule::createModule<KQ::KQMemoryModule>(broker, KQ::KQMemoryModule::kModuleName);
  auto motion = KQ::KQModule::createModule<KQ::test::ScriptedMotionModule>(broker, "KQMotion");
  auto world = KQ::KQModule::createModule<KQ::KQWorldRepresentation>(broker, "KQWorldRepresentation");
  world->createObjectCategory("Load", false);
  auto floor = KQ::KQModule::createModule<FloorModule>(broker, "Floor");
  KQ::net::RpcServerOptions options;
  options.port = 0;  // any free one
  KQ::net::RpcServer server(broker, options);
  server.start();

  const double peer = storeAll(server.port(), "Floor"), ours = storeAll(server.port(), "KQWorldRepresentation");
  std::printf("%d objects in batches of %d: world %.2f s | floor %.2f s | ratio %.2f (goal: world <= 2 s)\n", kObjects,
              kBatch, ours, peer, ours / peer);
  server.stop();
  broker->shutdown();
  return ours < 0 || peer < 0 ? 1 : 0;
}
