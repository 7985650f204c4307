#pragma once
// A tagged value that the host uses to read and write properties.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "yl/yl_export.h"

class YLVariant;

// A list of variants; used directly as a standard container.
using YLVariantList = std::vector<YLVariant>;
// Keys are ordered byte-wise: std::char_traits<char> compares as unsigned char.
using YLVariantMap = std::map<std::string, YLVariant>;

class YL_EXPORT YLVariant {
 public:
  // The codes are fixed: hosts store and compare them.
  enum class ValueType : std::int32_t {
    Null = 0,
    String = 1,
    Int = 2,
    Double = 5,
    List = 6,
    Map = 7,
  };

  YLVariant() = default;
  YLVariant(const YLVariant& other);
  YLVariant(YLVariant&& other) noexcept = default;
  YLVariant& operator=(const YLVariant& other);
  YLVariant& operator=(YLVariant&& other) noexcept = default;
  ~YLVariant() = default;

  YLVariant(std::string value);
  YLVariant(const char* value);
  YLVariant(std::int32_t value);
  YLVariant(double value);
  YLVariant(YLVariantMap value);
  YLVariant(YLVariantList value);

  ValueType getValueType() const { return type_; }
  bool isNull() const { return type_ == ValueType::Null; }

  // Conversions never fail. A value of another type gives the empty value of the asked type, with
  // these exceptions: intValue() of a Double truncates toward zero and saturates at the 32-bit
  // bounds (NaN gives 0); doubleValue() of an Int widens.
  std::string stringValue() const;
  std::int32_t intValue() const;
  double doubleValue() const;
  YLVariantMap mapValue() const;
  YLVariantList listValue() const;

  // The list inside a List value. Called on a value of another type, it first turns the value
  // into an empty list.
  YLVariantList& listRef();
  const YLVariantList* listPtr() const { return type_ == ValueType::List ? &list_ : nullptr; }
  // The map inside a Map value, or null.
  const YLVariantMap* mapPtr() const { return type_ == ValueType::Map ? map_.get() : nullptr; }
  // The text of a String value, or null.
  const std::string* stringPtr() const { return type_ == ValueType::String ? &string_ : nullptr; }

  friend YL_EXPORT bool operator==(const YLVariant& a, const YLVariant& b);

 private:
  ValueType type_ = ValueType::Null;
  std::int32_t int_ = 0;
  double double_ = 0.0;
  std::string string_;
  YLVariantList list_;
  // A map of an incomplete type is not allowed by the standard, a vector is: box the map.
  std::unique_ptr<YLVariantMap> map_;
};
