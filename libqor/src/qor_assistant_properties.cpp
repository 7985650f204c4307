#include "qor_assistant_properties.h"

#include <regex>

#include "qor_database_digest.h"

namespace {

using ValueType = YLVariant::ValueType;

// The shape of a "db_structure", for people: "optional" marks what may be left out, the empty
// string what must be given.
std::string structureTemplate() {
  YLJson document;
  IYLJsonValue* catalog = document.addArrayItem();
  catalog->addKeyValue("catalog_id")->setStringValue("optional");
  catalog->addKeyValue("catalog_name")->setStringValue("optional");
  IYLJsonValue* schema = catalog->addKeyValue("schemas")->addArrayItem();
  schema->addKeyValue("schema_id")->setStringValue("optional");
  schema->addKeyValue("schema_name")->setStringValue("optional");
  IYLJsonValue* table = schema->addKeyValue("tables")->addArrayItem();
  table->addKeyValue("name")->setStringValue("");
  IYLJsonValue* field = table->addKeyValue("fields")->addArrayItem();
  field->addKeyValue("name")->setStringValue("");
  field->addKeyValue("type")->setStringValue("");
  table->addKeyValue("pkeys")->addArrayItem()->setStringValue("optional");
  IYLJsonValue* foreignKey = table->addKeyValue("fkeys")->addArrayItem();
  foreignKey->addKeyValue("fields")->addArrayItem()->setStringValue("");
  foreignKey->addKeyValue("ref_schema")->setStringValue("optional");
  foreignKey->addKeyValue("ref_table")->setStringValue("");
  foreignKey->addKeyValue("ref_fields")->addArrayItem()->setStringValue("");
  // Views and materialized views are described like tables; their items stay blank.
  schema->addKeyValue("views")->addArrayItem();
  schema->addKeyValue("mviews")->addArrayItem();
  return document.obtainJsonString();
}

}  // namespace

QORAssistantProperties::QORAssistantProperties(IQORAssistantMemory* memory, std::string defaultHost)
    : memory(memory), defaultHost(std::move(defaultHost)) {}

std::vector<std::pair<std::string, std::string>> QORAssistantProperties::obtainPropertyCatalogue() {
  return {
      {"api_host", "string"},
      {"model", "string"},
      {"temperature", "double"},
      {"user_instructions", "string"},
      {"system_instructions", "YLVariantMap(string, string)"},
      {"db_structure", "YLVariant - " + structureTemplate()},
      {"combined_instructions", "string - read only"},
  };
}

YLVariant QORAssistantProperties::obtainValue(const std::string& key) {
  if (key == "api_host") return YLVariant(apiHost);
  if (key == "model") return YLVariant(model);
  if (key == "temperature") return YLVariant(temperature);
  if (key == "user_instructions") return YLVariant(userInstructions);
  if (key == "system_instructions") return YLVariant(systemInstructions);
  if (key == "db_structure") return YLVariant(obtainDatabaseTree());
  if (key == "combined_instructions") return YLVariant(obtainCombinedInstructions());
  return YLVariant();
}

bool QORAssistantProperties::setValue(const std::string& key, const YLVariant& value) {
  if (key == "api_host" || key == "model" || key == "user_instructions") {
    YL_ASSERT(value.getValueType() == YLVariant::ValueType::String, kSourceName);
    if (value.getValueType() != ValueType::String) return false;
    if (key == "api_host") {
      // A blank host goes back to the service's own host.
      normaliseHost(ylTrimAsString(*value.stringPtr()), defaultHost);
    } else if (key == "model") {
      model = *value.stringPtr();
    } else {
      userInstructions = *value.stringPtr();
    }
  } else if (key == "temperature") {
    YL_ASSERT(value.getValueType() == YLVariant::ValueType::Double, kSourceName);
    if (value.getValueType() != ValueType::Double) return false;
    // Stored as it comes; updateProperties brings it into the service's range.
    temperature = value.doubleValue();
  } else if (key == "system_instructions") {
    YL_ASSERT(value.getValueType() == YLVariant::ValueType::Map, kSourceName);
    if (value.getValueType() != ValueType::Map) return false;
    for (const auto& kv : *value.mapPtr()) {
      YL_ASSERT(kv.second.getValueType() == YLVariant::ValueType::String, kSourceName);
      if (kv.second.getValueType() != ValueType::String) continue;
      // An empty text clears the entry, so the property holds only non-empty instructions.
      if (kv.second.stringPtr()->empty()) {
        systemInstructions.erase(kv.first);
      } else {
        systemInstructions[kv.first] = kv.second;
      }
    }
  } else if (key == "db_structure") {
    if (value.getValueType() == ValueType::List) {
      memory->setDatabaseStructure(ylCreateYLJsonFromYLVariant(value)->obtainJsonString());
    } else if (value.getValueType() == ValueType::String) {
      const std::string& text = *value.stringPtr();
      // The empty string does not clear a structure; the empty list does.
      if (text.empty()) return false;
      const YLJson json(text);
      YL_ASSERT(json.getIsValidJson(), kSourceName);
      if (!json.getIsValidJson()) return false;
      // The host's own text is kept, not the parser's rendering of it.
      memory->setDatabaseStructure(text);
    }
    // Any other type stores nothing and is still taken as set.
  } else if (key == "combined_instructions") {
    YL_ASSERT(false, kSourceName);
    return false;
  } else {
    return false;
  }
  changedKeys.insert(key);
  return true;
}

void QORAssistantProperties::normaliseHost(std::string_view value, std::string_view fallback) {
  std::string host = ylTrimAsString(value);
  if (host.empty()) host.assign(fallback);
  static const std::regex scheme("^https?://");
  if (!std::regex_search(host, scheme)) host.insert(0, "https://");
  apiHost = std::move(host);
}

YLVariantList QORAssistantProperties::obtainDatabaseTree() const {
  return QORDatabaseDigest::buildTree(memory->obtainDatabaseStructure());
}

std::string QORAssistantProperties::obtainDatabaseInstructions() const {
  return QORDatabaseDigest::buildText(memory->obtainDatabaseStructure());
}

std::string QORAssistantProperties::obtainCombinedInstructions() const {
  // The digest comes first: it reads the memory whatever else is set.
  const std::string digest = obtainDatabaseInstructions();
  std::string text;
  if (!userInstructions.empty()) {
    text += userInstructions;
    text += "\n\n";
  }
  for (const auto& [key, instruction] : systemInstructions) {
    if (const std::string* line = instruction.stringPtr()) text += *line;
    text += '\n';
  }
  if (!digest.empty()) {
    text += digest;
    text += '\n';
  }
  return text;
}

std::string QORAssistantProperties::composeCreateStatement(std::string schemaName, std::string kind,
                                                           const YLJsonValue* description) {
  std::string statement;
  QORDatabaseDigest::appendCreateStatement(statement, schemaName, kind, description);
  return statement;
}

void QORAssistantProperties::appendInstructionLines(std::string& stream, const YLVariant& lines) {
  const YLVariantList* list = lines.listPtr();
  if (list == nullptr) return;
  for (const YLVariant& line : *list) {
    if (const std::string* text = line.stringPtr()) stream += *text;
    stream += '\n';
  }
}

bool QORAssistantProperties::lacksCatalogName(const YLVariant& catalog) {
  return QORDatabaseDigest::lacksCatalogName(catalog);
}
