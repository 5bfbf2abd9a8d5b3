#include "storage/database_manager.h"

#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "middleware/log.h"
#include "storage/sql_identifier.h"

namespace KQ {

namespace {

const char* const kLogCategory = "KQDatabaseManager";
const int kBusyTimeoutMs = 5000;
const int kDefaultQueryDeadlineMs = 2000;
// Virtual-machine instructions between two looks at the query deadline: small
// enough that a runaway query stops within a few milliseconds of it, large
// enough that reading the clock costs nothing measurable.
const int kProgressInterval = 1000;
// Distinct SQL texts whose prepared statements are kept. Caller conditions
// make the set of texts open-ended, so the cache forgets the least recently
// used text beyond this.
const std::size_t kStatementCacheCapacity = 128;

const int kMaxValueBytes = 64 * 1024 * 1024;
// Groups one waiting caller writes in a row before it answers its own.
const int kGroupsPerLeader = 8;
// Turns a waiter for a group commit gives away before it sleeps: a commit
// takes tens of microseconds, so a waiter with no one else to run spins at
// most that long; measured with 8 saving threads on 2 cores, 256 beat 16
// and 64 (fewer sleepers to wake across cores).
const int kYieldsBeforeSleep = 256;

std::atomic<int> gOpenConnections{0};
// Limits every new connection starts with (the service sets them from its
// options before any category opens).
std::atomic<int> gDefaultDeadlineMs{kDefaultQueryDeadlineMs};
std::atomic<std::size_t> gDefaultResultCapBytes{std::size_t{1} << 20};

#define KQDB_LOG(level, function) KO_LOG((level), kLogCategory, "", (function), 0)

// What the authorizer lets a statement do. Set per thread around prepare and
// step, since the authorizer and progress handler are per connection while
// several reader threads share one connection; both callbacks run on the
// thread that prepares or steps the statement.
enum class Access {
  kInternal,  // SQL written here from quoted names only: anything goes
  kRead,      // caller text in a select: read this database's own tables
  kWrite,     // caller text in an update/delete: kRead plus changing rows
};

thread_local Access tAccess = Access::kInternal;
thread_local bool tDeadlineArmed = false;
thread_local std::chrono::steady_clock::time_point tDeadline;

class AccessScope {
 public:
  AccessScope(Access access, int deadlineMs) : savedAccess_(tAccess), savedArmed_(tDeadlineArmed) {
    tAccess = access;
    tDeadlineArmed = deadlineMs > 0;
    if (tDeadlineArmed) tDeadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
  }
  ~AccessScope() {
    tAccess = savedAccess_;
    tDeadlineArmed = savedArmed_;
  }
  AccessScope(const AccessScope&) = delete;
  AccessScope& operator=(const AccessScope&) = delete;

 private:
  Access savedAccess_;
  bool savedArmed_;
};

bool startsWithNoCase(const char* text, const char* prefix) {
  if (text == nullptr) return false;
  sqlite3_int64 n = 0;
  while (prefix[n] != '\0') ++n;
  return sqlite3_strnicmp(text, prefix, static_cast<int>(n)) == 0;
}

// A table the caller may touch: a table of this database ("main") that is
// neither SQLite's own (sqlite_master, sqlite_sequence, ...) nor a pragma
// exposed as a table (pragma_table_info, ...).
bool isOwnTable(const char* table, const char* database) {
  if (table == nullptr) return false;
  // A read of no column (count(*), a constant) names no database; ATTACH is
  // refused, so such a table is one of this database's.
  if (database != nullptr && sqlite3_stricmp(database, "main") != 0) return false;
  return !startsWithNoCase(table, "sqlite_") && !startsWithNoCase(table, "pragma_");
}

int authorize(void*, int action, const char* a1, const char* a2, const char* database, const char*) {
  if (tAccess == Access::kInternal) return SQLITE_OK;
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_RECURSIVE:
      return SQLITE_OK;
    case SQLITE_READ:
      return isOwnTable(a1, database) ? SQLITE_OK : SQLITE_DENY;
    case SQLITE_FUNCTION:
      // a2 is the function's name; load_extension is also switched off on
      // the connection, this keeps it out even if that ever changes.
      return (a2 != nullptr && sqlite3_stricmp(a2, "load_extension") == 0) ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
      if (tAccess == Access::kWrite && isOwnTable(a1, database)) return SQLITE_OK;
      return SQLITE_DENY;
    default:
      // ATTACH, DETACH, PRAGMA, CREATE, DROP, ALTER, transactions, ...
      return SQLITE_DENY;
  }
}

int checkProgress(void*) {
  if (!tDeadlineArmed) return 0;
  return std::chrono::steady_clock::now() > tDeadline ? 1 : 0;
}

bool isBlank(const char* text) {
  if (text == nullptr) return true;
  for (; *text != '\0'; ++text) {
    if (*text != ' ' && *text != '\t' && *text != '\n' && *text != '\r' && *text != '\f' && *text != '\v') {
      return false;
    }
  }
  return true;
}

// How a result column turns into a KQValue. Declared types follow SQLite's
// own affinity rules, so "int", "INTEGER" or "bigint" read as ints, "text"
// or "varchar(20)" as strings, "float" or "double" as floats; a column
// without a usable declared type (an expression, a BLOB/NUMERIC column)
// reads by the storage class of each value.
enum class ColumnKind { kInt, kFloat, kText, kStored };

ColumnKind kindOfDeclaredType(const char* declared) {
  if (declared == nullptr || *declared == '\0') return ColumnKind::kStored;
  std::string upper;
  for (const char* p = declared; *p != '\0'; ++p) {
    upper += static_cast<char>((*p >= 'a' && *p <= 'z') ? *p - 'a' + 'A' : *p);
  }
  if (upper.find("INT") != std::string::npos) return ColumnKind::kInt;
  if (upper.find("CHAR") != std::string::npos || upper.find("CLOB") != std::string::npos ||
      upper.find("TEXT") != std::string::npos) {
    return ColumnKind::kText;
  }
  if (upper.find("REAL") != std::string::npos || upper.find("FLOA") != std::string::npos ||
      upper.find("DOUB") != std::string::npos) {
    return ColumnKind::kFloat;
  }
  return ColumnKind::kStored;
}

KQValue textValue(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  int bytes = sqlite3_column_bytes(stmt, column);
  if (text == nullptr) return KQValue(std::string());
  return KQValue(std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(bytes)));
}

