// Copies JSON values between libyl documents and reads a tool's arguments with one-line problems.
#include "mcp_json.h"

#include <charconv>
#include <cmath>

namespace qorchat::mcp {

void copyJson(const YLJsonValue& from, YLJsonValue& to) {
  switch (from.obtainType()) {
    case YLJsonValueType::Object:
      for (std::size_t i = 0; i < from.obtainMemberCount(); ++i)
        copyJson(*from.obtainMemberValue(i), *to.addKeyValue(from.obtainMemberKey(i)));
      break;
    case YLJsonValueType::Array:
      to.setArrayType();
      for (std::size_t i = 0; i < from.obtainArraySize(); ++i)
        copyJson(*from.obtainArrayItem(i), *to.addArrayItem());
      break;
    case YLJsonValueType::String:
      to.setStringValue(from.obtainStringView());
      break;
    case YLJsonValueType::Number: {
      // An integer stays one, exactly; anything else is the double it reads as.
      const std::string text = from.obtainJsonString();
      std::int64_t whole = 0;
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), whole);
      if (error == std::errc() && end == text.data() + text.size()) {
        to.setIntValue(whole);
      } else {
        to.setDoubleValue(from.obtainDoubleValue());
      }
      break;
    }
    case YLJsonValueType::Bool:
      to.setBoolValue(from.obtainBoolValue());
      break;
    case YLJsonValueType::Null:
      break;
  }
}

Arguments::Arguments(const YLJsonValue* arguments, std::initializer_list<std::string_view> known)
    : arguments_(arguments) {
  if (arguments_ == nullptr || arguments_->obtainType() == YLJsonValueType::Null) return;
  if (arguments_->obtainType() != YLJsonValueType::Object) {
    fail("the arguments must be an object");
    return;
  }
  for (std::size_t i = 0; i < arguments_->obtainMemberCount(); ++i) {
    const std::string_view name = arguments_->obtainMemberKey(i);
    bool isKnown = false;
    for (const std::string_view each : known)
      isKnown = isKnown || each == name;
    if (!isKnown) {
      fail("unknown argument '" + std::string(name) + "'");
      return;
    }
  }
}

void Arguments::fail(std::string problem) {
  if (problem_.empty()) problem_ = std::move(problem);
}

const YLJsonValue* Arguments::member(std::string_view name, YLJsonValueType type,
                                     const char* what) {
  if (!ok() || arguments_ == nullptr) return nullptr;
  const YLJsonValue* value = arguments_->obtainKeyValue(name);
  if (value != nullptr && value->obtainType() != type) {
    fail("'" + std::string(name) + "' must be " + what);
    return nullptr;
  }
  return value;
}

std::optional<std::string> Arguments::text(std::string_view name, bool required) {
  const YLJsonValue* value = member(name, YLJsonValueType::String, "a string");
  if (value == nullptr) {
    if (required) fail("'" + std::string(name) + "' is required");
    return std::nullopt;
  }
  return std::string(value->obtainStringView());
}

std::optional<std::int64_t> Arguments::integer(std::string_view name, std::int64_t fallback,
                                               std::int64_t min, std::int64_t max) {
  const std::string bounds =
      "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
  const YLJsonValue* value = member(name, YLJsonValueType::Number, bounds.c_str());
  if (!ok()) return std::nullopt;
  if (value == nullptr) return fallback;
  const double number = value->obtainDoubleValue();
  if (std::floor(number) != number || number < static_cast<double>(min) ||
      number > static_cast<double>(max)) {
    fail("'" + std::string(name) + "' must be " + bounds);
    return std::nullopt;
  }
  return static_cast<std::int64_t>(number);
}

std::optional<std::vector<std::string>> Arguments::texts(std::string_view name,
                                                         std::size_t maxItems) {
  const std::string what = "an array of 1 to " + std::to_string(maxItems) + " strings";
  const YLJsonValue* value = member(name, YLJsonValueType::Array, what.c_str());
  if (!ok()) return std::nullopt;
  if (value == nullptr || value->obtainArraySize() == 0 || value->obtainArraySize() > maxItems) {
    fail("'" + std::string(name) + "' must be " + what);
    return std::nullopt;
  }
  std::vector<std::string> items;
  for (std::size_t i = 0; i < value->obtainArraySize(); ++i) {
    const YLJsonValue* item = value->obtainArrayItem(i);
    if (item->obtainType() != YLJsonValueType::String) {
      fail("'" + std::string(name) + "' must be " + what);
      return std::nullopt;
    }
    items.emplace_back(item->obtainStringView());
  }
  return items;
}

}  // namespace qorchat::mcp
