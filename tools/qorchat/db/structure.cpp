// Writes the structure as the library's db_structure JSON, and its unique keys as a sentence.
#include "db/structure.h"

#include <algorithm>
#include <string_view>

#include "yl/yl_json.h"

namespace qorchat {
namespace {

constexpr const char* kKindKeys[kRelationKinds] = {"tables", "views", "mviews"};

// A name as it goes between the library's backticks: each backtick within it doubled, as SQL
// dialects that quote with backticks write it.
std::string backticked(const std::string& name) {
  if (name.find('`') == std::string::npos) return name;
  std::string doubled;
  doubled.reserve(name.size() + 2);
  for (const char c : name) {
    doubled += c;
    if (c == '`') doubled += '`';
  }
  return doubled;
}

void setName(IYLJsonValue* value, const std::string& name) {
  value->setStringValue(backticked(name));
}

void addNames(IYLJsonValue* array, const std::vector<std::string>& names) {
  array->setArrayType();
  for (const std::string& name : names)
    setName(array->addArrayItem(), name);
}

// The type with NOT NULL after it when the column says so; a key column says it already.
std::string typeText(const Column& column, const Relation& relation) {
  const auto& key = relation.primaryKey;
  if (!column.notNull || std::find(key.begin(), key.end(), column.name) != key.end())
    return column.type;
  return column.type + " NOT NULL";
}

void addRelation(YLJsonValue* objects, const Relation& relation) {
  YLJsonValue* object = objects->addArrayItem();
  setName(object->addKeyValue("name"), relation.name);
  YLJsonValue* fields = object->addKeyValue("fields");
  fields->setArrayType();
  for (const Column& column : relation.columns) {
    YLJsonValue* field = fields->addArrayItem();
    setName(field->addKeyValue("name"), column.name);
    field->addKeyValue("type")->setStringValue(typeText(column, relation));
  }
  if (!relation.primaryKey.empty()) addNames(object->addKeyValue("pkeys"), relation.primaryKey);
  if (relation.foreignKeys.empty()) return;
  YLJsonValue* keys = object->addKeyValue("fkeys");
  keys->setArrayType();
  for (const ForeignKey& foreignKey : relation.foreignKeys) {
    YLJsonValue* entry = keys->addArrayItem();
    addNames(entry->addKeyValue("fields"), foreignKey.fields);
    if (foreignKey.refSchema) setName(entry->addKeyValue("ref_schema"), *foreignKey.refSchema);
    setName(entry->addKeyValue("ref_table"), foreignKey.refTable);
    addNames(entry->addKeyValue("ref_fields"), foreignKey.refFields);
  }
}

}  // namespace

bool sameForTheModel(const Structure& a, const Structure& b) {
  const auto withoutEstimates = [](Structure structure) {
    for (Catalog& catalog : structure.catalogs) {
      for (Schema& schema : catalog.schemas) {
        for (std::vector<Relation>& kind : schema.relations) {
          for (Relation& relation : kind)
            relation.rowEstimate.reset();
        }
      }
    }
    return structure;
  };
  return withoutEstimates(a) == withoutEstimates(b);
}

std::vector<RelationPlace> relationPlaces(const Structure& structure) {
  std::vector<RelationPlace> places;
  for (std::size_t c = 0; c < structure.catalogs.size(); ++c) {
    const Catalog& catalog = structure.catalogs[c];
    for (std::size_t s = 0; s < catalog.schemas.size(); ++s) {
      for (std::size_t kind = 0; kind < kRelationKinds; ++kind) {
        const std::size_t count = catalog.schemas[s].relations[kind].size();
        for (std::size_t i = 0; i < count; ++i)
          places.push_back(RelationPlace{c, s, static_cast<RelationKind>(kind), i});
      }
    }
  }
  return places;
}

const Relation& relationAt(const Structure& structure, const RelationPlace& place) {
  return structure.catalogs[place.catalog]
      .schemas[place.schema]
      .relations[static_cast<std::size_t>(place.kind)][place.index];
}

namespace {

// Writes catalogs and schemas as they are first needed: the whole structure keeps its empty ones,
// as the database has them (an empty catalog still gives its USE CATALOG line); a choice keeps
// only those that hold a chosen relation.
class StructureWriter {
 public:
  explicit StructureWriter(const std::vector<bool>* chosen) : chosen_(chosen) {
    root_.setArrayType();
  }

