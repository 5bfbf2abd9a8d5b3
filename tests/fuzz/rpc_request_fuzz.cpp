// Bytes -> JSON -> values -> dispatch, through a broker that hosts the real
// KQMemory and a module of argument kinds: nothing a client sends may crash,
// hang or leak. An input that opens like an HTTP request ("GET ", "POST ")
// goes instead, as raw bytes, to a real server on loopback (headers, chunked
// framing, upgrades), read back until the server closes or goes quiet.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "middleware/broker.h"
#include "middleware/module.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_dispatcher.h"
#include "middleware/net/rpc_server.h"

namespace {

class FuzzModule : public KQ::KQModule {
 public:
  FuzzModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    functionName("add", getName(), "Sum of two ints.", 0);
    advertiseMethod(&FuzzModule::add);
    functionName("scale", getName(), "Floats times a factor.", 0);
    advertiseMethod(&FuzzModule::scale);
    functionName("echo", getName(), "The value given.", 0);
    advertiseMethod(&FuzzModule::echo);
    functionName("join", getName(), "Names joined.", 0);
    advertiseMethod(&FuzzModule::join);
  }
  int add(const int& a, const int& b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }
  std::vector<float> scale(const std::vector<float>& values, const float& factor) {
    std::vector<float> out;
    for (float v : values) out.push_back(v * factor);
    return out;
  }
  KQ::KQValue echo(const KQ::KQValue& value) { return value; }
  std::string join(const std::vector<std::string>& names, const bool& spaced) {
    std::string out;
    for (const auto& name : names) out += (out.empty() || !spaced ? "" : " ") + name;
    return out.substr(0, 4096);
  }
};

std::shared_ptr<KQ::KQBroker> fuzzBroker() {
  static const auto broker = [] {
    auto made = std::make_shared<KQ::KQBroker>("fuzz");
    KQ::KQModule::createModule<KQ::KQMemoryModule>(made, KQ::KQMemoryModule::kModuleName);
    KQ::KQModule::createModule<FuzzModule>(made, "Fuzz");
    return made;
  }();
  return broker;
}

const KQ::net::RpcDispatcher& dispatcher() {
  static const auto* instance = new KQ::net::RpcDispatcher(fuzzBroker());
  return *instance;
}

// Small limits, so that the fuzzer reaches them; never stopped (held by a
// static, so the leak check sees it reachable).
unsigned short serverPort() {
  static KQ::net::RpcServer* const server = [] {
    KQ::net::RpcServerOptions options;
    options.port = 0;
    options.maxMessageBytes = 4096;
    options.maxHeaderBytes = 1024;
    options.requestTimeoutSeconds = 1;
    auto* started = new KQ::net::RpcServer(fuzzBroker(), options);
    started->start();
    return started;
  }();
  return server->port();
}

void sendRaw(std::string_view bytes) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(serverPort());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval quiet{0, 50000};  // a server that says nothing for 50 ms is waiting for more
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &quiet, sizeof(quiet));
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    char buffer[65536];
    while (::recv(fd, buffer, sizeof(buffer), 0) > 0) continue;
  }
  ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (bytes.rfind("GET ", 0) == 0 || bytes.rfind("POST ", 0) == 0)
    sendRaw(bytes);
  else
    dispatcher().handle(bytes, nullptr);
  return 0;
}
