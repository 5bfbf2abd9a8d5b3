#include "middleware/path.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>

#include "middleware/log.h"

namespace ko {
namespace path {

namespace {

const char* const kLogCategory = "ko.path";

struct Overrides {
  std::mutex mutex;
  std::map<std::string, std::string> folders;
  std::string fallback;  // setDefaultDataPath
};

Overrides& overrides() {
  static Overrides* state = new Overrides;
  return *state;
}

// An unset and an empty variable both count as absent (as XDG says).
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

// Drops trailing "/" but keeps a lone "/".
std::string withoutTrailingSlash(std::string folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

std::string join(const std::string& folder, const std::string& name) {
  if (name.empty()) return folder;
  if (folder.empty()) return name;
  if (folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

std::string homeFolder() {
  std::string home = environment("HOME");
  if (!home.empty()) return home;
  struct passwd entry;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &entry, buffer, sizeof(buffer), &found) == 0 && found && found->pw_dir) {
    return found->pw_dir;
  }
  return "/tmp";
}

std::string componentFolder(const std::string& component) {
  {
    Overrides& state = overrides();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto it = state.folders.find(component);
    if (it != state.folders.end()) return it->second;
    if (!state.fallback.empty()) return state.fallback;
  }
  std::string kqHome = environment("KQ_DATA_HOME");
  if (!kqHome.empty()) return withoutTrailingSlash(join(withoutTrailingSlash(kqHome), component));
  // XDG asks that a relative XDG_DATA_HOME be ignored.
  std::string xdgHome = environment("XDG_DATA_HOME");
  if (!xdgHome.empty() && xdgHome.front() == '/') {
    return withoutTrailingSlash(join(join(withoutTrailingSlash(xdgHome), "kq"), component));
  }
  return withoutTrailingSlash(join(join(withoutTrailingSlash(homeFolder()), ".local/share/kq"), component));
}

}  // namespace

std::string userWritableDataPath(const std::string& component, const std::string& file) {
  std::string folder = componentFolder(component);
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    // The caller still gets the path: opening a file there fails and is
    // reported by whoever opens it, with its own context.
    KO_LOG(::ko::log::warning, kLogCategory, "", "userWritableDataPath", 0)
        << "Cannot create folder " << folder << ": " << error.message();
  }
  return join(folder, file);
}

void setComponentDataPath(const std::string& component, const std::string& folder) {
  Overrides& state = overrides();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (folder.empty()) {
    state.folders.erase(component);
  } else {
    state.folders[component] = withoutTrailingSlash(folder);
  }
}

void setDefaultDataPath(const std::string& folder) {
  Overrides& state = overrides();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.fallback = folder.empty() ? std::string() : withoutTrailingSlash(folder);
}

}  // namespace path
}  // namespace ko
