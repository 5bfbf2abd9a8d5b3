// TempDir: a fresh folder under /tmp (named kqtest-XXXXXX) for one test's
// files: category databases, archives, data homes.
//
// RAII: the folder is made by mkdtemp on construction and removed with all
// its content on destruction (errors there are ignored: a test must not fail
// while cleaning up). Construction throws std::runtime_error if /tmp refuses.
//
// Threading: path() and file() are safe from any thread; the object itself
// belongs to the test that made it.
#ifndef KQ_TESTS_SUPPORT_TEMP_DIR_H_
#define KQ_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace KQ {
namespace test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The folder, without a final "/".
  const std::string& path() const { return path_; }
  // path() + "/" + name (the file is not created).
  std::string file(const std::string& name) const;
  // Writes `content` to path() + "/" + name, making parent folders; returns the path.
  std::string writeFile(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_TEMP_DIR_H_
