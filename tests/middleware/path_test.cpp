// ko::path: which environment variable decides the data folder (made if
// missing, reported if it cannot be made).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "middleware/path.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ko {
namespace {

using namespace path;
using KQ::test::TempDir;

// Puts HOME, KQ_DATA_HOME and XDG_DATA_HOME back as they were.
class EnvironmentGuard {
 public:
  EnvironmentGuard() {
    for (int i = 0; i < 3; ++i)
      if (const char* v = std::getenv(kNames[i])) saved_[i] = v;
  }
  ~EnvironmentGuard() {
    for (int i = 0; i < 3; ++i) saved_[i] ? ::setenv(kNames[i], saved_[i]->c_str(), 1) : ::unsetenv(kNames[i]);
  }
  static void set(const char* name, const char* value) { value ? ::setenv(name, value, 1) : ::unsetenv(name); }

 private:
  static constexpr const char* kNames[3] = {"HOME", "KQ_DATA_HOME", "XDG_DATA_HOME"};
  std::optional<std::string> saved_[3];
};

TEST(PathTest, EnvironmentDecidesTheDataFolderAndItIsMade) {
  TempDir temp;
  EnvironmentGuard env;
  env.set("HOME", temp.file("home").c_str());
  const std::string kq = temp.file("kq/"), xdg = temp.file("xdg");
  const struct {
    const char* kqHome;
    const char* xdgHome;
    const char* expected;
  } cases[] = {
      // KQ_DATA_HOME wins; a trailing "/" gives no "//".
      {kq.c_str(), xdg.c_str(), "kq/worldrepresentation"},
      // An empty KQ_DATA_HOME counts as unset.
      {"", xdg.c_str(), "xdg/kq/worldrepresentation"},
      // A relative XDG_DATA_HOME is ignored (as XDG says): HOME decides.
      {nullptr, "relative/data", "home/.local/share/kq/worldrepresentation"},
      {nullptr, nullptr, "home/.local/share/kq/worldrepresentation"},
  };
  for (const auto& c : cases) {
    env.set("KQ_DATA_HOME", c.kqHome);
    env.set("XDG_DATA_HOME", c.xdgHome);
    EXPECT_EQ(temp.file(c.expected), userWritableDataPath("worldrepresentation", "")) << c.expected;
    EXPECT_TRUE(std::filesystem::is_directory(temp.file(c.expected))) << c.expected;
  }
  // Case: --data-dir places exactly its component, over the environment,
  // until an empty folder removes it.
  setComponentDataPath("worldrepresentation", temp.file("chosen/"));
  EXPECT_EQ(temp.file("chosen/nodes.xml"), userWritableDataPath("worldrepresentation", "nodes.xml"));
  EXPECT_EQ(temp.file("home/.local/share/kq/motion/a.txt"), userWritableDataPath("motion", "a.txt"));
  setComponentDataPath("worldrepresentation", "");
  EXPECT_EQ(temp.file("home/.local/share/kq/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
}

TEST(PathTest, AFolderThatCannotBeMadeIsReportedAndThePathStillComesBack) {
  // Opening a file there fails later, where it is reported with its context.
  TempDir temp;
  KQ::test::LogCapture logs;
  temp.writeFile("blocked", "not a folder");
  setComponentDataPath("blockedcomponent", temp.file("blocked/inner"));
  EXPECT_EQ(temp.file("blocked/inner/x.sqlite"), userWritableDataPath("blockedcomponent", "x.sqlite"));
  EXPECT_TRUE(logs.contains(ko::log::warning, "userWritableDataPath",
                            "Cannot create folder " + temp.file("blocked/inner") + ": Not a directory"));
  setComponentDataPath("blockedcomponent", "");
}

}  // namespace
}  // namespace ko
