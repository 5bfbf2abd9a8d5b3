#include "middleware/os.h"

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace ko {
namespace os {

namespace {

using Clock = std::function<void(timeval*)>;

// The installed clock, if any. Readers copy the shared pointer under the
// mutex and call the clock outside it, so a clock may take its own locks.
// The flag spares the common case (system clock) the mutex altogether.
struct ClockSlot {
  std::mutex mutex;
  std::shared_ptr<const Clock> clock;
  std::atomic<bool> replaced{false};
};

ClockSlot& clockSlot() {
  // Never destroyed: log lines written during static destruction still read it.
  static ClockSlot* slot = new ClockSlot;
  return *slot;
}

void systemClock(timeval* tv) {
  ::timeval now{};
  ::gettimeofday(&now, nullptr);
  tv->tv_sec = now.tv_sec;
  tv->tv_usec = now.tv_usec;
}

// Keeps tv_usec in 0..999999 whatever a test clock hands back.
void normalize(timeval* tv) {
  if (tv->tv_usec >= 1000000 || tv->tv_usec < 0) {
    int64_t carry = tv->tv_usec / 1000000;
    tv->tv_usec -= carry * 1000000;
    tv->tv_sec += carry;
    if (tv->tv_usec < 0) {
      tv->tv_usec += 1000000;
      tv->tv_sec -= 1;
    }
  }
}

// Linux keeps at most 15 bytes of a thread name (16 with the terminator).
constexpr size_t kMaxThreadName = 15;

}  // namespace

int gettimeofday(timeval* tv) {
  if (tv == nullptr) return -1;
  ClockSlot& slot = clockSlot();
  if (!slot.replaced.load(std::memory_order_acquire)) {
    systemClock(tv);
    return 0;
  }
  std::shared_ptr<const Clock> clock;
  {
    std::lock_guard<std::mutex> lock(slot.mutex);
    clock = slot.clock;
  }
  if (clock) {
    *tv = timeval{};
    (*clock)(tv);
    normalize(tv);
  } else {
    systemClock(tv);
  }
  return 0;
}

void setClock(std::function<void(timeval*)> clock) {
  ClockSlot& slot = clockSlot();
  std::lock_guard<std::mutex> lock(slot.mutex);
  if (clock) {
    slot.clock = std::make_shared<const Clock>(std::move(clock));
    slot.replaced.store(true, std::memory_order_release);
  } else {
    slot.clock.reset();
    slot.replaced.store(false, std::memory_order_release);
  }
}

void sleep(unsigned seconds) { std::this_thread::sleep_for(std::chrono::seconds(seconds)); }

void msleep(unsigned milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

bool setCurrentThreadName(const std::string& name) {
  // Cut at the first NUL (the kernel would) and then to 15 bytes, stepping
  // back over UTF-8 continuation bytes so that no character is split.
  std::string cut = name.substr(0, name.find('\0'));
  if (cut.size() > kMaxThreadName) {
    size_t end = kMaxThreadName;
    while (end > 0 && (static_cast<unsigned char>(cut[end]) & 0xC0) == 0x80) --end;
    cut.resize(end);
  }
  return pthread_setname_np(pthread_self(), cut.c_str()) == 0;
}

std::string getCurrentThreadName() {
  char buffer[kMaxThreadName + 1] = {};
  if (pthread_getname_np(pthread_self(), buffer, sizeof(buffer)) != 0) return std::string();
  return std::string(buffer);
}

}  // namespace os
}  // namespace ko
