// ko::log: categorised logging with a level per category and pluggable sinks.
//
// Levels (the middleware's numbering): 0 silent, 1 fatal, 2 error, 3 warning,
// 4 info, 5 verbose, 6 debug. A category admits a message when the message's
// level is at most the category's level; a category that was never given a
// level uses the default level (4: errors, warnings and info show, verbose
// lines do not). The KO_LOG macro tests the level before the message is built,
// so a refused line costs one lookup and no formatting.
//
// A message of level 0 (silent) or below is never admitted; levels given to
// setCategoryLevel/setDefaultLevel are clamped to 0..6.
//
// Sinks: by default one StderrSink. JsonSink writes one JSON object per line
// (fields time, level, category, function, message); CaptureSink keeps the
// records in memory so that tests can assert exact texts. Times are UTC in
// both text forms, so that lines read the same on every machine.
//
// Caller text: every piece streamed into a KO_LOG line other than a string
// literal (names, values, e.what()) is cut to kMaxPieceBytes with a marker,
// so that a client's megabyte name makes a short line; StderrSink escapes
// control characters and DEL (as JsonSink does), so no caller text can
// forge a line or drive the terminal. Throttle keeps a refusal repeated by
// one client to one line a second.
//
// Threading: every function here is safe to call from any thread. Levels sit
// behind a reader-writer lock (KO_LOG only reads, on hot paths); a sink's
// write() is called under the log's own sink mutex, one record at a time. A
// record emitted from inside a sink's write() (a sink that logs) is dropped
// rather than deadlocking on that mutex. A sink that throws loses its record;
// logging never throws to the caller.
#ifndef KQ_MIDDLEWARE_LOG_H_
#define KQ_MIDDLEWARE_LOG_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace ko {
namespace log {

enum Level : int { silent = 0, fatal = 1, error = 2, warning = 3, info = 4, verbose = 5, debug = 6 };

// "silent", "fatal", "error", "warning", "info", "verbose", "debug"; "unknown" outside 0..6.
const char* levelName(int level);

struct Record {
  int64_t timeSeconds = 0;
  int64_t timeMicroseconds = 0;
  int level = info;
  std::string category;
  std::string file;
  std::string function;
  int line = 0;
  std::string message;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const Record& record) = 0;
};

// "2026-11-22 13:40:01.123456 warning [KQWorldRepresentation] storeObject: Object cup already exists."
// An empty function drops "storeObject: ". One write per line.
class StderrSink : public Sink {
 public:
  void write(const Record& record) override;
};

// {"time":"2026-11-22T13:40:01.123456Z","level":"warning","category":"...","function":"...","message":"..."}
// Fields in that order; bytes that are not UTF-8 become U+FFFD.
class JsonSink : public Sink {
 public:
  explicit JsonSink(std::ostream& out);  // the stream must outlive the sink
  void write(const Record& record) override;

 private:
  std::ostream& out_;
};

class CaptureSink : public Sink {
 public:
  void write(const Record& record) override;
  std::vector<Record> records() const;
  // Records whose category (and function, when not empty) match.
  std::vector<Record> find(const std::string& category, const std::string& function = "") const;
  // Messages only, in order.
  std::vector<std::string> messages() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Record> records_;
};

void addCategory(const std::string& name);             // idempotent
void setCategoryLevel(const std::string& name, int level);
int getCategoryLevel(const std::string& name);          // the default level when unset
void setDefaultLevel(int level);                        // for every category without its own level
int getDefaultLevel();
bool isEnabled(int level, const std::string& category);
// Same test for a literal category (what KO_LOG is usually given): no string
// is built on the way, so a refused line allocates nothing.
bool isEnabled(int level, const char* category);
void clearCategoryLevel(const std::string& name);       // back to the default level
// Categories that have a level of their own, with that level (for tests that
// save and restore the log's state).
std::vector<std::pair<std::string, int>> getCategoryLevels();

void addSink(const std::shared_ptr<Sink>& sink);
void removeSink(const std::shared_ptr<Sink>& sink);
void setSinks(const std::vector<std::shared_ptr<Sink>>& sinks);  // replaces all, including stderr
std::vector<std::shared_ptr<Sink>> getSinks();

// Sends one record to every sink (timestamp taken here from ko::os).
void emit(int level, const std::string& category, const char* file, const char* function, int line,
          const std::string& message);

// Most bytes of one piece of caller text in a line.
constexpr std::size_t kMaxPieceBytes = 256;

// piece, or its first kMaxPieceBytes bytes followed by "...[N bytes cut]".
std::string cutPiece(std::string_view piece);

// Control characters and DEL written as \n, \r, \t or \xNN (a backslash
// itself stays as it is: it cannot break a line).
std::string escapeControls(std::string_view text);

// Admits one line per key and period; counts the lines it refused since, so
// that the next admitted line can say how many were left out. Keys seen
// more than a period ago are forgotten once the table grows past kMaxKeys.
class Throttle {
 public:
  explicit Throttle(std::chrono::milliseconds period = std::chrono::seconds(1)) : period_(period) {}
  // True when a line for key may be written now; *suppressed then receives
  // the number of lines refused for key since the last admitted one.
  bool admit(const std::string& key, uint64_t* suppressed,
             std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

 private:
  static constexpr std::size_t kMaxKeys = 4096;
  struct Entry {
    std::chrono::steady_clock::time_point last;
    uint64_t suppressed = 0;
  };
  std::chrono::milliseconds period_;
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;  // guarded by mutex_
};

// Collects one message; sends it when destroyed.
class LogStream {
 public:
  LogStream(int level, const std::string& category, const char* file, const char* function, int line);
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;
  // String literals go in whole; anything else is caller text and is cut.
  template <class T>
  LogStream& operator<<(const T& value) {
    if constexpr (std::is_array_v<T>) {
      stream_ << value;
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      stream_ << cutPiece(std::string_view(value));
    } else {
      std::ostringstream piece;
      piece << value;
      stream_ << cutPiece(piece.str());
    }
    return *this;
  }

 private:
  int level_;
  std::string category_;
  const char* file_;
  const char* function_;
  int line_;
  std::ostringstream stream_;
};

}  // namespace log
}  // namespace ko

// KO_LOG(level, category, file, function, line) << "text" << value;
#define KO_LOG(level, category, file, function, line)   \
  if (!::ko::log::isEnabled((level), (category))) {    \
  } else                                                \
    ::ko::log::LogStream((level), (category), (file), (function), (line))

#endif  // KQ_MIDDLEWARE_LOG_H_
