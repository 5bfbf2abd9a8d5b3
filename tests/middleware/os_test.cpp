// ko::os: the clock a test can hold still and move by exact steps, and the
// thread names the kernel cuts at 15 bytes.
#include "middleware/os.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/manual_clock.h"

namespace ko {
namespace os {
namespace {

using KQ::test::ManualClock;

timeval readClock() {
  timeval tv;
  EXPECT_EQ(0, gettimeofday(&tv));
  return tv;
}

int64_t systemSeconds() {
  ::timeval tv{};
  ::gettimeofday(&tv, nullptr);
  return tv.tv_sec;
}

// Names the thread it runs on and reports what the kernel kept.
struct NamingResult {
  bool accepted = false;
  std::string kept;
};
NamingResult nameAThread(const std::string& name) {
  NamingResult result;
  std::thread worker([&] {
    result.accepted = setCurrentThreadName(name);
    result.kept = getCurrentThreadName();
  });
  worker.join();
  return result;
}

TEST(OsTest, ManualClockHoldsTimeStillAndMovesItExactly) {
  {
    ManualClock clock;
    // Case: the clock stands at its start until the test moves it.
    timeval t0 = readClock();
    EXPECT_EQ(ManualClock::kDefaultStartSeconds, t0.tv_sec);
    EXPECT_EQ(0, t0.tv_usec);

    // Case: microseconds carry into seconds.
    clock.set(100, 999'990);
    clock.advanceMicroseconds(20);
    timeval carried = readClock();
    EXPECT_EQ(101, carried.tv_sec);
    EXPECT_EQ(10, carried.tv_usec);
  }
  // Case: once the manual clock is gone, the system clock is back.
  int64_t now = readClock().tv_sec;
  EXPECT_GE(now, systemSeconds() - 5);
  EXPECT_LE(now, systemSeconds() + 5);
}

TEST(OsTest, InstalledClocksAreNormalisedAndRemovable) {
  // Case: a clock that hands back microseconds out of range is corrected.
  setClock([](timeval* tv) {
    tv->tv_sec = 10;
    tv->tv_usec = 1'500'000;
  });
  timeval t = readClock();
  EXPECT_EQ(11, t.tv_sec);
  EXPECT_EQ(500'000, t.tv_usec);
  setClock([](timeval* tv) {
    tv->tv_sec = 10;
    tv->tv_usec = -1;
  });
  t = readClock();
  EXPECT_EQ(9, t.tv_sec);
  EXPECT_EQ(999'999, t.tv_usec);

  // Case: an empty function restores the system clock.
  setClock({});
  EXPECT_GE(readClock().tv_sec, systemSeconds() - 5);

  // Case: a null pointer is refused, not written through.
  EXPECT_EQ(-1, gettimeofday(nullptr));
}

TEST(OsTest, ClockReadFromOtherThreadsWhileTheTestMovesIt) {
  ManualClock clock(1'000, 0);
  std::atomic<bool> stop{false};
  std::atomic<bool> wentBack{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      int64_t last = 0;
      while (!stop.load()) {
        timeval tv;
        gettimeofday(&tv);
        int64_t micros = tv.tv_sec * 1'000'000 + tv.tv_usec;
        if (micros < last) wentBack = true;
        last = micros;
      }
    });
  }
  for (int i = 0; i < 2'000; ++i) clock.advanceMicroseconds(700);
  stop = true;
  for (auto& reader : readers) reader.join();
  // Case: a forward-only clock is never seen going back (no torn reads).
  EXPECT_FALSE(wentBack.load());
  EXPECT_EQ(1'001, clock.now().tv_sec);
  EXPECT_EQ(400'000, clock.now().tv_usec);
}

TEST(OsTest, ThreadNamesAreCutToFifteenBytes) {
  // Case: the memory watcher's 19-byte name is cut, not refused.
  NamingResult watcher = nameAThread("KQWorldRep-KQMemory");
  EXPECT_TRUE(watcher.accepted);
  EXPECT_EQ("KQWorldRep-KQMe", watcher.kept);

  // Case: exactly 15 bytes fit.
  EXPECT_EQ("123456789012345", nameAThread("123456789012345").kept);
  // Case: a cut never splits a UTF-8 character ("é" is two bytes, the
  // 15-byte limit falls between them).
  EXPECT_EQ("abcdefghijklmn", nameAThread("abcdefghijklmn\xc3\xa9xyz").kept);

  // Case: the name ends at an embedded NUL, as the kernel would read it.
  EXPECT_EQ("ab", nameAThread(std::string("ab\0cd", 5)).kept);

}

}  // namespace
}  // namespace os
}  // namespace ko
