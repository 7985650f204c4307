#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "yl/yl_datetime.h"
#include "yl/yl_util.h"
#include "yl/yl_variant.h"

namespace {

TEST(Util, TrimRemovesAsciiWhiteSpaceOnly) {
  EXPECT_EQ(ylTrimAsString(" \t\n\v\f\ra b\r\n"), "a b");
  EXPECT_EQ(ylTrimAsString(" \t "), "");
  EXPECT_EQ(ylTrimAsString(""), "");
  // A no-break space (U+00A0) is not ASCII white space.
  EXPECT_EQ(ylTrimAsString("\xc2\xa0x\xc2\xa0"), "\xc2\xa0x\xc2\xa0");
}

TEST(Util, ConcatURLFoldsSlashesAtJoins) {
  EXPECT_EQ(ylConcatURL({"https://h/", "/v1/", "//models"}), "https://h/v1/models");
  EXPECT_EQ(ylConcatURL({"https://h/base", "v1", "chat"}), "https://h/base/v1/chat");
  EXPECT_EQ(ylConcatURL({"", "https://h", "", "v1/"}), "https://h/v1/");
  EXPECT_EQ(ylConcatURL({"https://h/a//b"}), "https://h/a//b");
  EXPECT_EQ(ylConcatURL({}), "");
}

TEST(Util, DeferRunsOnceOnEveryWayOut) {
  int runs = 0;
  {
    YLDefer guard([&] { ++runs; });
  }
  EXPECT_EQ(runs, 1);
  try {
    YLDefer guard([&] { ++runs; });
    throw std::runtime_error("leave");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(runs, 2);
  { YLDefer empty{std::function<void()>()}; }
}

TEST(Variant, ConversionsAndCopies) {
  EXPECT_EQ(YLVariant(3.99).intValue(), 3);
  EXPECT_EQ(YLVariant(-3.99).intValue(), -3);
  EXPECT_EQ(YLVariant(1e12).intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(YLVariant(-1e12).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(YLVariant(std::nan("")).intValue(), 0);
  EXPECT_EQ(YLVariant(7).doubleValue(), 7.0);
  EXPECT_EQ(YLVariant("7").intValue(), 0);
  EXPECT_EQ(YLVariant(7).stringValue(), "");
  EXPECT_EQ(YLVariant(static_cast<const char*>(nullptr)).stringValue(), "");

  // Copies are deep: changing one leaves the other alone.
  YLVariant original(YLVariantMap{{"list", YLVariant(YLVariantList{YLVariant(1)})}});
  YLVariant copy = original;
  YLVariantMap changed = copy.mapValue();
  changed["list"].listRef().push_back(YLVariant(2));
  copy = YLVariant(changed);
  EXPECT_EQ(original.mapPtr()->at("list").listPtr()->size(), 1u);
  EXPECT_EQ(copy.mapPtr()->at("list").listPtr()->size(), 2u);
  EXPECT_FALSE(copy == original);
  EXPECT_TRUE(YLVariant(original) == original);

  // listRef turns any other value into an empty list.
  YLVariant text("x");
  EXPECT_TRUE(text.listRef().empty());
  EXPECT_EQ(text.getValueType(), YLVariant::ValueType::List);

  // Map keys order byte-wise, high bytes after ASCII.
  YLVariantMap keys{{"\xc3\xa9", YLVariant()}, {"b", YLVariant()}, {"B", YLVariant()}};
  std::vector<std::string> order;
  for (const auto& entry : keys)
    order.push_back(entry.first);
  EXPECT_EQ(order, (std::vector<std::string>{"B", "b", "\xc3\xa9"}));
}

std::unique_ptr<YLDateTime> readDate(const std::string& text,
                                     const std::string& format = "%Y-%m-%dT%H:%M:%SZ") {
  return std::unique_ptr<YLDateTime>(YLDateTime::dateTimeFromString(text, format));
}

std::int64_t stamp(const std::string& text, const std::string& format = "%Y-%m-%dT%H:%M:%SZ") {
  return YLDateTimeConverter().timestampFromDateTime(readDate(text, format).get(), 0);
}

TEST(DateTime, ReadsFieldsByFormat) {
  auto date = readDate("2025-02-19T07:08:09Z");
  ASSERT_TRUE(date->isValid());
  EXPECT_EQ(date->year, 2025);
  EXPECT_EQ(date->month, 2);
  EXPECT_EQ(date->day, 19);
  EXPECT_EQ(date->hour, 7);
  EXPECT_EQ(date->minute, 8);
  EXPECT_EQ(date->second, 9);

  EXPECT_TRUE(readDate("2000-2-29 23:59:60 100%", "%F %T 100%%")->isValid());
  EXPECT_TRUE(readDate("2024-02-29", "%Y-%m-%d")->isValid());
  EXPECT_TRUE(readDate("20240131", "%Y%m%d")->isValid());
}

TEST(DateTime, RejectsWhatDoesNotFitOrExist) {
  for (const char* text :
       {"2023-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2025-04-31T00:00:00Z",
        "2025-13-01T00:00:00Z", "2025-00-10T00:00:00Z", "2025-01-00T00:00:00Z",
        "2025-01-01T24:00:00Z", "2025-01-01T00:60:00Z", "2025-01-01T00:00:61Z", "2025-02-19",
        "2025-02-19T00:00:00Zx", "2025-02-19T00:00:00", "20a5-02-19T00:00:00Z",
        "25-02-19T00:00:00Z", "2025-02-19 00:00:00Z", "", "2025-002-19T00:00:00Z"}) {
    auto date = readDate(text);
    EXPECT_FALSE(date->isValid()) << text;
  }
  EXPECT_FALSE(readDate("2025", "%Y%Q")->isValid());
  EXPECT_FALSE(readDate("2025%", "%Y%")->isValid());
  EXPECT_FALSE(readDate("x", "")->isValid());
}

TEST(DateTime, TimestampsGrowWithTheDate) {
  EXPECT_EQ(stamp("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(stamp("2025-02-19T00:00:00Z"), 1739923200);
  EXPECT_EQ(stamp("2000-02-29T12:34:56Z"), 951827696);
  EXPECT_EQ(stamp("1969-12-31T23:59:59Z"), -1);
  EXPECT_EQ(stamp("1600-03-01T00:00:00Z"), -11670912000);
  EXPECT_LT(stamp("2024-12-31T23:59:59Z"), stamp("2025-01-01T00:00:00Z"));
  EXPECT_LT(stamp("2025-02-28T00:00:00Z"), stamp("2025-03-01T00:00:00Z"));
  EXPECT_EQ(stamp("2025-02-30T00:00:00Z"), 0);
  EXPECT_EQ(YLDateTimeConverter().timestampFromDateTime(nullptr, 0), 0);
}

}  // namespace
