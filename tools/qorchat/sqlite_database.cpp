// Opens an SQLite database read-only, describes its tables and views as db_structure JSON and runs
// statements on it that cannot write.

#include "sqlite_database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "yl/yl_json.h"

namespace qorchat {
namespace {

// How long a read waits for another process that holds a lock, as the sqlite3 shell would.
constexpr int kBusyTimeoutMs = 5000;

bool isUri(const std::string& target) {
  return target.rfind("file:", 0) == 0;
}

std::string quoted(const std::string& target) {
  return "'" + target + "'";
}

// One prepared statement; SQLite's errors become DatabaseError naming the database.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql, const std::string& target) : db_(db), target_(target) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) fail();
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int index, const std::string& text) {
    if (sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
      fail();
    }
  }
  // True for a row, false at the end; throws on an error.
  bool step() {
    const int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail();
  }
  // Like step, but an error ends the rows and is reported by the return value instead.
  std::optional<bool> tryStep() {
    const int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    return std::nullopt;
  }
  void reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  std::string text(int column) const {
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    if (data == nullptr) return {};
    return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
  }
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }

 private:
  [[noreturn]] void fail() const {
    throw DatabaseError("cannot read database " + quoted(target_) + ": " + sqlite3_errmsg(db_));
  }

  sqlite3* db_;
  const std::string& target_;
  sqlite3_stmt* statement_ = nullptr;
};

struct Column {
  std::string name;
  std::string type;
  std::int64_t keyPosition = 0;  // 1-based place in the primary key; 0 when not part of it
};

struct ForeignKey {
  std::vector<std::string> fields;
  std::string refTable;
  std::vector<std::string> refFields;
  bool refersToPrimaryKey = false;  // the parent columns were left out of the declaration
};

// Reads the columns of tables and views and their foreign keys, names bound as parameters so that
// any name passes through untouched.
class ObjectReader {
 public:
  ObjectReader(sqlite3* db, const std::string& target)
      : columns_(db, "SELECT name, type, pk, hidden FROM pragma_table_xinfo(?1, ?2) ORDER BY cid",
                 target),
        foreignKeys_(db,
                     "SELECT id, \"table\", \"from\", \"to\" FROM pragma_foreign_key_list(?1, ?2) "
                     "ORDER BY id DESC, seq",
                     target) {}

  // The visible columns (generated ones included), or nothing when SQLite cannot read them: a
  // view over a dropped table or a virtual table of a module this program lacks.
  std::optional<std::vector<Column>> readColumns(const std::string& schema,
                                                 const std::string& object) {
    columns_.reset();
    columns_.bind(1, object);
    columns_.bind(2, schema);
    std::vector<Column> columns;
    for (;;) {
      const std::optional<bool> row = columns_.tryStep();
      if (!row) {
        columns_.reset();
        return std::nullopt;
      }
      if (!*row) break;
      // Hidden columns of virtual tables are arguments of the module, not data to query.
      if (columns_.integer(3) == 1) continue;
      columns.push_back(Column{columns_.text(0), columns_.text(1), columns_.integer(2)});
    }
    columns_.reset();
    return columns;
  }

  // Ids come out newest declaration first: reversed, the keys read in the order they were written.
  std::vector<ForeignKey> readForeignKeys(const std::string& schema, const std::string& table) {
    foreignKeys_.reset();
    foreignKeys_.bind(1, table);
    foreignKeys_.bind(2, schema);
    std::vector<ForeignKey> keys;
    std::int64_t currentId = -1;
    while (foreignKeys_.step()) {
      const std::int64_t id = foreignKeys_.integer(0);
      if (keys.empty() || id != currentId) {
        keys.push_back(ForeignKey{{}, foreignKeys_.text(1), {}, false});
        currentId = id;
      }
      ForeignKey& key = keys.back();
      key.fields.push_back(foreignKeys_.text(2));
      if (foreignKeys_.isNull(3)) {
        key.refersToPrimaryKey = true;
      } else {
        key.refFields.push_back(foreignKeys_.text(3));
      }
    }
    foreignKeys_.reset();
    for (ForeignKey& key : keys) {
      if (key.refersToPrimaryKey) key.refFields = primaryKeyOf(schema, key.refTable);
    }
    return keys;
  }

  std::vector<std::string> primaryKeyOf(const std::string& schema, const std::string& table) {
    const std::optional<std::vector<Column>> columns = readColumns(schema, table);
    return columns ? primaryKey(*columns) : std::vector<std::string>{};
  }

  static std::vector<std::string> primaryKey(std::vector<Column> columns) {
    std::erase_if(columns, [](const Column& column) { return column.keyPosition == 0; });
    std::sort(columns.begin(), columns.end(),
              [](const Column& a, const Column& b) { return a.keyPosition < b.keyPosition; });
    std::vector<std::string> names;
    names.reserve(columns.size());
    for (Column& column : columns)
      names.push_back(std::move(column.name));
    return names;
  }

