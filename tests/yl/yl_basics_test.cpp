// libyl's small pieces: debug assertions, dates, text and URL helpers, scope guards, variants.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "yl/yl_assert.h"
#include "yl/yl_datetime.h"
#include "yl/yl_util.h"
#include "yl/yl_variant.h"

namespace {

using Strings = std::vector<std::string>;

Strings reports;
void record(const char* condition, const char* source) {
  reports.push_back(std::string(condition) + " @ " + source);
}

TEST(Assertions, ReportThroughTheInstalledHandlerAndCarryOn) {
  reports.clear();
  const YLAssertionHandler previous = ylSetAssertionHandler(&record);
  int evaluated = 0;
  YL_ASSERT(++evaluated == 1, "here");
  YL_ASSERT(evaluated == 2, "there");
#ifdef YL_ENABLE_ASSERTIONS
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(reports, Strings{"evaluated == 2 @ there"});
#else
  EXPECT_EQ(evaluated, 0) << "without reports the condition is not even evaluated";
  EXPECT_TRUE(reports.empty());
#endif

  // Null brings back the default, which writes one line to standard error.
  EXPECT_EQ(ylSetAssertionHandler(nullptr), &record);
  const std::size_t recorded = reports.size();
  testing::internal::CaptureStderr();
  ylReportAssertion("x > 0", "src");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "debug assertion: x > 0 (src)\n");
  EXPECT_EQ(reports.size(), recorded) << "the replaced handler hears nothing more";
  ylSetAssertionHandler(previous);
}

TEST(DateTime, ReadsValidDatesAndOrdersThem) {
  const auto read = [](const std::string& text, const std::string& format = "%Y-%m-%dT%H:%M:%SZ") {
    return std::unique_ptr<YLDateTime>(YLDateTime::dateTimeFromString(text, format));
  };
  EXPECT_TRUE(read("2000-2-29 23:59:60 100%", "%F %T 100%%")->isValid() &&
              read("20240229", "%Y%m%d")->isValid());
  // Days past the month's end (century leap rule too), fields out of range, text off the format.
  for (const char* text : {"2023-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2025-04-31T00:00:00Z",
                           "2025-13-01T00:00:00Z", "2025-01-01T00:00:61Z", "2025-02-19T00:00:00Zx",
                           "2025-02-19", "20a5-02-19T00:00:00Z", ""})
    EXPECT_FALSE(read(text)->isValid()) << text;
  EXPECT_FALSE(read("2025", "%Y%Q")->isValid() || read("2025%", "%Y%")->isValid() ||
               read("x", "")->isValid());

  const auto stamp = [&](const std::string& text) {
    return YLDateTimeConverter().timestampFromDateTime(read(text).get(), 0);
  };
  EXPECT_EQ(stamp("2025-02-19T07:08:09Z"), 1739948889);
  EXPECT_EQ(stamp("2000-02-29T12:34:56Z"), 951827696);
  EXPECT_EQ(stamp("1969-12-31T23:59:59Z"), -1);
  EXPECT_EQ(stamp("1600-03-01T00:00:00Z"), -11670912000);
  EXPECT_LT(stamp("2024-12-31T23:59:59Z"), stamp("2025-01-01T00:00:00Z"));
  EXPECT_EQ(stamp("2025-02-30T00:00:00Z"), 0) << "an invalid date";
  EXPECT_EQ(YLDateTimeConverter().timestampFromDateTime(nullptr, 0), 0);
}

TEST(Util, TrimConcatURLAndDefer) {
  EXPECT_EQ(ylTrimAsString(" \t\n\v\f\ra b\r\n"), "a b");
  EXPECT_EQ(ylTrimAsString(" \t ") + ylTrimAsString(""), "");
  EXPECT_EQ(ylTrimAsString("\xc2\xa0x\xc2\xa0"), "\xc2\xa0x\xc2\xa0") << "U+00A0 is not ASCII";
  EXPECT_EQ(ylConcatURL({"https://h/", "/v1/", "//models"}), "https://h/v1/models");
  EXPECT_EQ(ylConcatURL({"https://h/base", "v1", "chat"}), "https://h/base/v1/chat");
  EXPECT_EQ(ylConcatURL({"", "https://h", "", "v1/"}), "https://h/v1/");
  EXPECT_EQ(ylConcatURL({"https://h/a//b"}), "https://h/a//b");
  EXPECT_EQ(ylConcatURL({}), "");

  // A deferred call runs once on every way out; an empty one is not called.
  int runs = 0;
  try {
    YLDefer once([&] { ++runs; });
    YLDefer empty{std::function<void()>()};
    YLDefer([&] { ++runs; });  // NOLINT(bugprone-unused-raii): runs at once
    EXPECT_EQ(runs, 1);
    throw 0;
  } catch (int) {
    EXPECT_EQ(runs, 2);
  }
}

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
