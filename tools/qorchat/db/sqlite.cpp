// Opens an SQLite database read-only, describes it, and runs statements on it that cannot write,
// each within the statement timeout.
#include "db/sqlite.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "db/sqlite_catalog.h"
#include "text.h"

namespace qorchat {
namespace {

// How long a read waits for another process that holds a lock, as the sqlite3 shell would.
constexpr int kBusyTimeoutMs = 5000;
// How many virtual machine steps pass between two looks at the clock: often enough to stop within
// milliseconds, rarely enough to cost nothing measurable.
constexpr int kProgressSteps = 1000;
// The bytes of a BLOB shown in its hexadecimal form; a table cell shows fewer anyway.
constexpr std::size_t kShownBlobBytes = 256;

bool isUri(const std::string& target) {
  return text::startsWith(target, "file:");
}

std::string inQuotes(const std::string& target) {
  return "'" + target + "'";
}

std::string durationText(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return std::to_string(duration.count() / 1000) + " s";
  return std::to_string(duration.count()) + " ms";
}

// A BLOB as an SQL literal, X'0A1B...', its end cut with an ellipsis when it is long.
std::string blobText(const void* data, int size) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const unsigned char*>(data);
  const std::size_t count = static_cast<std::size_t>(size);
  std::string shown = "X'";
  for (std::size_t i = 0; i < std::min(count, kShownBlobBytes); ++i) {
    shown += kDigits[bytes[i] >> 4];
    shown += kDigits[bytes[i] & 0x0F];
  }
  shown += count > kShownBlobBytes ? "\u2026'" : "'";
  return shown;
}

// A value of the current row as a cell shows it: NULL as nothing, a BLOB as its literal, anything
// else as SQLite's text of it.
std::optional<std::string> cellText(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_NULL:
      return std::nullopt;
    case SQLITE_BLOB:
      return blobText(sqlite3_column_blob(statement, column),
                      sqlite3_column_bytes(statement, column));
    default: {
      const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      return std::string(data != nullptr ? data : "",
                         static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    }
  }
}

// What runReadOnly puts around the statements it runs, undone when it ends.
//
// The connection is read-only from its opening, and query_only also refuses writes to the
// temporary and in-memory databases. The authorizer keeps statements from lifting query_only and
// from attaching files: ATTACH would reach databases the user never chose, and VACUUM INTO, which
// a read-only connection still runs, attaches the file it writes. A progress handler stops a
// statement past its time limit. A transaction a statement began is rolled back, so that no
// snapshot outlives the run.
class RunGuard {
 public:
  RunGuard(sqlite3* db, std::chrono::milliseconds limit)
      : db_(db), limit_(limit), ownsTransaction_(sqlite3_get_autocommit(db) != 0) {
    sqlite3_exec(db_, "PRAGMA query_only = ON", nullptr, nullptr, nullptr);
    sqlite3_set_authorizer(db_, &authorize, nullptr);
    if (limit_.count() > 0) sqlite3_progress_handler(db_, kProgressSteps, &checkClock, this);
  }
  ~RunGuard() {
    sqlite3_progress_handler(db_, 0, nullptr, nullptr);
    sqlite3_set_authorizer(db_, nullptr, nullptr);
    if (ownsTransaction_ && sqlite3_get_autocommit(db_) == 0)
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  RunGuard(const RunGuard&) = delete;
  RunGuard& operator=(const RunGuard&) = delete;

  // Each statement has the whole limit to itself.
  void startStatement() {
    deadline_ = std::chrono::steady_clock::now() + limit_;
    expired_ = false;
  }
  // Why a statement failed: SQLite's own text, or what the limit did.
  Status failure() const {
    if (expired_) {
      return Status::timedOut("statement timeout: stopped after " + durationText(limit_) +
                              " (--statement-timeout SECONDS changes the limit)");
    }
    std::string message = sqlite3_errmsg(db_);
    if ((sqlite3_extended_errcode(db_) & 0xff) == SQLITE_INTERRUPT)
      return Status::cancelled(std::move(message));
    return Status::database(std::move(message));
  }

 private:
  static int authorize(void*, int action, const char* first, const char* second, const char*,
                       const char*) {
    if (action == SQLITE_ATTACH || action == SQLITE_DETACH) return SQLITE_DENY;
    // Reading the pragma is harmless; giving it a value is not.
    if (action == SQLITE_PRAGMA && first != nullptr && second != nullptr &&
        sqlite3_stricmp(first, "query_only") == 0) {
      return SQLITE_DENY;
    }
    return SQLITE_OK;
  }
  static int checkClock(void* context) {
    auto* guard = static_cast<RunGuard*>(context);
    if (std::chrono::steady_clock::now() < guard->deadline_) return 0;
    guard->expired_ = true;
    return 1;
  }

  sqlite3* db_;
  std::chrono::milliseconds limit_;
  bool ownsTransaction_;
  std::chrono::steady_clock::time_point deadline_{};
  bool expired_ = false;
};

// Runs one prepared statement to its end, its rows counted and at most maxRows kept. False when
// it failed.
bool collectRows(sqlite3_stmt* statement, std::size_t maxRows, StatementResult& result) {
  const int columns = sqlite3_column_count(statement);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    result.columns.emplace_back(name != nullptr ? name : "");
  }
  int stepped = SQLITE_ROW;
  while ((stepped = sqlite3_step(statement)) == SQLITE_ROW) {
    if (result.rowCount++ >= maxRows) continue;
    auto& row = result.rows.emplace_back();
    for (int i = 0; i < columns; ++i)
      row.emplace_back(cellText(statement, i));
  }
  return stepped == SQLITE_DONE;
}

}  // namespace

