// ManualClock: a controllable ko::os clock, so that time stamps and throttles
// (the 40 ms odometry throttle) are tested at exact instants without
// sleeping. Construction installs it process-wide, destruction puts the
// system clock back; time moves only when the test moves it (backwards too).
//
// Threading: safe from any thread (code under test reads it on its own).
#ifndef KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
#define KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_

#include <atomic>
#include <cstdint>

#include "middleware/os.h"

namespace KQ {
namespace test {

class ManualClock {
 public:
  // 2023-11-14 22:13:20 UTC: far from the epoch, so "seconds ago" stays positive.
  static constexpr int64_t kDefaultStartSeconds = 1'700'000'000;

  explicit ManualClock(int64_t seconds = kDefaultStartSeconds, int64_t microseconds = 0);
  ~ManualClock();
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  void advanceMicroseconds(int64_t microseconds) { now_ += microseconds; }
  void advanceMilliseconds(int64_t milliseconds) { now_ += milliseconds * 1000; }
  void advanceSeconds(int64_t seconds) { now_ += seconds * 1000000; }
  void set(int64_t seconds, int64_t microseconds = 0) { now_ = seconds * 1000000 + microseconds; }
  ko::os::timeval now() const;
  double nowSeconds() const { return static_cast<double>(now_.load()) * 1e-6; }

 private:
  std::atomic<int64_t> now_;  // microseconds since the epoch
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_MANUAL_CLOCK_H_
