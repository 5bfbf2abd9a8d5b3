// WorkerPool: a fixed set of threads that run posted jobs in arrival order.
// The RPC server runs every call here, never on its I/O thread, so a method
// that waits on a module's lock holds up only the worker it runs on.
//
// Invariants: a job runs at most once; after stop() no job starts, the ones
// running are waited for, and the ones still queued are destroyed unrun (on
// the thread calling stop()).
//
// Threading: post() from any thread, including from a job; stop() from one
// owning thread that is not a worker.
#ifndef KQ_MIDDLEWARE_NET_WORKER_POOL_H_
#define KQ_MIDDLEWARE_NET_WORKER_POOL_H_

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
  void xRun();  // the body of each worker thread; takes mutex_ itself

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_WORKER_POOL_H_
