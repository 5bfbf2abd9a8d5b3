#include "middleware/net/worker_pool.h"

#include <chrono>
#include <utility>

namespace KQ {
namespace net {

WorkerPool::WorkerPool(int threads) {
  if (threads < 1) threads = 1;
  threads_.reserve(static_cast<std::size_t>(threads));
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool() { stop(); }

bool WorkerPool::post(Job job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    jobs_.push_back(std::move(job));
    queued_.fetch_add(1, std::memory_order_release);
  }
  // A spinning worker takes the job without being woken.
  if (spinning_.load(std::memory_order_acquire) == 0) ready_.notify_one();
  return true;
}

void WorkerPool::stop() {
  std::deque<Job> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  ready_.notify_all();
  for (std::thread& thread : threads_)
    if (thread.joinable()) thread.join();
  threads_.clear();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(jobs_);
  }
  // Destroyed here, outside the mutex: a job may own the last reference to a
  // connection whose destructor does real work.
  dropped.clear();
}

bool WorkerPool::spinForJob() {
  // One spinner at a time: the others sleep, so an idle burst costs at most
  // one core for kSpinWindow.
  int expected = 0;
  if (!spinning_.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) return false;
  const auto until = std::chrono::steady_clock::now() + kSpinWindow;
  bool found = false;
  while (std::chrono::steady_clock::now() < until) {
    if (queued_.load(std::memory_order_acquire) > 0) {
      found = true;
      break;
    }
    std::this_thread::yield();
  }
  spinning_.store(0, std::memory_order_release);
  return found;
}

void WorkerPool::run() {
  for (;;) {
    Job job;
    spinForJob();
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (stopping_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
      queued_.fetch_sub(1, std::memory_order_release);
    }
    try {
      job();
    } catch (...) {
      // A job reports its own failures; one that escapes must not take the
      // worker, and with it the server, down.
    }
    // The job (and what it captured) is released before waiting again.
    job = nullptr;
  }
}

}  // namespace net
}  // namespace KQ
