// ServerContext: what the RPC server's connections share: the options, the
// dispatcher, the worker pools (the lane for lock-free calls and the
// workers), the budgets every client draws on, the refusal log's throttle,
// and the registry of open connections that stop() closes.
//
// Ownership: RpcServer owns the context; every connection holds a plain
// reference to it, which stays valid because stop() closes and forgets every
// connection, and drains the worker pool, before the context goes.
//
// Threading: options, port and bound host are written before the first
// connection and only read afterwards; the registry has its own mutex;
// budgets are atomic.
#ifndef KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_
#define KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_

#include <algorithm>
#include <atomic>
#include <functional>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/log.h"
#include "middleware/net/rpc_dispatcher.h"
#include "middleware/net/rpc_server.h"
#include "middleware/net/worker_pool.h"

namespace KQ {
namespace net {

// A connection that stop() can close.
class Connection {
 public:
  virtual ~Connection() = default;
  // Runs on the I/O thread: drops subscriptions and closes the socket.
  virtual void shutdown() = 0;
};

class ConnectionRegistry {
 public:
  void add(const Connection* key, std::weak_ptr<Connection> connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_[key] = std::move(connection);
  }
  void remove(const Connection* key) {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(key);
  }
  std::vector<std::shared_ptr<Connection>> live() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<Connection>> out;
    for (const auto& entry : connections_)
      if (auto connection = entry.second.lock()) out.push_back(std::move(connection));
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::map<const Connection*, std::weak_ptr<Connection>> connections_;
};

// A quantity shared by all clients (connections, calls, bytes): take() a
// share before holding it, give() it back after. Lock-free.
class Budget {
 public:
  explicit Budget(std::size_t limit) : limit_(limit) {}
  bool take(std::size_t amount) {
    std::size_t used = used_.load(std::memory_order_relaxed);
    do {
      if (amount > limit_ || used > limit_ - amount) return false;
    } while (!used_.compare_exchange_weak(used, used + amount, std::memory_order_acq_rel));
    return true;
  }
  void give(std::size_t amount) { used_.fetch_sub(amount, std::memory_order_acq_rel); }
  std::size_t used() const { return used_.load(std::memory_order_acquire); }
  std::size_t limit() const { return limit_; }

 private:
  const std::size_t limit_;
  std::atomic<std::size_t> used_{0};
};

// A share of a budget, given back when destroyed (move-only).
class BudgetShare {
 public:
  BudgetShare() = default;
  BudgetShare(Budget& budget, std::size_t amount) : budget_(&budget), amount_(amount) {}
  BudgetShare(BudgetShare&& other) noexcept : budget_(other.budget_), amount_(other.amount_) { other.budget_ = nullptr; }
  BudgetShare& operator=(BudgetShare&& other) noexcept {
    if (this != &other) {
      reset();
      budget_ = other.budget_;
      amount_ = other.amount_;
      other.budget_ = nullptr;
    }
    return *this;
  }
  ~BudgetShare() { reset(); }
  void reset() {
    if (budget_) budget_->give(amount_);
    budget_ = nullptr;
  }

 private:
  Budget* budget_ = nullptr;
  std::size_t amount_ = 0;
};

// A call's claim on the call budgets: one call and its text's bytes.
struct CallShare {
  BudgetShare call;
  BudgetShare bytes;
};

struct ServerContext {
  // Threads of the lane for calls that take no module lock: enough that one
  // slow parse does not hold the others up.
  static constexpr int kLockFreeThreads = 2;

  ServerContext(std::shared_ptr<KQBroker> broker, RpcServerOptions serverOptions)
      : options(std::move(serverOptions)),
        dispatcher(std::move(broker), options.lockFreeMethods, options.maxReplyBytes),
        lockFreeLane(kLockFreeThreads),
        pool(options.workerThreads),
        connectionBudget(static_cast<std::size_t>(std::max(options.maxConnections, 1))),
        callBudget(static_cast<std::size_t>(std::max(options.maxCalls, 1))),
        callByteBudget(options.maxQueuedBytes),
        sendByteBudget(options.maxQueuedBytes) {}

  // A share of both call budgets for a call of that many bytes; false (and
  // nothing taken) when either is spent.
  bool takeCall(std::size_t bytes, CallShare& share) {
    if (!callBudget.take(1)) return false;
    BudgetShare call(callBudget, 1);
    if (!callByteBudget.take(bytes)) return false;
    share.call = std::move(call);
    share.bytes = BudgetShare(callByteBudget, bytes);
    return true;
  }

  // Runs one message: parsed on the lock-free lane, run there when every
  // call in it is lock-free, else handed to the workers; done(reply) is
  // called on the thread that ran it, with the share still held (it is
  // given back after). subscriptions must live until done is called (done
  // usually owns it). False when the server is stopping.
  bool postCall(std::string text, RpcSubscriptions* subscriptions, std::shared_ptr<CallShare> share,
                std::function<void(std::string)> done) {
    return lockFreeLane.post([this, text = std::move(text), subscriptions, share = std::move(share),
                              done = std::move(done)]() mutable {
      auto message = std::make_shared<PreparedMessage>(dispatcher.prepare(text));
      text.clear();
      text.shrink_to_fit();
      if (message->lockFree) {
        done(dispatcher.run(*message, subscriptions));
        return;
      }
      pool.post([this, message, subscriptions, share, done]() { done(dispatcher.run(*message, subscriptions)); });
    });
  }

  // Logs a refusal unless the same client was refused within the last
  // second; the next line says how many were left out.
  void logRefusal(const std::string& client, const std::string& what) {
    uint64_t suppressed = 0;
    if (!refusals.admit(client, &suppressed)) return;
    KO_LOG(ko::log::warning, "KQRpcServer", "", "refuse", 0)
        << "Refused " << client << ": " << what
        << (suppressed ? " (and " + std::to_string(suppressed) + " more in the last second)" : std::string());
  }

  RpcServerOptions options;
  RpcDispatcher dispatcher;
  WorkerPool lockFreeLane;
  WorkerPool pool;
  unsigned short port = 0;  // the bound port
  ConnectionRegistry connections;
  Budget connectionBudget;
  Budget callBudget;
  Budget callByteBudget;
  Budget sendByteBudget;
  ko::log::Throttle refusals;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_SERVER_CONTEXT_H_
