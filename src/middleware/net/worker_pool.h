// WorkerPool: a fixed set of threads that run posted jobs in arrival order.
// The RPC server runs every call here, never on its I/O thread, so a method
// that waits on a module's lock holds up only the worker it runs on.
//
// Invariants: a job runs at most once; after stop() no job starts, the ones
// running are waited for, and the ones still queued are destroyed unrun (on
// the thread calling stop()).
//
// Latency: a call's round trip crosses two threads (I/O thread to worker and
// back), and waking a sleeping thread costs more than the call itself. So
// after each job one worker at a time watches the queue for kSpinWindow
// (yielding its core) before it sleeps, and a post that finds it watching
// wakes nobody. An idle pool sleeps.
//
// Threading: post() from any thread, including from a job; stop() from one
// owning thread that is not a worker.
#ifndef KQ_MIDDLEWARE_NET_WORKER_POOL_H_
#define KQ_MIDDLEWARE_NET_WORKER_POOL_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace KQ {
namespace net {

class WorkerPool {
 public:
  using Job = std::function<void()>;

  explicit WorkerPool(int threads);
  ~WorkerPool();  // stops
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Returns false (and drops the job) once the pool is stopping.
  bool post(Job job);
  void stop();

 private:
  void run();  // the body of each worker thread; takes mutex_ itself
  // Watches queued_ for up to kSpinWindow unless another worker already
  // does; true when a job showed up. Takes no lock.
  bool spinForJob();

  static constexpr std::chrono::microseconds kSpinWindow{50};

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Job> jobs_;                // guarded by mutex_
  std::atomic<int> queued_{0};          // jobs_.size(), readable without the mutex
  std::atomic<int> spinning_{0};        // 1 while a worker watches queued_
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_WORKER_POOL_H_
