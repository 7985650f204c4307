#include "yl/yl_datetime.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

TEST(DateTime, ReadsValidDatesAndOrdersThem) {
  const auto read = [](const std::string& text, const std::string& format = "%Y-%m-%dT%H:%M:%SZ") {
    return std::unique_ptr<YLDateTime>(YLDateTime::dateTimeFromString(text, format));
  };
  const auto stamp = [&](const std::string& text) {
    return YLDateTimeConverter().timestampFromDateTime(read(text).get(), 0);
  };
  EXPECT_TRUE(read("2000-2-29 23:59:60 100%", "%F %T 100%%")->isValid() &&
              read("20240229", "%Y%m%d")->isValid());
  for (const char* text :
       {"2023-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2025-04-31T00:00:00Z",
        "2025-13-01T00:00:00Z", "2025-00-10T00:00:00Z", "2025-01-00T00:00:00Z",
        "2025-01-01T24:00:00Z", "2025-01-01T00:60:00Z", "2025-01-01T00:00:61Z", "2025-02-19",
        "2025-02-19T00:00:00Zx", "2025-02-19T00:00:00", "20a5-02-19T00:00:00Z",
        "25-02-19T00:00:00Z", "2025-02-19 00:00:00Z", "", "2025-002-19T00:00:00Z"}) {
    EXPECT_FALSE(read(text)->isValid()) << text;
  }
  EXPECT_FALSE(read("2025", "%Y%Q")->isValid() || read("2025%", "%Y%")->isValid() ||
               read("x", "")->isValid());

  EXPECT_EQ(stamp("2025-02-19T07:08:09Z"), 1739948889);
  EXPECT_EQ(stamp("2000-02-29T12:34:56Z"), 951827696);
  EXPECT_EQ(stamp("1969-12-31T23:59:59Z"), -1);
  EXPECT_EQ(stamp("1600-03-01T00:00:00Z"), -11670912000);
  EXPECT_LT(stamp("2024-12-31T23:59:59Z"), stamp("2025-01-01T00:00:00Z"));
  EXPECT_EQ(stamp("2025-02-30T00:00:00Z"), 0) << "an invalid date";
  EXPECT_EQ(YLDateTimeConverter().timestampFromDateTime(nullptr, 0), 0);
}

}  // namespace
