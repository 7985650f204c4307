#include "qor_database_digest.h"

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
bool isString(const YLJsonValue* value) {
  return hasType(value, YLJsonValueType::String);
}

void appendQuoted(std::string& out, std::string_view identifier) {
  out += '`';
  out += identifier;
  out += '`';
}

// "`a`, `b`"; false when an item is not a string.
bool appendColumnList(std::string& out, const YLJsonValue* columns) {
  const std::size_t count = columns->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* column = columns->obtainArrayItem(i);
    if (!isString(column)) return false;
    if (i > 0) out += ", ";
    appendQuoted(out, column->obtainStringView());
  }
  return true;
}

bool appendForeignKey(std::string& out, const YLJsonValue* foreignKey) {
  if (!isObject(foreignKey)) return false;
  const YLJsonValue* fields = foreignKey->obtainKeyValue("fields");
  const YLJsonValue* refSchema = foreignKey->obtainKeyValue("ref_schema");
  const YLJsonValue* refTable = foreignKey->obtainKeyValue("ref_table");
  const YLJsonValue* refFields = foreignKey->obtainKeyValue("ref_fields");
  if (!isArray(fields) || !absentOr(refSchema, YLJsonValueType::String) || !isString(refTable) ||
      !isArray(refFields)) {
    return false;
  }
  // A key without columns on either side says nothing: no clause, and its lists are not read.
  if (fields->obtainArraySize() == 0 || refFields->obtainArraySize() == 0) return true;

  out += ", FOREIGN KEY(";
  if (!appendColumnList(out, fields)) return false;
  out += ") REFERENCES ";
  // Presence alone decides here: an empty ref_schema still qualifies the table.
  if (refSchema != nullptr) {
    appendQuoted(out, refSchema->obtainStringView());
    out += '.';
  }
  appendQuoted(out, refTable->obtainStringView());
  out += '(';
  if (!appendColumnList(out, refFields)) return false;
  out += ')';
  return true;
}

bool appendStatement(std::string& out, std::string_view schemaName, std::string_view kind,
                     const YLJsonValue* description) {
  if (!isObject(description)) return false;
  const YLJsonValue* name = description->obtainKeyValue("name");
  const YLJsonValue* fields = description->obtainKeyValue("fields");
  const YLJsonValue* primaryKeys = description->obtainKeyValue("pkeys");
  const YLJsonValue* foreignKeys = description->obtainKeyValue("fkeys");
  if (!isString(name) || !isArray(fields) || !absentOr(primaryKeys, YLJsonValueType::Array) ||
      !absentOr(foreignKeys, YLJsonValueType::Array)) {
    return false;
  }

  out += "CREATE ";
  out += kind;
  out += ' ';
  if (!schemaName.empty()) {
    appendQuoted(out, schemaName);
    out += '.';
  }
  appendQuoted(out, name->obtainStringView());
  out += " (";

  const std::size_t fieldCount = fields->obtainArraySize();
  if (fieldCount == 0) {
    out += ')';
    return true;
  }
  for (std::size_t i = 0; i < fieldCount; ++i) {
    const YLJsonValue* field = fields->obtainArrayItem(i);
    if (!isObject(field)) return false;
    const YLJsonValue* fieldName = field->obtainKeyValue("name");
    const YLJsonValue* fieldType = field->obtainKeyValue("type");
    if (!isString(fieldName) || !isString(fieldType)) return false;
    if (i > 0) out += ", ";
    appendQuoted(out, fieldName->obtainStringView());
    out += ' ';
    out += fieldType->obtainStringView();
  }

  if (primaryKeys != nullptr && primaryKeys->obtainArraySize() > 0) {
    out += ", PRIMARY KEY(";
    if (!appendColumnList(out, primaryKeys)) return false;
    out += ')';
  }

  if (foreignKeys != nullptr) {
    const std::size_t count = foreignKeys->obtainArraySize();
    for (std::size_t i = 0; i < count; ++i) {
      if (!appendForeignKey(out, foreignKeys->obtainArrayItem(i))) return false;
    }
  }

  out += ')';
  return true;
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
  catalog.id = item->obtainKeyValue("catalog_id");
  catalog.name = item->obtainKeyValue("catalog_name");
  catalog.schemas = item->obtainKeyValue("schemas");
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

constexpr const char* kObjectKeys[3] = {"tables", "views", "mviews"};
constexpr const char* kObjectKinds[3] = {"TABLE", "VIEW", "MATERIALIZED VIEW"};

bool readSchema(const YLJsonValue* item, SchemaFields& schema) {
  if (!isObject(item)) {
    YL_ASSERT(false, kSourceName);
    return false;
  }
  schema.id = item->obtainKeyValue("schema_id");
  schema.name = item->obtainKeyValue("schema_name");
  bool valid = absentOr(schema.id, YLJsonValueType::String) &&
               absentOr(schema.name, YLJsonValueType::String);
  for (int kind = 0; kind < 3; ++kind) {
    schema.objects[kind] = item->obtainKeyValue(kObjectKeys[kind]);
    valid = valid && absentOr(schema.objects[kind], YLJsonValueType::Array);
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
// object description, in input order. Bad catalogs and schemas are reported and passed over;
// an object description is the builder's to judge.
template <typename Builder>
void walkStructure(std::string structure, Builder& builder) {
  const YLJson document(std::move(structure));
  // Not JSON, or not an array: the normal outcome for a memory that holds nothing.
  if (!document.getIsValidJson() || document.obtainType() != YLJsonValueType::Array) return;

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
        for (std::size_t o = 0; o < count; ++o) {
          builder.object(schemaNameOf(schema), kObjectKinds[kind], objects->obtainArrayItem(o));
        }
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

bool appendCreateStatement(std::string& out, std::string_view schemaName, std::string_view kind,
                           const YLJsonValue* description) {
  const std::size_t start = out.size();
  if (appendStatement(out, schemaName, kind, description)) return true;
  out.resize(start);
  YL_ASSERT(false, kSourceName);
  return false;
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
    void object(std::string_view schemaName, std::string_view kind, const YLJsonValue* item) {
      std::string statement;
      appendCreateStatement(statement, schemaName, kind, item);
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
    void object(std::string_view schemaName, std::string_view kind, const YLJsonValue* item) {
      appendCreateStatement(text, schemaName, kind, item);
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
