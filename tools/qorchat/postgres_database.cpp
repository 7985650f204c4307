// Connects to PostgreSQL through libpq, reads its structure with a fixed handful of catalog queries
// in one read-only snapshot, and runs statements in a read-only transaction that is rolled back.

#include "postgres_database.h"

#include <libpq-fe.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "yl/yl_json.h"

namespace qorchat {
namespace {

constexpr std::string_view kMask = "****";
constexpr std::size_t npos = std::string_view::npos;

struct ResultDeleter {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultDeleter>;

struct FreeDeleter {
  void operator()(char* block) const { PQfreemem(block); }
};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool isUri(std::string_view target) {
  return startsWith(target, "postgresql://") || startsWith(target, "postgres://");
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

// libpq's messages run over several lines, indented; a DatabaseError is one line.
std::string oneLine(std::string_view message) {
  std::string line;
  while (!message.empty()) {
    std::size_t end = message.find('\n');
    if (end == npos) end = message.size();
    const std::string_view part = trimmed(message.substr(0, end));
    if (!part.empty()) {
      if (!line.empty()) line += "; ";
      line += part;
    }
    message.remove_prefix(std::min(end + 1, message.size()));
  }
  return line;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  if (from.empty()) return;
  for (std::size_t at = text.find(from); at != npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

bool isSecretKey(std::string_view key) {
  return key == "password" || key == "sslpassword";
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// Where a password is written in the target, and the value libpq reads from it.
struct Secret {
  std::size_t begin;
  std::size_t end;
  std::string value;
};

// scheme://[user[:password]@]hosts[/dbname][?key=value&...], read as libpq reads it: the user
// part ends at the first @ before any /.
std::vector<Secret> uriSecrets(std::string_view uri) {
  std::vector<Secret> secrets;
  const std::size_t start = uri.find("://") + 3;
  std::size_t at = start;
  while (at < uri.size() && uri[at] != '@' && uri[at] != '/')
    ++at;
  std::size_t hosts = start;
  if (at < uri.size() && uri[at] == '@') {
    const std::size_t colon = uri.find(':', start);
    if (colon < at) {
      secrets.push_back({colon + 1, at, percentDecoded(uri.substr(colon + 1, at - colon - 1))});
    }
    hosts = at + 1;
  }
  const std::size_t query = uri.find('?', hosts);
  if (query == npos) return secrets;
  for (std::size_t item = query + 1; item <= uri.size();) {
    std::size_t end = uri.find('&', item);
    if (end == npos) end = uri.size();
    const std::size_t equals = uri.find('=', item);
    if (equals < end && isSecretKey(percentDecoded(uri.substr(item, equals - item)))) {
      secrets.push_back(
          {equals + 1, end, percentDecoded(uri.substr(equals + 1, end - equals - 1))});
    }
    item = end + 1;
  }
  return secrets;
}

// keyword = value pairs as libpq reads them: a value is quoted with ' or runs to white space, a
// backslash escaping the next character in both. Read leniently, so that a password written after
// a mistake is still found.
std::vector<Secret> conninfoSecrets(std::string_view text) {
  std::vector<Secret> secrets;
  std::size_t i = 0;
  const auto skipSpace = [&] {
    while (i < text.size() && isSpace(text[i]))
      ++i;
  };
  for (;;) {
    skipSpace();
    if (i >= text.size()) break;
    const std::size_t keyStart = i;
    while (i < text.size() && text[i] != '=' && !isSpace(text[i]))
      ++i;
    const std::string_view key = text.substr(keyStart, i - keyStart);
    skipSpace();
    if (i >= text.size() || text[i] != '=') continue;
    ++i;
    skipSpace();
    const std::size_t valueStart = i;
    std::string value;
    const bool quoted = i < text.size() && text[i] == '\'';
    if (quoted) ++i;
    while (i < text.size() && (quoted ? text[i] != '\'' : !isSpace(text[i]))) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      value += text[i++];
    }
    if (quoted && i < text.size()) ++i;
    if (isSecretKey(key)) secrets.push_back({valueStart, i, std::move(value)});
  }
  return secrets;
}

std::vector<Secret> secretsOf(const std::string& target) {
  return isUri(target) ? uriSecrets(target) : conninfoSecrets(target);
}

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// --- Statements ---------------------------------------------------------------------------------

bool isWordStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool isWordChar(char c) {
  return isWordStart(c) || (c >= '0' && c <= '9') || c == '$';
}

// Just past the closing quote of the literal or identifier that opens at i; the end of the text
// when it is never closed, so the server reports it.
std::size_t pastQuoted(std::string_view sql, std::size_t i, char quote, bool backslashEscapes) {
  std::size_t j = i + 1;
  while (j < sql.size()) {
    if (backslashEscapes && sql[j] == '\\') {
      j += 2;
    } else if (sql[j] == quote) {
      if (j + 1 < sql.size() && sql[j + 1] == quote) {
        j += 2;
      } else {
        return j + 1;
      }
    } else {
      ++j;
    }
  }
  return sql.size();
}

// The tag of a dollar quote ($$ or $name$) that opens at i, or nothing: $1 is a parameter.
std::string_view dollarTag(std::string_view sql, std::size_t i) {
  std::size_t j = i + 1;
  if (j < sql.size() && sql[j] >= '0' && sql[j] <= '9') return {};
  while (j < sql.size() && sql[j] != '$') {
    if (!isWordStart(sql[j]) && !(sql[j] >= '0' && sql[j] <= '9')) return {};
    ++j;
  }
  if (j >= sql.size()) return {};
  return sql.substr(i, j - i + 1);
}

// Just past the block comment that opens at i, nested ones included; the end of the text if it
// never closes.
std::size_t pastBlockComment(std::string_view sql, std::size_t i) {
  int depth = 1;
  i += 2;
  while (i < sql.size() && depth > 0) {
    if (sql.compare(i, 2, "/*") == 0) {
      ++depth;
      i += 2;
    } else if (sql.compare(i, 2, "*/") == 0) {
      --depth;
      i += 2;
    } else {
      ++i;
    }
  }
  return i;
}

// Just past the piece of a statement that starts at i: a literal, a quoted name, a dollar-quoted
// string, a whole word, or else the one character.
std::size_t pastToken(std::string_view sql, std::size_t i, bool backslashEscapes) {
  const char c = sql[i];
  if (c == '\'') return pastQuoted(sql, i, '\'', backslashEscapes);
  if (c == '"') return pastQuoted(sql, i, '"', false);
  if (c == '$') {
    const std::string_view tag = dollarTag(sql, i);
    if (tag.empty()) return i + 1;
    const std::size_t close = sql.find(tag, i + tag.size());
    return close == npos ? sql.size() : close + tag.size();
  }
  if (!isWordStart(c)) return i + 1;
  // A whole word at once, so that a $ inside it opens no quote. E'...' escapes backslashes.
  const std::size_t word = i;
  while (i < sql.size() && isWordChar(sql[i]))
    ++i;
  if (i - word == 1 && (c == 'E' || c == 'e') && i < sql.size() && sql[i] == '\'') {
    i = pastQuoted(sql, i, '\'', true);
  }
  return i;
}

// The statements of a block, each with its semicolon, as PostgreSQL's own lexer separates them:
// semicolons inside literals, quoted names, dollar quotes and comments (nested ones included)
// end nothing. Pieces of only white space and comments are no statements. A body of BEGIN ATOMIC
// is cut at its semicolons; the server then rejects the pieces, which a read-only run would
// refuse anyway.
std::vector<std::string_view> splitStatements(std::string_view sql, bool backslashEscapes) {
  std::vector<std::string_view> statements;
  std::size_t start = 0;
  bool content = false;
  const auto finish = [&](std::size_t end) {
    if (content) statements.push_back(trimmed(sql.substr(start, end - start)));
    start = end;
    content = false;
  };
  std::size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    const char next = i + 1 < sql.size() ? sql[i + 1] : '\0';
    if (c == ';') {
      ++i;
      finish(i);
    } else if (isSpace(c)) {
      ++i;
    } else if (c == '-' && next == '-') {
      i = sql.find('\n', i);
      if (i == npos) i = sql.size();
    } else if (c == '/' && next == '*') {
      i = pastBlockComment(sql, i);
    } else {
      content = true;
      i = pastToken(sql, i, backslashEscapes);
    }
  }
  finish(sql.size());
  return statements;
}

// --- Structure ----------------------------------------------------------------------------------

// The schemas of the user's own objects that the user may use: not the system's, not the
// temporary ones of any session.
constexpr std::string_view kVisibleSchema =
    "n.nspname NOT IN ('pg_catalog', 'information_schema', 'pg_toast') "
    "AND n.nspname !~ '^pg_(toast_)?temp_' "
    "AND pg_catalog.has_schema_privilege(n.oid, 'USAGE')";

// Tables (a partitioned one once, without its partitions), foreign tables, views and materialized
// views that the user may read at least one column of.
constexpr std::string_view kVisibleRelation =
    "c.relkind IN ('r', 'p', 'f', 'v', 'm') AND NOT c.relispartition "
    "AND pg_catalog.has_any_column_privilege(c.oid, 'SELECT')";

std::string schemasQuery() {
  return "SELECT n.nspname FROM pg_catalog.pg_namespace n WHERE " + std::string(kVisibleSchema) +
         " ORDER BY n.nspname";
}

constexpr std::string_view kRelationFrom =
    " JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace";

std::string relationsQuery() {
  return "SELECT c.oid, n.nspname, c.relname, c.relkind FROM pg_catalog.pg_class c" +
         std::string(kRelationFrom) + " WHERE " + std::string(kVisibleSchema) + " AND " +
         std::string(kVisibleRelation) + " ORDER BY n.nspname, c.relname";
}

// Only the columns the user may read: a grant on some columns shows those. Table-level SELECT is
// asked once per relation (OFFSET 0 keeps it there), so the costlier question per column is only
// asked of tables without it.
std::string columnsQuery() {
  return "SELECT c.oid, a.attnum, a.attname, pg_catalog.format_type(a.atttypid, a.atttypmod) "
         "FROM (SELECT c.oid, pg_catalog.has_table_privilege(c.oid, 'SELECT') AS whole "
         "FROM pg_catalog.pg_class c" +
         std::string(kRelationFrom) + " WHERE " + std::string(kVisibleSchema) + " AND " +
         std::string(kVisibleRelation) +
         " OFFSET 0) c JOIN pg_catalog.pg_attribute a ON a.attrelid = c.oid"
         " WHERE a.attnum > 0 AND NOT a.attisdropped"
         " AND (c.whole OR pg_catalog.has_column_privilege(c.oid, a.attnum, 'SELECT'))"
         " ORDER BY a.attrelid, a.attnum";
}

// Primary and foreign keys, their columns as attribute numbers in key order. Those of relations
// the user cannot see are passed over by the reader. A key that refers to a partitioned table is
// copied onto each partition with a parent (conparentid): the parent alone says it.
constexpr const char* kKeysQuery =
    "SELECT con.conrelid, con.contype, con.conkey, con.confrelid, con.confkey "
    "FROM pg_catalog.pg_constraint con "
    "WHERE con.contype IN ('p', 'f') AND con.conparentid = 0 "
    "ORDER BY con.conrelid, con.conname, con.oid";

// The numbers of an int2[] as PostgreSQL writes it: {1,2,3}.
std::vector<int> attributeNumbers(std::string_view text) {
  std::vector<int> numbers;
  const char* next = text.data();
  const char* const end = next + text.size();
  while (next < end) {
    int number = 0;
    const auto [past, error] = std::from_chars(next, end, number);
    if (error == std::errc()) {
      numbers.push_back(number);
      next = past;
    } else {
      ++next;  // a brace or a comma
    }
  }
  return numbers;
}

Oid oidAt(const PGresult* result, int row, int column) {
  const char* text = PQgetvalue(result, row, column);
  Oid oid = 0;
  std::from_chars(text, text + PQgetlength(result, row, column), oid);
  return oid;
}

std::string textAt(const PGresult* result, int row, int column) {
  return std::string(PQgetvalue(result, row, column),
                     static_cast<std::size_t>(PQgetlength(result, row, column)));
}

struct ForeignKey {
  std::vector<std::string> fields;
  std::string refSchema;
  std::string refTable;
  std::vector<std::string> refFields;
};

struct Relation {
  std::string name;
  std::string schema;
  std::vector<std::pair<std::string, std::string>> fields;
  std::vector<int> attributeNumbers;  // of the fields, in the same order
  std::vector<std::string> primaryKey;
  std::vector<ForeignKey> foreignKeys;

  // The names of the columns, or nothing when the user may not read one of them: a key over such
  // a column would send the model where the user cannot go.
  std::optional<std::vector<std::string>> namesOf(const std::vector<int>& numbers) const {
    std::vector<std::string> names;
    for (const int number : numbers) {
      const auto found = std::find(attributeNumbers.begin(), attributeNumbers.end(), number);
      if (found == attributeNumbers.end()) return std::nullopt;
      names.push_back(fields[static_cast<std::size_t>(found - attributeNumbers.begin())].first);
    }
    return names;
  }
};

constexpr int kKinds = 3;
constexpr const char* kKindKeys[kKinds] = {"tables", "views", "mviews"};

int kindOf(char relkind) {
  switch (relkind) {
    case 'v':
      return 1;
    case 'm':
      return 2;
    default:
      return 0;
  }
}

struct Schema {
  std::string name;
  std::vector<std::size_t> members[kKinds];  // indexes into the relations, by kind
};

void addStrings(IYLJsonValue* array, const std::vector<std::string>& items) {
  array->setArrayType();
  for (const std::string& item : items)
    array->addArrayItem()->setStringValue(item);
}

// One table, view or materialized view: its fields, then its keys when it has any.
void addRelation(YLJsonValue* objects, const Relation& relation) {
  YLJsonValue* object = objects->addArrayItem();
  object->addKeyValue("name")->setStringValue(relation.name);
  YLJsonValue* fields = object->addKeyValue("fields");
  fields->setArrayType();
  for (const auto& [name, type] : relation.fields) {
    YLJsonValue* field = fields->addArrayItem();
    field->addKeyValue("name")->setStringValue(name);
    field->addKeyValue("type")->setStringValue(type);
  }
  if (!relation.primaryKey.empty()) addStrings(object->addKeyValue("pkeys"), relation.primaryKey);
  if (relation.foreignKeys.empty()) return;
  YLJsonValue* keys = object->addKeyValue("fkeys");
  keys->setArrayType();
  for (const ForeignKey& foreignKey : relation.foreignKeys) {
    YLJsonValue* entry = keys->addArrayItem();
    addStrings(entry->addKeyValue("fields"), foreignKey.fields);
    entry->addKeyValue("ref_schema")->setStringValue(foreignKey.refSchema);
    entry->addKeyValue("ref_table")->setStringValue(foreignKey.refTable);
    addStrings(entry->addKeyValue("ref_fields"), foreignKey.refFields);
  }
}

// The db_structure JSON of the schemas read: one catalog, named after the database.
std::string structureJson(const char* catalogName, const std::vector<Schema>& schemas,
                          const std::vector<Relation>& relations) {
  YLJson root;
  root.setArrayType();
  YLJsonValue* catalog = root.addArrayItem();
  catalog->addKeyValue("catalog_name")->setStringValue(catalogName);
  YLJsonValue* schemaList = catalog->addKeyValue("schemas");
  schemaList->setArrayType();
  for (const Schema& schema : schemas) {
    YLJsonValue* item = schemaList->addArrayItem();
    item->addKeyValue("schema_name")->setStringValue(schema.name);
    for (int kind = 0; kind < kKinds; ++kind) {
      YLJsonValue* objects = item->addKeyValue(kKindKeys[kind]);
      objects->setArrayType();
      for (const std::size_t index : schema.members[kind])
        addRelation(objects, relations[index]);
    }
  }
  return root.obtainJsonString();
}

// Rolls back whatever a transaction left open, also when a read throws.
class RollbackGuard {
 public:
  explicit RollbackGuard(PGconn* connection) : connection_(connection) {}
  ~RollbackGuard() {
    if (PQtransactionStatus(connection_) != PQTRANS_IDLE) Result(PQexec(connection_, "ROLLBACK"));
  }
  RollbackGuard(const RollbackGuard&) = delete;
  RollbackGuard& operator=(const RollbackGuard&) = delete;

 private:
  PGconn* connection_;
};

// Runs the statements that open a transaction. A connection that died while idle (a server
// restart, a terminated session) shows only when used: it is opened once more, since nothing
// has run yet.
Result begin(PGconn* connection, const std::string& sql, ExecStatusType expected) {
  Result result(PQexec(connection, sql.c_str()));
  if (PQresultStatus(result.get()) != expected && PQstatus(connection) == CONNECTION_BAD) {
    PQreset(connection);
    if (PQstatus(connection) == CONNECTION_OK) result.reset(PQexec(connection, sql.c_str()));
  }
  return result;
}

std::string timeoutMs(const DatabaseSettings& settings) {
  const auto ms = settings.statementTimeout.count();
  return std::to_string(std::clamp<decltype(ms)>(ms, 0, INT_MAX));
}

// The rows of a result, or of one row of it in single-row mode, counted and at most maxRows kept.
void takeRows(const PGresult* part, StatementResult& result, std::size_t maxRows) {
  if (result.columns.empty()) {
    for (int column = 0; column < PQnfields(part); ++column)
      result.columns.emplace_back(PQfname(part, column));
  }
  for (int row = 0; row < PQntuples(part); ++row) {
    if (result.rowCount++ >= maxRows) continue;
    auto& values = result.rows.emplace_back();
    for (int column = 0; column < PQnfields(part); ++column) {
      if (PQgetisnull(part, row, column) != 0) {
        values.emplace_back(std::nullopt);
      } else {
        values.emplace_back(textAt(part, row, column));
      }
    }
  }
}

// COPY ... TO STDOUT: each line of its text is a row.
void takeCopyRows(PGconn* connection, StatementResult& result, std::size_t maxRows) {
  result.columns = {"COPY"};
  char* raw = nullptr;
  int size = 0;
  while ((size = PQgetCopyData(connection, &raw, 0)) > 0) {
    const std::unique_ptr<char, FreeDeleter> line(raw);
    std::string_view text(line.get(), static_cast<std::size_t>(size));
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (result.rowCount++ < maxRows) result.rows.push_back({std::string(text)});
  }
}

std::string parameterOf(PGconn* connection, const char* name) {
  return std::string(orEmpty(PQparameterStatus(connection, name)));
}

// Why the statements after one that just ran are not run, or empty when they may be.
std::string_view reasonToStop(PGconn* connection, bool superuserAtStart) {
  if (PQtransactionStatus(connection) != PQTRANS_INTRANS) {
    return "not run: the statement before ended the read-only transaction";
  }
  if (!superuserAtStart && parameterOf(connection, "is_superuser") == "on") {
    return "not run: the statement before took back a superuser's rights";
  }
  return {};
}

}  // namespace

void PostgresDatabase::Closer::operator()(pg_conn* connection) const {
  PQfinish(connection);
}

bool PostgresDatabase::accepts(const std::string& target) {
  if (isUri(target)) return true;
  if (startsWith(target, "file:") || target.find('=') == std::string::npos) return false;
  std::error_code error;
  return !std::filesystem::exists(target, error);
}

std::string PostgresDatabase::masked(const std::string& target) {
  std::string text = target;
  std::vector<Secret> secrets = secretsOf(target);
  // From the end, so that the earlier places stay where they were.
  for (auto secret = secrets.rbegin(); secret != secrets.rend(); ++secret)
    text.replace(secret->begin, secret->end - secret->begin, kMask);
  return text;
}

PostgresDatabase::PostgresDatabase(const std::string& target, const DatabaseSettings& settings)
    : target_(target), settings_(settings) {
  for (const Secret& secret : secretsOf(target)) {
    secrets_.push_back(target.substr(secret.begin, secret.end - secret.begin));
    secrets_.push_back(secret.value);
  }
  std::erase_if(secrets_, [](const std::string& secret) { return secret.empty(); });
  // The longest first, so that a password inside another leaves no part of the other behind.
  std::sort(secrets_.begin(), secrets_.end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });

  // Parameters before dbname are defaults that the target's own override. Without a limit of its
  // own, libpq waits for a host that does not answer as long as the system lets it.
  std::vector<const char*> keywords{"fallback_application_name"};
  std::vector<const char*> values{"qorchat"};
  if (std::getenv("PGCONNECT_TIMEOUT") == nullptr) {
    keywords.push_back("connect_timeout");
    values.push_back("10");
  }
  keywords.push_back("dbname");
  values.push_back(target.c_str());
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  connection_.reset(PQconnectdbParams(keywords.data(), values.data(), 1));

  const std::string named = "PostgreSQL database '" + masked(target) + "'";
  if (!connection_) throw DatabaseError("cannot connect to " + named + ": out of memory");
  if (PQstatus(connection_.get()) != CONNECTION_OK) {
    throw DatabaseError("cannot connect to " + named + ": " +
                        clean(PQerrorMessage(connection_.get())));
  }
  // The server's notices (a BEGIN inside the transaction, say) are not for the terminal.
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);

