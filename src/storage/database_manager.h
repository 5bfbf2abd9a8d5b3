// KQDatabaseManager: the storage engine of one object category, one SQLite 3
// file with one table per attribute.
//
// A manager value shares its connection: managers assigned one from another
// hold the same connection, closed once when the last holder goes. A
// default-constructed manager is unbound: every operation fails (non-zero
// status, empty result).
//
// Rows handed in are KQValue arrays of [column name, value] pairs; values
// bind as text, integer or real. Results are arrays of rows, each an array of
// the selected columns in column order, typed by the column's declared type:
// "text" -> string, "int" -> int, "float" -> float, NULL -> invalid.
//
// The condition, ordering and column strings are placed into the SQL as they
// stand (after WHERE, ORDER BY, SELECT). One statement per call: text with a
// non-blank tail after the first statement fails and the tail never runs.
// select and selectWithOrder run read-only (statement check, an authorizer
// that allows reading this database's tables only, a progress deadline, a
// cap on the bytes returned);
// the conditions of updateRow and deleteRow pass the same authorizer, with
// changing rows of this database's tables allowed besides.
//
// Storage choices: WAL journal, synchronous=NORMAL, a busy timeout, prepared
// statements cached per SQL text, writes that open a transaction use
// BEGIN IMMEDIATE, and every table gets an index on (ObjectName, TimeS).
//
// Threading: SQLite's serialized mode, plus three mutexes per connection:
// the write turn (one writer at a time: every writing call and each group
// commit), the group's state, and the statement cache, from which each call
// checks its statement out, so concurrent readers never share one. The
// module calls writers under its category lock held exclusively and readers
// under it held shared; appendToGroup needs it shared only and commitGroup
// none, so a group is written while readers read and the next group gathers.
#ifndef KQ_STORAGE_DATABASE_MANAGER_H_
#define KQ_STORAGE_DATABASE_MANAGER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "middleware/value.h"

namespace KQ {

class KQDatabaseManager {
 public:
  KQDatabaseManager();
  // Opens (creating if absent) the file at `path`. The flag is kept for
  // callers that pass it; the file is always worked on directly.
  KQDatabaseManager(const std::string& path, bool create);
  KQDatabaseManager(const KQDatabaseManager& other);
  KQDatabaseManager& operator=(const KQDatabaseManager& other);
  ~KQDatabaseManager();

  bool isOpen() const;
  int load();
  int save() const;
  std::string storagePath() const;

  int createTable(const std::string& table, const std::string& columns);
  int insertRow(const std::string& table, const KQValue& row);
  int updateRow(const std::string& table, const KQValue& row, const std::string& where);
  int deleteRow(const std::string& table, const std::string& where);
  KQValue select(const std::string& table, const std::string& where, const std::string& columns) const;
  KQValue selectWithOrder(const std::string& table, const std::string& where, const std::string& order,
                          const std::string& columns, int last) const;
  // The rows of one object on either side of a second, for queries of the
  // past: into `before` the latest row of `objectName` in `table` with TimeS
  // strictly before `second`, into `after` the earliest with TimeS strictly
  // after it (rows of equal TimeS in the order of the (ObjectName, TimeS)
  // index, as an ORDER BY TimeS LIMIT 1 select takes them). Each is a result
  // as select's ("*" rows typed by column, capped alike): one row or none.
  // Two searches of the index by statements prepared once per connection,
  // the name and second bound, not written into the SQL.
  void selectAroundSecond(const std::string& table, const std::string& objectName, int second, KQValue& before,
                          KQValue& after) const;
  int resetDatabase();
  // A caller's transaction: a begin while one is open is refused (non-zero,
  // nothing changes); end commits everything since the begin. One left open
  // when the connection closes is committed.
  int beginTransaction();
  bool isInTransaction() const;  // a transaction is open on the connection
  int endTransaction();
  // Runs `work` (a few writes) atomically: inside the open transaction if
  // there is one (nothing is committed early), else in one of its own.
  int inTransaction(const std::function<int()>& work);

  // The module's own reads, never caller text: every row of `sql` (one
  // read-only statement), typed as select's, without select's deadline or
  // byte cap (start-up reads whole tables). `status` gets SQLite's code.
  KQValue readAll(const std::string& sql, int* status) const;
  // Each table of this database with its columns as [[name, declared type], ...],
  // in column order; tables by name.
  std::vector<std::pair<std::string, KQValue>> describeTables(int* status) const;
  // Group commit of saved rows: appendToGroup queues the row in memory for
  // the connection's next group and gives the group's ticket;
  // commitGroup(ticket) returns once that group is committed: 0, or 1 when
  // its commit failed (and was rolled back). The first waiter finding no
  // commit under way writes every queued row in one transaction, and the
  // rows queued meanwhile form the next group, so concurrent callers share
  // commits. Every other use of the connection first writes the queued
  // rows, keeping the file in call order. Inside the caller's own transaction
  // the row joins it at once and the ticket is 0 (nothing to wait for).
  // Each of `rows` is [table, row]; the rows of one call join one group.
  int appendToGroup(std::vector<std::pair<std::string, KQValue>> rows, uint64_t& ticket);
  int commitGroup(uint64_t ticket);

  // Milliseconds a statement holding caller text (select, update, delete)
  // may run before it is interrupted (default 2000).
  void setQueryDeadline(int milliseconds);
  // Bytes of values a select may return before it is cut off with an empty
  // result and an error line (default 1 MiB).
  void setResultCap(std::size_t bytes);
  // The deadline and cap every connection opened from now on starts with.
  static void setDefaultLimits(int deadlineMs, std::size_t resultCapBytes);
  // Number of connections currently open in this process (for tests).
  static int openConnectionCount();

 private:
  class Connection;
  class CachedStatement;

  // Every x... helper below assumes an open connection (xReady said so).
  // False, with an error line, when no database is open.
  bool xReady(const char* function) const;
  // Names of this database's own tables (SQLite's internal ones left out).
  std::vector<std::string> xTableNames(int* status) const;
  // Adds the (ObjectName, TimeS) index to a table that has both columns.
  int xIndexTable(const std::string& table, const char* function);
  // Runs `work` inside the open transaction, or inside one of its own.
  int xInTransaction(const char* function, const std::function<int()>& work);
  // insertRow's work, for a caller holding the write turn.
  int xInsertRow(const std::string& table, const KQValue& row) const;
  // Takes the write turn (held until the lock returned goes) and writes the
  // queued rows first.
  std::unique_lock<std::mutex> xWriteTurn() const;
  // Commits every queued row as one group; the caller holds the write turn.
  void xWriteGroup() const;
  // Records whether a caller's transaction is open; under the write turn.
  void xNoteCallerTransaction() const;
  // Runs one read-only query holding caller text; rows typed by column.
  KQValue xQuery(const std::string& sql, const char* function) const;
  // Steps a read-only statement to its end: its rows typed by column, cut
  // off at the result cap (an empty result then, as on any failure).
  KQValue xReadRows(CachedStatement& stmt, const char* function) const;

  std::shared_ptr<Connection> connection_;
};

}  // namespace KQ

#endif  // KQ_STORAGE_DATABASE_MANAGER_H_