KQValue readColumn(sqlite3_stmt* stmt, int column) {
  int stored = sqlite3_column_type(stmt, column);
  if (stored == SQLITE_NULL) return KQValue();
  switch (kindOfDeclaredType(sqlite3_column_decltype(stmt, column))) {
    case ColumnKind::kInt:
      // KQValue ints are 32 bits; times are stored truncated to 32 bits.
      return KQValue(static_cast<int>(sqlite3_column_int64(stmt, column)));
    case ColumnKind::kFloat:
      return KQValue(static_cast<float>(sqlite3_column_double(stmt, column)));
    case ColumnKind::kText:
      return textValue(stmt, column);
    case ColumnKind::kStored:
      break;
  }
  switch (stored) {
    case SQLITE_INTEGER:
      return KQValue(static_cast<int>(sqlite3_column_int64(stmt, column)));
    case SQLITE_FLOAT:
      return KQValue(static_cast<float>(sqlite3_column_double(stmt, column)));
    default:  // TEXT, BLOB
      return textValue(stmt, column);
  }
}

KQValue emptyArray() {
  KQValue rows;
  rows.arraySetSize(0);
  return rows;
}

}  // namespace

// One open SQLite connection and its statement cache, shared by every
// manager assigned from the one that opened it; closed when the last holder
// goes.
//
// Threading: the connection is opened in serialized mode, so SQLite itself
// serialises calls on it. The statement cache is guarded by cacheMutex_;
// a statement is checked out to one thread at a time and reset when it comes
// back, so a reader never sees its statement reset by another.
class KQDatabaseManager::Connection {
 public:
  // One writer of the connection at a time: a group's transaction or any
  // other write. Taken before groupMutex, never after it.
  std::mutex writeMutex;
  // Group commit of saved rows (appendToGroup / commitGroup): rows wait in
  // `pendingRows` until one writer takes them all and commits them in one
  // transaction; rows arriving meanwhile gather for the next group. Only
  // memory is touched under groupMutex, so appending never waits for a
  // commit in progress.
  std::mutex groupMutex;
  // Waiters of group g wait on groupWritten[g % 2], so the writing of one
  // group wakes only its own callers (and at most one of the next, to write it).
  std::condition_variable groupWritten[2];
  std::vector<std::pair<std::string, KQValue>> pendingRows;  // [table, row] of group `openGroup`
  // Whether `pendingRows` holds any, readable without groupMutex: every
  // read of the connection looks at it (changed only under groupMutex).
  std::atomic<bool> rowsQueued{false};
  uint64_t openGroup = 1;         // the group new rows join
  uint64_t writtenGroup = 0;      // every group up to this one is written
  bool leaderWriting = false;     // a waiting appender is writing groups for the others
  bool callerTransaction = false; // a caller's transaction is open: rows join it at once
  std::set<uint64_t> failedGroups;  // groups whose commit failed (rare; kept for their late callers)

