// Reading the library's structure text back, and finding a relation by the name a user types.
#include "structure_text.h"

#include <algorithm>
#include <memory>

#include "qor.h"
#include "text.h"

namespace qorchat {
namespace {

struct FreeObject {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};

void appendLines(std::string& text, const YLVariantMap& map) {
  const auto lines = map.find("instructions");
  if (lines == map.end() || lines->second.listPtr() == nullptr) return;
  for (const YLVariant& line : *lines->second.listPtr())
    text += line.stringValue() + "\n";
}

}  // namespace

std::string treeText(const YLVariant& tree) {
  std::string text;
  const YLVariantList* catalogs = tree.listPtr();
  if (catalogs == nullptr) return text;
  for (const YLVariant& catalog : *catalogs) {
    const YLVariantMap* map = catalog.mapPtr();
    if (map == nullptr) continue;
    appendLines(text, *map);
    const auto schemas = map->find("schemas");
    if (schemas == map->end() || schemas->second.listPtr() == nullptr) continue;
    for (const YLVariant& schema : *schemas->second.listPtr()) {
      if (const YLVariantMap* schemaMap = schema.mapPtr()) appendLines(text, *schemaMap);
    }
  }
  return text;
}

std::optional<std::size_t> findRelation(const Structure& structure, std::string_view name) {
  const std::size_t dot = name.rfind('.');
  const std::string_view schema = dot == std::string_view::npos ? "" : name.substr(0, dot);
  const std::string_view table = dot == std::string_view::npos ? name : name.substr(dot + 1);
  const std::vector<RelationPlace> places = relationPlaces(structure);
  std::optional<std::size_t> caseless;
  for (std::size_t i = 0; i < places.size(); ++i) {
    const Relation& relation = relationAt(structure, places[i]);
    const std::string& schemaName =
        structure.catalogs[places[i].catalog].schemas[places[i].schema].name;
    const bool schemaFits = schema.empty() || schemaName == schema;
    if (schemaFits && relation.name == table) return i;
    if (!caseless && (schema.empty() || text::equalsIgnoringCase(schemaName, schema)) &&
        text::equalsIgnoringCase(relation.name, table))
      caseless = i;
  }
  return caseless;
}

YLVariant libraryTree(const Structure& structure, const std::vector<bool>* chosen) {
  const std::unique_ptr<IQORAssistant, FreeObject> scratch(
      QORCreateAssistant(QORAssistantType::OLLAMA, new YLHTTPPoolCenter, "", "", nullptr));
  if (!scratch) return {};
  scratch->updateProperties([&](IQORProperties* properties) {
    properties->setValue("db_structure", YLVariant(structureJson(structure, chosen)));
  });
  const std::unique_ptr<IQORProperties, FreeObject> properties(scratch->obtainProperties());
  return properties->obtainValue("db_structure");
}

std::string relationText(const Structure& structure, std::size_t relation) {
  std::vector<bool> chosen(relationPlaces(structure).size(), false);
  if (relation >= chosen.size()) return {};
  chosen[relation] = true;
  // The text exactly as the conversation's own assistant would make it.
  return treeText(libraryTree(structure, &chosen));
}

}  // namespace qorchat
