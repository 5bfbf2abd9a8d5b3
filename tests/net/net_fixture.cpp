#include "net/net_fixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "middleware/proxy.h"

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
  functionName("bump", getName(), "Counts its calls.", 0);
  advertiseMethod(&NetTestModule::bump);
  functionName("raise", getName(), "Raises an event through the memory module.", 0);
  advertiseMethod(&NetTestModule::raise);
  functionName("holdLock", getName(), "Holds the module lock until released.", 0);
  advertiseMethod(&NetTestModule::holdLock);
  functionName("ping", getName(), "Answers pong without any lock.", 0);
  advertiseMethod(&NetTestModule::ping);
}

void NetTestModule::fail(const std::string& message) { throw KQError(getName(), "fail", message); }

void NetTestModule::failOddly() { throw std::runtime_error("something odd"); }

int NetTestModule::bump() {
  std::lock_guard<std::mutex> lock(gateMutex_);
  return ++bumps_;
}

void NetTestModule::raise(const std::string& event, const KQValue& value) {
  getParentBroker()->getProxy("KQMemory")->call("raiseEvent", event, value);
}

int NetTestModule::holdLock() {
  std::unique_lock<std::shared_mutex> held(lock_);
  std::unique_lock<std::mutex> lock(gateMutex_);
  const int generation = gateGeneration_;
  ++holding_;
  gateChanged_.notify_all();
  gateChanged_.wait(lock, [&] { return gateGeneration_ != generation; });
  const int released = ++released_;
  gateChanged_.notify_all();
  return released;
}

int NetTestModule::bumps() const {
  std::lock_guard<std::mutex> lock(gateMutex_);
  return bumps_;
}

bool NetTestModule::waitHolding(int count) {
  std::unique_lock<std::mutex> lock(gateMutex_);
  return gateChanged_.wait_for(lock, std::chrono::seconds(20), [&] { return holding_ >= count; });
}

bool NetTestModule::waitReleased(int count) {
  std::unique_lock<std::mutex> lock(gateMutex_);
  return gateChanged_.wait_for(lock, std::chrono::seconds(20), [&] { return released_ >= count; });
}

void NetTestModule::openGate() {
  std::lock_guard<std::mutex> lock(gateMutex_);
  ++gateGeneration_;
  gateChanged_.notify_all();
}

namespace {

std::string drain(int fd) {
  std::string out;
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof(buffer))) != 0;) {
    if (n > 0) out.append(buffer, static_cast<std::size_t>(n));
    else if (errno != EINTR) break;
  }
  ::close(fd);
  return out;
}

HttpAnswer curl(std::vector<std::string> argv, const std::string& body = "") {
  // The status goes last on its own line, after the body.
  argv.insert(argv.begin(), {"curl", "-s", "-S", "--max-time", "60", "-w", "\n%{http_code}"});
  const ProgramResult result = runProgram(argv, body);
  HttpAnswer answer;
  answer.error = result.err;
  const std::size_t newline = result.out.rfind('\n');
  if (newline == std::string::npos) return answer;
  answer.status = std::atoi(result.out.c_str() + newline + 1);
  answer.body = result.out.substr(0, newline);
  return answer;
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& stdinText) {
  ::signal(SIGPIPE, SIG_IGN);  // a client may close its pipe early
  int in[2], out[2], err[2];
  if (::pipe(in) != 0 || ::pipe(out) != 0 || ::pipe(err) != 0) return ProgramResult{};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  for (int fd : {in[0], out[1], err[1]}) ::close(fd);
  std::thread writer([fd = in[1], &stdinText] {
    for (std::size_t done = 0; done < stdinText.size();) {
      const ssize_t n = ::write(fd, stdinText.data() + done, stdinText.size() - done);
      if (n <= 0 && errno != EINTR) break;
      if (n > 0) done += static_cast<std::size_t>(n);
    }
    ::close(fd);
  });
  ProgramResult result;
  std::thread errReader([&] { result.err = drain(err[0]); });
  result.out = drain(out[0]);
  writer.join();
  errReader.join();
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

ProgramResult runPython(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"/usr/bin/python3", "-c", script};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

HttpAnswer curlPost(const std::string& url, const std::string& body, const std::vector<std::string>& headers) {
  std::vector<std::string> argv{"-X", "POST", "--data-binary", "@-"};  // the body on stdin: it may be large
  for (const std::string& header : headers) argv.insert(argv.end(), {"-H", header});
  argv.push_back(url);
  return curl(argv, body);
}

HttpAnswer curlGet(const std::string& url, const std::vector<std::string>& headers) {
  std::vector<std::string> argv;
  for (const std::string& header : headers) argv.insert(argv.end(), {"-H", header});
  argv.push_back(url);
  return curl(argv);
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

nlohmann::json NetServerTest::rpc(const std::string& text) {
  const HttpAnswer answer = curlPost(rpcUrl(), text);
  EXPECT_EQ(answer.status, 200) << text << " -> " << answer.body << answer.error;
  return nlohmann::json::parse(answer.body, nullptr, false);
}

}  // namespace KQ::test
