#include "middleware/shared_mutex.h"

#include <thread>

namespace KQ {

namespace {
const int kWriterYields = 16;  // turns given away before a writer sleeps on a held lock
}  // namespace

// Sleeps and wakes go through sleepMutex_: a reader empties its slot before
// taking it to wake the writer, and the writer looks at the slots while
// holding it, so no wake-up is lost; likewise for the flag's lowering.
bool KQSharedMutex::xNoReaders() const {
  for (const Slot& slot : slots_)
    if (slot.readers.load() != 0) return false;
  return true;
}

void KQSharedMutex::xWaitForWriter() {
  std::unique_lock<std::mutex> sleep(sleepMutex_);
  wake_.wait(sleep, [this] { return !writer_.load(); });
}

void KQSharedMutex::xWakeAll() {
  { std::lock_guard<std::mutex> sleep(sleepMutex_); }
  wake_.notify_all();
}

void KQSharedMutex::lock() {
  // Writers hold the lock for microseconds; a writer that finds it taken
  // first lets others run awake, as waking a sleeper on another core costs
  // more than that on a virtual machine.
  int tries = 0;
  while (!writerMutex_.try_lock()) {
    if (++tries == kWriterYields) {
      writerMutex_.lock();
      break;
    }
    std::this_thread::yield();
  }
  writer_.store(true);
  std::unique_lock<std::mutex> sleep(sleepMutex_);
  wake_.wait(sleep, [this] { return xNoReaders(); });
}

void KQSharedMutex::unlock() { xReleaseWriter(); }

void KQSharedMutex::xReleaseWriter() {
  {
    std::lock_guard<std::mutex> sleep(sleepMutex_);
    writer_.store(false);
  }
  wake_.notify_all();
  writerMutex_.unlock();
}

bool KQSharedMutex::try_lock() {
  if (!writerMutex_.try_lock()) return false;
  writer_.store(true);
  if (xNoReaders()) return true;
  xReleaseWriter();
  return false;
}

}  // namespace KQ