  explicit Connection(const std::string& path) : path_(path) {
    int rc = sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
      KQDB_LOG(ko::log::error, "KQDatabaseManager")
          << "Could not open " << path << ": " << (db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
      if (db_ != nullptr) sqlite3_close_v2(db_);
      db_ = nullptr;
      return;
    }
    ++gOpenConnections;
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
    // Keeps even internal SQL from writing SQLite's own tables directly.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    // No attribute value comes near this; a hostile select that builds a
    // giant string (printf, zeroblob) fails instead of exhausting memory.
    sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, kMaxValueBytes);
    sqlite3_set_authorizer(db_, &authorize, nullptr);
    sqlite3_progress_handler(db_, kProgressInterval, &checkProgress, nullptr);
    // A file that is not a database fails here; it is left untouched and
    // every later operation reports SQLite's status for it.
    exec("PRAGMA journal_mode=WAL", "KQDatabaseManager");
    exec("PRAGMA synchronous=NORMAL", "KQDatabaseManager");
    // Position histories are written one row per commit; checkpointing (and
    // syncing) every 1000 pages would cost more than the rows themselves.
    exec("PRAGMA wal_autocheckpoint=10000", "KQDatabaseManager");
    // ...and a log grown past 64 MiB (a large transaction) is cut back after
    // a checkpoint. The limit sits above the ~40 MiB the checkpoint interval
    // lets the log reach, so in steady use the file is reused, not cut and
    // regrown: regrowing it made every saved move a quarter slower.
    exec("PRAGMA journal_size_limit=67108864", "KQDatabaseManager");
  }

  ~Connection() {
    if (db_ == nullptr) return;
    // A caller's transaction still open when its category goes or the
    // service stops is committed, not rolled back with the connection.
    if (sqlite3_get_autocommit(db_) == 0) exec("COMMIT", "KQDatabaseManager");
    {
      std::lock_guard<std::mutex> lock(cacheMutex_);
      for (auto& entry : lru_) {
        for (sqlite3_stmt* stmt : entry.second) sqlite3_finalize(stmt);
      }
      lru_.clear();
      index_.clear();
    }
    sqlite3_close_v2(db_);
    --gOpenConnections;
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool isOpen() const { return db_ != nullptr; }
  const std::string& path() const { return path_; }
  sqlite3* db() const { return db_; }
  int deadlineMs() const { return deadlineMs_.load(); }
  void setDeadlineMs(int ms) { deadlineMs_.store(ms); }
  std::size_t resultCapBytes() const { return resultCapBytes_.load(); }
  void setResultCapBytes(std::size_t bytes) { resultCapBytes_.store(bytes); }

  // Runs SQL written here (no caller text), discarding any rows.
  int exec(const std::string& sql, const char* function) {
    sqlite3_stmt* stmt = nullptr;
    int rc = prepare(sql, &stmt, function);
    if (rc != SQLITE_OK) return rc;
    rc = stepAll(stmt, sql, function);
    sqlite3_finalize(stmt);
    return rc;
  }

  // Prepares one statement; refuses text with anything but blanks after it.
  int prepare(const std::string& sql, sqlite3_stmt** out, const char* function) {
    *out = nullptr;
    const char* tail = nullptr;
    sqlite3_mutex* mutex = sqlite3_db_mutex(db_);
    sqlite3_mutex_enter(mutex);  // keeps the error message ours until read
    int rc = sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), out, &tail);
    std::string message = rc != SQLITE_OK ? sqlite3_errmsg(db_) : std::string();
    sqlite3_mutex_leave(mutex);
    if (rc != SQLITE_OK) {
      KQDB_LOG(ko::log::error, function) << "Could not prepare " << sql << ": " << message;
      sqlite3_finalize(*out);
      *out = nullptr;
      return rc;
    }
    if (*out == nullptr) {  // nothing but blanks or comments
      KQDB_LOG(ko::log::error, function) << "No statement in " << sql;
      return SQLITE_MISUSE;
    }
    if (!isBlank(tail)) {
      KQDB_LOG(ko::log::error, function) << "Refused more than one statement: " << sql;
      sqlite3_finalize(*out);
      *out = nullptr;
      return SQLITE_MISUSE;
    }
    return SQLITE_OK;
  }

  // Steps until done; SQLITE_OK on success, else SQLite's code (logged).
  int stepAll(sqlite3_stmt* stmt, const std::string& sql, const char* function) {
    int rc;
    do {
      rc = step(stmt, sql, function);
    } while (rc == SQLITE_ROW);
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
  }

  // One step; logs a failure. Returns SQLITE_ROW, SQLITE_DONE or the error.
  int step(sqlite3_stmt* stmt, const std::string& sql, const char* function) {
    sqlite3_mutex* mutex = sqlite3_db_mutex(db_);
    sqlite3_mutex_enter(mutex);
    int rc = sqlite3_step(stmt);
    std::string message = (rc != SQLITE_ROW && rc != SQLITE_DONE) ? sqlite3_errmsg(db_) : std::string();
    sqlite3_mutex_leave(mutex);
    if (rc == SQLITE_ROW || rc == SQLITE_DONE) return rc;
    if (rc == SQLITE_INTERRUPT) {
      KQDB_LOG(ko::log::error, function) << "Statement interrupted at its deadline of " << deadlineMs()
                                         << " ms (--sql-timeout-ms): " << sql;
    } else {
      KQDB_LOG(ko::log::error, function) << "Could not run " << sql << ": " << message;
    }
    return rc;
  }

  // A prepared statement for `sql`, from the cache (under `key`) when one
  // is idle.
  int checkOut(const std::string& key, const std::string& sql, sqlite3_stmt** out, const char* function) {
    {
      std::lock_guard<std::mutex> lock(cacheMutex_);
      auto found = index_.find(key);
      if (found != index_.end()) {
        lru_.splice(lru_.begin(), lru_, found->second);
        std::vector<sqlite3_stmt*>& idle = found->second->second;
        if (!idle.empty()) {
          *out = idle.back();
          idle.pop_back();
          return SQLITE_OK;
        }
      }
    }
    return prepare(sql, out, function);
  }

  // Returns a statement to the cache, reset and with its bindings cleared.
  void checkIn(const std::string& key, sqlite3_stmt* stmt) {
    if (stmt == nullptr) return;
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    std::vector<sqlite3_stmt*> evicted;
    {
      std::lock_guard<std::mutex> lock(cacheMutex_);
      auto found = index_.find(key);
      if (found == index_.end()) {
        lru_.emplace_front(key, std::vector<sqlite3_stmt*>());
        index_[key] = lru_.begin();
        found = index_.find(key);
        while (lru_.size() > kStatementCacheCapacity) {
          auto& oldest = lru_.back();
          evicted.insert(evicted.end(), oldest.second.begin(), oldest.second.end());
          index_.erase(oldest.first);
          lru_.pop_back();
        }
      }
      found->second->second.push_back(stmt);
    }
    for (sqlite3_stmt* old : evicted) sqlite3_finalize(old);
  }

 private:
  using Entry = std::pair<std::string, std::vector<sqlite3_stmt*>>;

  std::string path_;
  sqlite3* db_ = nullptr;
  std::atomic<int> deadlineMs_{gDefaultDeadlineMs.load()};
  std::atomic<std::size_t> resultCapBytes_{gDefaultResultCapBytes.load()};
  std::mutex cacheMutex_;
  std::list<Entry> lru_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

