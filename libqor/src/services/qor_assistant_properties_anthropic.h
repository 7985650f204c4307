#pragma once

#include "qor_assistant_properties.h"

// The live record of an Anthropic assistant: the plain record with "max_tokens", which the service
// requires in every request. Copies made by obtainProperties are plain records without it.
class QORAssistantProperties_ANTHROPIC final : public QORAssistantProperties {
 public:
  static constexpr std::int32_t kDefaultMaxTokens = 1024;

  using QORAssistantProperties::QORAssistantProperties;

  std::vector<std::pair<std::string, std::string>> obtainPropertyCatalogue() override;
  YLVariant obtainValue(const std::string& key) override;
  // "max_tokens" takes an Int; any other value is reported and still stored as its intValue().
  // No range is applied: the service judges the number.
  bool setValue(const std::string& key, const YLVariant& value) override;

  std::int32_t maxTokens = kDefaultMaxTokens;
};
