// ManualClock: a controllable ko::os clock, installed process-wide while it
// lives, so that time stamps and throttles are tested at exact instants
// without sleeping. Time moves only when the test moves it (backwards too).
#ifndef KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
#define KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_

#include <atomic>
#include <cstdint>

#include "middleware/os.h"

namespace KQ::test {

class ManualClock {
 public:
  // 2023-11-14 22:13:20 UTC: far from the epoch, so "seconds ago" stays positive.
  static constexpr int64_t kDefaultStartSeconds = 1'700'000'000;

  explicit ManualClock(int64_t seconds = kDefaultStartSeconds, int64_t microseconds = 0)
      : now_(seconds * 1000000 + microseconds) {
    ko::os::setClock([this](ko::os::timeval* tv) { *tv = now(); });
  }
  ~ManualClock() { ko::os::setClock({}); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  void advanceMicroseconds(int64_t microseconds) { now_ += microseconds; }
  void advanceMilliseconds(int64_t milliseconds) { now_ += milliseconds * 1000; }
  void advanceSeconds(int64_t seconds) { now_ += seconds * 1000000; }
  void set(int64_t seconds, int64_t microseconds = 0) { now_ = seconds * 1000000 + microseconds; }
  ko::os::timeval now() const {
    const int64_t total = now_, micros = (total % 1000000 + 1000000) % 1000000;  // in [0, 1e6) before the epoch too
    ko::os::timeval tv;
    tv.tv_sec = (total - micros) / 1000000;
    tv.tv_usec = micros;
    return tv;
  }

 private:
  std::atomic<int64_t> now_;  // microseconds since the epoch
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
