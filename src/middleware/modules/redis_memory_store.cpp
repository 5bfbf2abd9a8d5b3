#include "middleware/modules/redis_memory_store.h"

#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <set>
#include <stdexcept>
#include <utility>

#include "middleware/log.h"
#include "middleware/modules/memory_value_encoding.h"

namespace KQ {

namespace {

const char* const kLogCategory = "KQMemory";
constexpr std::chrono::milliseconds kIoTimeout{400};
constexpr std::chrono::milliseconds kFirstBackoff{50};
constexpr std::chrono::milliseconds kLastBackoff{1000};
// XREAD blocks this long, so that a stop is seen at least this often.
constexpr int kBlockMs = 300;
const char* const kStreamLength = "10000";

timeval toTimeval(std::chrono::milliseconds duration) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(duration.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((duration.count() % 1000) * 1000);
  return tv;
}

bool parseNumber(const std::string& text, int maximum, int& out) {
  if (text.empty() || text.size() > 9) return false;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  if (value > maximum) return false;
  out = value;
  return true;
}

// A SCAN pattern that matches the text literally.
std::string globEscape(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string replyText(const redisReply* reply) { return std::string(reply->str, reply->len); }

std::string commandName(const std::vector<std::string>& command) { return command.empty() ? "" : command[0]; }

// Keeps a write on a connection the server closed from killing the process
// with SIGPIPE (hiredis writes with write(2), which raises it): blocked in
// this thread while the guard lives, and a SIGPIPE left pending is taken
// before it is unblocked. The process's own disposition is not touched.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~SigpipeGuard() {
    const timespec none{0, 0};
    sigset_t pending;
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE) == 1 && sigismember(&before_, SIGPIPE) == 0) sigtimedwait(&pipe_, nullptr, &none);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t pipe_;
  sigset_t before_;
};

// Microseconds since the epoch: the declaration order of the event list.
std::string nowMicroseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

RedisAddress parseRedisUrl(const std::string& url) {
  RedisAddress address;
  const auto bad = [&](const std::string& why) {
    return std::invalid_argument("memory URL " + url + " " + why +
                                 " (redis://HOST:PORT[/DB] or unix:///PATH[?db=N])");
  };
  const std::string tcp = "redis://";
  const std::string unix = "unix://";
  if (url.rfind(unix, 0) == 0) {
    std::string rest = url.substr(unix.size());
    const std::size_t query = rest.find('?');
    if (query != std::string::npos) {
      const std::string option = rest.substr(query + 1);
      rest.resize(query);
      if (option.rfind("db=", 0) != 0 || !parseNumber(option.substr(3), 1 << 20, address.db))
        throw bad("has an unknown option " + option);
    }
    if (rest.empty() || rest[0] != '/') throw bad("needs an absolute socket path");
    address.socketPath = rest;
    return address;
  }
  if (url.rfind(tcp, 0) != 0) throw bad("is neither redis:// nor unix://");
  std::string rest = url.substr(tcp.size());
  const std::size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    const std::string db = rest.substr(slash + 1);
    rest.resize(slash);
    if (!db.empty() && !parseNumber(db, 1 << 20, address.db)) throw bad("has a database that is not a number");
  }
  if (rest.find('@') != std::string::npos) throw bad("holds credentials, which are not supported");
  std::size_t colon = rest.rfind(':');
  if (!rest.empty() && rest[0] == '[') {  // [::1]:6379
    const std::size_t close = rest.find(']');
    if (close == std::string::npos) throw bad("has an unclosed [");
    address.host = rest.substr(1, close - 1);
    colon = rest.find(':', close);
  } else {
    address.host = rest.substr(0, colon);
  }
  if (colon != std::string::npos && !parseNumber(rest.substr(colon + 1), 65535, address.port))
    throw bad("has a port that is not a number from 0 to 65535");
  if (address.host.empty()) throw bad("names no host");
  return address;
}

