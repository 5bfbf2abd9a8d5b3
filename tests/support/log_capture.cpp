#include "support/log_capture.h"

namespace KQ {
namespace test {

LogCapture::LogCapture()
    : sink_(std::make_shared<ko::log::CaptureSink>()),
      savedSinks_(ko::log::getSinks()),
      savedDefaultLevel_(ko::log::getDefaultLevel()),
      savedCategoryLevels_(ko::log::getCategoryLevels()) {
  ko::log::setSinks({sink_});
  ko::log::setDefaultLevel(ko::log::debug);
}

LogCapture::~LogCapture() {
  for (const auto& entry : ko::log::getCategoryLevels()) ko::log::clearCategoryLevel(entry.first);
  for (const auto& entry : savedCategoryLevels_) ko::log::setCategoryLevel(entry.first, entry.second);
  ko::log::setDefaultLevel(savedDefaultLevel_);
  ko::log::setSinks(savedSinks_);
}

std::vector<ko::log::Record> LogCapture::records() const { return sink_->records(); }

std::vector<std::string> LogCapture::messages() const { return sink_->messages(); }

std::vector<ko::log::Record> LogCapture::find(const std::string& category, const std::string& function) const {
  return sink_->find(category, function);
}

std::vector<std::string> LogCapture::messagesOf(const std::string& function) const {
  std::vector<std::string> out;
  for (const auto& r : sink_->records()) {
    if (r.function == function) out.push_back(r.message);
  }
  return out;
}

bool LogCapture::contains(int level, const std::string& function, const std::string& message) const {
  for (const auto& r : sink_->records()) {
    if (r.level == level && r.function == function && r.message == message) return true;
  }
  return false;
}

size_t LogCapture::count(int level) const {
  size_t n = 0;
  for (const auto& r : sink_->records()) {
    if (r.level == level) ++n;
  }
  return n;
}

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> out;
  for (const auto& r : sink_->records()) {
    out.push_back(std::string(ko::log::levelName(r.level)) + " " + r.category + " " + r.function + ": " + r.message);
  }
  return out;
}

void LogCapture::clear() { sink_->clear(); }

void LogCapture::setLevel(const std::string& category, int level) { ko::log::setCategoryLevel(category, level); }

}  // namespace test
}  // namespace KQ
