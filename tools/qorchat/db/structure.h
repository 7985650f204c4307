#pragma once
// The structure of the user's database as qorchat holds it: catalogs, schemas, tables, views and
// materialized views, their columns and keys. Both engines fill it; the schema scope chooses from
// it; and structureJson is the one place that writes the library's db_structure JSON.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qorchat {

struct ForeignKey {
  std::vector<std::string> fields;
  std::optional<std::string> refSchema;  // absent: the referenced table is named alone
  std::string refTable;
  std::vector<std::string> refFields;
  bool operator==(const ForeignKey&) const = default;
};

struct Column {
  std::string name;
  std::string type;       // as the database declares it; never empty
  bool notNull = false;   // the structure text adds NOT NULL to the type, unless in the primary key
  std::string comment{};  // PostgreSQL's COMMENT ON COLUMN as stored; empty when none
  bool operator==(const Column&) const = default;
};

struct Relation {
  std::string name;
  std::vector<Column> columns;
  std::vector<std::string> primaryKey;  // in key order
  std::vector<ForeignKey> foreignKeys;
  // Unique constraints and unique indexes over plain columns, each once, in key order: not the
  // primary key, not a partial index, not one over an expression.
  std::vector<std::vector<std::string>> uniqueKeys{};
  std::string comment{};  // PostgreSQL's COMMENT ON TABLE or VIEW as stored; empty when none
  // The rows the database estimates the relation holds (PostgreSQL's reltuples); absent for views
  // and for tables it has not measured, and on SQLite.
  std::optional<std::int64_t> rowEstimate{};
  bool operator==(const Relation&) const = default;
};

// The three kinds of object, in the order the structure text lists them within a schema.
enum class RelationKind { kTable = 0, kView = 1, kMaterializedView = 2 };
inline constexpr std::size_t kRelationKinds = 3;

struct Schema {
  std::string name;  // empty: the objects are named without a schema
  // By kind, each in the database's order.
  std::vector<Relation> relations[kRelationKinds];
  bool operator==(const Schema&) const = default;
};

struct Catalog {
  std::string name;
  std::vector<Schema> schemas;
  bool operator==(const Catalog&) const = default;
};

struct Structure {
  std::vector<Catalog> catalogs;
  bool operator==(const Structure&) const = default;
};

// Where a relation stands: catalog, schema, kind and place within its kind.
struct RelationPlace {
  std::size_t catalog;
  std::size_t schema;
  RelationKind kind;
  std::size_t index;
};

// Every relation's place in the order of the structure text: catalogs, their schemas, then
// tables, views and materialized views.
std::vector<RelationPlace> relationPlaces(const Structure& structure);
const Relation& relationAt(const Structure& structure, const RelationPlace& place);
// Whether the model would be told the same of both: all but the row estimates, which it never
// sees.
bool sameForTheModel(const Structure& a, const Structure& b);

// A name as a query writes it: bare when it is a plain lower-case identifier, else between double
// quotes (which both engines read), its own double quotes doubled.
std::string sqlName(const std::string& name);
// The relation as a query names it: with its schema, and with its catalog when there are several.
std::string qualifiedName(const Structure& structure, const RelationPlace& place);

// The db_structure JSON of the structure. With chosen (one flag per relation, in the order of
// relationPlaces), only the chosen relations, and the catalogs and schemas that hold them. Each
// catalog and schema carries an id ("c0", "s0.1") that the library copies into the tree it hands
// back and never into the text: the tree's lines can be traced back to the relations. The library
// writes names between backticks as they come, so a backtick within a name is doubled here.
std::string structureJson(const Structure& structure, const std::vector<bool>* chosen = nullptr);

// One sentence for the model naming the unique keys of the relations (all, or those chosen, as
// for structureJson), such as "Unique keys: users(email); sales.orders(shop_id, number)." A
// relation is named as a query names it: with its schema, and with its catalog when there are
// several. Empty when none has a unique key.
std::string uniqueKeysInstruction(const Structure& structure,
                                  const std::vector<bool>* chosen = nullptr);

}  // namespace qorchat
