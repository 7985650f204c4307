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
    if (foreignKey.refSchema) entry->addKeyValue("ref_schema")->setStringValue(*foreignKey.refSchema);
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

std::string structureJson(const Structure& structure, const std::vector<bool>* chosen) {
  // The whole structure keeps its empty catalogs and schemas, as the database has them (an empty
  // catalog still gives its USE CATALOG line); a choice keeps only what holds a chosen relation.
  const bool whole = chosen == nullptr;
  YLJson root;
  root.setArrayType();
  std::size_t id = 0;  // the relation's place in the order of relationPlaces
  for (std::size_t c = 0; c < structure.catalogs.size(); ++c) {
    const Catalog& catalog = structure.catalogs[c];
    YLJsonValue* schemaList = nullptr;
    const auto openCatalog = [&] {
      if (schemaList != nullptr) return;
      YLJsonValue* json = root.addArrayItem();
      json->addKeyValue("catalog_id")->setStringValue("c" + std::to_string(c));
      json->addKeyValue("catalog_name")->setStringValue(catalog.name);
      schemaList = json->addKeyValue("schemas");
      schemaList->setArrayType();
    };
    if (whole) openCatalog();
    for (std::size_t s = 0; s < catalog.schemas.size(); ++s) {
      const Schema& schema = catalog.schemas[s];
      YLJsonValue* schemaJson = nullptr;
      const auto openSchema = [&] {
        if (schemaJson != nullptr) return;
        openCatalog();
        schemaJson = schemaList->addArrayItem();
        schemaJson->addKeyValue("schema_id")->setStringValue(std::to_string(c) + "." +
                                                             std::to_string(s));
        if (!schema.name.empty()) schemaJson->addKeyValue("schema_name")->setStringValue(schema.name);
      };
      if (whole) openSchema();
      for (std::size_t kind = 0; kind < kRelationKinds; ++kind) {
        YLJsonValue* objects = nullptr;
        for (const Relation& relation : schema.relations[kind]) {
          if (!whole && !(*chosen)[id++]) continue;
          if (objects == nullptr) {
            openSchema();
            objects = schemaJson->addKeyValue(kKindKeys[kind]);
            objects->setArrayType();
          }
          addRelation(objects, relation);
        }
      }
    }
  }
  return root.obtainJsonString();
}

}  // namespace qorchat
