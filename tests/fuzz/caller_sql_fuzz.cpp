// Caller text that the check lets through stays inside its place: placed as
// a condition in the module's wrapping, it never yields a second statement
// nor comments out the closing parenthesis.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "storage/caller_sql.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (!KQ::whyCallerSqlEscapes(text).empty()) return 0;
  // What SQLite makes of the accepted text where the module puts it.
  const std::string sql = "SELECT 1 WHERE ObjectName='x' AND (" + text + ")";
  static sqlite3* db = [] {
    sqlite3* opened = nullptr;
    sqlite3_open(":memory:", &opened);
    return opened;
  }();
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, &tail) == SQLITE_OK) {
    // A statement that prepared must have used the whole text.
    if (tail != nullptr && *tail != '\0') std::abort();
  }
  sqlite3_finalize(stmt);
  return 0;
}
