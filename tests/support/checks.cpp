#include "support/checks.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace KQ::test {

std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& e) {
    return e.what();
  }
  ADD_FAILURE() << "the call threw nothing";
  return "";
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

std::vector<std::vector<std::string>> sqliteRows(const std::string& path, const std::string& sql) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK)
    while (sqlite3_step(statement) == SQLITE_ROW) {
      rows.emplace_back();
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const unsigned char* text = sqlite3_column_text(statement, i);
        rows.back().push_back(text == nullptr ? "NULL" : reinterpret_cast<const char*>(text));
      }
    }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return rows;
}

long long sqliteScalar(const std::string& path, const std::string& sql) {
  const auto rows = sqliteRows(path, sql);
  return rows.empty() || rows[0].empty() || rows[0][0] == "NULL" ? -1 : std::atoll(rows[0][0].c_str());
}

void expectFloatsNear(const std::vector<float>& expected, const std::vector<float>& actual, float tolerance,
                      const std::string& what) {
  ASSERT_EQ(expected.size(), actual.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_NEAR(expected[i], actual[i], tolerance) << what << " [" << i << "]";
}

Watchdog::Watchdog(std::chrono::seconds limit, std::string what)
    : thread_([done = finished_.get_future(), limit, what = std::move(what)] {
        if (done.wait_for(limit) == std::future_status::ready) return;
        std::fprintf(stderr, "WATCHDOG: %s did not finish within %lld s: deadlock suspected\n", what.c_str(),
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::abort();
      }) {}

Watchdog::~Watchdog() {
  finished_.set_value();
  thread_.join();
}

}  // namespace KQ::test
