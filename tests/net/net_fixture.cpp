#include "net/net_fixture.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>

namespace KQ::test {

NetTestModule::NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name)
    : KQModule(std::move(broker), name) {
  functionName("add", getName(), "Adds two ints.", 0);
  advertiseMethod(&NetTestModule::add);
  functionName("echo", getName(), "Returns its argument.", 0);
  advertiseMethod(&NetTestModule::echo);
  functionName("fail", getName(), "Refuses with the given message.", 0);
  advertiseMethod(&NetTestModule::fail);
  functionName("failOddly", getName(), "Throws something that is not a KQError.", 0);
  advertiseMethod(&NetTestModule::failOddly);
  functionName("hold", getName(), "Waits until the test opens the gate.", 0);
  advertiseMethod(&NetTestModule::hold);
  functionName("ping", getName(), "Answers pong.", 0);
  advertiseMethod(&NetTestModule::ping);
}

int NetTestModule::hold() {
  std::unique_lock<std::mutex> lock(mutex_);
  ++holding_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return open_; });
  return ++released_;
}

bool NetTestModule::waitHolding(int count) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return holding_ >= count; });
}

void NetTestModule::openGate() {
  std::lock_guard<std::mutex> lock(mutex_);
  open_ = true;
  changed_.notify_all();
}

namespace {

// Runs argv (searched in PATH); answers stdout and stderr together.
std::string runProgram(const std::vector<std::string>& argv, int* exitCode = nullptr) {
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

}  // namespace

HttpAnswer curl(const std::string& url, const std::string* body, const std::vector<std::string>& headers) {
  // The status goes last on its own line, after the body.
  std::vector<std::string> argv{"curl", "-s", "-S", "--max-time", "60", "-w", "\n%{http_code}", url};
  if (body != nullptr) argv.insert(argv.end(), {"--data-binary", *body});
  for (const std::string& header : headers) argv.insert(argv.end(), {"-H", header});
  const std::string out = runProgram(argv);
  const std::size_t newline = out.rfind('\n');
  if (newline == std::string::npos) return {0, out};
  return {std::atoi(out.c_str() + newline + 1), out.substr(0, newline)};
}

void NetServerTest::SetUp() {
  broker_ = std::make_shared<KQBroker>("net-test");
  memory_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
  module_ = KQModule::createModule<NetTestModule>(broker_, "NetTest");
  restartServer();
}

void NetServerTest::TearDown() {
  module_->openGate();  // whatever a test left waiting goes before the server waits for it
  server_.reset();
  broker_->shutdown();
}

void NetServerTest::restartServer(net::RpcServerOptions options, unsigned short port) {
  server_.reset();
  options.port = port;
  server_ = std::make_unique<net::RpcServer>(broker_, options);
  server_->start();
}

std::string NetServerTest::wsClient(const std::vector<std::string>& steps) {
  std::vector<std::string> argv{"/usr/bin/python3", KQ_SOURCE_DIR "/tests/net/ws_client.py", wsUrl()};
  argv.insert(argv.end(), steps.begin(), steps.end());
  int exitCode = -1;
  const std::string out = runProgram(argv, &exitCode);
  EXPECT_EQ(exitCode, 0) << out;
  return out;
}

}  // namespace KQ::test
