// Reads the tables and views of every database of an SQLite connection, their columns and keys,
// through SQLite's table-valued pragmas, names bound as parameters so that any name passes
// through untouched.
#include "db/sqlite_catalog.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qorchat::sqlite {
namespace {

// One prepared statement of the description, keeping SQLite's text of its last failure.
class Query {
 public:
  Query(sqlite3* db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) fail();
  }
  ~Query() { sqlite3_finalize(statement_); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  bool prepared() const { return statement_ != nullptr; }
  const std::string& error() const { return error_; }

  // Starts over with ?1 and ?2 set to the names. False when SQLite refuses them.
  bool bind(const std::string& first, const std::string& second) {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    if (bindText(1, first) && bindText(2, second)) return true;
    fail();
    return false;
  }
  // True for a row, false at the end; nothing on a failure.
  std::optional<bool> step() {
    const int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail();
    sqlite3_reset(statement_);
    return std::nullopt;
  }
  std::string text(int column) const {
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    if (data == nullptr) return {};
    return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
  }
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }

 private:
  bool bindText(int index, const std::string& text) {
    return sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                             SQLITE_TRANSIENT) == SQLITE_OK;
  }
  void fail() { error_ = sqlite3_errmsg(db_); }

  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  std::string error_;
};

struct ColumnRead {
  Column column;
  std::int64_t keyPosition = 0;  // 1-based place in the primary key; 0 when not part of it
};

std::vector<std::string> primaryKey(std::vector<ColumnRead> columns) {
  std::erase_if(columns, [](const ColumnRead& read) { return read.keyPosition == 0; });
  std::sort(columns.begin(), columns.end(),
            [](const ColumnRead& a, const ColumnRead& b) { return a.keyPosition < b.keyPosition; });
  std::vector<std::string> names;
  names.reserve(columns.size());
  for (ColumnRead& read : columns)
    names.push_back(std::move(read.column.name));
  return names;
}

// Reads the columns and foreign keys of one object after another. A failure that spoils the
// description is kept for failure(); an object SQLite cannot read is only left out.
class ObjectReader {
 public:
  explicit ObjectReader(sqlite3* db)
      : columns_(db,
                 "SELECT name, type, pk, hidden, \"notnull\" FROM pragma_table_xinfo(?1, ?2) "
                 "ORDER BY cid"),
        foreignKeys_(db,
                     "SELECT id, \"table\", \"from\", \"to\" FROM pragma_foreign_key_list(?1, ?2) "
                     "ORDER BY id DESC, seq"),
        // Newest index first, as SQLite lists them: reversed, in the order they were made. A
        // column that is an expression has no name.
        uniqueKeys_(db,
                    "SELECT l.name, i.name FROM pragma_index_list(?1, ?2) l "
                    "JOIN pragma_index_info(l.name, ?2) i "
                    "WHERE l.\"unique\" AND l.origin <> 'pk' AND NOT l.partial "
                    "ORDER BY l.seq DESC, i.seqno") {}

  // SQLite's text of what spoiled the description; empty while nothing did.
  std::string failure() const {
    if (!columns_.prepared()) return columns_.error();
    if (!foreignKeys_.prepared()) return foreignKeys_.error();
    if (!uniqueKeys_.prepared()) return uniqueKeys_.error();
    return failure_;
  }

  // The visible columns (generated ones included), or nothing when SQLite cannot read them: a
  // view over a dropped table or a virtual table of a module this program lacks.
  std::optional<std::vector<ColumnRead>> readColumns(const std::string& database,
                                                     const std::string& object) {
    if (!columns_.bind(object, database)) {
      failure_ = columns_.error();
      return std::nullopt;
    }
    std::vector<ColumnRead> columns;
    for (;;) {
      const std::optional<bool> row = columns_.step();
      if (!row) return std::nullopt;
      if (!*row) break;
      // Hidden columns of virtual tables are arguments of the module, not data to query.
      if (columns_.integer(3) == 1) continue;
      // A column declared without a type takes values of any type.
      std::string type = columns_.text(1);
      if (type.empty()) type = "ANY";
      columns.push_back(ColumnRead{{columns_.text(0), std::move(type), columns_.integer(4) != 0},
                                   columns_.integer(2)});
    }
    return columns;
  }

