#include "persistence/autosaver.h"

#include <exception>
#include <utility>

#include "module/module_log.h"

namespace KQ {

Autosaver::Autosaver(std::chrono::milliseconds period, std::function<int()> save)
    : period_(period), save_(std::move(save)), thread_([this]() { run(); }) {}

Autosaver::~Autosaver() { stop(); }

void Autosaver::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void Autosaver::run() {
  auto next = std::chrono::steady_clock::now() + period_;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (wake_.wait_until(lock, next, [this]() { return stopping_; })) return;
    }
    const auto start = std::chrono::steady_clock::now();
    next = start + period_;
    try {
      const int result = save_();
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (result == 0) {
        KQWR_VERBOSE("autosave") << "Saved the world in " << seconds << " s";
      } else {
        KQWR_VERBOSE("autosave") << "Skipped this round: the world was busy (" << seconds << " s)";
      }
    } catch (const std::exception& e) {
      KQWR_ERROR("autosave") << "Could not save the world: " << e.what();
    }
  }
}

}  // namespace KQ
