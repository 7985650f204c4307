#include "qor_database_digest.h"

#include <array>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// The digest is part of the property record: its reports carry the record's source name.
constexpr const char* kSourceName = "qor_assistant_properties";

bool hasType(const YLJsonValue* value, YLJsonValueType type) {
  return value != nullptr && value->obtainType() == type;
}

// A key that is absent, or present with the wanted type.
bool absentOr(const YLJsonValue* value, YLJsonValueType type) {
  return value == nullptr || value->obtainType() == type;
}

bool isObject(const YLJsonValue* value) {
  return hasType(value, YLJsonValueType::Object);
}
bool isArray(const YLJsonValue* value) {
  return hasType(value, YLJsonValueType::Array);
}

// The text of a string value; false for any other value or none. A text that is not empty can only
// come from a string, which spares asking for the type of most values.
bool readString(const YLJsonValue* value, std::string_view& text) {
  if (value == nullptr) return false;
  text = value->obtainStringView();
  return !text.empty() || value->obtainType() == YLJsonValueType::String;
}

// Hands every member of an object to take(key, value) in one pass. A document holds one member per
// key (the last of duplicates), so this finds what a lookup of each key would, without scanning
// the object once per key.
// The members come in batches, which costs one call to the document per batch, not two per
// member.
template <typename Take>
void forEachMember(const YLJsonValue* object, Take take) {
  std::array<YLJsonMember, 16> members;
  for (std::size_t from = 0;; from += members.size()) {
    const std::size_t got = object->obtainMembers(members.data(), members.size(), from);
    for (std::size_t i = 0; i < got; ++i)
      take(members[i].key, members[i].value);
    if (got < members.size()) return;
  }
}

// Hands the items of an array to take(index, item) in order, in batches like forEachMember, as
// long as take gives true; false when it stopped early.
template <typename Take>
bool everyItem(const YLJsonValue* array, Take take) {
  std::array<YLJsonValue*, 16> items;
  for (std::size_t from = 0;; from += items.size()) {
    const std::size_t got = array->obtainArrayItems(items.data(), items.size(), from);
    for (std::size_t i = 0; i < got; ++i) {
      if (!take(from + i, items[i])) return false;
    }
    if (got < items.size()) return true;
  }
}

// Appends the pieces, each a character or a text: the string grows once to their total size, then
// each piece is a plain copy.
std::size_t pieceSize(char) {
  return 1;
}
std::size_t pieceSize(std::string_view piece) {
  return piece.size();
}
char* copyPiece(char* cursor, char piece) {
  *cursor = piece;
  return cursor + 1;
}
char* copyPiece(char* cursor, std::string_view piece) {
  const std::size_t size = piece.size();
  const char* from = piece.data();
  // Most pieces are identifiers and types of a few bytes: two overlapping copies of a fixed size
  // cost less than a call of memcpy.
  if (size >= 8 && size <= 16) {
    std::memcpy(cursor, from, 8);
    std::memcpy(cursor + size - 8, from + size - 8, 8);
  } else if (size >= 4 && size < 8) {
    std::memcpy(cursor, from, 4);
    std::memcpy(cursor + size - 4, from + size - 4, 4);
  } else if (size > 0 && size < 4) {
    cursor[0] = from[0];
    cursor[size / 2] = from[size / 2];
    cursor[size - 1] = from[size - 1];
  } else if (size > 16) {
    std::memcpy(cursor, from, size);
  }
  return cursor + size;
}
template <typename... Piece>
void appendPieces(std::string& out, const Piece&... pieces) {
  const std::size_t start = out.size();
  out.resize(start + (pieceSize(pieces) + ...));
  char* cursor = out.data() + start;
  ((cursor = copyPiece(cursor, pieces)), ...);
}

// "`a`, `b`"; false when an item is not a string.
bool appendColumnList(std::string& out, const YLJsonValue* columns) {
  return everyItem(columns, [&out](std::size_t i, const YLJsonValue* column) {
    std::string_view name;
    if (!readString(column, name)) return false;
    if (i > 0) {
      appendPieces(out, ", `", name, '`');
    } else {
      appendPieces(out, '`', name, '`');
    }
    return true;
  });
}