  // Ids come out newest declaration first: reversed, the keys read in the order they were written.
  std::vector<ForeignKey> readForeignKeys(const std::string& database, const std::string& table) {
    std::vector<ForeignKey> keys;
    std::vector<bool> toPrimaryKey;  // the parent columns were left out of the declaration
    if (!foreignKeys_.bind(table, database)) {
      failure_ = foreignKeys_.error();
      return keys;
    }
    std::int64_t currentId = -1;
    std::optional<bool> row = foreignKeys_.step();
    for (; row && *row; row = foreignKeys_.step()) {
      const std::int64_t id = foreignKeys_.integer(0);
      if (keys.empty() || id != currentId) {
        keys.push_back(ForeignKey{{}, std::nullopt, foreignKeys_.text(1), {}});
        toPrimaryKey.push_back(false);
        currentId = id;
      }
      keys.back().fields.push_back(foreignKeys_.text(2));
      if (foreignKeys_.isNull(3)) {
        toPrimaryKey.back() = true;
      } else {
        keys.back().refFields.push_back(foreignKeys_.text(3));
      }
    }
    if (!row) failure_ = foreignKeys_.error();
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (toPrimaryKey[i]) keys[i].refFields = primaryKeyOf(database, keys[i].refTable);
    }
    return keys;
  }

  // The unique keys other than the primary key, each set of columns once.
  std::vector<std::vector<std::string>> readUniqueKeys(const std::string& database,
                                                       const std::string& table,
                                                       const std::vector<std::string>& primaryKey) {
    struct IndexRead {
      std::string name;
      std::vector<std::string> columns;
      bool overExpression = false;
    };
    std::vector<IndexRead> indexes;
    if (!uniqueKeys_.bind(table, database)) {
      failure_ = uniqueKeys_.error();
      return {};
    }
    std::optional<bool> row = uniqueKeys_.step();
    for (; row && *row; row = uniqueKeys_.step()) {
      if (indexes.empty() || indexes.back().name != uniqueKeys_.text(0))
        indexes.push_back(IndexRead{uniqueKeys_.text(0), {}, false});
      indexes.back().overExpression |= uniqueKeys_.isNull(1);
      indexes.back().columns.push_back(uniqueKeys_.text(1));
    }
    if (!row) failure_ = uniqueKeys_.error();
    std::vector<std::vector<std::string>> keys;
    for (IndexRead& index : indexes) {
      if (index.overExpression || index.columns == primaryKey ||
          std::find(keys.begin(), keys.end(), index.columns) != keys.end()) {
        continue;
      }
      keys.push_back(std::move(index.columns));
    }
    return keys;
  }

 private:
  std::vector<std::string> primaryKeyOf(const std::string& database, const std::string& table) {
    std::optional<std::vector<ColumnRead>> columns = readColumns(database, table);
    return columns ? primaryKey(std::move(*columns)) : std::vector<std::string>{};
  }

  Query columns_;
  Query foreignKeys_;
  Query uniqueKeys_;
  std::string failure_;
};

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

// The text between quote characters, each within it doubled.
std::string quoted(const std::string& text, char quote) {
  std::string escaped(1, quote);
  for (const char c : text) {
    escaped += c;
    if (c == quote) escaped += quote;
  }
  return escaped + quote;
}

// The text that lists the tables and views of one database in the order they were made: not
// SQLite's own (sqlite_stat1, sqlite_sequence), nor the shadow tables where virtual tables (full
// text, R*Tree) keep their data, which SQLite itself tells apart. A schema name cannot be a
// parameter: it is quoted into the text. sqlite_master is the name every version knows for the
// schema table.
std::string objectsQuery(const std::string& database) {
  return "SELECT type, name FROM " + quoted(database, '"') +
         ".sqlite_master WHERE type IN ('table', 'view') AND name NOT LIKE 'sqlite\\_%' "
         "ESCAPE '\\' AND name NOT IN (SELECT name FROM pragma_table_list WHERE schema = " +
         quoted(database, '\'') + " AND type = 'shadow') ORDER BY rowid";
}

