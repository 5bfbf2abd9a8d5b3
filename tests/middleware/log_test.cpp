// ko::log: which lines are admitted, that refused lines cost no formatting,
// the exact shape of the stderr and JSON lines, and that a broken sink or a
// logging sink cannot take the caller down.
#include "middleware/log.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "middleware/value.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"

namespace ko {
namespace log {
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

// A sink that logs from inside write(): with a plain mutex around the sinks
// this would lock it twice.
class LoggingSink : public Sink {
 public:
  void write(const Record& record) override {
    ++writes;
    KO_LOG(error, "Inner", "", "write", 0) << "while writing " << record.message;
  }
  int writes = 0;
};

TEST(LogTest, LevelsDecideWhatIsAdmitted) {
  // Case: out of the box, info shows and verbose does not.
  ASSERT_EQ(info, getDefaultLevel());
  EXPECT_FALSE(isEnabled(verbose, "LogTest.Fresh"));

  LogCapture capture;  // puts every level back at the end
  // Case: a category's own level wins over the default, both ways.
  setCategoryLevel("LogTest.Quiet", error);
  EXPECT_FALSE(isEnabled(warning, "LogTest.Quiet"));
  EXPECT_TRUE(isEnabled(debug, "LogTest.Other"));  // default raised to debug by the capture

  // Case: a silent category admits nothing, not even fatal; a message of
  // level 0 is never admitted.
  setCategoryLevel("LogTest.Silent", silent);
  EXPECT_FALSE(isEnabled(fatal, "LogTest.Silent"));
  EXPECT_FALSE(isEnabled(silent, "LogTest.Other"));
  EXPECT_FALSE(isEnabled(-1, "LogTest.Other"));

  // Case: levels out of range are clamped, not stored as given.
  setCategoryLevel("LogTest.Loud", 99);
  EXPECT_EQ(debug, getCategoryLevel("LogTest.Loud"));

}

TEST(LogTest, RefusedLinesAreNeverFormatted) {
  LogCapture capture;
  capture.setLevel("KQWorldRepresentation", warning);
  int formatted = 0;

  // Case: a verbose line under a warning level: nothing formatted, nothing sent.
  KO_LOG(verbose, "KQWorldRepresentation", "", "init", 0) << Counted{&formatted};
  EXPECT_EQ(0, formatted);
  EXPECT_TRUE(capture.records().empty());

  // Case: an admitted line is formatted exactly once.
  KO_LOG(warning, "KQWorldRepresentation", "", "init", 0) << Counted{&formatted};
  EXPECT_EQ(1, formatted);
  EXPECT_EQ(std::vector<std::string>{"counted"}, capture.messages());

  // Case: the macro is one statement: an else after it belongs to the
  // caller's if, and a refused line does not swallow it.
  bool elseRan = false;
  bool condition = false;
  if (condition)
    KO_LOG(error, "KQWorldRepresentation", "", "init", 0) << "never";
  else
    elseRan = true;
  EXPECT_TRUE(elseRan);
  EXPECT_EQ(1u, capture.records().size());
}

TEST(LogTest, RecordsCarryEveryField) {
  LogCapture capture;

  KO_LOG(warning, "KQWorldRepresentation", "", "storeObject", 0) << "Object " << std::string("cup")
                                                                 << " already exists.";
  KO_LOG(verbose, "KQMotionDisplacement", "motion.cpp", "refresh", 17)
      << "pose " << KQ::KQValue(std::vector<float>{1.0f, 0.5f});

  std::vector<Record> records = capture.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("Object cup already exists.", records[0].message);
  // Case: a dynamic value inside a line reads as its text.
  EXPECT_EQ("pose [1.0, 0.5]", records[1].message);
  EXPECT_EQ("motion.cpp", records[1].file);
  EXPECT_EQ(17, records[1].line);

  // Case: a null function name is an empty one.
  capture.clear();
  emit(error, "KQWorldRepresentation", nullptr, nullptr, 0, "bare");
  ASSERT_EQ(1u, capture.records().size());
  EXPECT_EQ("", capture.records()[0].function);
}

TEST(LogTest, StderrLineShape) {
  ManualClock clock(1'700'000'000, 42);  // 2023-11-14 22:13:20 UTC
  LogCapture capture;
  setSinks({std::make_shared<StderrSink>()});

  // Case: time, level, category, function, message on one line.
  ::testing::internal::CaptureStderr();
  KO_LOG(warning, "KQWorldRepresentation", "", "storeObject", 0) << "Object cup already exists.";
  std::string out = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ("2023-11-14 22:13:20.000042 warning [KQWorldRepresentation] storeObject: Object cup already exists.\n",
            out);

  // Case: without a function the line has no empty "function: " piece.
  clock.advanceMicroseconds(999'958);
  ::testing::internal::CaptureStderr();
  emit(error, "KQMotionDisplacement", "", "", 0, "no transform");
  out = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ("2023-11-14 22:13:21.000000 error [KQMotionDisplacement] no transform\n", out);
}

TEST(LogTest, JsonLineShape) {
  ManualClock clock(1'700'000'000, 42);
  LogCapture capture;
  std::ostringstream out;
  setSinks({std::make_shared<JsonSink>(out)});

  // Case: one object per line, fields in a fixed order, time in UTC.
  KO_LOG(warning, "KQWorldRepresentation", "", "storeObject", 0) << "Object cup already exists.";
  // Case: quotes, backslashes and newlines in a message are escaped, so
  // that one record stays one line.
  KO_LOG(error, "KQWorldRepresentation", "", "xQuery", 0) << "near \"WHERE\":\nsyntax \\ error";
  // Case: bytes that are not UTF-8 become U+FFFD instead of an exception.
  KO_LOG(error, "KQWorldRepresentation", "", "getData", 0) << "key \xff\xfe";

  EXPECT_EQ(
      "{\"time\":\"2023-11-14T22:13:20.000042Z\",\"level\":\"warning\",\"category\":\"KQWorldRepresentation\","
      "\"function\":\"storeObject\",\"message\":\"Object cup already exists.\"}\n"
      "{\"time\":\"2023-11-14T22:13:20.000042Z\",\"level\":\"error\",\"category\":\"KQWorldRepresentation\","
      "\"function\":\"xQuery\",\"message\":\"near \\\"WHERE\\\":\\nsyntax \\\\ error\"}\n"
      "{\"time\":\"2023-11-14T22:13:20.000042Z\",\"level\":\"error\",\"category\":\"KQWorldRepresentation\","
      "\"function\":\"getData\",\"message\":\"key \xef\xbf\xbd\xef\xbf\xbd\"}\n",
      out.str());
}

TEST(LogTest, SinksThatFailOrLogCannotHurtTheCaller) {
  LogCapture capture;

  // Case: a throwing sink loses its record; the sinks after it still get it
  // and the caller sees no exception.
  setSinks({std::make_shared<ThrowingSink>(), capture.sink()});
  EXPECT_NO_THROW(KO_LOG(error, "KQWorldRepresentation", "", "save", 0) << "cannot open nodes.xml");
  EXPECT_EQ(std::vector<std::string>{"cannot open nodes.xml"}, capture.messages());

  // Case: a sink that logs does not deadlock; its own line is dropped.
  auto logging = std::make_shared<LoggingSink>();
  setSinks({logging, capture.sink()});
  capture.clear();
  KO_LOG(error, "KQWorldRepresentation", "", "save", 0) << "outer";
  EXPECT_EQ(1, logging->writes);
  EXPECT_EQ(std::vector<std::string>{"outer"}, capture.messages());

  // Case: sinks added and removed by identity; a null sink is ignored.
  auto second = std::make_shared<CaptureSink>();
  setSinks({capture.sink()});
  addSink(second);
  addSink(nullptr);
  EXPECT_EQ(2u, getSinks().size());
  KO_LOG(error, "X", "", "f", 0) << "both";
  removeSink(second);
  KO_LOG(error, "X", "", "f", 0) << "one";
  EXPECT_EQ(std::vector<std::string>{"both"}, second->messages());
  EXPECT_EQ(std::vector<std::string>({"outer", "both", "one"}), capture.messages());
}

TEST(LogTest, ConcurrentLoggingLosesNothing) {
  LogCapture capture;
  const int kThreads = 4;
  const int kLines = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        KO_LOG(warning, "LogTest.Busy", "", "worker", 0) << "thread " << t << " line " << i;
      }
    });
  }
  // Level changes of another category race with the readers.
  threads.emplace_back([] {
    for (int i = 0; i < kLines; ++i) setCategoryLevel("LogTest.Toggled", i % 7);
  });
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(static_cast<size_t>(kThreads * kLines), capture.find("LogTest.Busy", "worker").size());
}

}  // namespace
}  // namespace log
}  // namespace ko
