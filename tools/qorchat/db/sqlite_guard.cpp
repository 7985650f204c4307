// The allow-list a statement of the model must pass on an SQLite connection, the sizes SQLite may
// work with while it runs, and the clock that stops it.
//
// The connection is read-only from its opening and query_only during a run; the allow-list is
// what keeps a statement from changing the connection itself (locking_mode, hard_heap_limit and
// the like outlive the statement and reach beyond it), from holding a transaction open, from
// attaching files and from loading code.
#include "db/sqlite_guard.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <string>
#include <utility>

#include "text.h"

namespace qorchat::sqlite {
namespace {

// Pragmas that only read: an argument names what to look at (a table, an index) or is ignored.
constexpr std::array<std::string_view, 14> kReadingPragmas = {
    "collation_list", "compile_options", "database_list", "foreign_key_check", "foreign_key_list",
    "function_list",  "index_info",      "index_list",    "index_xinfo",       "module_list",
    "pragma_list",    "table_info",      "table_list",    "table_xinfo"};
// Pragmas that read a setting when given no value and change it when given one.
constexpr std::array<std::string_view, 8> kSettingPragmas = {
    "application_id", "data_version", "encoding",       "freelist_count",
    "page_count",     "page_size",    "schema_version", "user_version"};

// Functions refused, and why.
constexpr std::array<std::pair<std::string_view, const char*>, 3> kRefusedFunctions = {{
    {"load_extension", "loads code into qorchat"},
    {"fts3_tokenizer", "installs code in SQLite"},
    // Its time grows with the product of its inputs' sizes, and nothing stops it midway.
    {"json_patch", "can run for hours without stopping"},
}};

// The longest statement text SQLite is given: far beyond any block a person asks for, short
// enough that parsing it takes no time worth stopping.
constexpr int kSqlBytes = 1 << 20;
// The longest LIKE or GLOB pattern: the matcher recurses once per wildcard.
constexpr int kLikePatternBytes = 10000;
constexpr std::array<int, 3> kLimited = {SQLITE_LIMIT_LENGTH, SQLITE_LIMIT_SQL_LENGTH,
                                         SQLITE_LIMIT_LIKE_PATTERN_LENGTH};
// The memory one run may take beyond what SQLite already holds, at least: a statement that
// grows without end (some nest of CTEs makes the planner's work double with each) fails with
// "out of memory" within a second or so, rather than taking the machine's memory.
constexpr std::int64_t kHeapBudgetFloor = 512LL << 20;
// How many virtual machine steps pass between two looks at the clock.
constexpr int kProgressSteps = 1000;

template <std::size_t N>
bool among(const std::array<std::string_view, N>& names, const char* name) {
  return name != nullptr && std::any_of(names.begin(), names.end(), [name](std::string_view n) {
           return text::equalsIgnoringCase(n, name);
         });
}

std::string durationText(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return std::to_string(duration.count() / 1000) + " s";
  return std::to_string(duration.count()) + " ms";
}

std::string mebibytes(std::int64_t bytes) {
  return std::to_string(bytes >> 20) + " MiB";
}

// The text past white space and comments.
std::string_view pastComments(std::string_view sql) {
  while (true) {
    sql = text::trimmed(sql);
    if (text::startsWith(sql, "--")) {
      const std::size_t end = sql.find('\n');
      sql = end == std::string_view::npos ? std::string_view() : sql.substr(end);
    } else if (text::startsWith(sql, "/*")) {
      const std::size_t end = sql.find("*/");
      sql = end == std::string_view::npos ? std::string_view() : sql.substr(end + 2);
    } else {
      return sql;
    }
  }
}

// What a statement is, as its first keywords say: "VACUUM", "CREATE TEMP TABLE".
std::string statementName(std::string_view sql) {
  static constexpr std::array<std::string_view, 4> kModifiers = {"TEMP", "TEMPORARY", "UNIQUE",
                                                                 "VIRTUAL"};
  static constexpr std::array<std::string_view, 4> kObjects = {"TABLE", "VIEW", "INDEX", "TRIGGER"};
  const auto isOne = [](const auto& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
  };
  sql = pastComments(sql);
  std::string name;
  while (true) {
    std::size_t length = 0;
    while (length < sql.size() && std::isalpha(static_cast<unsigned char>(sql[length])) != 0)
      ++length;
    std::string word;
    for (const char c : sql.substr(0, length))
      word += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (word.empty() || (!name.empty() && !isOne(kModifiers, word) && !isOne(kObjects, word)))
      break;
    name += (name.empty() ? "" : " ") + word;
    const bool takesObject = name != word || word == "CREATE" || word == "DROP" || word == "ALTER";
    if (!takesObject || isOne(kObjects, word)) break;
    sql = text::trimmed(sql.substr(length));
  }
  return name.empty() ? "the statement" : name;
}

// The function refused under this name, and why; nullptr for any other.
const std::pair<std::string_view, const char*>* refusedFunction(const char* name) {
  if (name == nullptr) return nullptr;
  for (const auto& refused : kRefusedFunctions) {
    if (text::equalsIgnoringCase(refused.first, name)) return &refused;
  }
  return nullptr;
}

// Whether a pragma, given this value or none, only reads.
bool pragmaOnlyReads(const char* name, const char* value) {
  return among(kReadingPragmas, name) || (value == nullptr && among(kSettingPragmas, name));
}

// What a savepoint statement is called, from what SQLite tells the authorizer.
const char* savepointVerb(const char* operation) {
  const std::string_view verb = operation != nullptr ? operation : "BEGIN";
  if (verb == "BEGIN") return "SAVEPOINT";
  return verb == "RELEASE" ? "RELEASE" : "ROLLBACK TO";
}

bool isSchemaTable(const char* table) {
  return table != nullptr && (sqlite3_stricmp(table, "sqlite_master") == 0 ||
                              sqlite3_stricmp(table, "sqlite_temp_master") == 0);
}

}  // namespace

RunGuard::RunGuard(sqlite3* db, StopSignal& signal, std::chrono::milliseconds limit,
                   std::int64_t storedValueBytes)
    : db_(db), signal_(signal), limit_(limit), ownsTransaction_(sqlite3_get_autocommit(db) != 0) {
  // Refuses writes to the temporary database too, which a read-only file does not.
  sqlite3_exec(db_, "PRAGMA query_only = ON", nullptr, nullptr, nullptr);

  // Every value stored stays readable: SQLite refuses to read one longer than the limit, and no
  // value is longer than the file that holds it.
  const std::int64_t length = std::clamp<std::int64_t>(
      std::max(kComputedValueBytes, storedValueBytes), 0, std::numeric_limits<int>::max());
  const std::array<int, 3> values = {static_cast<int>(length), kSqlBytes, kLikePatternBytes};
  for (std::size_t i = 0; i < kLimited.size(); ++i)
    previousLimits_[i] = sqlite3_limit(db_, kLimited[i], values[i]);
  lengthLimit_ = sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, -1);  // SQLite caps it at its own most