// A statement checked out of the connection's cache for the life of this
// object. The cache key carries the access mode as well as the text, so a
// statement authorised for one mode is never handed out under another.
class KQDatabaseManager::CachedStatement {
 public:
  CachedStatement(Connection& connection, std::string sql, const char* function)
      : connection_(connection),
        key_(static_cast<char>('0' + static_cast<int>(tAccess)) + sql),
        sql_(std::move(sql)),
        function_(function) {
    rc_ = connection_.checkOut(key_, sql_, &stmt_, function_);
  }
  ~CachedStatement() {
    if (stmt_ != nullptr) connection_.checkIn(key_, stmt_);
  }
  CachedStatement(const CachedStatement&) = delete;
  CachedStatement& operator=(const CachedStatement&) = delete;

  int status() const { return rc_; }
  sqlite3_stmt* get() const { return stmt_; }
  int step() { return connection_.step(stmt_, sql_, function_); }
  int run() { return connection_.stepAll(stmt_, sql_, function_); }
  const std::string& sql() const { return sql_; }

 private:
  Connection& connection_;
  std::string key_;
  std::string sql_;
  const char* function_;
  sqlite3_stmt* stmt_ = nullptr;
  int rc_ = SQLITE_OK;
};

namespace {

// Checks a row's shape: an array of [column name (string), value] pairs.
bool rowIsWellFormed(const KQValue& row) {
  if (!row.isArray()) return false;
  for (const KQValue& pair : row.toArray()) {
    if (!pair.isArray() || pair.getSize() != 2 || !pair[0].isString()) return false;
  }
  return true;
}

// Binds one value by its kind: text, integer or real; a bool as an integer,
// an invalid value as NULL. An array has no column form and is refused.
int bindValue(sqlite3_stmt* stmt, int index, const KQValue& value) {
  switch (value.getType()) {
    case KQValue::Type::Invalid:
      return sqlite3_bind_null(stmt, index);
    case KQValue::Type::Bool:
      return sqlite3_bind_int(stmt, index, value.toBool() ? 1 : 0);
    case KQValue::Type::Int:
      return sqlite3_bind_int(stmt, index, value.toInt());
    case KQValue::Type::Float:
      return sqlite3_bind_double(stmt, index, static_cast<double>(value.toFloat()));
    case KQValue::Type::String: {
      const std::string& text = value.toString();
      return sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    case KQValue::Type::Array:
      break;
  }
  return SQLITE_MISMATCH;
}

// Binds the row's values to ?1..?n in pair order; logs the first failure.
int bindRow(sqlite3_stmt* stmt, const KQValue& row, const char* function) {
  const std::vector<KQValue>& pairs = row.toArray();
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    int rc = bindValue(stmt, static_cast<int>(i) + 1, pairs[i][1]);
    if (rc != SQLITE_OK) {
      KQDB_LOG(ko::log::error, function) << "Cannot bind a value of type " << KQValue::typeName(pairs[i][1].getType())
                                         << " to column " << pairs[i][0].toString();
      return rc;
    }
  }
  return SQLITE_OK;
}

}  // namespace

KQDatabaseManager::KQDatabaseManager() = default;

KQDatabaseManager::KQDatabaseManager(const std::string& path, bool /*create*/)
    : connection_(std::make_shared<Connection>(path)) {}

KQDatabaseManager::KQDatabaseManager(const KQDatabaseManager& other) = default;

KQDatabaseManager& KQDatabaseManager::operator=(const KQDatabaseManager& other) = default;

KQDatabaseManager::~KQDatabaseManager() {
  // Rows appended by a caller that never asked for their commit are written
  // by the connection's last holder rather than dropped.
  if (connection_ && connection_.use_count() == 1 && connection_->isOpen()) xWriteTurn();
}

bool KQDatabaseManager::isOpen() const { return connection_ && connection_->isOpen(); }

std::string KQDatabaseManager::storagePath() const { return connection_ ? connection_->path() : std::string(); }

void KQDatabaseManager::setQueryDeadline(int milliseconds) {
  if (connection_) connection_->setDeadlineMs(milliseconds);
}

void KQDatabaseManager::setResultCap(std::size_t bytes) {
  if (connection_) connection_->setResultCapBytes(bytes);
}

void KQDatabaseManager::setDefaultLimits(int deadlineMs, std::size_t resultCapBytes) {
  gDefaultDeadlineMs.store(deadlineMs);
  gDefaultResultCapBytes.store(resultCapBytes);
}

int KQDatabaseManager::openConnectionCount() { return gOpenConnections.load(); }