void RedisMemoryStore::ContextDeleter::operator()(redisContext* context) const { redisFree(context); }
void RedisMemoryStore::ReplyDeleter::operator()(redisReply* reply) const { freeReplyObject(reply); }

RedisMemoryStore::RedisMemoryStore(const std::string& url, const std::string& prefix)
    : url_(url),
      address_(parseRedisUrl(url)),
      dataPrefix_(prefix + "data:"),
      eventListKey_(prefix + "eventlist"),
      streamKey_(prefix + "events"),
      backoff_(kFirstBackoff) {
  std::string cause;
  WriterLock lock(commandMutex_);
  command_ = connect(cause);
  if (!command_) throw KQMemoryStoreError("Cannot reach the memory store " + url_ + ": " + cause);
  // Delivery starts after the last raise already in the stream.
  const std::vector<Reply> last = xRun({{"XREVRANGE", streamKey_, "+", "-", "COUNT", "1"}});
  lastEntryId_ = "0-0";
  if (last[0]->type == REDIS_REPLY_ARRAY && last[0]->elements == 1 && last[0]->element[0]->elements == 2)
    lastEntryId_ = replyText(last[0]->element[0]->element[0]);
}

RedisMemoryStore::~RedisMemoryStore() { stopDelivery(); }

RedisMemoryStore::Context RedisMemoryStore::connect(std::string& error) const {
  const SigpipeGuard noSigpipe;
  const timeval timeout = toTimeval(kIoTimeout);
  Context context(address_.socketPath.empty()
                      ? redisConnectWithTimeout(address_.host.c_str(), address_.port, timeout)
                      : redisConnectUnixWithTimeout(address_.socketPath.c_str(), timeout));
  if (!context) {
    error = "out of memory";
    return nullptr;
  }
  if (context->err != 0) {
    error = context->errstr;
    return nullptr;
  }
  if (redisSetTimeout(context.get(), timeout) != REDIS_OK) {
    error = std::strerror(errno);
    return nullptr;
  }
  if (address_.db != 0) {
    Reply selected(static_cast<redisReply*>(redisCommand(context.get(), "SELECT %d", address_.db)));
    if (!selected || selected->type == REDIS_REPLY_ERROR) {
      error = selected ? replyText(selected.get()) : std::string(context->errstr);
      return nullptr;
    }
  }
  return context;
}

void RedisMemoryStore::xUnavailable(const std::string& cause) {
  command_.reset();
  lastCause_ = cause;
  retryAt_ = std::chrono::steady_clock::now() + backoff_;
  backoff_ = std::min(backoff_ * 2, kLastBackoff);
  throw KQMemoryStoreError("memory store unavailable: " + url_ + ": " + cause);
}

std::vector<RedisMemoryStore::Reply> RedisMemoryStore::xRun(const std::vector<Command>& commands) {
  const SigpipeGuard noSigpipe;
  // The delivery thread saw the server go since this connection was made: it
  // is stale (its first write would fail), so a fresh one is made at once.
  if (command_ && commandLosses_ != streamLosses_.load()) command_.reset();
  if (!command_) {
    if (std::chrono::steady_clock::now() < retryAt_)
      throw KQMemoryStoreError("memory store unavailable: " + url_ + ": " + lastCause_);
    std::string cause;
    commandLosses_ = streamLosses_.load();
    command_ = connect(cause);
    if (!command_) xUnavailable(cause);
    KO_LOG(ko::log::info, kLogCategory, "", "RedisMemoryStore", 0) << "Connected again to " << url_;
    backoff_ = kFirstBackoff;
  }
  for (const Command& command : commands) {
    std::vector<const char*> argv;
    std::vector<size_t> lengths;
    for (const std::string& arg : command) {
      argv.push_back(arg.data());
      lengths.push_back(arg.size());
    }
    if (redisAppendCommandArgv(command_.get(), static_cast<int>(argv.size()), argv.data(), lengths.data()) != REDIS_OK)
      xUnavailable(command_->errstr);
  }
  std::vector<Reply> replies;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    void* raw = nullptr;
    if (redisGetReply(command_.get(), &raw) != REDIS_OK || raw == nullptr) {
      const std::string cause = command_->err == REDIS_ERR_IO && command_->errstr[0] == '\0'
                                    ? std::string(std::strerror(errno))
                                    : std::string(command_->errstr);
      xUnavailable(cause);
    }
    replies.emplace_back(static_cast<redisReply*>(raw));
  }
  // Error replies are read to the end first, so the connection stays in step.
  for (std::size_t i = 0; i < replies.size(); ++i) {
    if (replies[i]->type == REDIS_REPLY_ERROR)
      throw KQMemoryStoreError("the memory store refused " + commandName(commands[i]) + ": " +
                               replyText(replies[i].get()));
  }
  return replies;
}

