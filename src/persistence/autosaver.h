// Autosaver: the thread of --autosave SECONDS. It calls `save` every period,
// counted from the start of the previous call, so a slow save does not push
// the rounds later and later. A save that answers busy (non-zero: a lock
// was taken, the save tries and never waits) only skips its round; the next
// round tries again. Each round logs one verbose line with its outcome and
// duration; a save that throws is logged as an error and the thread goes on.
//
// Invariants: the thread runs from the constructor until stop() (or the
// destructor); stop() wakes a sleeping round at once and joins, and may be
// called twice.
//
// Threading: construct and stop from one owner thread; `save` runs on the
// autosave thread only and must be safe to call beside the module's other
// threads (the module's save takes its locks with try-locks).
#ifndef KQ_PERSISTENCE_AUTOSAVER_H_
#define KQ_PERSISTENCE_AUTOSAVER_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace KQ {

class Autosaver {
 public:
  Autosaver(std::chrono::milliseconds period, std::function<int()> save);
  ~Autosaver();
  Autosaver(const Autosaver&) = delete;
  Autosaver& operator=(const Autosaver&) = delete;

  void stop();

 private:
  void run();

  const std::chrono::milliseconds period_;
  const std::function<int()> save_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;  // guarded by mutex_
  std::thread thread_;     // last: starts once the members above exist
};

}  // namespace KQ

#endif  // KQ_PERSISTENCE_AUTOSAVER_H_
