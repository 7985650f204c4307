// Reads schemas, relations, columns, their comments and keys from PostgreSQL's catalogs, five
// queries in all, leaving out what the role may not read, and fills a Structure with them.
#include "db/postgres_catalog.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qorchat::postgres {
namespace {

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

constexpr std::string_view kRelationFrom =
    " JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace";

std::string schemasQuery() {
  return "SELECT n.nspname FROM pg_catalog.pg_namespace n WHERE " + std::string(kVisibleSchema) +
         " ORDER BY n.nspname";
}

// The comment on a relation (objsubid 0) or on one of its columns (objsubid its number).
constexpr std::string_view kCommentJoin =
    " LEFT JOIN pg_catalog.pg_description d ON d.objoid = c.oid"
    " AND d.classoid = 'pg_catalog.pg_class'::pg_catalog.regclass AND d.objsubid = ";

std::string relationsQuery() {
  return "SELECT c.oid, n.nspname, c.relname, c.relkind, d.description, "
         "c.reltuples::pg_catalog.int8 FROM pg_catalog.pg_class c" +
         std::string(kRelationFrom) + std::string(kCommentJoin) + "0 WHERE " +
         std::string(kVisibleSchema) + " AND " + std::string(kVisibleRelation) +
         " ORDER BY n.nspname, c.relname";
}

// Only the columns the user may read: a grant on some columns shows those. Table-level SELECT is
// asked once per relation (OFFSET 0 keeps it there), so the costlier question per column is only
// asked of tables without it.
std::string columnsQuery() {
  return "SELECT c.oid, a.attnum, a.attname, pg_catalog.format_type(a.atttypid, a.atttypmod), "
         "a.attnotnull, d.description "
         "FROM (SELECT c.oid, pg_catalog.has_table_privilege(c.oid, 'SELECT') AS whole "
         "FROM pg_catalog.pg_class c" +
         std::string(kRelationFrom) + " WHERE " + std::string(kVisibleSchema) + " AND " +
         std::string(kVisibleRelation) +
         " OFFSET 0) c JOIN pg_catalog.pg_attribute a ON a.attrelid = c.oid" +
         std::string(kCommentJoin) + "a.attnum" +
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

// Unique indexes, those behind UNIQUE constraints among them, over plain columns and for every
// row: not the primary key, not a partial index, not one over an expression, not one left
// invalid by a failed build. Only the key columns, not those an INCLUDE adds.
constexpr const char* kUniqueKeysQuery =
    "SELECT i.indrelid, i.indnkeyatts, i.indkey FROM pg_catalog.pg_index i "
    "JOIN pg_catalog.pg_class ic ON ic.oid = i.indexrelid "
    "WHERE i.indisunique AND NOT i.indisprimary AND i.indisvalid "
    "AND i.indpred IS NULL AND i.indexprs IS NULL "
    "ORDER BY i.indrelid, ic.relname";

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

template <typename Number>
Number numberAt(const PGresult* result, int row, int column) {
  const char* text = PQgetvalue(result, row, column);
  Number number = 0;
  std::from_chars(text, text + PQgetlength(result, row, column), number);
  return number;
}

RelationKind kindOf(char relkind) {
  switch (relkind) {
    case 'v':
      return RelationKind::kView;
    case 'm':
      return RelationKind::kMaterializedView;
    default:
      return RelationKind::kTable;
  }
}

// A relation while it is read: where it goes, and the attribute numbers that keys name.
struct RelationRead {
  Relation relation;
  std::size_t schema = 0;
  RelationKind kind = RelationKind::kTable;
  std::vector<int> attributeNumbers;  // of the columns, in the same order

  // The names of the columns, or nothing when the user may not read one of them: a key over such
  // a column would send the model where the user cannot go.
  std::optional<std::vector<std::string>> namesOf(const std::vector<int>& numbers) const {
    std::vector<std::string> names;
    for (const int number : numbers) {
      const auto found = std::find(attributeNumbers.begin(), attributeNumbers.end(), number);
      if (found == attributeNumbers.end()) return std::nullopt;
      names.push_back(
          relation.columns[static_cast<std::size_t>(found - attributeNumbers.begin())].name);
    }
    return names;
  }
};

// Takes the rows of each catalog query in turn, then gives the structure they make.
class CatalogReader {
 public:
  explicit CatalogReader(const std::string& catalogName) : catalog_{catalogName, {}} {}

  void takeSchemas(const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
      schemaIndex_.emplace(textAt(rows, row, 0), catalog_.schemas.size());
      catalog_.schemas.push_back(Schema{textAt(rows, row, 0), {}});
    }
  }

  void takeRelations(const PGresult* rows) {
    relations_.reserve(static_cast<std::size_t>(PQntuples(rows)));
    for (int row = 0; row < PQntuples(rows); ++row) {
      const auto schema = schemaIndex_.find(textAt(rows, row, 1));
      if (schema == schemaIndex_.end()) continue;
      relationIndex_.emplace(numberAt<Oid>(rows, row, 0), relations_.size());
      RelationRead& read = relations_.emplace_back();
      read.relation.name = textAt(rows, row, 2);
      read.schema = schema->second;
      read.kind = kindOf(*PQgetvalue(rows, row, 3));
      read.relation.comment = textAt(rows, row, 4);
      // -1: never measured (PostgreSQL 14 on); a view's is 0, and means nothing.
      const auto estimate = numberAt<std::int64_t>(rows, row, 5);
      if (read.kind != RelationKind::kView && estimate >= 0) read.relation.rowEstimate = estimate;
    }
  }

  void takeColumns(const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
      RelationRead* read = relationAt(rows, row, 0);
      if (read == nullptr) continue;
      read->attributeNumbers.push_back(numberAt<int>(rows, row, 1));
      read->relation.columns.push_back(Column{textAt(rows, row, 2), textAt(rows, row, 3),
                                              *PQgetvalue(rows, row, 4) == 't',
                                              textAt(rows, row, 5)});
    }
  }