  void writeCatalog(const Catalog& catalog, std::size_t c) {
    schemaList_ = nullptr;
    if (chosen_ == nullptr) openCatalog(catalog, c);
    for (std::size_t s = 0; s < catalog.schemas.size(); ++s)
      writeSchema(catalog, c, s);
  }

  std::string text() const { return root_.obtainJsonString(); }

 private:
  void openCatalog(const Catalog& catalog, std::size_t c) {
    if (schemaList_ != nullptr) return;
    YLJsonValue* json = root_.addArrayItem();
    json->addKeyValue("catalog_id")->setStringValue("c" + std::to_string(c));
    setName(json->addKeyValue("catalog_name"), catalog.name);
    schemaList_ = json->addKeyValue("schemas");
    schemaList_->setArrayType();
  }

  YLJsonValue* openSchema(const Catalog& catalog, std::size_t c, std::size_t s) {
    openCatalog(catalog, c);
    YLJsonValue* json = schemaList_->addArrayItem();
    json->addKeyValue("schema_id")->setStringValue(std::to_string(c) + "." + std::to_string(s));
    const std::string& name = catalog.schemas[s].name;
    if (!name.empty()) setName(json->addKeyValue("schema_name"), name);
    return json;
  }

  void writeSchema(const Catalog& catalog, std::size_t c, std::size_t s) {
    YLJsonValue* schemaJson = chosen_ == nullptr ? openSchema(catalog, c, s) : nullptr;
    for (std::size_t kind = 0; kind < kRelationKinds; ++kind) {
      YLJsonValue* objects = nullptr;
      for (const Relation& relation : catalog.schemas[s].relations[kind]) {
        if (chosen_ != nullptr && !(*chosen_)[next_++]) continue;
        if (schemaJson == nullptr) schemaJson = openSchema(catalog, c, s);
        if (objects == nullptr) {
          objects = schemaJson->addKeyValue(kKindKeys[kind]);
          objects->setArrayType();
        }
        addRelation(objects, relation);
      }
    }
  }

  const std::vector<bool>* chosen_;
  YLJson root_;
  YLJsonValue* schemaList_ = nullptr;
  std::size_t next_ = 0;  // the next relation's place in the order of relationPlaces
};

}  // namespace

std::string structureJson(const Structure& structure, const std::vector<bool>* chosen) {
  StructureWriter writer(chosen);
  for (std::size_t c = 0; c < structure.catalogs.size(); ++c)
    writer.writeCatalog(structure.catalogs[c], c);
  return writer.text();
}

std::string sqlName(const std::string& name) {
  const auto plain = [](char c) { return (c >= 'a' && c <= 'z') || c == '_' || c == '$'; };
  const auto digit = [](char c) { return c >= '0' && c <= '9'; };
  const bool bare =
      !name.empty() && plain(name.front()) &&
      std::all_of(name.begin(), name.end(), [&](char c) { return plain(c) || digit(c); });
  if (bare) return name;
  std::string quoted = "\"";
  for (const char c : name) {
    quoted += c;
    if (c == '"') quoted += '"';
  }
  return quoted + '"';
}

std::string qualifiedName(const Structure& structure, const RelationPlace& place) {
  std::string name;
  const Catalog& catalog = structure.catalogs[place.catalog];
  if (structure.catalogs.size() > 1) name = sqlName(catalog.name) + ".";
  const std::string& schema = catalog.schemas[place.schema].name;
  if (!schema.empty()) name += sqlName(schema) + ".";
  return name + sqlName(relationAt(structure, place).name);
}

std::string uniqueKeysInstruction(const Structure& structure, const std::vector<bool>* chosen) {
  const std::vector<RelationPlace> places = relationPlaces(structure);
  std::string text;
  for (std::size_t i = 0; i < places.size(); ++i) {
    const Relation& relation = relationAt(structure, places[i]);
    if ((chosen != nullptr && !(*chosen)[i]) || relation.uniqueKeys.empty()) continue;
    const std::string name = qualifiedName(structure, places[i]);
    for (const std::vector<std::string>& key : relation.uniqueKeys) {
      text += text.empty() ? "Unique keys: " : "; ";
      text += name + "(";
      for (std::size_t k = 0; k < key.size(); ++k)
        text += (k == 0 ? "" : ", ") + sqlName(key[k]);
      text += ")";
    }
  }
  return text.empty() ? text : text + ".";
}

}  // namespace qorchat