bool KQDatabaseManager::xReady(const char* function) const {
  if (isOpen()) {
    // Queued rows are written before any other use of the connection, so a
    // batch that stored an object reads it back, as the calls' order says.
    if (connection_->rowsQueued.load()) xWriteTurn();
    return true;
  }
  KQDB_LOG(ko::log::error, function) << "No database is open.";
  return false;
}

std::vector<std::string> KQDatabaseManager::xTableNames(int* status) const {
  std::vector<std::string> names;
  CachedStatement stmt(*connection_,
                       "SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' "
                       "ORDER BY name",
                       "xTableNames");
  *status = stmt.status();
  if (*status != SQLITE_OK) return names;
  int rc;
  while ((rc = stmt.step()) == SQLITE_ROW) {
    names.push_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0)));
  }
  *status = rc == SQLITE_DONE ? SQLITE_OK : rc;
  return names;
}

int KQDatabaseManager::xIndexTable(const std::string& table, const char* function) {
  // Only tables that carry the special columns get the index; a table made
  // from some other column list is left as it is.
  bool hasObjectName = false;
  bool hasTimeS = false;
  {
    CachedStatement columns(*connection_, "SELECT name FROM pragma_table_info(?1)", function);
    if (columns.status() != SQLITE_OK) return columns.status();
    sqlite3_bind_text(columns.get(), 1, table.data(), static_cast<int>(table.size()), SQLITE_TRANSIENT);
    int rc;
    while ((rc = columns.step()) == SQLITE_ROW) {
      const char* name = reinterpret_cast<const char*>(sqlite3_column_text(columns.get(), 0));
      if (name == nullptr) continue;
      if (sqlite3_stricmp(name, "ObjectName") == 0) hasObjectName = true;
      if (sqlite3_stricmp(name, "TimeS") == 0) hasTimeS = true;
    }
    if (rc != SQLITE_DONE) return rc;
  }
  if (!hasObjectName || !hasTimeS) return SQLITE_OK;
  return connection_->exec("CREATE INDEX IF NOT EXISTS " + quoteSqlIdentifier(table + "_ObjectName_TimeS") + " ON " +
                               quoteSqlIdentifier(table) + " (\"ObjectName\", \"TimeS\")",
                           function);
}

int KQDatabaseManager::xInTransaction(const char* function, const std::function<int()>& work) {
  // Inside the caller's open transaction the work simply joins it; otherwise
  // it gets its own, begun IMMEDIATE so that it holds the write lock from the
  // start and never meets a snapshot that went stale.
  if (sqlite3_get_autocommit(connection_->db()) == 0) return work();
  int rc = connection_->exec("BEGIN IMMEDIATE", function);
  if (rc != SQLITE_OK) return rc;
  rc = work();
  if (rc != SQLITE_OK) {
    connection_->exec("ROLLBACK", function);
    return rc;
  }
  rc = connection_->exec("COMMIT", function);
  if (rc != SQLITE_OK) connection_->exec("ROLLBACK", function);
  return rc;
}

