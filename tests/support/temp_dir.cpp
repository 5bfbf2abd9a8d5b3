#include "support/temp_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KQ::test {
namespace fs = std::filesystem;

TempDir::TempDir() {
  char pattern[] = "/tmp/kqtest-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
  path_ = pattern;
}

namespace {

// A test may have taken the rights away from a folder (to make a write fail);
// give them back, top down, so that removal can walk in.
void restoreRights(const fs::path& folder) {
  std::error_code ignored;
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add, ignored);
  for (const auto& entry : fs::directory_iterator(folder, ignored))
    if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) restoreRights(entry.path());
}

}  // namespace

TempDir::~TempDir() {
  std::error_code ignored;
  restoreRights(path_);
  fs::remove_all(path_, ignored);
}

std::string TempDir::writeFile(const std::string& name, const std::string& content) const {
  const std::string target = file(name);
  fs::create_directories(fs::path(target).parent_path());
  if (!(std::ofstream(target, std::ios::binary) << content)) throw std::runtime_error("cannot write " + target);
  return target;
}

}  // namespace KQ::test
