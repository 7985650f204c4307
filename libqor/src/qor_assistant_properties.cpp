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

namespace {

using Record = QORAssistantProperties;

// One key of the record: the value type setValue takes (Null: any, the setter decides), the
// condition reported when another type comes, and how the value is read and stored. A setter
// returns whether the key counts as set.
struct KeyRule {
  std::string_view key;
  ValueType type;
  const char* typeCondition;
  YLVariant (*read)(const Record&);
  bool (*store)(Record&, const YLVariant&);
};

constexpr const char* kStringCondition = "value.getValueType() == YLVariant::ValueType::String";
constexpr const char* kSourceName = "qor_assistant_properties";

// Merges the given entries: an empty text clears an entry, so the property holds only non-empty
// instructions; an entry of another type is reported and passed over.
bool mergeSystemInstructions(Record& record, const YLVariant& value) {
  for (const auto& kv : *value.mapPtr()) {
    YL_ASSERT(kv.second.getValueType() == YLVariant::ValueType::String, kSourceName);
    if (kv.second.getValueType() != ValueType::String) continue;
    if (kv.second.stringPtr()->empty()) {
      record.systemInstructions.erase(kv.first);
    } else {
      record.systemInstructions[kv.first] = kv.second;
    }
  }
  return true;
}

bool storeDatabaseStructure(Record& record, const YLVariant& value) {
  if (value.getValueType() == ValueType::List) {
    record.memory->setDatabaseStructure(ylCreateYLJsonFromYLVariant(value)->obtainJsonString());
  } else if (const std::string* text = value.stringPtr()) {
    // The empty string does not clear a structure; the empty list does.
    if (text->empty()) return false;
    const YLJson json(*text);
    YL_ASSERT(json.getIsValidJson(), kSourceName);
    if (!json.getIsValidJson()) return false;
    // The host's own text is kept, not the parser's rendering of it.
    record.memory->setDatabaseStructure(*text);
  }
  // Any other type stores nothing and is still taken as set.
  return true;
}

constexpr KeyRule kKeyRules[] = {
    {"api_host", ValueType::String, kStringCondition,
     [](const Record& r) { return YLVariant(r.apiHost); },
     [](Record& r, const YLVariant& v) {
       // A blank host goes back to the service's own host.
       r.normaliseHost(ylTrimAsString(*v.stringPtr()), r.defaultHost);
       return true;
     }},
    {"model", ValueType::String, kStringCondition,
     [](const Record& r) { return YLVariant(r.model); },
     [](Record& r, const YLVariant& v) {
       r.model = *v.stringPtr();
       return true;
     }},
    {"temperature", ValueType::Double, "value.getValueType() == YLVariant::ValueType::Double",
     [](const Record& r) { return YLVariant(r.temperature); },
     [](Record& r, const YLVariant& v) {
       // Stored as it comes; updateProperties brings it into the service's range.
       r.temperature = v.doubleValue();
       return true;
     }},
    {"user_instructions", ValueType::String, kStringCondition,
     [](const Record& r) { return YLVariant(r.userInstructions); },
     [](Record& r, const YLVariant& v) {
       r.userInstructions = *v.stringPtr();
       return true;
     }},
    {"system_instructions", ValueType::Map, "value.getValueType() == YLVariant::ValueType::Map",
     [](const Record& r) { return YLVariant(r.systemInstructions); }, &mergeSystemInstructions},
    {"db_structure", ValueType::Null, nullptr,
     [](const Record& r) { return YLVariant(r.obtainDatabaseTree()); }, &storeDatabaseStructure},
    {"combined_instructions", ValueType::Null, nullptr,
     [](const Record& r) { return YLVariant(r.obtainCombinedInstructions()); },
     [](Record&, const YLVariant&) {
       // Read only: composed from the others on every read.
       YL_ASSERT(false, kSourceName);
       return false;
     }},
};

const KeyRule* findRule(std::string_view key) {
  for (const KeyRule& rule : kKeyRules) {
    if (rule.key == key) return &rule;
  }
  return nullptr;
}

}  // namespace

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
  const KeyRule* rule = findRule(key);
  return rule == nullptr ? YLVariant() : rule->read(*this);
}

bool QORAssistantProperties::setValue(const std::string& key, const YLVariant& value) {
  const KeyRule* rule = findRule(key);
  if (rule == nullptr) return false;
  if (rule->type != ValueType::Null && value.getValueType() != rule->type) {
    // The condition's text depends on the row, so it is reported as the macro would word it.
#ifdef YL_ENABLE_ASSERTIONS
    ylReportAssertion(rule->typeCondition, kSourceName);
#endif
    return false;
  }
  if (!rule->store(*this, value)) return false;
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
  std::string digest = obtainDatabaseInstructions();
  std::string text;
  if (!userInstructions.empty()) {
    text += userInstructions;
    text += "\n\n";
  }
  for (const auto& [key, instruction] : systemInstructions) {
    if (const std::string* line = instruction.stringPtr()) text += *line;
    text += '\n';
  }
  if (digest.empty()) return text;
  // The digest is most of the text, and its buffer has room to spare: with nothing before it, it
  // becomes the text itself instead of being copied.
  if (text.empty()) {
    digest += '\n';
    return digest;
  }
  text.reserve(text.size() + digest.size() + 1);
  text += digest;
  text += '\n';
  return text;
}