// Gives the tables the row counts ANALYZE kept in sqlite_stat1, the first number of each row's
// stat. A database never analysed has no such table: its tables keep no estimate.
void readRowEstimates(sqlite3* db, const std::string& database, Schema& schema) {
  Query stats(db, "SELECT tbl, max(CAST(stat AS INTEGER)) FROM " + quoted(database, '"') +
                      ".sqlite_stat1 GROUP BY tbl");
  if (!stats.prepared()) return;
  std::unordered_map<std::string, Relation*> tables;
  for (Relation& table : schema.relations[static_cast<std::size_t>(RelationKind::kTable)])
    tables.emplace(table.name, &table);
  for (std::optional<bool> row = stats.step(); row && *row; row = stats.step()) {
    const auto found = tables.find(stats.text(0));
    if (found != tables.end() && !stats.isNull(1)) found->second->rowEstimate = stats.integer(1);
  }
}

// Fills the one schema of a database's catalog; the failure is SQLite's text.
Status readCatalog(sqlite3* db, ObjectReader& reader, Catalog& catalog) {
  Schema& schema = catalog.schemas.emplace_back();
  Query list(db, objectsQuery(catalog.name));
  std::optional<bool> row = list.prepared() ? list.step() : std::nullopt;
  for (; row && *row; row = list.step()) {
    const std::string name = list.text(1);
    // An object whose columns cannot be read cannot be queried either: leave it out.
    std::optional<std::vector<ColumnRead>> columns = reader.readColumns(catalog.name, name);
    if (!reader.failure().empty()) return Status::database(reader.failure());
    if (!columns) continue;
    Relation relation{name, {}, {}, {}};
    for (const ColumnRead& read : *columns)
      relation.columns.push_back(read.column);
    if (list.text(0) == "view") {
      schema.relations[static_cast<std::size_t>(RelationKind::kView)].push_back(
          std::move(relation));
      continue;
    }
    relation.primaryKey = primaryKey(std::move(*columns));
    relation.foreignKeys = reader.readForeignKeys(catalog.name, name);
    relation.uniqueKeys = reader.readUniqueKeys(catalog.name, name, relation.primaryKey);
    if (!reader.failure().empty()) return Status::database(reader.failure());
    schema.relations[static_cast<std::size_t>(RelationKind::kTable)].push_back(std::move(relation));
  }
  if (!row) return Status::database(list.error());
  readRowEstimates(db, catalog.name, schema);
  return Status::ok();
}

}  // namespace

Result<Structure> readStructure(sqlite3* db) {
  const ReadTransaction snapshot(db);
  ObjectReader reader(db);
  if (!reader.failure().empty()) return Status::database(reader.failure());

  // The connection's own temporary database is no part of the user's structure.
  Structure structure;
  Query list(db, "SELECT name FROM pragma_database_list WHERE name <> 'temp' ORDER BY seq");
  std::optional<bool> row = list.prepared() ? list.step() : std::nullopt;
  for (; row && *row; row = list.step())
    structure.catalogs.push_back(Catalog{list.text(0), {}});
  if (!row) return Status::database(list.error());

  for (Catalog& catalog : structure.catalogs) {
    const Status read = readCatalog(db, reader, catalog);
    if (!read) return read;
  }
  return structure;
}

Result<std::string> readStructureStamp(sqlite3* db) {
  std::string stamp;
  Query list(db, "SELECT name FROM pragma_database_list WHERE name <> 'temp' ORDER BY seq");
  std::optional<bool> row = list.prepared() ? list.step() : std::nullopt;
  for (; row && *row; row = list.step()) {
    const std::string database = quoted(list.text(0), '"');
    Query version(db, "PRAGMA " + database + ".schema_version");
    if (!version.prepared() || version.step() != std::optional<bool>(true))
      return Status::database(version.error());
    stamp += std::to_string(version.integer(0));
    // ANALYZE after the first writes its counts without a change of schema. Absent until then.
    Query counts(db, "SELECT count(*) || '/' || total(CAST(stat AS INTEGER)) FROM " + database +
                         ".sqlite_stat1");
    if (counts.prepared() && counts.step() == std::optional<bool>(true))
      stamp += ":" + counts.text(0);
    stamp += " ";
  }
  if (!row) return Status::database(list.error());
  return stamp;
}

}  // namespace qorchat::sqlite
