// The network suite's fixture: a broker hosting the real memory module ("KQMemory") and NetTestModule ("NetTest"),
// served by a real RpcServer on 127.0.0.1 at a port the system picks, driven by programs we did not write (curl, and
// python's websockets and sockets through ws_client.py).
#ifndef KQ_TESTS_NET_NET_FIXTURE_H_
#define KQ_TESTS_NET_NET_FIXTURE_H_

#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
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

// What the network must carry: ints, any value, refusals (a KQError and a foreign exception), and a call that waits
// until the test opens the gate, as a world-model call waits on the graph lock.
class NetTestModule : public KQModule {
 public:
  NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(std::move(broker), name) {
    const auto bind = [this](const char* method, const char* description, auto member) {
      functionName(method, getName(), description, 0);
      advertiseMethod(member);
    };
    bind("add", "Adds two ints.", &NetTestModule::add);
    bind("echo", "Returns its argument.", &NetTestModule::echo);
    bind("fail", "Refuses with the given message.", &NetTestModule::fail);
    bind("failOddly", "Throws something that is not a KQError.", &NetTestModule::failOddly);
    bind("hold", "Waits until the test opens the gate.", &NetTestModule::hold);
    bind("ping", "Answers pong.", &NetTestModule::ping);
    bind("times", "Product of two floats (infinite past the float range).", &NetTestModule::times);
  }
  float times(float a, float b) { return a * b; }
  int add(int a, int b) { return a + b; }
  KQValue echo(const KQValue& value) { return value; }
  void fail(const std::string& message) { throw KQError(getName(), "fail", message); }
  void failOddly() { throw std::runtime_error("something odd"); }
  std::string ping() { return "pong"; }
  int hold() {  // answers how many hold calls returned
    std::unique_lock<std::mutex> lock(mutex_);
    ++holding_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
    return ++released_;
  }
  bool waitHolding(int count) {  // at most 20 s, until `count` hold calls have begun
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return holding_ >= count; });
  }
  void openGate() {  // for good
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

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
// Runs argv (searched in PATH); answers stdout and stderr together.
inline std::string runProgram(const std::vector<std::string>& argv, int* exitCode = nullptr) {
  std::string command;
  for (const std::string& arg : argv) {  // each argument single-quoted for sh
    command += '\'';
    for (const char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += "' ";
  }
  FILE* pipe = ::popen((command + "2>&1").c_str(), "r");
  std::string out;
  char buffer[65536];
  for (std::size_t n; pipe != nullptr && (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
  const int status = pipe == nullptr ? -1 : ::pclose(pipe);
  if (exitCode != nullptr) *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

// curl: POST when `body` is given, else GET; headers as "Name: value".
inline HttpAnswer curl(const std::string& url, const std::string* body,
                       const std::vector<std::string>& headers = {"Content-Type: application/json"}) {
  // The status goes last on its own line, after the body.
  std::vector<std::string> argv{"curl", "-s", "-S", "--max-time", "60", "-w", "\n%{http_code}", url};
  if (body != nullptr) argv.insert(argv.end(), {"--data-binary", *body});
  for (const std::string& header : headers) argv.insert(argv.end(), {"-H", header});
  const std::string out = runProgram(argv);
  const std::size_t newline = out.rfind('\n');
  if (newline == std::string::npos) return {0, out};
  return {std::atoi(out.c_str() + newline + 1), out.substr(0, newline)};
}

class NetServerTest : public ::testing::Test {
 protected:
  void SetUp() override { restartServer(); }
  void TearDown() override {
    module_->openGate();  // whatever a test left waiting goes before the server waits for it
    server_.reset();
    broker_->shutdown();
  }
  // Replaces the running server by one with these options, on `port` (0: any).
  void restartServer(net::RpcServerOptions options = {}, unsigned short port = 0) {
    server_.reset();
    options.port = port;
    server_ = std::make_unique<net::RpcServer>(broker_, options);
    server_->start();
  }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port()); }
  std::string rpcUrl() const { return baseUrl() + "/rpc"; }
  std::string wsUrl() const { return "ws://127.0.0.1:" + std::to_string(port()) + "/ws"; }
  unsigned short port() const { return server_->port(); }
  std::string post(const std::string& text) { return curl(rpcUrl(), &text).body; }  // the reply's text
  // ws_client.py at wsUrl() with these steps (see the script); its output.
  std::string wsClient(const std::vector<std::string>& steps) {
    std::vector<std::string> argv{"/usr/bin/python3", KQ_SOURCE_DIR "/tests/net/ws_client.py", wsUrl()};
    argv.insert(argv.end(), steps.begin(), steps.end());
    int exitCode = -1;
    const std::string out = runProgram(argv, &exitCode);
    EXPECT_EQ(exitCode, 0) << out;
    return out;
  }

  std::shared_ptr<KQBroker> broker_ = std::make_shared<KQBroker>("net-test");
  std::shared_ptr<KQMemoryModule> memory_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
  std::shared_ptr<NetTestModule> module_ = KQModule::createModule<NetTestModule>(broker_, "NetTest");
  std::unique_ptr<net::RpcServer> server_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_NET_NET_FIXTURE_H_
