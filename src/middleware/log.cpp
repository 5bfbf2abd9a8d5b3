#include "middleware/log.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <shared_mutex>

#include <nlohmann/json.hpp>

#include "middleware/os.h"

namespace ko {
namespace log {

namespace {

constexpr int kDefaultLevel = info;
constexpr int kUnset = -1;

int clampLevel(int level) { return std::min(std::max(level, static_cast<int>(silent)), static_cast<int>(debug)); }

// Category levels. Registered categories without a level of their own hold
// kUnset and follow the default. The count of categories with their own
// level lets isEnabled skip the lock while nobody has set one.
struct Levels {
  std::shared_mutex mutex;
  std::map<std::string, int, std::less<>> categories;
  std::atomic<int> defaultLevel{kDefaultLevel};
  std::atomic<int> ownLevels{0};
};

struct Sinks {
  std::mutex mutex;
  std::vector<std::shared_ptr<Sink>> sinks{std::make_shared<StderrSink>()};
};

// Never destroyed: static destructors of other libraries may still log.
Levels& levels() {
  static Levels* state = new Levels;
  return *state;
}

Sinks& sinks() {
  static Sinks* state = new Sinks;
  return *state;
}

// Set while this thread is inside a sink's write(), so that a sink which
// logs drops that record instead of locking the sink mutex twice.
thread_local bool tInsideSink = false;

// "2026-11-22" + separator + "13:40:01.123456", UTC.
std::string formatTime(int64_t seconds, int64_t micros, char separator) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&t, &parts);
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%04d-%02d-%02d%c%02d:%02d:%02d.%06lld", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, separator, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<long long>(micros));
  return buffer;
}

}  // namespace

const char* levelName(int level) {
  switch (level) {
    case silent: return "silent";
    case fatal: return "fatal";
    case error: return "error";
    case warning: return "warning";
    case info: return "info";
    case verbose: return "verbose";
    case debug: return "debug";
    default: return "unknown";
  }
}

std::string cutPiece(std::string_view piece) {
  if (piece.size() <= kMaxPieceBytes) return std::string(piece);
  std::size_t keep = kMaxPieceBytes;
  // Not in the middle of a UTF-8 sequence.
  while (keep > 0 && (static_cast<unsigned char>(piece[keep]) & 0xC0u) == 0x80u) --keep;
  std::string out(piece.substr(0, keep));
  out += "...[" + std::to_string(piece.size() - keep) + " bytes cut]";
  return out;
}

std::string escapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  static const char* const kHex = "0123456789abcdef";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte == 0x7F) {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  return out;
}

bool Throttle::admit(const std::string& key, uint64_t* suppressed, std::chrono::steady_clock::time_point now) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = entries_.find(key);
  if (found == entries_.end()) {
    if (entries_.size() >= kMaxKeys) {
      for (auto it = entries_.begin(); it != entries_.end();)
        if (now - it->second.last >= period_) {
          it = entries_.erase(it);
        } else {
          ++it;
        }
      // Still full: every key is busy; one more would be unbounded.
      if (entries_.size() >= kMaxKeys) return false;
    }
    entries_[key].last = now;
    if (suppressed) *suppressed = 0;
    return true;
  }
  Entry& entry = found->second;
  if (now - entry.last < period_) {
    ++entry.suppressed;
    return false;
  }
  if (suppressed) *suppressed = entry.suppressed;
  entry.suppressed = 0;
  entry.last = now;
  return true;
}

void StderrSink::write(const Record& record) {
  std::string line = formatTime(record.timeSeconds, record.timeMicroseconds, ' ');
  line += ' ';
  line += levelName(record.level);
  line += " [";
  line += escapeControls(record.category);
  line += "] ";
  if (!record.function.empty()) {
    line += escapeControls(record.function);
    line += ": ";
  }
  // Caller text may hold line breaks and terminal escapes: one record, one
  // line, nothing the terminal acts on.
  line += escapeControls(record.message);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

JsonSink::JsonSink(std::ostream& out) : out_(out) {}

void JsonSink::write(const Record& record) {
  nlohmann::ordered_json line;
  line["time"] = formatTime(record.timeSeconds, record.timeMicroseconds, 'T') + "Z";
  line["level"] = levelName(record.level);
  line["category"] = record.category;
  line["function"] = record.function;
  line["message"] = record.message;
  out_ << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
  out_.flush();
}

void CaptureSink::write(const Record& record) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.push_back(record);
}

