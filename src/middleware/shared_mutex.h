// KQSharedMutex: a reader-writer lock the compiler can reason about. It is
// boost::shared_mutex (writers exclusive, readers shared, try-locks that
// never wait) declared as a capability, with scoped writer and reader locks,
// so that members marked GUARDED_BY(lock) and helpers marked REQUIRES(lock)
// are checked by clang's -Wthread-safety.
//
// Invariants: a scoped lock holds its mutex from construction to destruction;
// TryWriterLock/TryReaderLock hold it only when owns() is true.
// Threading: a mutex is shared by every thread that locks it; a scoped lock
// belongs to the thread that made it.
#ifndef KQ_MIDDLEWARE_SHARED_MUTEX_H_
#define KQ_MIDDLEWARE_SHARED_MUTEX_H_

#include <boost/thread/shared_mutex.hpp>

#include "middleware/thread_annotations.h"

namespace KQ {

class CAPABILITY("mutex") KQSharedMutex {
 public:
  KQSharedMutex() = default;
  KQSharedMutex(const KQSharedMutex&) = delete;
  KQSharedMutex& operator=(const KQSharedMutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }
  bool try_lock_shared() TRY_ACQUIRE_SHARED(true) { return mutex_.try_lock_shared(); }

  // Tell the analysis a lock taken by a try-lock below is held from here on.
  void assertHeld() const ASSERT_CAPABILITY(this) {}
  void assertReaderHeld() const ASSERT_SHARED_CAPABILITY(this) {}

 private:
  boost::shared_mutex mutex_;
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
