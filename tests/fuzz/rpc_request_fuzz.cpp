// Bytes -> JSON -> values -> dispatch, through a broker that hosts the real
// KQMemory and a module of argument kinds: nothing a client sends may crash,
// hang or leak.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "middleware/broker.h"
#include "middleware/module.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_dispatcher.h"

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

const KQ::net::RpcDispatcher& dispatcher() {
  static const auto* instance = [] {
    auto broker = std::make_shared<KQ::KQBroker>("fuzz");
    KQ::KQModule::createModule<KQ::KQMemoryModule>(broker, KQ::KQMemoryModule::kModuleName);
    KQ::KQModule::createModule<FuzzModule>(broker, "Fuzz");
    return new KQ::net::RpcDispatcher(broker);
  }();
  return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  dispatcher().handle(std::string_view(reinterpret_cast<const char*>(data), size), nullptr);
  return 0;
}