 private:
  Statement columns_;
  Statement foreignKeys_;
};

void addStrings(IYLJsonValue* array, const std::vector<std::string>& items) {
  array->setArrayType();
  for (const std::string& item : items)
    array->addArrayItem()->setStringValue(item);
}

// The tables and views of one attached database, as type and name, in the order they were made.
std::vector<std::pair<std::string, std::string>> listObjects(sqlite3* db,
                                                             const std::string& database,
                                                             const std::string& target) {
  // A schema name cannot be a parameter: it is quoted into the text, its quotes doubled.
  // sqlite_master is the name every version knows for the schema table.
  std::string escaped;
  for (const char c : database) {
    escaped += c;
    if (c == '"') escaped += '"';
  }
  const std::string sql = "SELECT type, name FROM \"" + escaped +
                          "\".sqlite_master WHERE type IN ('table', 'view') AND name NOT LIKE "
                          "'sqlite\\_%' ESCAPE '\\' ORDER BY rowid";
  std::vector<std::pair<std::string, std::string>> objects;
  Statement list(db, sql.c_str(), target);
  while (list.step())
    objects.emplace_back(list.text(0), list.text(1));
  return objects;
}

// The object's "fkeys", when it has foreign keys.
void addForeignKeys(YLJsonValue* object, const std::vector<ForeignKey>& foreignKeys) {
  if (foreignKeys.empty()) return;
  YLJsonValue* keys = object->addKeyValue("fkeys");
  keys->setArrayType();
  for (const ForeignKey& key : foreignKeys) {
    YLJsonValue* item = keys->addArrayItem();
    addStrings(item->addKeyValue("fields"), key.fields);
    item->addKeyValue("ref_table")->setStringValue(key.refTable);
    addStrings(item->addKeyValue("ref_fields"), key.refFields);
  }
}

// Keeps the reads of one description in one snapshot, so that a concurrent schema change
// cannot mix two versions of the structure.
class ReadTransaction {
 public:
  explicit ReadTransaction(sqlite3* db) : db_(db) {
    // A caller's own transaction already gives the snapshot.
    if (sqlite3_get_autocommit(db) != 0) {
      begun_ = sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
  }
  ~ReadTransaction() {
    if (begun_) sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
  }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  sqlite3* db_;
  bool begun_ = false;
};

}  // namespace