int KQDatabaseManager::load() {
  if (!xReady("load")) return 1;
  auto turn = xWriteTurn();
  return xInTransaction("load", [this]() {
    int rc = SQLITE_OK;
    std::vector<std::string> tables = xTableNames(&rc);
    if (rc != SQLITE_OK) return rc;
    for (const std::string& table : tables) {
      rc = xIndexTable(table, "load");
      if (rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
  });
}

int KQDatabaseManager::save() const {
  if (!xReady("save")) return 1;
  auto turn = xWriteTurn();
  // Commits are already in the write-ahead log; a full checkpoint syncs it
  // and copies it into the database file, so the rows are on disk whatever
  // synchronous=NORMAL skipped at commit time.
  sqlite3* db = connection_->db();
  sqlite3_mutex* mutex = sqlite3_db_mutex(db);
  sqlite3_mutex_enter(mutex);
  int rc = sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_FULL, nullptr, nullptr);
  std::string message = rc != SQLITE_OK ? sqlite3_errmsg(db) : std::string();
  sqlite3_mutex_leave(mutex);
  const int primary = rc & 0xff;
  if (primary == SQLITE_LOCKED || primary == SQLITE_BUSY) {
    // A reader on this connection (the module lets readers run beside a
    // save) or an open transaction holds the log: every committed row is in
    // the write-ahead log already and the next checkpoint copies it over.
    KQDB_LOG(ko::log::verbose, "save") << "Checkpoint of " << connection_->path() << " deferred: " << message;
    return SQLITE_OK;
  }
  if (rc != SQLITE_OK) {
    KQDB_LOG(ko::log::error, "save") << "Could not checkpoint " << connection_->path() << ": " << message;
  }
  return rc;
}

std::unique_lock<std::mutex> KQDatabaseManager::xWriteTurn() const {
  std::unique_lock<std::mutex> turn(connection_->writeMutex);
  // Rows appended before this write are written before it, so the file
  // keeps the order in which the module took its locks.
  xWriteGroup();
  return turn;
}

void KQDatabaseManager::xWriteGroup() const {
  Connection& connection = *connection_;
  std::vector<std::pair<std::string, KQValue>> rows;
  uint64_t group = 0;
  {
    std::lock_guard<std::mutex> lock(connection.groupMutex);
    if (connection.pendingRows.empty()) return;
    rows.swap(connection.pendingRows);
    connection.rowsQueued = false;
    group = connection.openGroup++;
  }
  // Prepared once per connection: a group is written many times a second.
  const auto run = [&connection](const char* sql) {
    CachedStatement statement(connection, sql, "commitGroup");
    return statement.status() == SQLITE_OK ? statement.run() : statement.status();
  };
  // No caller's transaction is open here: while one is, rows join it at once.
  bool failed = run("BEGIN IMMEDIATE") != SQLITE_OK;
  if (!failed) {
    // A refused row is logged by the insert; the group's other rows commit.
    for (const auto& row : rows) xInsertRow(row.first, row.second);
    if (run("COMMIT") != SQLITE_OK) {
      run("ROLLBACK");
      failed = true;
    }
  }
  {
    std::lock_guard<std::mutex> lock(connection.groupMutex);
    connection.writtenGroup = group;
    if (failed) connection.failedGroups.insert(group);
  }
  connection.groupWritten[group % 2].notify_all();
}

int KQDatabaseManager::appendToGroup(std::vector<std::pair<std::string, KQValue>> rows, uint64_t& ticket) {
  ticket = 0;
  if (!isOpen()) {
    xReady("appendToGroup");  // logs that no database is open
    return 1;
  }
  {
    std::lock_guard<std::mutex> group(connection_->groupMutex);
    if (!connection_->callerTransaction) {
      std::vector<std::pair<std::string, KQValue>>& pending = connection_->pendingRows;
      pending.insert(pending.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
      connection_->rowsQueued = !pending.empty();
      ticket = connection_->openGroup;
      return 0;
    }
  }
  // Inside the caller's own transaction the rows simply join it (ticket 0).
  auto turn = xWriteTurn();
  int status = 0;
  for (const auto& row : rows) status = xInsertRow(row.first, row.second) != 0 ? 1 : status;
  return status;
}

int KQDatabaseManager::commitGroup(uint64_t ticket) {
  if (ticket == 0 || !connection_) return 0;
  Connection& connection = *connection_;
  std::unique_lock<std::mutex> group(connection.groupMutex);
  int spins = 0;
  while (connection.writtenGroup < ticket) {
    if (connection.leaderWriting) {
      if (spins++ < kYieldsBeforeSleep) {
        // A group is written within tens of microseconds, and waking a
        // sleeper on another core costs about as much again on a virtual
        // machine: the caller first gives its core to others, awake.
        group.unlock();
        std::this_thread::yield();
        group.lock();
        continue;
      }
      // The bound only guards against a missed hand-over; the writer of the
      // group or the leader handing over wakes this caller.
      connection.groupWritten[ticket % 2].wait_for(group, std::chrono::milliseconds(10));
      continue;
    }
    // No one is writing: this caller writes every row gathered so far, its
    // own included, then the groups gathered meanwhile (a few, so its own
    // answer is not held long): their callers wait on, and the writing does
    // not pass from thread to thread.
    connection.leaderWriting = true;
    group.unlock();
    for (int groups = 0; groups < kGroupsPerLeader; ++groups) {
      xWriteTurn();
      std::lock_guard<std::mutex> lock(connection.groupMutex);
      if (connection.pendingRows.empty()) break;
    }
    group.lock();
    connection.leaderWriting = false;
    // Hands the leader's part to one caller of the next group, if any waits.
    std::condition_variable& next = connection.groupWritten[(connection.writtenGroup + 1) % 2];
    group.unlock();
    next.notify_one();
    group.lock();
  }
  return connection.failedGroups.count(ticket) != 0 ? 1 : 0;
}

int KQDatabaseManager::createTable(const std::string& table, const std::string& columns) {
  if (!xReady("createTable")) return 1;
  auto turn = xWriteTurn();
  return xInTransaction("createTable", [&]() {
    int rc = connection_->exec("CREATE TABLE IF NOT EXISTS " + quoteSqlIdentifier(table) + " (" + columns + ")",
                               "createTable");
    if (rc != SQLITE_OK) return rc;
    return xIndexTable(table, "createTable");
  });
}

int KQDatabaseManager::insertRow(const std::string& table, const KQValue& row) {
  if (!xReady("insertRow")) return 1;
  auto turn = xWriteTurn();
  return xInsertRow(table, row);
}

int KQDatabaseManager::xInsertRow(const std::string& table, const KQValue& row) const {
  if (!rowIsWellFormed(row)) {
    KQDB_LOG(ko::log::error, "insertRow")
        << "Row for " << table << " is not a list of [column, value] pairs: " << row.toText();
    return 1;
  }
  // The text depends only on the table and the column names in order, so
  // the module's inserts into one table reuse one prepared statement.
  std::string sql = "INSERT INTO " + quoteSqlIdentifier(table);
  const std::vector<KQValue>& pairs = row.toArray();
  if (pairs.empty()) {
    sql += " DEFAULT VALUES";
  } else {
    std::string names;
    std::string slots;
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      if (i != 0) {
        names += ", ";
        slots += ", ";
      }
      names += quoteSqlIdentifier(pairs[i][0].toString());
      slots += "?";
    }
    sql += " (" + names + ") VALUES (" + slots + ")";
  }
  CachedStatement stmt(*connection_, sql, "insertRow");
  if (stmt.status() != SQLITE_OK) return stmt.status();
  int rc = bindRow(stmt.get(), row, "insertRow");
  if (rc != SQLITE_OK) return rc;
  return stmt.run();
}

int KQDatabaseManager::updateRow(const std::string& table, const KQValue& row, const std::string& where) {
  if (!xReady("updateRow")) return 1;
  auto turn = xWriteTurn();
  if (!rowIsWellFormed(row) || row.getSize() == 0) {
    KQDB_LOG(ko::log::error, "updateRow")
        << "Row for " << table << " is not a list of [column, value] pairs: " << row.toText();
    return 1;
  }
  std::string sql = "UPDATE " + quoteSqlIdentifier(table) + " SET ";
  const std::vector<KQValue>& pairs = row.toArray();
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (i != 0) sql += ", ";
    sql += quoteSqlIdentifier(pairs[i][0].toString()) + " = ?";
  }
  sql += " WHERE " + where;
  AccessScope scope(Access::kWrite, connection_->deadlineMs());
  CachedStatement stmt(*connection_, sql, "updateRow");
  if (stmt.status() != SQLITE_OK) return stmt.status();
  int rc = bindRow(stmt.get(), row, "updateRow");
  if (rc != SQLITE_OK) return rc;
  return stmt.run();
}

