#include "net/net_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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

ProgramResult runProgram(const std::vector<std::string>& argv) {
  std::string command;
  for (const std::string& arg : argv) {  // each argument single-quoted for sh
    command += '\'';
    for (const char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += "' ";
  }
  FILE* pipe = ::popen((command + "2>&1").c_str(), "r");
  if (pipe == nullptr) return {};
  ProgramResult result;
  char buffer[65536];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) result.out.append(buffer, n);
  const int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

HttpAnswer curl(const std::string& url, const std::string* body, const std::vector<std::string>& headers) {
  // The status goes last on its own line, after the body.
  std::vector<std::string> argv{"curl", "-s", "-S", "--max-time", "60", "-w", "\n%{http_code}", url};
  if (body != nullptr) argv.insert(argv.end(), {"--data-binary", *body});
  for (const std::string& header : headers) argv.insert(argv.end(), {"-H", header});
  const ProgramResult result = runProgram(argv);
  const std::size_t newline = result.out.rfind('\n');
  if (newline == std::string::npos) return {0, result.out};
  return {std::atoi(result.out.c_str() + newline + 1), result.out.substr(0, newline)};
}

std::string rawExchange(unsigned short port, const std::string& request, bool readReply) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()) && readReply) {
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;) reply.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return reply;
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

ProgramResult NetServerTest::wsClient(const std::vector<std::string>& steps) {
  std::vector<std::string> argv{"/usr/bin/python3", KQ_SOURCE_DIR "/tests/net/ws_client.py", wsUrl()};
  argv.insert(argv.end(), steps.begin(), steps.end());
  return runProgram(argv);
}

}  // namespace KQ::test
