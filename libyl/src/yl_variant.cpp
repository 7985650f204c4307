#include "yl/yl_variant.h"

#include <cmath>
#include <limits>

YLVariant::YLVariant(const YLVariant& other)
    : type_(other.type_),
      int_(other.int_),
      double_(other.double_),
      string_(other.string_),
      list_(other.list_),
      map_(other.map_ ? std::make_unique<YLVariantMap>(*other.map_) : nullptr) {}

YLVariant& YLVariant::operator=(const YLVariant& other) {
  if (this != &other) {
    YLVariant copy(other);
    *this = std::move(copy);
  }
  return *this;
}

YLVariant::YLVariant(std::string value) : type_(ValueType::String), string_(std::move(value)) {}
YLVariant::YLVariant(const char* value)
    : type_(ValueType::String), string_(value != nullptr ? value : "") {}
YLVariant::YLVariant(std::int32_t value) : type_(ValueType::Int), int_(value) {}
YLVariant::YLVariant(double value) : type_(ValueType::Double), double_(value) {}
YLVariant::YLVariant(YLVariantMap value)
    : type_(ValueType::Map), map_(std::make_unique<YLVariantMap>(std::move(value))) {}
YLVariant::YLVariant(YLVariantList value) : type_(ValueType::List), list_(std::move(value)) {}

std::string YLVariant::stringValue() const {
  return type_ == ValueType::String ? string_ : std::string();
}

std::int32_t YLVariant::intValue() const {
  if (type_ == ValueType::Int) return int_;
  if (type_ != ValueType::Double || std::isnan(double_)) return 0;
  constexpr double kMin = std::numeric_limits<std::int32_t>::min();
  constexpr double kMax = std::numeric_limits<std::int32_t>::max();
  if (double_ <= kMin) return std::numeric_limits<std::int32_t>::min();
  if (double_ >= kMax) return std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(double_);
}

double YLVariant::doubleValue() const {
  if (type_ == ValueType::Double) return double_;
  if (type_ == ValueType::Int) return int_;
  return 0.0;
}

YLVariantMap YLVariant::mapValue() const {
  return type_ == ValueType::Map ? *map_ : YLVariantMap();
}

YLVariantList YLVariant::listValue() const {
  return type_ == ValueType::List ? list_ : YLVariantList();
}

YLVariantList& YLVariant::listRef() {
  if (type_ != ValueType::List) {
    *this = YLVariant(YLVariantList());
  }
  return list_;
}

bool operator==(const YLVariant& a, const YLVariant& b) {
  if (a.type_ != b.type_) return false;
  switch (a.type_) {
    case YLVariant::ValueType::Null:
      return true;
    case YLVariant::ValueType::String:
      return a.string_ == b.string_;
    case YLVariant::ValueType::Int:
      return a.int_ == b.int_;
    case YLVariant::ValueType::Double:
      return a.double_ == b.double_;
    case YLVariant::ValueType::List:
      return a.list_ == b.list_;
    case YLVariant::ValueType::Map:
      return *a.map_ == *b.map_;
  }
  return false;
}