  std::string host = orEmpty(PQhost(connection_.get()));
  if (host.find(':') != std::string::npos && !startsWith(host, "/")) host = "[" + host + "]";
  identity_ = std::string(orEmpty(PQuser(connection_.get()))) + "@" + host + ":" +
              orEmpty(PQport(connection_.get())) + "/" + orEmpty(PQdb(connection_.get()));
}

PostgresDatabase::~PostgresDatabase() = default;

std::string PostgresDatabase::identity() const {
  return identity_;
}

std::string PostgresDatabase::displayName() const {
  return identity_;
}

std::string PostgresDatabase::clean(const std::string& message) const {
  // libpq repeats a URI it cannot read, or the part it stumbled on.
  std::string text = message;
  for (const std::string& secret : secrets_)
    replaceAll(text, secret, kMask);
  return oneLine(text);
}

std::string PostgresDatabase::failure(const pg_result* result) const {
  PGconn* connection = connection_.get();
  if (PQstatus(connection) == CONNECTION_BAD) {
    return "the connection to " + identity_ + " is lost: " + clean(PQerrorMessage(connection));
  }
  if (const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY)) return primary;
  const std::string message = clean(PQresultErrorMessage(result));
  return message.empty() ? clean(PQerrorMessage(connection)) : message;
}

std::string PostgresDatabase::describeStructure() {
  PGconn* connection = connection_.get();
  const RollbackGuard guard(connection);
  const auto check = [&](Result result) {
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
      throw DatabaseError("cannot read the structure of " + identity_ + ": " +
                          failure(result.get()));
    }
    return result;
  };
  const auto run = [&](const std::string& sql) {
    return check(Result(PQexec(connection, sql.c_str())));
  };
  // One snapshot for every query, so that a concurrent change cannot mix two structures.
  check(begin(connection,
              "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY; SET LOCAL statement_timeout = " +
                  timeoutMs(settings_),
              PGRES_COMMAND_OK));

