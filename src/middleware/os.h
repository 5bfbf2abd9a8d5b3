// ko::os: the clock, sleeping and thread names.
//
// gettimeofday reads the process clock, which is the system's wall clock
// unless a test installs a controllable one with setClock (so that throttles
// and time stamps can be tested without sleeping). sleep always sleeps for
// real.
//
// Threading: all functions are safe from any thread; setClock is meant for
// test set-up, before the threads that read the clock start.
#ifndef KQ_MIDDLEWARE_OS_H_
#define KQ_MIDDLEWARE_OS_H_

#include <cstdint>
#include <functional>
#include <string>

namespace ko {
namespace os {

struct timeval {
  int64_t tv_sec = 0;   // seconds since the epoch
  int64_t tv_usec = 0;  // microseconds, 0..999999
};

// Returns 0; fills *tv with the current time.
int gettimeofday(timeval* tv);

// Replaces the clock read by gettimeofday; an empty function restores the
// system clock.
void setClock(std::function<void(timeval*)> clock);

void sleep(unsigned seconds);
void msleep(unsigned milliseconds);

// Names the calling thread. Linux keeps at most 15 bytes: longer names are
// cut to fit. Returns false when the system refused the name.
bool setCurrentThreadName(const std::string& name);
std::string getCurrentThreadName();

}  // namespace os
}  // namespace ko

#endif  // KQ_MIDDLEWARE_OS_H_
