// Storing a large world over the wire: 100,000 objects stored under "World" by JSON-RPC batches of 1,000
// storeObject calls, one HTTP keep-alive client, against the world model behind the real RPC server (in this
// process, with the built-in KQMemory). Goal: at most 2 s in all. The peer is the same batches answered by a
// storeObject that does nothing (the transport's and dispatcher's own share), measured in the same run.
// Usage: kq_bench_store_objects_load [objects, a multiple of 1000, default 100000].
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "middleware/broker.h"
#include "middleware/log.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_server.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;

namespace {

const int kBatch = 1000;

// The peer: the world model's storeObject signature, answering 0 at once.
struct FloorModule : KQ::KQModule {
  FloorModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    functionName("storeObject", getName(), "Does nothing.", 0);
    advertiseMethod(&FloorModule::storeObject);
  }
  int storeObject(const std::string&, const std::string&, const std::vector<float>&, const std::string&,
                  const KQ::KQValue&) { return 0; }
};

// Sends `objects` storeObject calls to `module` in batches; seconds taken, or -1 when a call did not answer 0.
double storeAll(unsigned short port, const std::string& module, int objects) {
  boost::asio::io_context io;
  beast::tcp_stream stream(io);
  stream.connect(tcp::resolver(io).resolve("127.0.0.1", std::to_string(port)));
  beast::flat_buffer buffer;
  const auto start = std::chrono::steady_clock::now();
  for (int first = 0; first < objects; first += kBatch) {
    std::string body;
    for (int i = first; i < first + kBatch; ++i)
      body += (i == first ? "[" : ",") + (R"({"jsonrpc":"2.0","method":")" + module + R"(.storeObject","params":["o)") +
              std::to_string(i) + R"(","World",[0.5,0.25,0,0,0,0.1],"Load",[]],"id":1})";
    http::request<http::string_body> request(http::verb::post, "/rpc", 11, body + "]");
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::content_type, "application/json");
    request.prepare_payload();
    http::write(stream, request);
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    int answered = 0;
    for (std::size_t at = 0; (at = response.body().find("\"result\":0", at + 1)) != std::string::npos;) ++answered;
    if (answered != kBatch) return std::fprintf(stderr, "%.200s\n", response.body().c_str()), -1;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int objects = argc > 1 ? std::max(1, std::atoi(argv[1]) / kBatch) * kBatch : 100000;
  ko::log::setCategoryLevel("KQWorldRepresentation", ko::log::error);
  KQ::test::TempDir dir;
  ko::path::setComponentDataPath("worldrepresentation", dir.path());
  auto broker = std::make_shared<KQ::KQBroker>("kqbench");
  auto memory = KQ::KQModule::createModule<KQ::KQMemoryModule>(broker, KQ::KQMemoryModule::kModuleName);
  auto motion = KQ::KQModule::createModule<KQ::test::ScriptedMotionModule>(broker, "KQMotion");
  auto world = KQ::KQModule::createModule<KQ::KQWorldRepresentation>(broker, "KQWorldRepresentation");
  auto floor = KQ::KQModule::createModule<FloorModule>(broker, "Floor");
  world->createObjectCategory("Load", false);
  KQ::net::RpcServerOptions options;
  options.port = 0;
  KQ::net::RpcServer server(broker, options);
  server.start();

  const double peer = storeAll(server.port(), "Floor", objects);
  const double ours = storeAll(server.port(), "KQWorldRepresentation", objects);
  std::printf("%d objects in batches of %d: world %.2f s (%.0f objects/s) | floor %.2f s | ratio %.2f "
              "(goal: world <= 2 s at 100000)\n",
              objects, kBatch, ours, objects / ours, peer, ours / peer);
  server.stop();
  broker->shutdown();
  return ours < 0 || peer < 0 ? 1 : 0;
}