  void takeKeys(const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
      RelationRead* read = relationAt(rows, row, 0);
      if (read == nullptr) continue;
      std::optional<std::vector<std::string>> fields =
          read->namesOf(attributeNumbers(PQgetvalue(rows, row, 2)));
      if (!fields) continue;
      if (*PQgetvalue(rows, row, 1) == 'p') {
        read->relation.primaryKey = std::move(*fields);
        continue;
      }
      // A key to a table the user cannot read is left out like one over a hidden column.
      const RelationRead* referenced = relationAt(rows, row, 3);
      if (referenced == nullptr) continue;
      std::optional<std::vector<std::string>> refFields =
          referenced->namesOf(attributeNumbers(PQgetvalue(rows, row, 4)));
      if (!refFields) continue;
      read->relation.foreignKeys.push_back(
          ForeignKey{std::move(*fields), catalog_.schemas[referenced->schema].name,
                     referenced->relation.name, std::move(*refFields)});
    }
  }

  // A key over a column the user may not read is left out, as is one that repeats another.
  void takeUniqueKeys(const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
      RelationRead* read = relationAt(rows, row, 0);
      if (read == nullptr) continue;
      std::vector<int> numbers = attributeNumbers(PQgetvalue(rows, row, 2));
      numbers.resize(std::min(numbers.size(), numberAt<std::size_t>(rows, row, 1)));
      std::optional<std::vector<std::string>> fields = read->namesOf(numbers);
      std::vector<std::vector<std::string>>& keys = read->relation.uniqueKeys;
      if (!fields || *fields == read->relation.primaryKey ||
          std::find(keys.begin(), keys.end(), *fields) != keys.end()) {
        continue;
      }
      keys.push_back(std::move(*fields));
    }
  }

  // The relations came in the order of their schema and name, which each kind keeps.
  Structure structure() && {
    for (RelationRead& read : relations_) {
      catalog_.schemas[read.schema].relations[static_cast<std::size_t>(read.kind)].push_back(
          std::move(read.relation));
    }
    Structure structure;
    structure.catalogs.push_back(std::move(catalog_));
    return structure;
  }

 private:
  RelationRead* relationAt(const PGresult* rows, int row, int column) {
    const auto found = relationIndex_.find(numberAt<Oid>(rows, row, column));
    return found == relationIndex_.end() ? nullptr : &relations_[found->second];
  }

  Catalog catalog_;
  std::unordered_map<std::string, std::size_t> schemaIndex_;
  std::vector<RelationRead> relations_;
  std::unordered_map<Oid, std::size_t> relationIndex_;
};

}  // namespace

Result<Structure> readStructure(const std::string& catalogName, const CatalogQuery& runQuery) {
  using Take = void (CatalogReader::*)(const PGresult*);
  const std::pair<std::string, Take> steps[] = {
      {schemasQuery(), &CatalogReader::takeSchemas},
      {relationsQuery(), &CatalogReader::takeRelations},
      {columnsQuery(), &CatalogReader::takeColumns},
      {kKeysQuery, &CatalogReader::takeKeys},
      {kUniqueKeysQuery, &CatalogReader::takeUniqueKeys},
  };
  CatalogReader reader(catalogName);
  for (const auto& [sql, take] : steps) {
    const Result<PgResult> rows = runQuery(sql);
    if (!rows) return rows.status();
    (reader.*take)(rows->get());
  }
  return std::move(reader).structure();
}

}  // namespace qorchat::postgres