RedisMemoryStore::Reply RedisMemoryStore::run(const Command& command) {
  WriterLock lock(commandMutex_);
  return std::move(xRun({command})[0]);
}

void RedisMemoryStore::insertData(const std::string& key, const KQValue& value) {
  run({"SET", dataPrefix_ + key, encodeMemoryValue(value)});
}

std::optional<KQValue> RedisMemoryStore::getData(const std::string& key) {
  const Reply reply = run({"GET", dataPrefix_ + key});
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  try {
    if (reply->type != REDIS_REPLY_STRING) throw KQMemoryEncodingError("not a string");
    return decodeMemoryValue(std::string_view(reply->str, reply->len));
  } catch (const KQMemoryEncodingError& e) {
    throw KQMemoryStoreError("the value under key " + key + " is not in the memory encoding: " + e.what());
  }
}

std::vector<std::string> RedisMemoryStore::getDataList(const std::string& filter) {
  // SCAN, never KEYS: a large store must not stall the server for others.
  const std::string pattern = globEscape(dataPrefix_) + "*" + globEscape(filter) + "*";
  std::set<std::string> keys;  // SCAN may return a key twice
  std::string cursor = "0";
  WriterLock lock(commandMutex_);
  do {
    const Reply reply = std::move(xRun({{"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"}})[0]);
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2)
      throw KQMemoryStoreError("the memory store answered SCAN in an unknown form");
    cursor = replyText(reply->element[0]);
    const redisReply* found = reply->element[1];
    for (std::size_t i = 0; i < found->elements; ++i)
      keys.insert(replyText(found->element[i]).substr(dataPrefix_.size()));
  } while (cursor != "0");
  return std::vector<std::string>(keys.begin(), keys.end());
}

void RedisMemoryStore::removeData(const std::string& key) { run({"DEL", dataPrefix_ + key}); }

void RedisMemoryStore::declareEvent(const std::string& name) {
  run({"ZADD", eventListKey_, "NX", nowMicroseconds(), name});
}

std::vector<std::string> RedisMemoryStore::getEventList() {
  const Reply reply = run({"ZRANGE", eventListKey_, "0", "-1"});
  std::vector<std::string> names;
  for (std::size_t i = 0; i < reply->elements; ++i) names.push_back(replyText(reply->element[i]));
  return names;
}

void RedisMemoryStore::raiseEvent(const std::string& name, const KQValue& value) {
  const std::string encoded = encodeMemoryValue(value);
  // One pipeline on the one command connection: the raises of this process
  // enter the stream in the order they were made.
  WriterLock lock(commandMutex_);
  xRun({{"SET", dataPrefix_ + name, encoded},
        {"ZADD", eventListKey_, "NX", nowMicroseconds(), name},
        {"XADD", streamKey_, "MAXLEN", "~", kStreamLength, "*", "name", name, "value", encoded}});
}

void RedisMemoryStore::startDelivery(EventSink sink) {
  reader_ = std::thread(&RedisMemoryStore::deliverLoop, this, std::move(sink));
}

void RedisMemoryStore::stopDelivery() {
  {
    std::lock_guard<std::mutex> lock(stopMutex_);
    stopping_ = true;
  }
  stopAsked_.notify_all();
  if (reader_.joinable()) reader_.join();
}