int KQDatabaseManager::deleteRow(const std::string& table, const std::string& where) {
  if (!xReady("deleteRow")) return 1;
  auto turn = xWriteTurn();
  AccessScope scope(Access::kWrite, connection_->deadlineMs());
  CachedStatement stmt(*connection_, "DELETE FROM " + quoteSqlIdentifier(table) + " WHERE " + where, "deleteRow");
  if (stmt.status() != SQLITE_OK) return stmt.status();
  return stmt.run();
}

KQValue KQDatabaseManager::select(const std::string& table, const std::string& where,
                                  const std::string& columns) const {
  if (!xReady("select")) return emptyArray();
  return xQuery("SELECT " + columns + " FROM " + quoteSqlIdentifier(table) + " WHERE " + where, "select");
}

KQValue KQDatabaseManager::selectWithOrder(const std::string& table, const std::string& where, const std::string& order,
                                           const std::string& columns, int last) const {
  if (!xReady("selectWithOrder")) return emptyArray();
  std::string sql =
      "SELECT " + columns + " FROM " + quoteSqlIdentifier(table) + " WHERE " + where + " ORDER BY " + order;
  // Index `last` is the last row kept: LIMIT last+1 lets SQLite stop early
  // (in 64 bits, so INT_MAX does not wrap).
  if (last >= 0) sql += " LIMIT " + std::to_string(static_cast<int64_t>(last) + 1);
  return xQuery(sql, "selectWithOrder");
}

KQValue KQDatabaseManager::xQuery(const std::string& sql, const char* function) const {
  AccessScope scope(Access::kRead, connection_->deadlineMs());
  CachedStatement stmt(*connection_, sql, function);
  if (stmt.status() != SQLITE_OK) return emptyArray();
  if (!sqlite3_stmt_readonly(stmt.get())) {
    KQDB_LOG(ko::log::error, function) << "Refused a statement that writes: " << sql;
    return emptyArray();
  }
  return xReadRows(stmt, function);
}

void KQDatabaseManager::selectAroundSecond(const std::string& table, const std::string& objectName, int second,
                                           KQValue& before, KQValue& after) const {
  before = emptyArray();
  after = emptyArray();
  if (!xReady("selectAroundSecond")) return;
  // Same text for every object and second, so each connection prepares the
  // two statements once and keeps them in its cache.
  const std::string select =
      "SELECT * FROM " + quoteSqlIdentifier(table) + " WHERE \"ObjectName\" = ?1 AND \"TimeS\" ";
  AccessScope scope(Access::kRead, connection_->deadlineMs());
  for (KQValue* rows : {&before, &after}) {
    CachedStatement stmt(*connection_,
                         select + (rows == &before ? "< ?2 ORDER BY \"TimeS\" DESC" : "> ?2 ORDER BY \"TimeS\" ASC") +
                             " LIMIT 1",
                         "selectAroundSecond");
    if (stmt.status() != SQLITE_OK) continue;
    sqlite3_bind_text(stmt.get(), 1, objectName.data(), static_cast<int>(objectName.size()), SQLITE_STATIC);
    sqlite3_bind_int(stmt.get(), 2, second);
    *rows = xReadRows(stmt, "selectAroundSecond");
  }
}

KQValue KQDatabaseManager::xReadRows(CachedStatement& stmt, const char* function) const {
  const int columnCount = sqlite3_column_count(stmt.get());
  const std::size_t cap = connection_->resultCapBytes();
  std::size_t bytes = 0;
  std::vector<KQValue> rows;
  int rc;
  while ((rc = stmt.step()) == SQLITE_ROW) {
    KQValue row;
    row.arraySetSize(columnCount);
    for (int i = 0; i < columnCount; ++i) {
      row[i] = readColumn(stmt.get(), i);
      // A text counts its bytes, any other value 8.
      bytes += row[i].isString() ? row[i].toString().size() : 8;
    }
    if (bytes > cap) {
      KQDB_LOG(ko::log::error, function) << "Result larger than its cap of " << cap
                                         << " bytes (--max-message): " << stmt.sql();
      return emptyArray();
    }
    rows.push_back(std::move(row));
  }
  if (rc != SQLITE_DONE) return emptyArray();
  KQValue result;
  result.arraySetSize(static_cast<int>(rows.size()));
  for (std::size_t i = 0; i < rows.size(); ++i) result[static_cast<int>(i)] = std::move(rows[i]);
  return result;
}

