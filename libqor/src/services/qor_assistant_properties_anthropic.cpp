#include "qor_assistant_properties_anthropic.h"

namespace {
constexpr const char* kMaxTokensKey = "max_tokens";
}

std::vector<std::pair<std::string, std::string>>
QORAssistantProperties_ANTHROPIC::obtainPropertyCatalogue() {
  auto catalogue = QORAssistantProperties::obtainPropertyCatalogue();
  catalogue.emplace_back(kMaxTokensKey, "integer");
  return catalogue;
}

YLVariant QORAssistantProperties_ANTHROPIC::obtainValue(const std::string& key) {
  if (key == kMaxTokensKey) return YLVariant(maxTokens);
  return QORAssistantProperties::obtainValue(key);
}

bool QORAssistantProperties_ANTHROPIC::setValue(const std::string& key, const YLVariant& value) {
  if (key != kMaxTokensKey) return QORAssistantProperties::setValue(key, value);
  YL_ASSERT(value.getValueType() == YLVariant::ValueType::Int, "qor_assistant_anthropic");
  maxTokens = value.intValue();
  changedKeys.insert(key);
  return true;
}