std::vector<Record> CaptureSink::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<Record> CaptureSink::find(const std::string& category, const std::string& function) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Record> found;
  for (const Record& r : records_) {
    if (r.category == category && (function.empty() || r.function == function)) found.push_back(r);
  }
  return found;
}

std::vector<std::string> CaptureSink::messages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  out.reserve(records_.size());
  for (const Record& r : records_) out.push_back(r.message);
  return out;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

void addCategory(const std::string& name) {
  Levels& state = levels();
  std::unique_lock<std::shared_mutex> lock(state.mutex);
  state.categories.emplace(name, kUnset);
}

void setCategoryLevel(const std::string& name, int level) {
  Levels& state = levels();
  std::unique_lock<std::shared_mutex> lock(state.mutex);
  int& slot = state.categories.try_emplace(name, kUnset).first->second;
  if (slot == kUnset) state.ownLevels.fetch_add(1);
  slot = clampLevel(level);
}

void clearCategoryLevel(const std::string& name) {
  Levels& state = levels();
  std::unique_lock<std::shared_mutex> lock(state.mutex);
  auto it = state.categories.find(name);
  if (it != state.categories.end() && it->second != kUnset) {
    it->second = kUnset;
    state.ownLevels.fetch_sub(1);
  }
}

std::vector<std::pair<std::string, int>> getCategoryLevels() {
  Levels& state = levels();
  std::shared_lock<std::shared_mutex> lock(state.mutex);
  std::vector<std::pair<std::string, int>> out;
  for (const auto& entry : state.categories) {
    if (entry.second != kUnset) out.emplace_back(entry.first, entry.second);
  }
  return out;
}

namespace {

// Key is a std::string or a C string; the map's transparent comparator finds
// either without building a string.
template <class Key>
int levelOf(const Key& name) {
  Levels& state = levels();
  if (state.ownLevels.load(std::memory_order_acquire) > 0) {
    std::shared_lock<std::shared_mutex> lock(state.mutex);
    auto it = state.categories.find(name);
    if (it != state.categories.end() && it->second != kUnset) return it->second;
  }
  return state.defaultLevel.load(std::memory_order_relaxed);
}

}  // namespace

int getCategoryLevel(const std::string& name) { return levelOf(name); }

void setDefaultLevel(int level) { levels().defaultLevel.store(clampLevel(level)); }

int getDefaultLevel() { return levels().defaultLevel.load(); }

bool isEnabled(int level, const std::string& category) {
  if (level <= silent) return false;
  return level <= levelOf(category);
}

bool isEnabled(int level, const char* category) {
  if (level <= silent) return false;
  return level <= levelOf(category ? category : "");
}

void addSink(const std::shared_ptr<Sink>& sink) {
  if (!sink) return;
  Sinks& state = sinks();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.sinks.push_back(sink);
}

void removeSink(const std::shared_ptr<Sink>& sink) {
  Sinks& state = sinks();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.sinks.erase(std::remove(state.sinks.begin(), state.sinks.end(), sink), state.sinks.end());
}

void setSinks(const std::vector<std::shared_ptr<Sink>>& newSinks) {
  Sinks& state = sinks();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.sinks.clear();
  for (const auto& sink : newSinks) {
    if (sink) state.sinks.push_back(sink);
  }
}

std::vector<std::shared_ptr<Sink>> getSinks() {
  Sinks& state = sinks();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.sinks;
}

void emit(int level, const std::string& category, const char* file, const char* function, int line,
          const std::string& message) {
  if (tInsideSink) return;
  Record record;
  os::timeval now;
  os::gettimeofday(&now);
  record.timeSeconds = now.tv_sec;
  record.timeMicroseconds = now.tv_usec;
  record.level = level;
  record.category = category;
  record.file = file ? file : "";
  record.function = function ? function : "";
  record.line = line;
  record.message = message;

  Sinks& state = sinks();
  std::lock_guard<std::mutex> lock(state.mutex);
  tInsideSink = true;
  for (const auto& sink : state.sinks) {
    try {
      sink->write(record);
    } catch (...) {
      // A broken sink must not take the caller down; the record is lost there.
    }
  }
  tInsideSink = false;
}

LogStream::LogStream(int level, const std::string& category, const char* file, const char* function, int line)
    : level_(level), category_(category), file_(file), function_(function), line_(line) {}

LogStream::~LogStream() {
  try {
    emit(level_, category_, file_, function_, line_, stream_.str());
  } catch (...) {
    // Logging never throws to the caller (this runs in a destructor).
  }
}

}  // namespace log
}  // namespace ko