KQValue KQDatabaseManager::readAll(const std::string& sql, int* status) const {
  *status = SQLITE_MISUSE;
  if (!xReady("readAll")) return emptyArray();
  CachedStatement stmt(*connection_, sql, "readAll");
  *status = stmt.status();
  if (*status != SQLITE_OK) return emptyArray();
  if (!sqlite3_stmt_readonly(stmt.get())) {
    *status = SQLITE_MISUSE;
    return emptyArray();
  }
  const int columnCount = sqlite3_column_count(stmt.get());
  std::vector<KQValue> rows;
  int rc;
  while ((rc = stmt.step()) == SQLITE_ROW) {
    KQValue row;
    row.arraySetSize(columnCount);
    for (int i = 0; i < columnCount; ++i) row[i] = readColumn(stmt.get(), i);
    rows.push_back(std::move(row));
  }
  *status = rc == SQLITE_DONE ? SQLITE_OK : rc;
  if (*status != SQLITE_OK) return emptyArray();
  KQValue result;
  result.arraySetSize(static_cast<int>(rows.size()));
  for (std::size_t i = 0; i < rows.size(); ++i) result[static_cast<int>(i)] = std::move(rows[i]);
  return result;
}

std::vector<std::pair<std::string, KQValue>> KQDatabaseManager::describeTables(int* status) const {
  std::vector<std::pair<std::string, KQValue>> tables;
  *status = SQLITE_MISUSE;
  if (!xReady("describeTables")) return tables;
  for (const std::string& table : xTableNames(status)) {
    if (*status != SQLITE_OK) break;
    const KQValue info = readAll("PRAGMA table_info(" + quoteSqlIdentifier(table) + ")", status);
    if (*status != SQLITE_OK) break;
    // table_info rows: cid, name, type, notnull, dflt_value, pk.
    KQValue columns;
    columns.arraySetSize(0);
    for (int i = 0; i < info.getSize(); ++i) {
      KQValue column;
      column.arraySetSize(2);
      column[0] = info[i][1];
      column[1] = info[i][2];
      columns.arrayPush(column);
    }
    tables.emplace_back(table, columns);
  }
  return tables;
}

int KQDatabaseManager::resetDatabase() {
  if (!xReady("resetDatabase")) return 1;
  auto turn = xWriteTurn();
  return xInTransaction("resetDatabase", [this]() {
    int rc = SQLITE_OK;
    std::vector<std::string> tables = xTableNames(&rc);
    if (rc != SQLITE_OK) return rc;
    for (const std::string& table : tables) {
      rc = connection_->exec("DELETE FROM " + quoteSqlIdentifier(table), "resetDatabase");
      if (rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
  });
}

int KQDatabaseManager::beginTransaction() {
  if (!xReady("beginTransaction")) return 1;
  auto turn = xWriteTurn();
  if (sqlite3_get_autocommit(connection_->db()) == 0) {
    KQDB_LOG(ko::log::error, "beginTransaction") << "A transaction is already open on " << connection_->path();
    return 1;
  }
  const int rc = connection_->exec("BEGIN IMMEDIATE", "beginTransaction");
  xNoteCallerTransaction();
  return rc;
}

bool KQDatabaseManager::isInTransaction() const {
  if (!xReady("isInTransaction")) return false;
  auto turn = xWriteTurn();  // a group being written is not a transaction of the caller's
  return sqlite3_get_autocommit(connection_->db()) == 0;
}

int KQDatabaseManager::endTransaction() {
  if (!xReady("endTransaction")) return 1;
  auto turn = xWriteTurn();
  if (sqlite3_get_autocommit(connection_->db()) != 0) {
    KQDB_LOG(ko::log::error, "endTransaction") << "No transaction is open on " << connection_->path();
    return 1;
  }
  const int rc = connection_->exec("COMMIT", "endTransaction");
  xNoteCallerTransaction();  // a COMMIT that failed busy leaves it open
  return rc;
}

int KQDatabaseManager::inTransaction(const std::function<int()>& work) {
  if (!xReady("inTransaction")) return 1;
  // `work` calls the public writers, each taking its own write turn, so the
  // turn is not held across it: the transaction is opened as a caller's.
  {
    auto turn = xWriteTurn();
    if (sqlite3_get_autocommit(connection_->db()) == 0) {
      turn.unlock();
      return work();  // joins the transaction already open
    }
    const int rc = connection_->exec("BEGIN IMMEDIATE", "inTransaction");
    if (rc != SQLITE_OK) return rc;
    xNoteCallerTransaction();
  }
  int rc = work();
  auto turn = xWriteTurn();
  if (rc == SQLITE_OK) rc = connection_->exec("COMMIT", "inTransaction");
  if (rc != SQLITE_OK) connection_->exec("ROLLBACK", "inTransaction");
  xNoteCallerTransaction();
  return rc;
}

void KQDatabaseManager::xNoteCallerTransaction() const {
  const bool open = sqlite3_get_autocommit(connection_->db()) == 0;
  std::lock_guard<std::mutex> group(connection_->groupMutex);
  connection_->callerTransaction = open;
}

}  // namespace KQ
