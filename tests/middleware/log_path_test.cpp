// ko::log: levels, lazy formatting, line shapes, and sinks that fail or log; and ko::path: which environment variable
// decides the data folder (made if missing, reported, as a warning, if it cannot be made).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "middleware/log.h"
#include "middleware/path.h"
#include "middleware/value.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"

namespace ko::log {
namespace {

using KQ::test::LogCapture;
using KQ::test::ManualClock;

// Counts how often it is formatted: a refused line must never format it.
struct Counted {
  int* formatted;
};
std::ostream& operator<<(std::ostream& out, const Counted& c) {
  ++*c.formatted;
  return out << "counted";
}

class ThrowingSink : public Sink {
 public:
  void write(const Record&) override { throw std::runtime_error("disk full"); }
};

// Logs from inside write(): a plain mutex around the sinks would lock twice.
class LoggingSink : public Sink {
 public:
  void write(const Record& record) override {
    ++writes;
    KO_LOG(error, "Inner", "", "write", 0) << "while writing " << record.message;
  }
  int writes = 0;
};

TEST(LogTest, LevelsDecideWhatIsAdmitted) {
  LogCapture capture;  // default raised to debug; levels put back at the end
  // Case: a category's own level wins over the default, both ways.
  setCategoryLevel("LogTest.Quiet", error);
  EXPECT_FALSE(isEnabled(warning, "LogTest.Quiet"));
  EXPECT_TRUE(isEnabled(debug, "LogTest.Other"));
  // Case: silent admits nothing, not even fatal; level 0 or below never shows.
  setCategoryLevel("LogTest.Silent", silent);
  EXPECT_FALSE(isEnabled(fatal, "LogTest.Silent"));
  EXPECT_FALSE(isEnabled(silent, "LogTest.Other"));
  EXPECT_FALSE(isEnabled(-1, "LogTest.Other"));
  setCategoryLevel("LogTest.Loud", 99);  // clamped
  EXPECT_EQ(debug, getCategoryLevel("LogTest.Loud"));
}

TEST(LogTest, RefusedLinesAreNeverFormatted) {
  LogCapture capture;
  capture.setLevel("KQWorld", warning);
  int formatted = 0;
  KO_LOG(verbose, "KQWorld", "", "init", 0) << Counted{&formatted};
  EXPECT_EQ(0, formatted);
  KO_LOG(warning, "KQWorld", "", "init", 0) << Counted{&formatted};
  EXPECT_EQ(1, formatted);
  EXPECT_EQ(std::vector<std::string>{"counted"}, capture.messages());
  // Case: the macro is one statement: an else after it is the caller's.
  bool elseRan = false;
  if (formatted == 0)
    KO_LOG(error, "KQWorld", "", "init", 0) << "never";
  else
    elseRan = true;
  EXPECT_TRUE(elseRan);
  EXPECT_EQ(1u, capture.records().size());
}

TEST(LogTest, StderrAndJsonLineShapes) {
  ManualClock clock(1'700'000'000, 42);  // 2023-11-14 22:13:20 UTC
  LogCapture capture;
  std::ostringstream json;
  setSinks({std::make_shared<StderrSink>()});
  ::testing::internal::CaptureStderr();
  KO_LOG(warning, "KQWorld", "", "storeObject", 0) << "Object " << KQ::KQValue("cup") << " exists.";
  // Case: without a function there is no empty "function: " piece.
  emit(error, "KQMotion", "", "", 0, "no transform");
  // Case: caller text cannot forge a line nor drive the terminal, and is cut to 256 bytes (literals are not).
  KO_LOG(error, "KQWorld", "", "getObjectCategory", 0) << "No " << std::string("zz\n2026 error\x1b[31m\x7f") << " or "
                                                        << std::string(300, 'n');
  EXPECT_EQ("2023-11-14 22:13:20.000042 warning [KQWorld] storeObject: Object \"cup\" exists.\n"
            "2023-11-14 22:13:20.000042 error [KQMotion] no transform\n"
            "2023-11-14 22:13:20.000042 error [KQWorld] getObjectCategory: No zz\\n2026 error\\x1b[31m\\x7f or " +
                std::string(256, 'n') + "...[44 bytes cut]\n",
            ::testing::internal::GetCapturedStderr());

  // Case: quotes, backslashes and newlines are escaped so one record stays one line; bytes that are not UTF-8 become
  // U+FFFD.
  setSinks({std::make_shared<JsonSink>(json)});
  KO_LOG(error, "KQWorld", "", "xQuery", 0) << "near \"WHERE\":\nsyntax \\ \xff";
  EXPECT_EQ(
      "{\"time\":\"2023-11-14T22:13:20.000042Z\",\"level\":\"error\",\"category\":\"KQWorld\","
      "\"function\":\"xQuery\",\"message\":\"near \\\"WHERE\\\":\\nsyntax \\\\ \xef\xbf\xbd\"}\n",
      json.str());
  setSinks({capture.sink()});
}

TEST(LogTest, ARepeatedRefusalIsAdmittedOnceASecondWithItsCount) {
  Throttle throttle;
  const auto t0 = std::chrono::steady_clock::time_point{} + std::chrono::hours(1);
  uint64_t left = 99;
  EXPECT_TRUE(throttle.admit("a", &left, t0) && left == 0);
  EXPECT_FALSE(throttle.admit("a", &left, t0 + std::chrono::milliseconds(500)) ||
               throttle.admit("a", &left, t0 + std::chrono::milliseconds(900)));
  EXPECT_TRUE(throttle.admit("b", &left, t0 + std::chrono::milliseconds(900)));  // another client
  EXPECT_TRUE(throttle.admit("a", &left, t0 + std::chrono::milliseconds(1100)));
  EXPECT_EQ(left, 2u);
}

TEST(LogTest, SinksThatFailOrLogCannotHurtTheCaller) {
  LogCapture capture;
  // Case: a throwing sink loses its record; later sinks still get it.
  setSinks({std::make_shared<ThrowingSink>(), capture.sink()});
  EXPECT_NO_THROW(KO_LOG(error, "KQWorld", "", "save", 0) << "cannot open nodes.xml");
  // Case: a sink that logs does not deadlock; its own line is dropped.
  auto logging = std::make_shared<LoggingSink>();
  setSinks({logging, capture.sink()});
  KO_LOG(error, "KQWorld", "", "save", 0) << "outer";
  EXPECT_EQ(1, logging->writes);
  EXPECT_EQ(std::vector<std::string>({"cannot open nodes.xml", "outer"}), capture.messages());
}

using namespace ::ko::path;
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
  // Case: --data-dir places exactly its component, over the environment, until an empty folder removes it.
  setComponentDataPath("worldrepresentation", temp.file("chosen/"));
  EXPECT_EQ(temp.file("chosen/nodes.xml"), userWritableDataPath("worldrepresentation", "nodes.xml"));
  EXPECT_EQ(temp.file("home/.local/share/kq/motion/a.txt"), userWritableDataPath("motion", "a.txt"));
  setComponentDataPath("worldrepresentation", "");
  EXPECT_EQ(temp.file("home/.local/share/kq/worldrepresentation"), userWritableDataPath("worldrepresentation", ""));
}

TEST(PathTest, AFolderThatCannotBeMadeIsReportedAndThePathStillComesBack) {
  // Opening a file there fails later, where it is reported with its context.
  TempDir temp;
  LogCapture logs;
  temp.writeFile("blocked", "not a folder");
  setComponentDataPath("blockedcomponent", temp.file("blocked/inner"));
  EXPECT_EQ(temp.file("blocked/inner/x.sqlite"), userWritableDataPath("blockedcomponent", "x.sqlite"));
  EXPECT_TRUE(logs.contains(warning, "userWritableDataPath",
                            "Cannot create folder " + temp.file("blocked/inner") + ": Not a directory"));
  setComponentDataPath("blockedcomponent", "");
}

}  // namespace
}  // namespace ko::log