SqliteDatabase::SqliteDatabase(const std::string& target, const DatabaseSettings& settings)
    : target_(target), settings_(settings) {
  const bool uri = isUri(target);
  if (!uri) {
    // SQLite's own message for a missing file says nothing of the cause; look first.
    struct stat info {};
    if (stat(target.c_str(), &info) != 0) {
      const int error = errno;
      throw DatabaseError("cannot open database " + quoted(target) + ": " +
                          (error == ENOENT ? "no such file" : std::strerror(error)));
    }
    if (S_ISDIR(info.st_mode)) {
      throw DatabaseError("cannot open database " + quoted(target) + ": it is a folder");
    }
  }

  // Read-only on every path: a mistyped name must never leave a new empty database behind.
  const int rc =
      sqlite3_open_v2(target.c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  if (rc != SQLITE_OK) {
    const std::string reason = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    sqlite3_close(db_);
    db_ = nullptr;
    throw DatabaseError("cannot open database " + quoted(target) + ": " + reason);
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);

  // SQLite reads nothing until the first statement: read the schema now, so that a file that is
  // not a database fails here rather than in the middle of a session.
  const int read =
      sqlite3_exec(db_, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
  if (read != SQLITE_OK) {
    const std::string reason = sqlite3_errmsg(db_);
    const int code = sqlite3_errcode(db_) & 0xff;
    sqlite3_close(db_);
    db_ = nullptr;
    if (code == SQLITE_NOTADB) throw DatabaseError(quoted(target) + " is not an SQLite database");
    throw DatabaseError("cannot read database " + quoted(target) + ": " + reason);
  }

  if (uri) {
    identity_ = target;
  } else {
    char resolved[PATH_MAX];
    identity_ = realpath(target.c_str(), resolved) != nullptr ? std::string(resolved) : target;
  }
}

SqliteDatabase::~SqliteDatabase() {
  sqlite3_close_v2(db_);
}

std::string SqliteDatabase::describeStructure() {
  const ReadTransaction snapshot(db_);

  // The connection's own temporary database is no part of the user's structure.
  std::vector<std::string> databases;
  {
    Statement list(db_, "SELECT name FROM pragma_database_list WHERE name <> 'temp' ORDER BY seq",
                   target_);
    while (list.step())
      databases.push_back(list.text(0));
  }

  ObjectReader reader(db_, target_);
  YLJson root;
  root.setArrayType();
  for (const std::string& database : databases) {
    YLJsonValue* catalog = root.addArrayItem();
    catalog->addKeyValue("catalog_name")->setStringValue(database);
    YLJsonValue* schema = catalog->addKeyValue("schemas")->addArrayItem();
    YLJsonValue* tables = schema->addKeyValue("tables");
    tables->setArrayType();
    YLJsonValue* views = schema->addKeyValue("views");
    views->setArrayType();

    for (const auto& [type, name] : listObjects(db_, database, target_)) {
      // An object whose columns cannot be read cannot be queried either: leave it out.
      const std::optional<std::vector<Column>> columns = reader.readColumns(database, name);
      if (!columns) continue;
      const bool isView = type == "view";
      YLJsonValue* object = (isView ? views : tables)->addArrayItem();
      object->addKeyValue("name")->setStringValue(name);
      YLJsonValue* fields = object->addKeyValue("fields");
      fields->setArrayType();
      for (const Column& column : *columns) {
        YLJsonValue* field = fields->addArrayItem();
        field->addKeyValue("name")->setStringValue(column.name);
        field->addKeyValue("type")->setStringValue(column.type);
      }
      if (isView) continue;

      const std::vector<std::string> primaryKey = ObjectReader::primaryKey(*columns);
      if (!primaryKey.empty()) addStrings(object->addKeyValue("pkeys"), primaryKey);
      addForeignKeys(object, reader.readForeignKeys(database, name));
    }
  }
  return root.obtainJsonString();
}

std::string SqliteDatabase::identity() const {
  return identity_;
}

std::string SqliteDatabase::displayName() const {
  if (isUri(target_)) return target_;
  const std::string name = std::filesystem::path(target_).filename().string();
  return name.empty() ? target_ : name;
}

}  // namespace qorchat

namespace qorchat {
namespace {

// How many virtual machine steps pass between two looks at the clock: often enough to stop within
// milliseconds, rarely enough to cost nothing measurable.
constexpr int kProgressSteps = 1000;
// The bytes of a BLOB shown in its hexadecimal form; a table cell shows fewer anyway.
constexpr std::size_t kShownBlobBytes = 256;

std::string durationText(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return std::to_string(duration.count() / 1000) + " s";
  return std::to_string(duration.count()) + " ms";
}

// A BLOB as an SQL literal, X'0A1B...', its end cut with an ellipsis when it is long.
std::string blobText(const void* data, int size) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const unsigned char*>(data);
  const std::size_t count = static_cast<std::size_t>(size);
  std::string text = "X'";
  for (std::size_t i = 0; i < std::min(count, kShownBlobBytes); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  text += count > kShownBlobBytes ? "\u2026'" : "'";
  return text;
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
  // The text of a statement that failed: SQLite's own, or what the limit did.
  std::string failure() const {
    if (expired_) {
      return "statement timeout: stopped after " + durationText(limit_) +
             " (--statement-timeout SECONDS changes the limit)";
    }
    return sqlite3_errmsg(db_);
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

std::string_view trimmedStatement(const char* begin, const char* end) {
  std::string_view text(begin, static_cast<std::size_t>(end - begin));
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

std::vector<StatementResult> SqliteDatabase::runReadOnly(const std::string& sql,
                                                         std::size_t maxRows) {
  RunGuard guard(db_, settings_.statementTimeout);
  std::vector<StatementResult> results;
  const char* next = sql.c_str();
  const char* const end = next + sql.size();
  while (next < end) {
    guard.startStatement();
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int prepared = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &raw, &tail);
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
    // A statement that does not compile has no known end: the rest of the text is shown.
    const char* const statementEnd =
        prepared == SQLITE_OK && tail != nullptr && tail > next ? tail : end;
    const std::string_view text = trimmedStatement(next, statementEnd);
    next = statementEnd;
    if (prepared == SQLITE_OK && statement == nullptr) continue;  // white space or a comment
    StatementResult& result = results.emplace_back();
    result.statement = std::string(text);
    if (prepared != SQLITE_OK) {
      result.error = guard.failure();
      break;
    }
    const int columns = sqlite3_column_count(statement.get());
    for (int i = 0; i < columns; ++i) {
      const char* name = sqlite3_column_name(statement.get(), i);
      result.columns.emplace_back(name != nullptr ? name : "");
    }
    int stepped = SQLITE_ROW;
    while ((stepped = sqlite3_step(statement.get())) == SQLITE_ROW) {
      if (result.rowCount++ >= maxRows) continue;
      auto& row = result.rows.emplace_back();
      for (int i = 0; i < columns; ++i)
        row.emplace_back(cellText(statement.get(), i));
    }
    if (stepped != SQLITE_DONE) {
      result.error = guard.failure();
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
