// Aborts the process with a message if a scope is still running after a
// limit: a deadlocked test would otherwise hang until ctest kills it, saying
// nothing. Shared by the concurrency tests of the objects and module suites.
#ifndef KQ_TESTS_SUPPORT_WATCHDOG_H_
#define KQ_TESTS_SUPPORT_WATCHDOG_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace KQ {
namespace test {

class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, std::string what) : what_(std::move(what)) {
    thread_ = std::thread([this, limit] {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!done_.wait_for(lock, limit, [this] { return finished_; })) {
        std::fprintf(stderr, "WATCHDOG: %s did not finish within %lld s: deadlock suspected\n", what_.c_str(),
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::abort();
      }
    });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::string what_;
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_WATCHDOG_H_
