// KQSharedMutex: a reader-writer lock the compiler can reason about (writers
// exclusive, readers shared, try-locks that never wait), declared as a
// capability, with scoped writer and reader locks, so that members marked
// GUARDED_BY(lock) and helpers marked REQUIRES(lock) are checked by clang's
// -Wthread-safety.
//
// Built for reads that are far more frequent than writes and that run on
// several cores at once (pose queries): a reader only touches a counter of
// its own thread's slot, on a cache line of its own, and reads the writer
// flag, which stays shared in every core's cache while no writer comes; so
// readers on different cores never write to the same line and scale with
// the cores. A writer raises the flag (new readers step back and sleep),
// then sleeps until every slot is empty. Writers come first: once a writer
// waits, no new reader enters. A writer finding another writer in gives its
// core away a few times before it sleeps: writers hold the lock for
// microseconds, less than waking a sleeper on another core costs on a
// virtual machine.
//
// Invariants: a scoped lock holds its mutex from construction to destruction;
// TryWriterLock/TryReaderLock hold it only when owns() is true. A reader
// releases the lock on the thread that took it (its slot is its thread's).
// Threading: a mutex is shared by every thread that locks it; a scoped lock
// belongs to the thread that made it. A thread that holds the lock never
// takes it again (a reader would wait for a writer that waits for it).
#ifndef KQ_MIDDLEWARE_SHARED_MUTEX_H_
#define KQ_MIDDLEWARE_SHARED_MUTEX_H_

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "middleware/thread_annotations.h"

namespace KQ {

class CAPABILITY("mutex") KQSharedMutex {
 public:
  KQSharedMutex() = default;
  KQSharedMutex(const KQSharedMutex&) = delete;
  KQSharedMutex& operator=(const KQSharedMutex&) = delete;

  void lock() ACQUIRE();
  void unlock() RELEASE();
  bool try_lock() TRY_ACQUIRE(true);
  void lock_shared() ACQUIRE_SHARED() {
    std::atomic<int>& readers = xSlot();
    // The increment and the flag's read are both sequentially consistent,
    // as are the writer's raising of the flag and reading of the slots: one
    // of the two always sees the other.
    while (true) {
      readers.fetch_add(1);
      if (!writer_.load()) return;
      readers.fetch_sub(1);
      xWakeAll();  // the writer may have seen this slot taken and gone to sleep
      xWaitForWriter();
    }
  }
  void unlock_shared() RELEASE_SHARED() {
    xSlot().fetch_sub(1);
    if (writer_.load()) xWakeAll();  // a writer may sleep until this slot is empty
  }
  bool try_lock_shared() TRY_ACQUIRE_SHARED(true) {
    std::atomic<int>& readers = xSlot();
    readers.fetch_add(1);
    if (!writer_.load()) return true;
    readers.fetch_sub(1);
    xWakeAll();
    return false;
  }

  // Tell the analysis a lock taken by a try-lock below is held from here on.
  void assertHeld() const ASSERT_CAPABILITY(this) {}
  void assertReaderHeld() const ASSERT_SHARED_CAPABILITY(this) {}

 private:
  static constexpr int kSlots = 16;
  struct alignas(64) Slot {
    std::atomic<int> readers{0};
  };
  // The calling thread's slot: threads are given slots in turn, so two
  // threads share one only beyond kSlots threads (still correct, only slower).
  std::atomic<int>& xSlot() {
    static std::atomic<unsigned> nextSlot{0};
    thread_local const unsigned slot = nextSlot.fetch_add(1) % kSlots;
    return slots_[slot].readers;
  }
  bool xNoReaders() const;
  void xWaitForWriter();  // sleeps while the writer flag is up
  void xWakeAll();        // wakes every sleeper, to look again
  void xReleaseWriter();  // lowers the flag, wakes the readers, lets the next writer in

  Slot slots_[kSlots];
  alignas(64) std::atomic<bool> writer_{false};  // up from a writer's arrival to its unlock
  alignas(64) std::mutex writerMutex_;           // one writer at a time
  std::mutex sleepMutex_;                        // guards the sleeps on `wake_`
  std::condition_variable wake_;
};

class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(KQSharedMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() RELEASE() { mutex_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  KQSharedMutex& mutex_;
};

class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(KQSharedMutex& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
  ~ReaderLock() RELEASE() { mutex_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  KQSharedMutex& mutex_;
};

// Try-locks for the operations that never wait (save, load): owns() says
// whether the lock was free. The analysis cannot follow a try inside a
// constructor, so the caller asserts the lock (assertHeld) once owns() is
// true; the destructor releases only what was taken.
class TryWriterLock {
 public:
  explicit TryWriterLock(KQSharedMutex& mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                          owns_(mutex.try_lock()) {}
  ~TryWriterLock() NO_THREAD_SAFETY_ANALYSIS {
    if (owns_) mutex_.unlock();
  }
  TryWriterLock(const TryWriterLock&) = delete;
  TryWriterLock& operator=(const TryWriterLock&) = delete;
  bool owns() const { return owns_; }

 private:
  KQSharedMutex& mutex_;
  const bool owns_;
};

class TryReaderLock {
 public:
  explicit TryReaderLock(KQSharedMutex& mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                          owns_(mutex.try_lock_shared()) {}
  ~TryReaderLock() NO_THREAD_SAFETY_ANALYSIS {
    if (owns_) mutex_.unlock_shared();
  }
  TryReaderLock(const TryReaderLock&) = delete;
  TryReaderLock& operator=(const TryReaderLock&) = delete;
  bool owns() const { return owns_; }

 private:
  KQSharedMutex& mutex_;
  const bool owns_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_SHARED_MUTEX_H_
