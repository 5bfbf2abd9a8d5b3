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
// Threading: every function here is safe to call from any thread. Levels sit
// behind a reader-writer lock (KO_LOG only reads, on hot paths); a sink's
// write() is called under the log's own sink mutex, one record at a time. A
// record emitted from inside a sink's write() (a sink that logs) is dropped
// rather than deadlocking on that mutex. A sink that throws loses its record;
// logging never throws to the caller.
#ifndef KQ_MIDDLEWARE_LOG_H_
#define KQ_MIDDLEWARE_LOG_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
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

// Collects one message; sends it when destroyed.
class LogStream {
 public:
  LogStream(int level, const std::string& category, const char* file, const char* function, int line);
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;
  template <class T>
  LogStream& operator<<(const T& value) {
    stream_ << value;
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
