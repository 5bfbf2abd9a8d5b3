// LogCapture: catches every log record for one test, so that the test can
// assert exact texts ("Object cup already exists.") rather than "something
// was logged". While it lives, its sink is the only one (nothing reaches
// stderr) and the default level is debug; destruction puts back the sinks and
// every level as they were.
#ifndef KQ_TESTS_SUPPORT_LOG_CAPTURE_H_
#define KQ_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "middleware/log.h"

namespace KQ::test {

class LogCapture {
 public:
  LogCapture() {
    ko::log::setSinks({sink_});
    ko::log::setDefaultLevel(ko::log::debug);
  }
  ~LogCapture() {
    for (const auto& entry : ko::log::getCategoryLevels()) ko::log::clearCategoryLevel(entry.first);
    for (const auto& entry : savedCategoryLevels_) ko::log::setCategoryLevel(entry.first, entry.second);
    ko::log::setDefaultLevel(savedDefaultLevel_);
    ko::log::setSinks(savedSinks_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<ko::log::Record> records() const { return sink_->records(); }
  std::vector<std::string> messages() const { return sink_->messages(); }
  std::vector<std::string> messagesOf(const std::string& function) const {
    std::vector<std::string> out;
    for (const auto& r : records())
      if (r.function == function) out.push_back(r.message);
    return out;
  }
  bool contains(int level, const std::string& function, const std::string& message) const {
    const auto records = this->records();
    return std::any_of(records.begin(), records.end(), [&](const ko::log::Record& r) {
      return r.level == level && r.function == function && r.message == message;
    });
  }
  size_t count(int level) const {
    const auto records = this->records();
    return std::count_if(records.begin(), records.end(), [&](const ko::log::Record& r) { return r.level == level; });
  }
  // Each record as "<level name> <category> <function>: <message>".
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& r : records())
      out.push_back(std::string(ko::log::levelName(r.level)) + " " + r.category + " " + r.function + ": " + r.message);
    return out;
  }
  void clear() { sink_->clear(); }
  void setLevel(const std::string& category, int level) { ko::log::setCategoryLevel(category, level); }
  const std::shared_ptr<ko::log::CaptureSink>& sink() const { return sink_; }

 private:
  std::shared_ptr<ko::log::CaptureSink> sink_ = std::make_shared<ko::log::CaptureSink>();
  std::vector<std::shared_ptr<ko::log::Sink>> savedSinks_ = ko::log::getSinks();
  int savedDefaultLevel_ = ko::log::getDefaultLevel();
  std::vector<std::pair<std::string, int>> savedCategoryLevels_ = ko::log::getCategoryLevels();
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_LOG_CAPTURE_H_
