// RedisMemoryStore: KQMemory's values and events in a Redis server (through
// hiredis), shared by every service started with the same --memory URL and
// --memory-prefix.
//
// Layout under the prefix P (default "kq:"), values in the memory value
// encoding (memory_value_encoding.h):
//   P + "data:" + key   string   the value of memory key `key` (an event's
//                                last value under the event's name)
//   P + "eventlist"     zset     declared event names, scored by the time of
//                                their first declaration (microseconds)
//   P + "events"        stream   one entry per raise, fields "name" and
//                                "value", trimmed to about 10000 entries
// A raise is published as a stream entry rather than a pub/sub message so
// that a service that lost its connection reads on from the last entry it
// saw when it is back: it misses nothing raised while it reconnects.
//
// Connections: one for commands (serialised by commandMutex_) and one that
// the delivery thread blocks on (XREAD). A lost command connection fails the
// call at hand and every call until the next attempt, at once, with
// "memory store unavailable: URL: cause"; the next call after the backoff
// (50 ms doubling to 1 s) connects again; so does the first call after the
// delivery thread saw the server go, whose connection is stale. Each connect and each reply waits
// at most the I/O timeout (400 ms), so no call takes a second. The delivery
// thread reconnects with the same backoff on its own.
//
// Threading: every public member is safe from any thread; the sink runs on
// the delivery thread only.
#ifndef KQ_MIDDLEWARE_MODULES_REDIS_MEMORY_STORE_H_
#define KQ_MIDDLEWARE_MODULES_REDIS_MEMORY_STORE_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "middleware/modules/memory_store.h"
#include "middleware/shared_mutex.h"
#include "middleware/thread_annotations.h"

struct redisContext;
struct redisReply;

namespace KQ {

// Where the server is: redis://HOST[:PORT][/DB] or unix:///PATH[?db=N].
struct RedisAddress {
  std::string host;        // empty for a Unix socket
  int port = 6379;
  std::string socketPath;  // empty for TCP
  int db = 0;
};

// Throws std::invalid_argument naming what is wrong with the URL.
RedisAddress parseRedisUrl(const std::string& url);

class RedisMemoryStore : public KQMemoryStore {
 public:
  // Connects at once: throws KQMemoryStoreError "Cannot reach the memory
  // store URL: cause" when the server does not answer, and
  // std::invalid_argument for a malformed URL.
  RedisMemoryStore(const std::string& url, const std::string& prefix);
  ~RedisMemoryStore() override;
  RedisMemoryStore(const RedisMemoryStore&) = delete;
  RedisMemoryStore& operator=(const RedisMemoryStore&) = delete;

  void insertData(const std::string& key, const KQValue& value) override EXCLUDES(commandMutex_);
  std::optional<KQValue> getData(const std::string& key) override EXCLUDES(commandMutex_);
  std::vector<std::string> getDataList(const std::string& filter) override EXCLUDES(commandMutex_);
  void removeData(const std::string& key) override EXCLUDES(commandMutex_);
  void declareEvent(const std::string& name) override EXCLUDES(commandMutex_);
  std::vector<std::string> getEventList() override EXCLUDES(commandMutex_);
  void raiseEvent(const std::string& name, const KQValue& value) override EXCLUDES(commandMutex_);

  void startDelivery(EventSink sink) override;
  void stopDelivery() override;

 private:
  struct ContextDeleter {
    void operator()(redisContext* context) const;
  };
  struct ReplyDeleter {
    void operator()(redisReply* reply) const;
  };
  using Context = std::unique_ptr<redisContext, ContextDeleter>;
  using Reply = std::unique_ptr<redisReply, ReplyDeleter>;
  using Command = std::vector<std::string>;

  // A connected context, or null with the cause in error.
  Context connect(std::string& error) const;

  // Sends the commands in one pipeline and returns their replies in order;
  // an error reply throws. Connects first when needed (and allowed by the
  // backoff); a broken connection is dropped and reported as unavailable.
  std::vector<Reply> xRun(const std::vector<Command>& commands) REQUIRES(commandMutex_);
  Reply run(const Command& command) EXCLUDES(commandMutex_);
  [[noreturn]] void xUnavailable(const std::string& cause) REQUIRES(commandMutex_);

  void deliverLoop(EventSink sink);
  // Waits up to `pause` unless a stop is asked; false when it is.
  bool pauseUnlessStopping(std::chrono::milliseconds pause);

  const std::string url_;
  const RedisAddress address_;
  const std::string dataPrefix_;   // prefix + "data:"
  const std::string eventListKey_;
  const std::string streamKey_;

  KQSharedMutex commandMutex_;
  Context command_ GUARDED_BY(commandMutex_);
  std::chrono::steady_clock::time_point retryAt_ GUARDED_BY(commandMutex_);
  std::chrono::milliseconds backoff_ GUARDED_BY(commandMutex_);
  std::string lastCause_ GUARDED_BY(commandMutex_);
  // How often the delivery thread lost the server, and that count when the
  // command connection was made.
  std::atomic<unsigned> streamLosses_{0};
  unsigned commandLosses_ GUARDED_BY(commandMutex_) = 0;

  // The id of the last stream entry seen, read by the delivery thread only
  // once it runs (set before it starts).
  std::string lastEntryId_;
  std::thread reader_;
  std::mutex stopMutex_;
  std::condition_variable stopAsked_;
  bool stopping_ = false;  // guarded by stopMutex_
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_REDIS_MEMORY_STORE_H_
