// TempDir: a fresh folder /tmp/kqtest-XXXXXX for one test's files, removed
// with all its content on destruction (errors there are ignored: a test must
// not fail while cleaning up).
#ifndef KQ_TESTS_SUPPORT_TEMP_DIR_H_
#define KQ_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace KQ::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }  // without a final "/"
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `content` to file(name), making parent folders; returns the path.
  std::string writeFile(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_TEMP_DIR_H_