bool appendForeignKey(std::string& out, const YLJsonValue* foreignKey) {
  if (!isObject(foreignKey)) return false;
  const YLJsonValue* fields = nullptr;
  const YLJsonValue* refSchema = nullptr;
  const YLJsonValue* refTable = nullptr;
  const YLJsonValue* refFields = nullptr;
  forEachMember(foreignKey, [&](std::string_view key, const YLJsonValue* value) {
    if (key == "fields") {
      fields = value;
    } else if (key == "ref_schema") {
      refSchema = value;
    } else if (key == "ref_table") {
      refTable = value;
    } else if (key == "ref_fields") {
      refFields = value;
    }
  });
  std::string_view schema;
  std::string_view table;
  if (!isArray(fields) || (refSchema != nullptr && !readString(refSchema, schema)) ||
      !readString(refTable, table) || !isArray(refFields)) {
    return false;
  }
  // A key without columns on either side says nothing: no clause, and its lists are not read.
  if (fields->obtainArraySize() == 0 || refFields->obtainArraySize() == 0) return true;

  out += ", FOREIGN KEY(";
  if (!appendColumnList(out, fields)) return false;
  // Presence alone decides here: an empty ref_schema still qualifies the table.
  if (refSchema != nullptr) {
    appendPieces(out, ") REFERENCES `", schema, "`.`", table, "`(");
  } else {
    appendPieces(out, ") REFERENCES `", table, "`(");
  }
  if (!appendColumnList(out, refFields)) return false;
  out += ')';
  return true;
}

// "`name` type", behind ", " unless it is the first; false for a field that is not an object of
// two strings.
bool appendField(std::string& out, const YLJsonValue* field, bool first) {
  if (!isObject(field)) return false;
  const YLJsonValue* fieldName = nullptr;
  const YLJsonValue* fieldType = nullptr;
  forEachMember(field, [&](std::string_view key, const YLJsonValue* value) {
    if (key == "name") {
      fieldName = value;
    } else if (key == "type") {
      fieldType = value;
    }
  });
  std::string_view column;
  std::string_view type;
  if (!readString(fieldName, column) || !readString(fieldType, type)) return false;
  if (first) {
    appendPieces(out, '`', column, "` ", type);
  } else {
    appendPieces(out, ", `", column, "` ", type);
  }
  return true;
}

struct ObjectFields {
  const YLJsonValue* name = nullptr;
  const YLJsonValue* fields = nullptr;
  const YLJsonValue* primaryKeys = nullptr;
  const YLJsonValue* foreignKeys = nullptr;
};

void readObject(const YLJsonValue* description, ObjectFields& object) {
  forEachMember(description, [&object](std::string_view key, const YLJsonValue* value) {
    if (key == "name") {
      object.name = value;
    } else if (key == "fields") {
      object.fields = value;
    } else if (key == "pkeys") {
      object.primaryKeys = value;
    } else if (key == "fkeys") {
      object.foreignKeys = value;
    }
  });
}

// statementStart is "CREATE <kind> `<schema>`.`" or, without a schema name, "CREATE <kind> `".
bool appendStatement(std::string& out, std::string_view statementStart,
                     const YLJsonValue* description) {
  if (!isObject(description)) return false;
  ObjectFields object;
  readObject(description, object);
  std::string_view objectName;
  if (!readString(object.name, objectName) || !isArray(object.fields) ||
      !absentOr(object.primaryKeys, YLJsonValueType::Array) ||
      !absentOr(object.foreignKeys, YLJsonValueType::Array)) {
    return false;
  }

  appendPieces(out, statementStart, objectName, "` (");

  const std::size_t fieldCount = object.fields->obtainArraySize();
  if (fieldCount == 0) {
    out += ')';
    return true;
  }
  const bool fieldsAppended = everyItem(
      object.fields,
      [&out](std::size_t i, const YLJsonValue* field) { return appendField(out, field, i == 0); });
  if (!fieldsAppended) return false;

  if (object.primaryKeys != nullptr && object.primaryKeys->obtainArraySize() > 0) {
    out += ", PRIMARY KEY(";
    if (!appendColumnList(out, object.primaryKeys)) return false;
    out += ')';
  }

  if (object.foreignKeys != nullptr &&
      !everyItem(object.foreignKeys, [&out](std::size_t, const YLJsonValue* foreignKey) {
        return appendForeignKey(out, foreignKey);
      })) {
    return false;
  }

  out += ')';
  return true;
}

// "CREATE <kind> `<schema>`.`", the part every statement of one kind in one schema shares.
std::string statementStartOf(std::string_view schemaName, std::string_view kind) {
  std::string start;
  start.reserve(kind.size() + schemaName.size() + 12);
  start += "CREATE ";
  start += kind;
  start += " `";
  if (!schemaName.empty()) {
    start += schemaName;
    start += "`.`";
  }
  return start;
}

