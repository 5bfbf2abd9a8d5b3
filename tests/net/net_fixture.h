// The network suite's fixture: a broker hosting the real memory module
// ("KQMemory") and NetTestModule ("NetTest"), served by a real RpcServer on
// 127.0.0.1 at a port the system picks, driven by programs we did not write
// (curl, and python's websockets and sockets through ws_client.py).
#ifndef KQ_TESTS_NET_NET_FIXTURE_H_
#define KQ_TESTS_NET_NET_FIXTURE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_server.h"

namespace KQ::test {

// What the network must carry: ints, any value, refusals (a KQError and a
// foreign exception), and a call that waits until the test opens the gate,
// as a world-model call waits on the graph lock. Safe from any thread.
class NetTestModule : public KQModule {
 public:
  NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name);
  int add(int a, int b) { return a + b; }
  KQValue echo(const KQValue& value) { return value; }
  void fail(const std::string& message) { throw KQError(getName(), "fail", message); }
  void failOddly() { throw std::runtime_error("something odd"); }
  std::string ping() { return "pong"; }
  int hold();                   // waits for openGate(); answers how many returned
  bool waitHolding(int count);  // at most 20 s, until `count` hold calls have begun
  void openGate();              // for good: every hold call returns

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int holding_ = 0, released_ = 0;
};

struct HttpAnswer {
  int status = 0;  // 0 when curl got no answer; body then holds its complaint
  std::string body;
};
// curl: POST when `body` is given, else GET; headers as "Name: value".
HttpAnswer curl(const std::string& url, const std::string* body,
                const std::vector<std::string>& headers = {"Content-Type: application/json"});

class NetServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Replaces the running server by one with these options, on `port` (0: any).
  void restartServer(net::RpcServerOptions options = {}, unsigned short port = 0);
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port()); }
  std::string rpcUrl() const { return baseUrl() + "/rpc"; }
  std::string wsUrl() const { return "ws://127.0.0.1:" + std::to_string(port()) + "/ws"; }
  unsigned short port() const { return server_->port(); }
  // POSTs one JSON-RPC text to /rpc and answers the reply's text.
  std::string post(const std::string& text) { return curl(rpcUrl(), &text).body; }
  // ws_client.py at wsUrl() with these steps (see the script); its output.
  std::string wsClient(const std::vector<std::string>& steps);

  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<KQMemoryModule> memory_;
  std::shared_ptr<NetTestModule> module_;
  std::unique_ptr<net::RpcServer> server_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_NET_NET_FIXTURE_H_
