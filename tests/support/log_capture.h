// LogCapture: catches every log record for one test, so that the test can
// assert exact texts ("Object cup already exists.") rather than "something
// was logged".
//
// RAII: construction makes a ko::log::CaptureSink the only sink (nothing is
// written to stderr meanwhile) and raises the default level to 6 (debug), so
// that verbose notes of the code under test are caught too; destruction puts
// back the sinks, the default level and every category's own level as they
// were. setLevel() changes a category's level until then.
//
// Threading: the accessors are safe from any thread (the sink has its own
// mutex); construction and destruction belong to the test's own thread.
#ifndef KQ_TESTS_SUPPORT_LOG_CAPTURE_H_
#define KQ_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "middleware/log.h"

namespace KQ {
namespace test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Every record so far, in order.
  std::vector<ko::log::Record> records() const;
  // Messages only, in order.
  std::vector<std::string> messages() const;
  // Records of `category` (and of `function`, when not empty).
  std::vector<ko::log::Record> find(const std::string& category, const std::string& function = "") const;
  // Messages of records with this function (any category), in order.
  std::vector<std::string> messagesOf(const std::string& function) const;
  // True when some record has exactly this level, function and message.
  bool contains(int level, const std::string& function, const std::string& message) const;
  // Number of records at `level` (any category).
  size_t count(int level) const;
  // Each record as "<level name> <category> <function>: <message>", handy for
  // one EXPECT_EQ over a whole story and for readable failure output.
  std::vector<std::string> lines() const;
  void clear();

  // Sets a category's level for the rest of the test.
  void setLevel(const std::string& category, int level);

  const std::shared_ptr<ko::log::CaptureSink>& sink() const { return sink_; }

 private:
  std::shared_ptr<ko::log::CaptureSink> sink_;
  std::vector<std::shared_ptr<ko::log::Sink>> savedSinks_;
  int savedDefaultLevel_;
  std::vector<std::pair<std::string, int>> savedCategoryLevels_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_LOG_CAPTURE_H_
