// KQDatabaseManager speed on a real file in a temporary folder:
//  - inserting "positions" rows one by one (each its own commit) and grouped
//    in one transaction, as storeObject and the memory watcher do;
//  - the latest-values query (WHERE ObjectName=... ORDER BY TimeS DESC, first
//    row) on a 1,000,000-row table, which must stay a search of the
//    (ObjectName, TimeS) index however large the history grows.
// The default run takes well under 30 s.
#include <sqlite3.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/database_manager.h"
#include "storage/object_category.h"
#include "support/temp_dir.h"

namespace {

using KQ::KQDatabaseManager;
using KQ::KQValue;

const int kObjects = 1000;
const int kRowsPerObject = 1000;  // 1,000,000 rows in all

std::string positionsColumns() {
  ObjectCategory category("Bench");
  ObjectAttribute positions("positions");
  positions.addField("ObjectName", "text");
  positions.addField("TimeS", "int");
  positions.addField("TimeUS", "int");
  positions.addField("ParentName", "text");
  for (const char* name : {"QuatW", "QuatX", "QuatY", "QuatZ", "X", "Y", "Z"}) positions.addField(name, "float");
  category.addAttribute(positions);
  return category.getAttributeTable("positions");
}

KQValue pair(const std::string& column, const KQValue& value) {
  return KQValue(std::vector<KQValue>{KQValue(column), value});
}

KQValue positionRow(const std::string& object, int timeS) {
  return KQValue(std::vector<KQValue>{pair("ParentName", "World"), pair("QuatW", 1.0f), pair("QuatX", 0.0f),
                                      pair("QuatY", 0.0f), pair("QuatZ", 0.0f), pair("X", 0.5f), pair("Y", 0.25f),
                                      pair("Z", 1.0f), pair("ObjectName", object), pair("TimeS", timeS),
                                      pair("TimeUS", 0)});
}

void BM_InsertEachItsOwnCommit(benchmark::State& state) {
  KQ::test::TempDir dir;
  KQDatabaseManager db(dir.file("Bench.sqlite"), true);
  db.createTable("positions", positionsColumns());
  KQValue row = positionRow("cup", 1700000000);
  for (auto _ : state) {
    if (db.insertRow("positions", row) != 0) state.SkipWithError("insert failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InsertEachItsOwnCommit)->MinTime(0.2);

void BM_InsertInOneTransaction(benchmark::State& state) {
  KQ::test::TempDir dir;
  KQDatabaseManager db(dir.file("Bench.sqlite"), true);
  db.createTable("positions", positionsColumns());
  KQValue row = positionRow("cup", 1700000000);
  const int batch = static_cast<int>(state.range(0));
  for (auto _ : state) {
    db.beginTransaction();
    for (int i = 0; i < batch; ++i) db.insertRow("positions", row);
    if (db.endTransaction() != 0) state.SkipWithError("commit failed");
  }
  state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_InsertInOneTransaction)->Arg(1000)->MinTime(0.2);

// The large table is built once, on first use, and shared by the queries.
// The manager creates the table and its index; the million rows go in through
// one INSERT ... SELECT on a plain connection (the manager takes no SQL of
// that form), which keeps the default run short; the manager then reopens
// the file as the module does at start-up.
struct LargeTable {
  LargeTable() {
    const std::string path = dir.file("Large.sqlite");
    KQDatabaseManager(path, true).createTable("positions", positionsColumns());
    sqlite3* raw = nullptr;
    sqlite3_open(path.c_str(), &raw);
    const std::string fill =
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(kObjects * kRowsPerObject - 1) +
        ") INSERT INTO positions SELECT 'obj' || (i % " + std::to_string(kObjects) + "), i / " +
        std::to_string(kObjects) + ", 0, 'World', 1.0, 0.0, 0.0, 0.0, 0.5, 0.25, 1.0 FROM n";
    if (sqlite3_exec(raw, fill.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
    sqlite3_close(raw);
    db = KQDatabaseManager(path, true);
    db.load();
  }
  KQ::test::TempDir dir;
  KQDatabaseManager db;
};

LargeTable& largeTable() {
  static LargeTable* table = new LargeTable();  // left for process exit: benchmarks may run in any order
  return *table;
}

void BM_LatestRowOfMillionRowTable(benchmark::State& state) {
  KQDatabaseManager& db = largeTable().db;
  int object = 0;
  for (auto _ : state) {
    const std::string where = "ObjectName='obj" + std::to_string(object) + "'";
    KQValue rows = db.selectWithOrder("positions", where, "TimeS DESC", "*", 0);
    if (rows.getSize() != 1 || rows[0][1] != KQValue(kRowsPerObject - 1)) state.SkipWithError("wrong latest row");
    object = (object + 37) % kObjects;
  }
}
BENCHMARK(BM_LatestRowOfMillionRowTable)->MinTime(0.2);

// The history query of positions in time: the row just before a moment.
void BM_RowBeforeTimeOfMillionRowTable(benchmark::State& state) {
  KQDatabaseManager& db = largeTable().db;
  int object = 0;
  for (auto _ : state) {
    const std::string where = "ObjectName='obj" + std::to_string(object) + "' AND TimeS <500";
    KQValue rows = db.selectWithOrder("positions", where, "TimeS DESC", "*", 1);
    if (rows.getSize() != 2 || rows[0][1] != KQValue(499)) state.SkipWithError("wrong row before");
    object = (object + 37) % kObjects;
  }
}
BENCHMARK(BM_RowBeforeTimeOfMillionRowTable)->MinTime(0.2);

}  // namespace

BENCHMARK_MAIN();