// Writes one statement into out; on rejection restores out and raises the assertion.
bool appendCheckedStatement(std::string& out, std::string_view statementStart,
                            const YLJsonValue* description) {
  const std::size_t start = out.size();
  if (appendStatement(out, statementStart, description)) return true;
  out.resize(start);
  YL_ASSERT(false, kSourceName);
  return false;
}

struct CatalogFields {
  const YLJsonValue* id = nullptr;
  const YLJsonValue* name = nullptr;
  const YLJsonValue* schemas = nullptr;
};

// Reads and checks one catalog; reports and gives false for one that is passed over.
bool readCatalog(const YLJsonValue* item, CatalogFields& catalog) {
  if (!isObject(item)) {
    YL_ASSERT(false, kSourceName);
    return false;
  }
  forEachMember(item, [&catalog](std::string_view key, const YLJsonValue* value) {
    if (key == "catalog_id") {
      catalog.id = value;
    } else if (key == "catalog_name") {
      catalog.name = value;
    } else if (key == "schemas") {
      catalog.schemas = value;
    }
  });
  if (!absentOr(catalog.id, YLJsonValueType::String) ||
      !absentOr(catalog.name, YLJsonValueType::String) || !isArray(catalog.schemas)) {
    YL_ASSERT(false, kSourceName);
    return false;
  }
  return true;
}

struct SchemaFields {
  const YLJsonValue* id = nullptr;
  const YLJsonValue* name = nullptr;
  // Tables, views and materialized views, in the order their statements are written.
  const YLJsonValue* objects[3] = {nullptr, nullptr, nullptr};
};

constexpr std::string_view kObjectKeys[3] = {"tables", "views", "mviews"};
constexpr std::string_view kObjectKinds[3] = {"TABLE", "VIEW", "MATERIALIZED VIEW"};

bool readSchema(const YLJsonValue* item, SchemaFields& schema) {
  if (!isObject(item)) {
    YL_ASSERT(false, kSourceName);
    return false;
  }
  forEachMember(item, [&schema](std::string_view key, const YLJsonValue* value) {
    if (key == "schema_id") {
      schema.id = value;
    } else if (key == "schema_name") {
      schema.name = value;
    } else {
      for (int kind = 0; kind < 3; ++kind) {
        if (key == kObjectKeys[kind]) schema.objects[kind] = value;
      }
    }
  });
  bool valid = absentOr(schema.id, YLJsonValueType::String) &&
               absentOr(schema.name, YLJsonValueType::String);
  for (const YLJsonValue* objects : schema.objects) {
    valid = valid && absentOr(objects, YLJsonValueType::Array);
  }
  if (!valid) YL_ASSERT(false, kSourceName);
  return valid;
}

std::string_view schemaNameOf(const SchemaFields& schema) {
  return schema.name != nullptr ? schema.name->obtainStringView() : std::string_view();
}

bool lacksName(const CatalogFields& catalog) {
  return catalog.name == nullptr || catalog.name->obtainStringView().empty();
}

// Unnamed catalogs, latest first, then named ones in input order. This is what one pass gives
// that moves every unnamed catalog from the second on to the very front.
template <typename Item, typename LacksName>
std::vector<Item> orderCatalogs(std::vector<Item> catalogs, LacksName lacksNameOf) {
  std::vector<Item> ordered;
  ordered.reserve(catalogs.size());
  for (std::size_t i = catalogs.size(); i-- > 0;) {
    if (lacksNameOf(catalogs[i])) ordered.push_back(std::move(catalogs[i]));
  }
  for (Item& catalog : catalogs) {
    if (!lacksNameOf(catalog)) ordered.push_back(std::move(catalog));
  }
  return ordered;
}

// Parses the structure once and hands the builder every accepted catalog and schema and every
// object description with the start of its statement, in input order. Bad catalogs and schemas
// are reported and passed over; an object description is the builder's to judge.
template <typename Builder>
void walkStructure(std::string structure, Builder& builder) {
  const YLJson document(std::move(structure));
  // Not JSON, or not an array: the normal outcome for a memory that holds nothing.
  if (!document.getIsValidJson() || document.obtainType() != YLJsonValueType::Array) return;

  std::string statementStart;
  const std::size_t catalogCount = document.obtainArraySize();
  for (std::size_t c = 0; c < catalogCount; ++c) {
    CatalogFields catalog;
    if (!readCatalog(document.obtainArrayItem(c), catalog)) continue;
    builder.beginCatalog(catalog);
    const std::size_t schemaCount = catalog.schemas->obtainArraySize();
    for (std::size_t s = 0; s < schemaCount; ++s) {
      SchemaFields schema;
      if (!readSchema(catalog.schemas->obtainArrayItem(s), schema)) continue;
      builder.beginSchema(schema);
      for (int kind = 0; kind < 3; ++kind) {
        const YLJsonValue* objects = schema.objects[kind];
        if (objects == nullptr) continue;
        const std::size_t count = objects->obtainArraySize();
        if (count == 0) continue;
        statementStart = statementStartOf(schemaNameOf(schema), kObjectKinds[kind]);
        everyItem(objects, [&](std::size_t, const YLJsonValue* item) {
          builder.object(statementStart, item);
          return true;
        });
      }
      builder.endSchema();
    }
    builder.endCatalog(catalog);
  }
}

}  // namespace

