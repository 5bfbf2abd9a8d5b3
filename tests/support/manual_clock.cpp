#include "support/manual_clock.h"

namespace KQ {
namespace test {

ManualClock::ManualClock(int64_t seconds, int64_t microseconds) : seconds_(0), microseconds_(0) {
  set(seconds, microseconds);
  ko::os::setClock([this](ko::os::timeval* tv) { *tv = now(); });
}

ManualClock::~ManualClock() { ko::os::setClock({}); }

void ManualClock::advanceMilliseconds(int64_t milliseconds) { advanceMicroseconds(milliseconds * 1000); }

void ManualClock::advanceSeconds(int64_t seconds) { advanceMicroseconds(seconds * 1000000); }

void ManualClock::advanceMicroseconds(int64_t microseconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  xAddMicroseconds(microseconds);
}

void ManualClock::set(int64_t seconds, int64_t microseconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  seconds_ = seconds;
  microseconds_ = 0;
  xAddMicroseconds(microseconds);
}

void ManualClock::xAddMicroseconds(int64_t microseconds) {
  int64_t total = microseconds_ + microseconds;
  int64_t carry = total / 1000000;
  total -= carry * 1000000;
  if (total < 0) {
    total += 1000000;
    carry -= 1;
  }
  seconds_ += carry;
  microseconds_ = total;
}

ko::os::timeval ManualClock::now() const {
  std::lock_guard<std::mutex> lock(mutex_);
  ko::os::timeval tv;
  tv.tv_sec = seconds_;
  tv.tv_usec = microseconds_;
  return tv;
}

double ManualClock::nowSeconds() const {
  ko::os::timeval tv = now();
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
}

}  // namespace test
}  // namespace KQ
