#include "support/checks.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace KQ {
namespace test {

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

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
}

bool fileExists(const std::string& path) { return std::ifstream(path).good(); }

std::vector<std::vector<std::string>> sqliteRows(const std::string& path, const std::string& sql) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
      while (sqlite3_step(statement) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
          const unsigned char* text = sqlite3_column_text(statement, i);
          row.push_back(text == nullptr ? "NULL" : reinterpret_cast<const char*>(text));
        }
        rows.push_back(row);
      }
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return rows;
}

long long sqliteScalar(const std::string& path, const std::string& sql) {
  const auto rows = sqliteRows(path, sql);
  if (rows.empty() || rows[0].empty() || rows[0][0] == "NULL") return -1;
  return std::atoll(rows[0][0].c_str());
}

void expectFloatsNear(const std::vector<float>& expected, const std::vector<float>& actual, float tolerance,
                      const std::string& what) {
  ASSERT_EQ(expected.size(), actual.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_NEAR(expected[i], actual[i], tolerance) << what << " [" << i << "]";
}

Watchdog::Watchdog(std::chrono::seconds limit, std::string what) : what_(std::move(what)) {
  thread_ = std::thread([this, limit] {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!done_.wait_for(lock, limit, [this] { return finished_; })) {
      std::fprintf(stderr, "WATCHDOG: %s did not finish within %lld s: deadlock suspected\n", what_.c_str(),
                   static_cast<long long>(limit.count()));
      std::fflush(stderr);
      std::abort();
    }
  });
}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
  thread_.join();
}

}  // namespace test
}  // namespace KQ
