#include "net/net_fixture.h"

#include <sys/wait.h>

#include <cstdio>

namespace KQ::test {

NetTestModule::NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name)
    : KQModule(std::move(broker), name) {
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