  heapBudget_ = std::max(kHeapBudgetFloor, 4 * lengthLimit_);
  previousSoftHeap_ = sqlite3_soft_heap_limit64(-1);
  previousHardHeap_ = sqlite3_hard_heap_limit64(-1);
  const std::int64_t heapLimit = sqlite3_memory_used() + heapBudget_;
  if (previousHardHeap_ == 0 || previousHardHeap_ > heapLimit) sqlite3_hard_heap_limit64(heapLimit);

  sqlite3_set_authorizer(db_, &authorize, this);
  if (limit_.count() > 0) sqlite3_progress_handler(db_, kProgressSteps, &checkClock, this);
}

RunGuard::~RunGuard() {
  sqlite3_progress_handler(db_, 0, nullptr, nullptr);
  sqlite3_set_authorizer(db_, nullptr, nullptr);
  // The soft limit follows the hard one down; both go back to what they were.
  sqlite3_hard_heap_limit64(previousHardHeap_);
  sqlite3_soft_heap_limit64(previousSoftHeap_);
  for (std::size_t i = 0; i < kLimited.size(); ++i)
    sqlite3_limit(db_, kLimited[i], previousLimits_[i]);
  // Nothing a statement may run begins a transaction; should one remain, no snapshot outlives
  // the run.
  if (ownsTransaction_ && sqlite3_get_autocommit(db_) == 0)
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void RunGuard::startStatement(std::string_view text) {
  statement_ = text;
  refusal_.clear();
  signal_.start(limit_);
}

bool RunGuard::stopped() const {
  return signal_.expired() || (sqlite3_extended_errcode(db_) & 0xff) == SQLITE_INTERRUPT;
}

Status RunGuard::failure() const {
  if (signal_.expired()) {
    return Status::timedOut("statement timeout: stopped after " + durationText(limit_) +
                            " (--statement-timeout SECONDS changes the limit)");
  }
  if (!refusal_.empty()) return Status::refused(refusal_);
  std::string message = sqlite3_errmsg(db_);
  switch (sqlite3_extended_errcode(db_) & 0xff) {
    case SQLITE_INTERRUPT:
      return Status::cancelled(std::move(message));
    case SQLITE_TOOBIG:
      return Status::database(message + ": a value a statement makes may hold at most " +
                              mebibytes(lengthLimit_));
    case SQLITE_NOMEM:
      return Status::database(message + ": a statement may take at most " + mebibytes(heapBudget_) +
                              " of memory");
    default:
      return Status::database(std::move(message));
  }
}

int RunGuard::refuse(const std::string& what, const char* why) {
  // The first refusal names the statement's action; SQLite gives up on the statement there.
  if (refusal_.empty())
    refusal_ = "refused: " + what + " " + why + "; qorchat runs only statements that read";
  return SQLITE_DENY;
}

int RunGuard::authorize(void* self, int action, const char* first, const char* second,
                        const char* /*database*/, const char* /*trigger*/) {
  auto* guard = static_cast<RunGuard*>(self);
  const auto named = [guard] { return statementName(guard->statement_); };
  switch (action) {
    case SQLITE_READ:
    case SQLITE_SELECT:
    case SQLITE_RECURSIVE:
      return SQLITE_OK;
    case SQLITE_FUNCTION:
      if (const auto* refused = refusedFunction(second)) {
        return guard->refuse(std::string(refused->first) + "()", refused->second);
      }
      return SQLITE_OK;
    case SQLITE_PRAGMA:
      if (pragmaOnlyReads(first, second)) return SQLITE_OK;
      return guard->refuse("PRAGMA " + std::string(first != nullptr ? first : ""),
                           second != nullptr ? "changes the connection"
                                             : "is not one of the pragmas that only read");
    case SQLITE_TRANSACTION:
      return guard->refuse(first != nullptr ? first : "BEGIN", "is transaction control");
    case SQLITE_SAVEPOINT:
      return guard->refuse(savepointVerb(first), "is transaction control");
    case SQLITE_ATTACH:
      return named() == "VACUUM" ? guard->refuse("VACUUM", "writes a database file")
                                 : guard->refuse("ATTACH", "opens another database file");
    case SQLITE_DETACH:
      return guard->refuse("DETACH", "changes the connection");
    case SQLITE_ANALYZE:
      return guard->refuse("ANALYZE", "writes statistics into the database");
    case SQLITE_REINDEX:
      return guard->refuse("REINDEX", "rewrites indexes");
    case SQLITE_UPDATE:
      // A table-valued function (json_each, pragma_table_info) is declared on its first use by
      // an update of the schema table that is never run. A statement's own update of it fails
      // anyway: the schema table is writable only with writable_schema, which is refused.
      if (first != nullptr && sqlite3_stricmp(first, "sqlite_master") == 0) return SQLITE_OK;
      return guard->refuse("UPDATE", "changes data");
    case SQLITE_INSERT:
    case SQLITE_DELETE:
      // Making or dropping anything first writes the schema table.
      if (isSchemaTable(first)) return guard->refuse(named(), "changes the schema");
      return guard->refuse(action == SQLITE_INSERT ? "INSERT" : "DELETE", "changes data");
    default: {
      // Creating, dropping and altering tables, views, indexes, triggers; anything SQLite adds.
      const std::string name = named();
      const bool schema = text::startsWith(name, "CREATE") || text::startsWith(name, "DROP") ||
                          text::startsWith(name, "ALTER");
      return guard->refuse(name, schema ? "changes the schema" : "does more than read");
    }
  }
}

int RunGuard::checkClock(void* self) {
  return static_cast<RunGuard*>(self)->signal_.timeUp() ? 1 : 0;
}

}  // namespace qorchat::sqlite
