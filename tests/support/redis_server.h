// RedisServer: a real redis-server of the test's own, on a Unix socket in a
// temporary folder, persistence off, no TCP port; killed at destruction.
// kill() and start() take it down and bring it back on the same socket (an
// empty server: nothing is saved); pause() and resume() freeze it (SIGSTOP)
// to show a server that answers nothing. cli() runs redis-cli against it, as
// any other program would.
#ifndef KQ_TESTS_SUPPORT_REDIS_SERVER_H_
#define KQ_TESTS_SUPPORT_REDIS_SERVER_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace KQ::test {

class RedisServer {
 public:
  RedisServer();  // started
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  std::string url() const { return "unix://" + socket_; }
  void start();  // returns once the server answers
  void kill();
  void pause();
  void resume();
  // redis-cli's output (its raw form, without the final newline).
  std::string cli(const std::vector<std::string>& args) const;

 private:
  TempDir folder_;
  std::string socket_;
  pid_t pid_ = -1;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_REDIS_SERVER_H_
