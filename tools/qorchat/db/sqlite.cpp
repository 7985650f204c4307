// Opens an SQLite database read-only, describes it, and runs statements on it that can only read,
// each within the statement timeout, keeping what the run's limits allow of their rows.
#include "db/sqlite.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "db/sqlite_catalog.h"
#include "db/sqlite_functions.h"
#include "db/sqlite_guard.h"
#include "db/sqlite_target.h"
#include "text.h"

namespace qorchat {
namespace {

// How long a read waits for another process that holds a lock, as the sqlite3 shell would.
constexpr int kBusyTimeoutMs = 5000;
// The bytes of a BLOB shown in its hexadecimal form; a table cell shows fewer anyway.
constexpr std::size_t kShownBlobBytes = 256;

bool isUri(const std::string& target) {
  return text::startsWith(target, "file:");
}

std::string inQuotes(const std::string& target) {
  return "'" + target + "'";
}

// A BLOB as an SQL literal, X'0A1B...', of at most its first bytes that fit in maxBytes, its end
// cut with an ellipsis when it is longer.
std::string blobText(const void* data, int size, std::size_t maxBytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const unsigned char*>(data);
  const auto count = static_cast<std::size_t>(size);
  const std::size_t shown = std::min({count, kShownBlobBytes, maxBytes / 2});
  std::string literal = "X'";
  for (std::size_t i = 0; i < shown; ++i) {
    literal += kDigits[bytes[i] >> 4];
    literal += kDigits[bytes[i] & 0x0F];
  }
  literal += count > shown ? "\u2026'" : "'";
  return literal;
}

// At most maxBytes of a text, ending before a character rather than inside one: only this much of
// a huge value is ever copied.
std::string textPrefix(const char* data, std::size_t length, std::size_t maxBytes) {
  std::size_t cut = std::min(length, maxBytes);
  // A character is at most four bytes: more continuation bytes than that are not UTF-8 anyway.
  for (int back = 0; cut < length && cut > 0 && back < 3 &&
                     (static_cast<unsigned char>(data[cut]) & 0xC0) == 0x80;
       ++back) {
    --cut;
  }
  return {data, cut};
}

// A value of the current row as a cell shows it: NULL as nothing, a BLOB as its literal, anything
// else as SQLite's text of it; cut to maxBytes.
std::optional<std::string> cellText(sqlite3_stmt* statement, int column, std::size_t maxBytes) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_NULL:
      return std::nullopt;
    case SQLITE_BLOB:
      return blobText(sqlite3_column_blob(statement, column),
                      sqlite3_column_bytes(statement, column), maxBytes);
    default: {
      const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      return textPrefix(data != nullptr ? data : "",
                        static_cast<std::size_t>(sqlite3_column_bytes(statement, column)),
                        maxBytes);
    }
  }
}

// Where a statement that did not compile ends: at the first semicolon that SQLite's own
// tokenizer says completes a statement (not one inside a string, a comment or a trigger's body),
// else at the end of the text. Nothing after it runs, but the user is shown only the statement.
const char* endOfFailedStatement(const char* start, const char* end) {
  for (const char* at = std::find(start, end, ';'); at != end; at = std::find(at + 1, end, ';')) {
    if (sqlite3_complete(std::string(start, at + 1).c_str()) != 0) return at + 1;
  }
  return end;
}