  std::vector<Schema> schemas;
  std::unordered_map<std::string, std::size_t> schemaIndex;
  {
    const Result result = run(schemasQuery());
    for (int row = 0; row < PQntuples(result.get()); ++row) {
      schemaIndex.emplace(textAt(result.get(), row, 0), schemas.size());
      schemas.push_back(Schema{textAt(result.get(), row, 0), {}});
    }
  }

  std::vector<Relation> relations;
  std::unordered_map<Oid, std::size_t> relationIndex;
  {
    const Result result = run(relationsQuery());
    const int rows = PQntuples(result.get());
    relations.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
      const auto schema = schemaIndex.find(textAt(result.get(), row, 1));
      if (schema == schemaIndex.end()) continue;
      const int kind = kindOf(*PQgetvalue(result.get(), row, 3));
      relationIndex.emplace(oidAt(result.get(), row, 0), relations.size());
      schemas[schema->second].members[kind].push_back(relations.size());
      relations.push_back(Relation{textAt(result.get(), row, 2), schema->first, {}, {}, {}, {}});
    }
  }
  const auto relationOf = [&](const PGresult* result, int row, int column) -> Relation* {
    const auto found = relationIndex.find(oidAt(result, row, column));
    return found == relationIndex.end() ? nullptr : &relations[found->second];
  };

  {
    const Result result = run(columnsQuery());
    for (int row = 0; row < PQntuples(result.get()); ++row) {
      if (Relation* relation = relationOf(result.get(), row, 0)) {
        relation->attributeNumbers.push_back(std::atoi(PQgetvalue(result.get(), row, 1)));
        relation->fields.emplace_back(textAt(result.get(), row, 2), textAt(result.get(), row, 3));
      }
    }
  }
  {
    const Result result = run(kKeysQuery);
    for (int row = 0; row < PQntuples(result.get()); ++row) {
      Relation* relation = relationOf(result.get(), row, 0);
      if (relation == nullptr) continue;
      const std::optional<std::vector<std::string>> fields =
          relation->namesOf(attributeNumbers(PQgetvalue(result.get(), row, 2)));
      if (!fields) continue;
      if (*PQgetvalue(result.get(), row, 1) == 'p') {
        relation->primaryKey = *fields;
        continue;
      }
      // A key to a table the user cannot read is left out like one over a hidden column.
      const Relation* referenced = relationOf(result.get(), row, 3);
      if (referenced == nullptr) continue;
      std::optional<std::vector<std::string>> refFields =
          referenced->namesOf(attributeNumbers(PQgetvalue(result.get(), row, 4)));
      if (!refFields) continue;
      relation->foreignKeys.push_back(
          ForeignKey{*fields, referenced->schema, referenced->name, std::move(*refFields)});
    }
  }

  return structureJson(orEmpty(PQdb(connection)), schemas, relations);
}

