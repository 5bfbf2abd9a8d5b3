// ko::path: which environment variable decides the data folder, that the
// folder is made, and that a folder that cannot be made is reported rather
// than crashing.
#include "middleware/path.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ko {
namespace path {
namespace {

using KQ::test::LogCapture;
using KQ::test::TempDir;

// Sets or unsets environment variables for one test and puts them back.
class EnvironmentGuard {
 public:
  ~EnvironmentGuard() {
    for (const auto& [name, value] : saved_)
      (void)(value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str()));
  }
  void set(const std::string& name, const std::string& value) {
    remember(name);
    ::setenv(name.c_str(), value.c_str(), 1);
  }
  void unset(const std::string& name) {
    remember(name);
    ::unsetenv(name.c_str());
  }

 private:
  void remember(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (!saved_.count(name)) saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
  }
  std::map<std::string, std::optional<std::string>> saved_;
};

bool isFolder(const std::string& p) { return std::filesystem::is_directory(p); }

TEST(PathTest, EnvironmentDecidesTheDataFolder) {
  TempDir temp;
  EnvironmentGuard env;
  env.set("HOME", temp.file("home"));

  // Case: KQ_DATA_HOME wins; the component folder is made; an empty file
  // name gives the folder itself without a final "/".
  env.set("KQ_DATA_HOME", temp.file("kq"));
  env.set("XDG_DATA_HOME", temp.file("xdg"));
  EXPECT_EQ(temp.file("kq/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
  EXPECT_TRUE(isFolder(temp.file("kq/worldrepresentation")));

  // Case: with a file name, the file is joined but not created.
  EXPECT_EQ(temp.file("kq/worldrepresentation/Cups.sqlite"),
            userWritableDataPath("worldrepresentation", "Cups.sqlite"));
  EXPECT_FALSE(std::filesystem::exists(temp.file("kq/worldrepresentation/Cups.sqlite")));

  // Case: a trailing "/" on the variable gives no "//".
  env.set("KQ_DATA_HOME", temp.file("kq2") + "/");
  EXPECT_EQ(temp.file("kq2/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));

  // Case: an empty KQ_DATA_HOME counts as unset: XDG_DATA_HOME/kq decides.
  env.set("KQ_DATA_HOME", "");
  EXPECT_EQ(temp.file("xdg/kq/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
  EXPECT_TRUE(isFolder(temp.file("xdg/kq/worldrepresentation")));

  // Case: a relative XDG_DATA_HOME is ignored (as XDG says): HOME decides.
  env.set("XDG_DATA_HOME", "relative/data");
  EXPECT_EQ(temp.file("home/.local/share/kq/worldrepresentation"),
            userWritableDataPath("worldrepresentation", ""));

  // Case: neither variable: HOME/.local/share/kq, made with every parent.
  env.unset("KQ_DATA_HOME");
  env.unset("XDG_DATA_HOME");
  EXPECT_EQ(temp.file("home/.local/share/kq/other/a.txt"), userWritableDataPath("other", "a.txt"));
  EXPECT_TRUE(isFolder(temp.file("home/.local/share/kq/other")));
}

TEST(PathTest, ComponentOverrideWinsForThatComponentOnly) {
  TempDir temp;
  EnvironmentGuard env;
  env.set("KQ_DATA_HOME", temp.file("kq"));

  // Case: the service's --data-dir places exactly this component, over KQ_DATA_HOME.
  setComponentDataPath("worldrepresentation", temp.file("chosen/"));
  EXPECT_EQ(temp.file("chosen"), userWritableDataPath("worldrepresentation", ""));
  EXPECT_EQ(temp.file("chosen/nodes.xml"), userWritableDataPath("worldrepresentation", "nodes.xml"));
  EXPECT_TRUE(isFolder(temp.file("chosen")));

  // Case: other components still follow the environment.
  EXPECT_EQ(temp.file("kq/motion"), userWritableDataPath("motion", ""));

  // Case: an empty folder removes the override.
  setComponentDataPath("worldrepresentation", "");
  EXPECT_EQ(temp.file("kq/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
}

TEST(PathTest, ExistingFolderIsKeptAndUnmakeableOneIsReported) {
  TempDir temp;
  EnvironmentGuard env;
  env.set("KQ_DATA_HOME", temp.path());

  // Case: a folder that exists keeps its files.
  temp.writeFile("worldrepresentation/Cups.sqlite", "data");
  EXPECT_EQ(temp.file("worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
  EXPECT_EQ(4u, std::filesystem::file_size(temp.file("worldrepresentation/Cups.sqlite")));

  // Case: a file stands where the folder should be: the path still comes
  // back (opening a file there fails later, where it is reported with its
  // context) and a warning says why.
  LogCapture logs;
  temp.writeFile("blocked", "not a folder");
  setComponentDataPath("blockedcomponent", temp.file("blocked/inner"));
  EXPECT_EQ(temp.file("blocked/inner/x.sqlite"), userWritableDataPath("blockedcomponent", "x.sqlite"));
  EXPECT_TRUE(logs.contains(ko::log::warning, "userWritableDataPath",
                            "Cannot create folder " + temp.file("blocked/inner") + ": Not a directory"));
  setComponentDataPath("blockedcomponent", "");
}

}  // namespace
}  // namespace path
}  // namespace ko
