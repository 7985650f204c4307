#include "yl/yl_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

TEST(Util, TrimConcatURLAndDefer) {
  EXPECT_EQ(ylTrimAsString(" \t\n\v\f\ra b\r\n"), "a b");
  EXPECT_EQ(ylTrimAsString(" \t "), "");
  EXPECT_EQ(ylTrimAsString(""), "");
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

}  // namespace