bool RedisMemoryStore::pauseUnlessStopping(std::chrono::milliseconds pause) {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopAsked_.wait_for(lock, pause, [this] { return stopping_; });
}

void RedisMemoryStore::deliverLoop(EventSink sink) {
  Context context;
  std::chrono::milliseconds backoff = kFirstBackoff;
  bool lost = false;
  while (pauseUnlessStopping(std::chrono::milliseconds(0))) {
    if (!context) {
      std::string cause;
      context = connect(cause);
      if (!context) {
        if (!lost) {
          KO_LOG(ko::log::warning, kLogCategory, "", "RedisMemoryStore", 0)
              << "Lost the event stream of " << url_ << ": " << cause << "; reconnecting";
        }
        lost = true;
        pauseUnlessStopping(backoff);
        backoff = std::min(backoff * 2, kLastBackoff);
        continue;
      }
      // The reply may wait kBlockMs on the server before it starts.
      redisSetTimeout(context.get(), toTimeval(kIoTimeout + std::chrono::milliseconds(kBlockMs)));
      if (lost) {
        KO_LOG(ko::log::info, kLogCategory, "", "RedisMemoryStore", 0) << "Event stream of " << url_ << " back";
      }
      lost = false;
      backoff = kFirstBackoff;
    }
    const std::string block = std::to_string(kBlockMs);
    const char* argv[] = {"XREAD", "COUNT", "256", "BLOCK", block.c_str(), "STREAMS", streamKey_.c_str(),
                          lastEntryId_.c_str()};
    Reply reply;
    {
      const SigpipeGuard noSigpipe;
      reply.reset(static_cast<redisReply*>(redisCommandArgv(context.get(), 8, argv, nullptr)));
    }
    if (!reply || reply->type == REDIS_REPLY_ERROR) {
      const std::string cause = reply ? replyText(reply.get()) : std::string(context->errstr);
      if (!lost) {
        KO_LOG(ko::log::warning, kLogCategory, "", "RedisMemoryStore", 0)
            << "Lost the event stream of " << url_ << ": " << cause << "; reconnecting";
      }
      lost = true;
      ++streamLosses_;
      context.reset();
      pauseUnlessStopping(backoff);
      continue;
    }
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 1) continue;  // nil: nothing new
    const redisReply* stream = reply->element[0];
    if (stream->type != REDIS_REPLY_ARRAY || stream->elements != 2 || stream->element[1]->type != REDIS_REPLY_ARRAY)
      continue;
    const redisReply* entries = stream->element[1];
    for (std::size_t i = 0; i < entries->elements; ++i) {
      const redisReply* entry = entries->element[i];
      if (entry->type != REDIS_REPLY_ARRAY || entry->elements != 2 || entry->element[0]->type != REDIS_REPLY_STRING)
        continue;
      lastEntryId_ = replyText(entry->element[0]);
      const redisReply* fields = entry->element[1];
      std::string name;
      std::string encoded;
      bool hasValue = false;
      for (std::size_t f = 0; fields->type == REDIS_REPLY_ARRAY && f + 1 < fields->elements; f += 2) {
        if (fields->element[f]->type != REDIS_REPLY_STRING || fields->element[f + 1]->type != REDIS_REPLY_STRING)
          continue;
        const std::string field = replyText(fields->element[f]);
        if (field == "name") name = replyText(fields->element[f + 1]);
        if (field == "value") {
          encoded = replyText(fields->element[f + 1]);
          hasValue = true;
        }
      }
      try {
        if (name.empty() || !hasValue) throw KQMemoryEncodingError("an entry needs the fields name and value");
        sink(name, decodeMemoryValue(encoded));
      } catch (const std::exception& e) {
        // Written by some other program: refused, the stream goes on.
        KO_LOG(ko::log::warning, kLogCategory, "", "RedisMemoryStore", 0)
            << "Event entry " << lastEntryId_ << " is not in the memory encoding: " << e.what();
      }
    }
  }
}

}  // namespace KQ