namespace QORDatabaseDigest {

bool lacksCatalogName(const YLVariant& catalog) {
  const YLVariantMap* map = catalog.mapPtr();
  if (map == nullptr) return true;
  const auto name = map->find("catalog_name");
  if (name == map->end()) return true;
  const std::string* text = name->second.stringPtr();
  return text == nullptr || text->empty();
}

YLVariantList buildTree(std::string structure) {
  // One map per catalog, its statements grouped by schema.
  struct TreeBuilder {
    YLVariantList catalogs;
    YLVariantMap catalog;
    YLVariantList schemas;
    YLVariantMap schema;
    YLVariantList statements;

    void beginCatalog(const CatalogFields& fields) {
      catalog.clear();
      YLVariantList lines;
      if (fields.id != nullptr) catalog["catalog_id"] = fields.id->obtainStringValue();
      if (fields.name != nullptr) {
        catalog["catalog_name"] = fields.name->obtainStringValue();
        lines.emplace_back("USE CATALOG `" + fields.name->obtainStringValue() + "`");
      }
      catalog["instructions"] = std::move(lines);
    }
    void beginSchema(const SchemaFields& fields) {
      schema.clear();
      if (fields.id != nullptr) schema["schema_id"] = fields.id->obtainStringValue();
      if (fields.name != nullptr) schema["schema_name"] = fields.name->obtainStringValue();
    }
    void object(std::string_view statementStart, const YLJsonValue* item) {
      std::string statement;
      appendCheckedStatement(statement, statementStart, item);
      statements.emplace_back(std::move(statement));
    }
    void endSchema() {
      schema["instructions"] = std::exchange(statements, {});
      schemas.emplace_back(std::exchange(schema, {}));
    }
    void endCatalog(const CatalogFields&) {
      catalog["schemas"] = std::exchange(schemas, {});
      catalogs.emplace_back(std::exchange(catalog, {}));
    }
  };

  TreeBuilder builder;
  walkStructure(std::move(structure), builder);
  return orderCatalogs(std::move(builder.catalogs), lacksCatalogName);
}

std::string buildText(std::string structure) {
  // Each accepted catalog's lines are written in input order into one buffer; the catalogs are
  // put in their final order at the end, which costs nothing when it is the input order.
  struct Segment {
    std::size_t begin;
    std::size_t end;
    bool unnamed;
  };
  struct TextBuilder {
    std::string text;
    std::vector<Segment> segments;
    std::size_t catalogBegin = 0;

    void beginCatalog(const CatalogFields& fields) {
      catalogBegin = text.size();
      if (fields.name != nullptr) {
        text += "USE CATALOG `";
        text += fields.name->obtainStringView();
        text += "`\n";
      }
    }
    void beginSchema(const SchemaFields&) {}
    void object(std::string_view statementStart, const YLJsonValue* item) {
      appendCheckedStatement(text, statementStart, item);
      text += '\n';
    }
    void endSchema() {}
    void endCatalog(const CatalogFields& fields) {
      segments.push_back(Segment{catalogBegin, text.size(), lacksName(fields)});
    }
  };

  TextBuilder builder;
  // The statements are shorter than the JSON they come from, but for schema names repeated in
  // every statement: one buffer of that size saves the copies and the peak of growing by doubling.
  builder.text.reserve(structure.size());
  walkStructure(std::move(structure), builder);
  const std::vector<Segment> ordered =
      orderCatalogs(builder.segments, [](const Segment& segment) { return segment.unnamed; });
  bool inputOrder = true;
  for (std::size_t i = 0; i < ordered.size() && inputOrder; ++i) {
    inputOrder = ordered[i].begin == builder.segments[i].begin;
  }
  if (inputOrder) return std::move(builder.text);

  std::string reordered;
  reordered.reserve(builder.text.size());
  for (const Segment& segment : ordered) {
    reordered.append(builder.text, segment.begin, segment.end - segment.begin);
  }
  return reordered;
}

}  // namespace QORDatabaseDigest
