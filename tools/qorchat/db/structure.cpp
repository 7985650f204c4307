// Writes the structure as the library's db_structure JSON.
#include "db/structure.h"

#include <string_view>

#include "yl/yl_json.h"

namespace qorchat {
namespace {

constexpr const char* kKindKeys[kRelationKinds] = {"tables", "views", "mviews"};

void addStrings(IYLJsonValue* array, const std::vector<std::string>& items) {
  array->setArrayType();
  for (const std::string& item : items)
    array->addArrayItem()->setStringValue(item);
}

void addRelation(YLJsonValue* objects, const Relation& relation) {
  YLJsonValue* object = objects->addArrayItem();
  object->addKeyValue("name")->setStringValue(relation.name);
  YLJsonValue* fields = object->addKeyValue("fields");
  fields->setArrayType();
  for (const Column& column : relation.columns) {
    YLJsonValue* field = fields->addArrayItem();
    field->addKeyValue("name")->setStringValue(column.name);
    field->addKeyValue("type")->setStringValue(column.type);
  }
  if (!relation.primaryKey.empty()) addStrings(object->addKeyValue("pkeys"), relation.primaryKey);
  if (relation.foreignKeys.empty()) return;
  YLJsonValue* keys = object->addKeyValue("fkeys");
  keys->setArrayType();
  for (const ForeignKey& foreignKey : relation.foreignKeys) {
    YLJsonValue* entry = keys->addArrayItem();
    addStrings(entry->addKeyValue("fields"), foreignKey.fields);
    if (foreignKey.refSchema)
      entry->addKeyValue("ref_schema")->setStringValue(*foreignKey.refSchema);
    entry->addKeyValue("ref_table")->setStringValue(foreignKey.refTable);
    addStrings(entry->addKeyValue("ref_fields"), foreignKey.refFields);
  }
}

}  // namespace

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
    json->addKeyValue("catalog_name")->setStringValue(catalog.name);
    schemaList_ = json->addKeyValue("schemas");
    schemaList_->setArrayType();
  }

  YLJsonValue* openSchema(const Catalog& catalog, std::size_t c, std::size_t s) {
    openCatalog(catalog, c);
    YLJsonValue* json = schemaList_->addArrayItem();
    json->addKeyValue("schema_id")->setStringValue(std::to_string(c) + "." + std::to_string(s));
    const std::string& name = catalog.schemas[s].name;
    if (!name.empty()) json->addKeyValue("schema_name")->setStringValue(name);
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

}  // namespace qorchat
