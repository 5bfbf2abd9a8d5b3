#include "net/net_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "middleware/module.h"

namespace KQ {
namespace test {

namespace {

// Reads a descriptor to its end.
std::string drain(int fd) {
  std::string out;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  ::close(fd);
  return out;
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& stdinText) {
  // A server test must survive its client closing the pipe early.
  ::signal(SIGPIPE, SIG_IGN);
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
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  std::thread writer([fd = in[1], &stdinText] {
    std::size_t done = 0;
    while (done < stdinText.size()) {
      const ssize_t n = ::write(fd, stdinText.data() + done, stdinText.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    ::close(fd);
  });
  std::string errText;
  std::thread errReader([&] { errText = drain(err[0]); });
  ProgramResult result;
  result.out = drain(out[0]);
  writer.join();
  errReader.join();
  result.err = errText;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

ProgramResult runPython(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"/usr/bin/python3", "-"};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv, script);
}

namespace {

HttpAnswer curl(std::vector<std::string> argv) {
  // The status goes last on its own line, after the body.
  argv.insert(argv.begin(), {"curl", "-s", "-S", "--max-time", "60", "-w", "\n%{http_code}"});
  const ProgramResult result = runProgram(argv);
  HttpAnswer answer;
  answer.error = result.err;
  const std::size_t newline = result.out.rfind('\n');
  if (newline == std::string::npos) return answer;
  answer.status = std::atoi(result.out.c_str() + newline + 1);
  answer.body = result.out.substr(0, newline);
  return answer;
}

}  // namespace

HttpAnswer curlPost(const std::string& url, const std::string& body, const std::vector<std::string>& headers) {
  // Through a file: the body may be larger than an argument may be.
  char path[] = "/tmp/kq-net-body-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) return HttpAnswer{};
  std::size_t done = 0;
  while (done < body.size()) {
    const ssize_t n = ::write(fd, body.data() + done, body.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  std::vector<std::string> argv{"-X", "POST", "--data-binary", std::string("@") + path};
  for (const std::string& header : headers) {
    argv.push_back("-H");
    argv.push_back(header);
  }
  argv.push_back(url);
  HttpAnswer answer = curl(argv);
  ::unlink(path);
  return answer;
}

HttpAnswer curlGet(const std::string& url, const std::vector<std::string>& headers) {
  std::vector<std::string> argv;
  for (const std::string& header : headers) {
    argv.push_back("-H");
    argv.push_back(header);
  }
  argv.push_back(url);
  return curl(argv);
}

void NetServerTest::SetUp() {
  broker_ = std::make_shared<KQBroker>("net-test");
  memory_ = KQModule::createModule<KQMemoryModule>(broker_, "KQMemory");
  module_ = KQModule::createModule<NetTestModule>(broker_, "NetTest");
  restartServer(net::RpcServerOptions{});
}

void NetServerTest::TearDown() {
  // Whatever a test left waiting is let go before the server waits for it.
  module_->openGate();
  if (server_) server_->stop();
  server_.reset();
  broker_->shutdown();
}

void NetServerTest::restartServer(net::RpcServerOptions options) {
  if (server_) server_->stop();
  server_.reset();
  options.port = 0;
  server_ = std::make_unique<net::RpcServer>(broker_, options);
  server_->start();
}

std::string NetServerTest::rpcUrl() const { return "http://127.0.0.1:" + std::to_string(port()) + "/rpc"; }

std::string NetServerTest::wsUrl() const { return "ws://127.0.0.1:" + std::to_string(port()) + "/ws"; }

nlohmann::json NetServerTest::rpc(const std::string& text) {
  const HttpAnswer answer = curlPost(rpcUrl(), text);
  EXPECT_EQ(answer.status, 200) << text << " -> " << answer.body << answer.error;
  return nlohmann::json::parse(answer.body, nullptr, false);
}

}  // namespace test
}  // namespace KQ
