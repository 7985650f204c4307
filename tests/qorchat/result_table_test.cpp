// Tests that a cell of the result table can break neither the table nor the terminal. Widths,
// NULL, cut cells and the rows left out are checked on a real run (QorchatRun).
#include "result_table.h"

#include <gtest/gtest.h>

namespace {

using qorchat::ResultTable;

// What would break the table or the terminal is replaced, and each replacement is one character;
// a cut is by characters, not bytes.
TEST(ResultTable, FittedMakesCellsSafe) {
  EXPECT_EQ(ResultTable::fitted("a\r\nb\nc\td", 40), "a↵b↵c d");
  EXPECT_EQ(ResultTable::fitted("\x1b[31mred", 40), "�[31mred");
  EXPECT_EQ(ResultTable::fitted("bad\xC3 \xE2\x82", 40), "bad� ��");
  EXPECT_EQ(ResultTable::fitted("\xED\xA0\x80", 40), "���");  // a UTF-16 surrogate
  EXPECT_EQ(ResultTable::fitted("exactly", 7), "exactly");
  EXPECT_EQ(ResultTable::fitted("longer!", 6), "longe…");
  EXPECT_EQ(ResultTable::fitted("日本語のテキスト", 4), "日本語…");
}

}  // namespace