SqliteDatabase::SqliteDatabase(const std::string& target, const DatabaseSettings& settings)
    : target_(target), settings_(settings) {}

SqliteDatabase::~SqliteDatabase() {
  sqlite3_close_v2(db_);
}

Result<std::unique_ptr<SqliteDatabase>> SqliteDatabase::open(const std::string& target,
                                                             const DatabaseSettings& settings) {
  std::unique_ptr<SqliteDatabase> database(new SqliteDatabase(target, settings));
  if (Status opened = database->connect(); !opened) return opened;
  return database;
}

Status SqliteDatabase::connect() {
  const bool uri = isUri(target_);
  if (!uri) {
    // SQLite's own message for a missing file says nothing of the cause; look first.
    struct stat info {};
    if (stat(target_.c_str(), &info) != 0) {
      const int error = errno;
      return Status::ioError("cannot open database " + inQuotes(target_) + ": " +
                             (error == ENOENT ? "no such file" : std::strerror(error)));
    }
    if (S_ISDIR(info.st_mode))
      return Status::ioError("cannot open database " + inQuotes(target_) + ": it is a folder");
  }

  // Read-only on every path: a mistyped name must never leave a new empty database behind.
  const int rc =
      sqlite3_open_v2(target_.c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  if (rc != SQLITE_OK) {
    return Status::database("cannot open database " + inQuotes(target_) + ": " +
                            (db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc)));
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);

  // SQLite reads nothing until the first statement: read the schema now, so that a file that is
  // not a database fails here rather than in the middle of a session.
  if (sqlite3_exec(db_, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    if ((sqlite3_errcode(db_) & 0xff) == SQLITE_NOTADB)
      return Status::invalidInput(inQuotes(target_) + " is not an SQLite database");
    return Status::database("cannot read database " + inQuotes(target_) + ": " +
                            sqlite3_errmsg(db_));
  }

  if (uri) {
    identity_ = target_;
  } else {
    char resolved[PATH_MAX];
    identity_ = realpath(target_.c_str(), resolved) != nullptr ? std::string(resolved) : target_;
  }
  return Status::ok();
}

Result<Structure> SqliteDatabase::describe() {
  Result<Structure> structure = sqlite::readStructure(db_);
  if (!structure) {
    return Status::database("cannot read database " + inQuotes(target_) + ": " +
                            structure.status().message());
  }
  return structure;
}

std::string SqliteDatabase::identity() const {
  return identity_;
}

std::string SqliteDatabase::displayName() const {
  if (isUri(target_)) return target_;
  const std::string name = std::filesystem::path(target_).filename().string();
  return name.empty() ? target_ : name;
}

Result<std::vector<StatementResult>> SqliteDatabase::runReadOnly(const std::string& sql,
                                                                 const RunLimits& limits) {
  const std::size_t maxRows = limits.maxRows;
  RunGuard guard(db_, settings_.statementTimeout);
  std::vector<StatementResult> results;
  const char* next = sql.c_str();
  const char* const end = next + sql.size();
  while (next < end) {
    guard.startStatement();
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int prepared = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &raw, &tail);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw,
                                                                               &sqlite3_finalize);
    // A statement that does not compile has no known end: the rest of the text is shown.
    const char* const statementEnd =
        prepared == SQLITE_OK && tail != nullptr && tail > next ? tail : end;
    const std::string_view statementText =
        text::trimmed(std::string_view(next, static_cast<std::size_t>(statementEnd - next)));
    next = statementEnd;
    if (prepared == SQLITE_OK && statement == nullptr) continue;  // white space or a comment
    StatementResult& result = results.emplace_back();
    result.statement = std::string(statementText);
    if (prepared != SQLITE_OK || !collectRows(statement.get(), maxRows, result)) {
      result.status = guard.failure();
      break;
    }
  }
  return results;
}

// SQLite allows this from another thread; a statement it stops fails with "interrupted".
void SqliteDatabase::interrupt() {
  sqlite3_interrupt(db_);
}

}  // namespace qorchat
