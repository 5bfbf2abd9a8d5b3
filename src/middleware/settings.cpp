#include "middleware/settings.h"

#include <map>
#include <mutex>

namespace ko {
namespace settings {
namespace {

struct Table {
  std::mutex mutex;
  std::map<std::string, std::string> values;
};

Table& table() {
  static Table* state = new Table;  // never destroyed: read by modules until the process ends
  return *state;
}

}  // namespace

void set(const std::string& name, const std::string& value) {
  Table& state = table();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.values[name] = value;
}

std::string get(const std::string& name, const std::string& fallback) {
  Table& state = table();
  std::lock_guard<std::mutex> lock(state.mutex);
  auto found = state.values.find(name);
  return found == state.values.end() ? fallback : found->second;
}

}  // namespace settings
}  // namespace ko
