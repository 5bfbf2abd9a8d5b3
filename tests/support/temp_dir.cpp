#include "support/temp_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace KQ {
namespace test {

TempDir::TempDir() {
  char pattern[] = "/tmp/kqtest-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
  path_ = pattern;
}

namespace {

// A test may have taken the rights away from a folder (to make a write fail);
// give them back, top down, so that removal can walk in.
void restoreRights(const std::filesystem::path& folder) {
  std::error_code ignored;
  std::filesystem::permissions(folder, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                               ignored);
  std::filesystem::directory_iterator it(folder, ignored);
  if (ignored) return;
  for (const auto& entry : it) {
    if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) restoreRights(entry.path());
  }
}

}  // namespace

TempDir::~TempDir() {
  std::error_code ignored;
  restoreRights(path_);
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string TempDir::writeFile(const std::string& name, const std::string& content) const {
  std::string target = file(name);
  std::filesystem::create_directories(std::filesystem::path(target).parent_path());
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + target);
  return target;
}

}  // namespace test
}  // namespace KQ
