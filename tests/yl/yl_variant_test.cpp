#include "yl/yl_variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

TEST(Variant, ConversionsAndCopies) {
  // Numbers truncate and saturate; a value of another type gives an empty one.
  EXPECT_EQ(
      (std::vector<std::int32_t>{YLVariant(3.99).intValue(), YLVariant(-3.99).intValue(),
                                 YLVariant(1e12).intValue(), YLVariant(-1e12).intValue(),
                                 YLVariant(std::nan("")).intValue(), YLVariant("7").intValue()}),
      (std::vector<std::int32_t>{3, -3, INT32_MAX, INT32_MIN, 0, 0}));
  EXPECT_EQ(YLVariant(7).doubleValue(), 7.0);
  EXPECT_EQ(YLVariant(7).stringValue() + YLVariant(static_cast<const char*>(nullptr)).stringValue(),
            "");

  // A copy is deep; listRef turns any other value into an empty list.
  const YLVariant original(YLVariantMap{{"list", YLVariant(YLVariantList{YLVariant(1)})}});
  YLVariant copy = original;
  EXPECT_TRUE(copy == original);
  EXPECT_TRUE(copy.listRef().empty());
  EXPECT_EQ(copy.getValueType(), YLVariant::ValueType::List);
  EXPECT_FALSE(copy == original);
  EXPECT_EQ(original.mapPtr()->at("list").listPtr()->size(), 1u);
}

}  // namespace
