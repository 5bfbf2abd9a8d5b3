#include "support/manual_clock.h"

namespace KQ {
namespace test {

ManualClock::ManualClock(int64_t seconds, int64_t microseconds) : now_(seconds * 1000000 + microseconds) {
  ko::os::setClock([this](ko::os::timeval* tv) { *tv = now(); });
}

ManualClock::~ManualClock() { ko::os::setClock({}); }

ko::os::timeval ManualClock::now() const {
  const int64_t total = now_.load();
  int64_t seconds = total / 1000000;
  int64_t microseconds = total % 1000000;
  if (microseconds < 0) {  // before the epoch: microseconds stay in [0, 1e6)
    microseconds += 1000000;
    seconds -= 1;
  }
  ko::os::timeval tv;
  tv.tv_sec = seconds;
  tv.tv_usec = microseconds;
  return tv;
}

}  // namespace test
}  // namespace KQ
