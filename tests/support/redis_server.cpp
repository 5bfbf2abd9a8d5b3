#include "support/redis_server.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace KQ::test {

namespace {

// Runs the program with the arguments; its stdout, or throws.
std::string runProgram(std::vector<std::string> args) {
  int out[2];
  if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::close(out[0]);
    ::close(out[1]);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(out[1]);
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = ::read(out[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(got));
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(args[0] + " failed");
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

RedisServer::RedisServer() : socket_(folder_.file("redis.sock")) { start(); }

RedisServer::~RedisServer() {
  resume();
  kill();
}

void RedisServer::start() {
  pid_ = ::fork();
  if (pid_ == 0) {
    ::execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socket_.c_str(), "--save", "",
             "--appendonly", "no", "--dir", folder_.path().c_str(), "--loglevel", "warning", nullptr);
    ::_exit(127);
  }
  for (int attempt = 0; attempt < 200; ++attempt) {
    try {
      if (runProgram({"redis-cli", "-s", socket_, "PING"}) == "PONG") return;
    } catch (const std::runtime_error&) {
      // Not listening yet.
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  throw std::runtime_error("redis-server did not start on " + socket_);
}

void RedisServer::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
  ::unlink(socket_.c_str());
}

void RedisServer::pause() { ::kill(pid_, SIGSTOP); }
void RedisServer::resume() {
  if (pid_ > 0) ::kill(pid_, SIGCONT);
}

std::string RedisServer::cli(const std::vector<std::string>& args) const {
  std::vector<std::string> command = {"redis-cli", "-s", socket_};
  command.insert(command.end(), args.begin(), args.end());
  return runProgram(command);
}

}  // namespace KQ::test