bool PostgresDatabase::runStatement(StatementResult& result, std::size_t maxRows) {
  PGconn* connection = connection_.get();
  if (PQsendQueryParams(connection, result.statement.c_str(), 0, nullptr, nullptr, nullptr, nullptr,
                        0) == 0) {
    result.error = clean(PQerrorMessage(connection));
    return false;
  }
  // Row by row, so that a large result is counted without being held.
  PQsetSingleRowMode(connection);
  while (PGresult* raw = PQgetResult(connection)) {
    const Result part(raw);
    switch (PQresultStatus(part.get())) {
      case PGRES_SINGLE_TUPLE:
      case PGRES_TUPLES_OK:
        takeRows(part.get(), result, maxRows);
        break;
      case PGRES_COPY_OUT:
        takeCopyRows(connection, result, maxRows);
        break;
      case PGRES_COPY_IN:
        PQputCopyEnd(connection, "qorchat sends no data to COPY FROM STDIN");
        break;
      case PGRES_COMMAND_OK:
      case PGRES_EMPTY_QUERY:
        break;
      default:
        if (result.error.empty()) result.error = failure(part.get());
        break;
    }
  }
  return true;
}

std::vector<StatementResult> PostgresDatabase::runReadOnly(const std::string& sql,
                                                           std::size_t maxRows) {
  std::vector<StatementResult> results;
  PGconn* connection = connection_.get();
  const std::vector<std::string_view> statements =
      splitStatements(sql, parameterOf(connection, "standard_conforming_strings") == "off");
  if (statements.empty()) return results;

  // Each statement is sent on its own with the extended protocol, which refuses two statements in
  // one: none can run after a COMMIT of its block, outside the read-only transaction. The SELECT
  // takes the snapshot, after which SET TRANSACTION READ WRITE is refused. A superuser may run
  // programs and write files of the server's machine even in a read-only transaction: as
  // pg_read_all_data, the server refuses those too.
  bool ended = false;
  {
    const RollbackGuard guard(connection);
    const Result begun =
        begin(connection,
              "BEGIN READ ONLY; SELECT pg_catalog.set_config('statement_timeout', '" +
                  timeoutMs(settings_) +
                  "', true), CASE WHEN pg_catalog.current_setting('is_superuser') = 'on' AND "
                  "pg_catalog.to_regrole('pg_read_all_data') IS NOT NULL THEN "
                  "pg_catalog.set_config('role', 'pg_read_all_data', true) END",
              PGRES_TUPLES_OK);
    if (PQresultStatus(begun.get()) != PGRES_TUPLES_OK) {
      results.emplace_back().error = failure(begun.get());
      return results;
    }
    const bool superuserAtStart = parameterOf(connection, "is_superuser") == "on";

    // From here until the run ends, interrupt() reaches the server with a cancel request.
    struct CancelWindow {
      PostgresDatabase& database;
      CancelWindow(PostgresDatabase& owner, PGconn* live) : database(owner) {
        const std::lock_guard lock(database.cancelMutex_);
        database.runningCancel_ = PQgetCancel(live);
      }
      ~CancelWindow() {
        const std::lock_guard lock(database.cancelMutex_);
        PQfreeCancel(database.runningCancel_);
        database.runningCancel_ = nullptr;
      }
      CancelWindow(const CancelWindow&) = delete;
      CancelWindow& operator=(const CancelWindow&) = delete;
    };
    const CancelWindow window(*this, connection);

    for (std::size_t i = 0; i < statements.size(); ++i) {
      StatementResult& result = results.emplace_back();
      result.statement = std::string(statements[i]);
      if (!runStatement(result, maxRows) || !result.error.empty()) break;
      if (i + 1 == statements.size()) break;
      const std::string_view stop = reasonToStop(connection, superuserAtStart);
      if (!stop.empty()) {
        StatementResult& skipped = results.emplace_back();
        skipped.statement = std::string(statements[i + 1]);
        skipped.error = stop;
        break;
      }
    }
    ended = PQtransactionStatus(connection) == PQTRANS_IDLE;
  }
  // A statement that ended the transaction may have made settings of its block last: the session
  // goes back to how it began.
  if (ended) Result(PQexec(connection, "DISCARD ALL"));
  return results;
}

void PostgresDatabase::interrupt() {
  const std::lock_guard lock(cancelMutex_);
  if (runningCancel_ == nullptr) return;
  // The server ends the statement with "canceling statement due to user request".
  char reason[256];
  PQcancel(runningCancel_, reason, sizeof reason);
}

}  // namespace qorchat
