#include "middleware/call_sequence.h"

#include <utility>
#include <vector>

namespace KQ {

namespace {

struct OpenSequence {
  bool open = false;
  std::vector<std::pair<std::string, std::function<void()>>> actions;  // few: one per category touched
};

thread_local OpenSequence tSequence;

}  // namespace

CallSequence::CallSequence() : outermost_(!tSequence.open) { tSequence.open = true; }

CallSequence::~CallSequence() {
  if (!outermost_) return;
  // Taken out first: an action that calls into a module again runs outside
  // any sequence and does its work at once.
  std::vector<std::pair<std::string, std::function<void()>>> actions = std::move(tSequence.actions);
  tSequence.actions.clear();
  tSequence.open = false;
  for (auto& entry : actions) entry.second();
}

bool CallSequence::deferToEnd(const std::string& key, std::function<void()> action) {
  if (!tSequence.open) return false;
  for (auto& entry : tSequence.actions) {
    if (entry.first == key) {
      entry.second = std::move(action);
      return true;
    }
  }
  tSequence.actions.emplace_back(key, std::move(action));
  return true;
}

bool CallSequence::isOpen() { return tSequence.open; }

}  // namespace KQ