// Runs one prepared statement to its end, its rows counted and what the limits allow of the first
// kept. False when it failed or was stopped.
bool collectRows(sqlite3_stmt* statement, const RunLimits& limits, StatementResult& result) {
  const int columns = sqlite3_column_count(statement);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    result.columns.emplace_back(name != nullptr ? name : "");
  }
  int stepped = SQLITE_ROW;
  while ((stepped = sqlite3_step(statement)) == SQLITE_ROW) {
    if (result.rowCount++ >= limits.maxRows) continue;
    auto& row = result.rows.emplace_back();
    for (int i = 0; i < columns; ++i)
      row.emplace_back(cellText(statement, i, limits.maxValueBytes));
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
  ++connections_;
  std::string name = target_;
  if (!isUri(target_)) {
    Result<sqlite::OpenChoice> chosen = sqlite::chooseOpen(target_);
    if (!chosen) return chosen.status();
    name = std::move(chosen->name);
    immutableMark_ = chosen->marked;
    realPath_ = std::move(chosen->realPath);
  }

  // Read-only on every path: a mistyped name must never leave a new empty database behind.
  sqlite3* opened = nullptr;
  const int rc =
      sqlite3_open_v2(name.c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  {
    const std::lock_guard<std::mutex> lock(handleMutex_);
    db_ = opened;
  }
  if (rc != SQLITE_OK) {
    return Status::database("cannot open database " + inQuotes(target_) + ": " +
                            (db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc)));
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // No extension is ever loaded, and no statement may make the schema writable.
  sqlite3_enable_load_extension(db_, 0);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  if (!sqlite::replaceSlowFunctions(db_, stop_)) {
    return Status::database("cannot open database " + inQuotes(target_) + ": " +
                            sqlite3_errmsg(db_));
  }

  // SQLite reads nothing until the first statement: read the schema now, so that a file that is
  // not a database fails here rather than in the middle of a session.
  if (sqlite3_exec(db_, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    if ((sqlite3_errcode(db_) & 0xff) == SQLITE_NOTADB)
      return Status::invalidInput(inQuotes(target_) + " is not an SQLite database");
    return Status::database("cannot read database " + inQuotes(target_) + ": " +
                            sqlite3_errmsg(db_));
  }

  if (isUri(target_)) {
    identity_ = target_;
  } else {
    char resolved[PATH_MAX];
    identity_ = realpath(target_.c_str(), resolved) != nullptr ? std::string(resolved) : target_;
  }
  return Status::ok();
}

Status SqliteDatabase::reconnectIfChanged() {
  if (!immutableMark_ || sqlite::stillAsMarked(realPath_, *immutableMark_)) return Status::ok();
  {
    const std::lock_guard<std::mutex> lock(handleMutex_);
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  return connect();
}

Result<Structure> SqliteDatabase::describe() {
  if (Status fresh = reconnectIfChanged(); !fresh) return fresh;
  Result<Structure> structure = sqlite::readStructure(db_);
  if (!structure) {
    return Status::database("cannot read database " + inQuotes(target_) + ": " +
                            structure.status().message());
  }
  return structure;
}

Result<std::string> SqliteDatabase::structureStamp() {
  if (Status fresh = reconnectIfChanged(); !fresh) return fresh;
  Result<std::string> versions = sqlite::readStructureStamp(db_);
  if (!versions) return versions.status();
  return std::to_string(connections_) + ": " + *versions;
}

std::string SqliteDatabase::identity() const {
  return identity_;
}

std::string SqliteDatabase::displayName() const {
  if (isUri(target_)) return target_;
  const std::string name = std::filesystem::path(target_).filename().string();
  return name.empty() ? target_ : name;
}

std::string SqliteDatabase::engineDescription() const {
  return std::string("SQLite ") + sqlite3_libversion();
}

Result<std::vector<StatementResult>> SqliteDatabase::runReadOnly(const std::string& sql,
                                                                 const RunLimits& limits) {
  if (Status fresh = reconnectIfChanged(); !fresh) return fresh;
  sqlite::RunGuard guard(db_, stop_, settings_.statementTimeout, sqlite::storedValueBound(db_));
  std::vector<StatementResult> results;
  const char* next = sql.c_str();
  const char* const end = next + sql.size();
  while (next < end) {
    guard.startStatement(std::string_view(next, static_cast<std::size_t>(end - next)));
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int prepared = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &raw, &tail);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw,
                                                                               &sqlite3_finalize);
    const char* const statementEnd = prepared == SQLITE_OK && tail != nullptr && tail > next
                                         ? tail
                                         : endOfFailedStatement(next, end);
    const std::string_view statementText =
        text::trimmed(std::string_view(next, static_cast<std::size_t>(statementEnd - next)));
    next = statementEnd;
    if (prepared == SQLITE_OK && statement == nullptr) continue;  // white space or a comment
    StatementResult& result = results.emplace_back();
    result.statement = std::string(statementText);
    if (prepared == SQLITE_OK && collectRows(statement.get(), limits, result)) continue;
    if (prepared == SQLITE_OK && guard.stopped() && result.rowCount > 0) {
      // The rows that came before the stop stand; only their count is unfinished. The rest of the
      // block is not run: the user or the limit asked for an end.
      result.allCounted = false;
    } else {
      result.status = guard.failure();
    }
    break;
  }
  return results;
}

// SQLite allows this from another thread; a statement it stops fails with "interrupted". The
// functions qorchat gives SQLite look at the signal, SQLite's machine at its own flag.
void SqliteDatabase::interrupt() {
  stop_.interrupt();
  const std::lock_guard<std::mutex> lock(handleMutex_);
  if (db_ != nullptr) sqlite3_interrupt(db_);
}

}  // namespace qorchat
