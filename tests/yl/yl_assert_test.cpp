#include "yl/yl_assert.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> reports;
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
  EXPECT_EQ(reports, std::vector<std::string>{"evaluated == 2 @ there"});
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

}  // namespace
