// KQDatabaseManager speed on a real file: "positions" rows inserted each in its own commit and in one transaction
// (as storeObject and the memory watcher do); on a 1,000,000-row table, the latest-row and row-before-a-time
// queries, which must stay searches of the (ObjectName, TimeS) index. Well under 30 s.
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "storage/database_manager.h"
#include "storage/object_category.h"
#include "support/temp_dir.h"

namespace {

using KQ::KQDatabaseManager;
using KQ::KQValue;

const int kObjects = 1000;
const int kRowsPerObject = 1000;  // 1,000,000 rows in all

// A manager on a fresh "positions" table, as the module's categories make it.
struct PositionsTable {
  explicit PositionsTable(const std::string& name) : db(dir.file(name), true) {
    ObjectCategory category("Bench");
    ObjectAttribute positions("positions");
    for (const auto& [column, type] :
         {std::pair{"ObjectName", "text"}, {"TimeS", "int"}, {"TimeUS", "int"}, {"ParentName", "text"}})
      positions.addField(column, type);
    for (const char* column : {"QuatW", "QuatX", "QuatY", "QuatZ", "X", "Y", "Z"}) positions.addField(column, "float");
    category.addAttribute(positions);
    db.createTable("positions", category.getAttributeTable("positions"));
  }
  KQ::test::TempDir dir;
  KQDatabaseManager db;
};

KQValue positionRow() {
  std::vector<KQValue> row;
  for (const auto& [column, value] : std::vector<std::pair<const char*, KQValue>>{
           {"ParentName", "World"}, {"QuatW", 1.0f}, {"QuatX", 0.0f}, {"QuatY", 0.0f}, {"QuatZ", 0.0f}, {"X", 0.5f},
           {"Y", 0.25f}, {"Z", 1.0f}, {"ObjectName", "cup"}, {"TimeS", 1700000000}, {"TimeUS", 0}})
    row.push_back(KQValue(std::vector<KQValue>{KQValue(column), value}));
  return KQValue(row);
}

// batch 0: each row its own commit; otherwise `batch` rows per transaction.
void BM_InsertPositions(benchmark::State& state) {
  PositionsTable table("Bench.sqlite");
  const KQValue row = positionRow();
  const int batch = static_cast<int>(state.range(0));
  for (auto _ : state) {
    if (batch > 0) table.db.beginTransaction();
    for (int i = 0; i < std::max(batch, 1); ++i)
      if (table.db.insertRow("positions", row) != 0) state.SkipWithError("insert failed");
    if (batch > 0 && table.db.endTransaction() != 0) state.SkipWithError("commit failed");
  }
  state.SetItemsProcessed(state.iterations() * std::max(batch, 1));
}
BENCHMARK(BM_InsertPositions)->ArgName("batch")->Arg(0)->Arg(1000)->MinTime(0.2);

// The storage side of saved moves: one thread commits each row alone (insertRow, as a lone saved move does);
// several threads queue theirs and wait for the group commit that holds it. Shows what grouping gives with the
// module's own work taken away.
void BM_SavedRowsCommitted(benchmark::State& state) {
  static PositionsTable table("Group.sqlite");  // shared by the threads of a run
  const KQValue row = positionRow();
  for (auto _ : state) {
    uint64_t ticket = 0;
    const int status = state.threads() == 1 ? table.db.insertRow("positions", row)
                                            : table.db.appendToGroup({{"positions", row}}, ticket) +
                                                  table.db.commitGroup(ticket);
    if (status != 0) state.SkipWithError("insert failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SavedRowsCommitted)->Threads(1)->Threads(8)->UseRealTime()->MinTime(0.5);

// Built once, on first use. The million rows go in through one INSERT ... SELECT on a plain connection (the
// manager takes no SQL of that form), which keeps the run short; the manager then reopens it as at start-up.
KQDatabaseManager& largeTable() {
  static PositionsTable* table = [] {  // never destroyed: benchmarks may run in any order
    auto* made = new PositionsTable("Large.sqlite");
    const std::string path = made->dir.file("Large.sqlite");
    sqlite3* raw = nullptr;
    sqlite3_open(path.c_str(), &raw);
    const std::string fill = "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                             std::to_string(kObjects * kRowsPerObject - 1) +
                             ") INSERT INTO positions SELECT 'obj' || (i % " + std::to_string(kObjects) + "), i / " +
                             std::to_string(kObjects) + ", 0, 'World', 1.0, 0.0, 0.0, 0.0, 0.5, 0.25, 1.0 FROM n";
    if (sqlite3_exec(raw, fill.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
    sqlite3_close(raw);
    made->db = KQDatabaseManager(path, true);
    made->db.load();
    return made;
  }();
  return table->db;
}

// before 0: the latest row of an object; otherwise the row just before second `before` (the query of positions
// in time), with the row after it.
void BM_QueryMillionRowTable(benchmark::State& state) {
  KQDatabaseManager& db = largeTable();
  const int before = static_cast<int>(state.range(0));
  const int expected = before > 0 ? before - 1 : kRowsPerObject - 1;
  int object = 0;
  for (auto _ : state) {
    std::string where = "ObjectName='obj" + std::to_string(object) + "'";
    if (before > 0) where += " AND TimeS <" + std::to_string(before);
    KQValue rows = db.selectWithOrder("positions", where, "TimeS DESC", "*", before > 0 ? 1 : 0);
    if (rows.getSize() != (before > 0 ? 2 : 1) || rows[0][1] != KQValue(expected)) state.SkipWithError("wrong row");
    object = (object + 37) % kObjects;
  }
}
BENCHMARK(BM_QueryMillionRowTable)->ArgName("before")->Arg(0)->Arg(500)->MinTime(0.2);

}  // namespace

int main(int argc, char** argv) {
  KQ::bench::RatioReporter reporter;
  reporter.addPair("BM_SavedRowsCommitted/min_time:0.500/real_time/threads:8",
                   "BM_SavedRowsCommitted/min_time:0.500/real_time/threads:1", 1 / 3.0);
  return reporter.run(argc, argv);
}
