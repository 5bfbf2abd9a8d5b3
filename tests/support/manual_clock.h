// ManualClock: a controllable ko::os clock for tests, so that time stamps and
// throttles (the 40 ms odometry throttle) are tested at exact instants
// without sleeping.
//
// RAII: construction installs the clock with ko::os::setClock, destruction
// puts the system clock back. Time only moves when the test moves it. Only
// one ManualClock should be alive at a time (the clock is process-wide).
//
// Threading: every member is safe from any thread (one internal mutex), so
// code under test may read the clock on its own threads while the test
// advances it.
#ifndef KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
#define KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_

#include <cstdint>
#include <mutex>

#include "middleware/os.h"

namespace KQ {
namespace test {

class ManualClock {
 public:
  // 2023-11-14 22:13:20 UTC: far from the epoch, so that "seconds ago"
  // arithmetic never goes negative.
  static constexpr int64_t kDefaultStartSeconds = 1'700'000'000;

  explicit ManualClock(int64_t seconds = kDefaultStartSeconds, int64_t microseconds = 0);
  ~ManualClock();
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  void advanceMilliseconds(int64_t milliseconds);
  void advanceMicroseconds(int64_t microseconds);
  void advanceSeconds(int64_t seconds);
  // Jumps to an absolute time (backwards too: a clock set back by NTP).
  void set(int64_t seconds, int64_t microseconds = 0);
  ko::os::timeval now() const;
  // now() as seconds with the microseconds as a fraction.
  double nowSeconds() const;

 private:
  // Callers hold mutex_.
  void xAddMicroseconds(int64_t microseconds);

  mutable std::mutex mutex_;
  int64_t seconds_;
  int64_t microseconds_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
