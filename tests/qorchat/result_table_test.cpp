// Tests the text table qorchat shows for a statement's rows: alignment by characters, cut cells,
// NULL, unsafe bytes and the count of rows left out.
#include "result_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qorchat::ResultTable;
using qorchat::StatementResult;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

TEST(ResultTable, AlignsColumnsByCharactersAndShowsNull) {
  StatementResult result;
  result.columns = {"id", "name", "note"};
  result.rows = {{"1", "Zoë", std::nullopt}, {"22", std::nullopt, "x"}};
  result.rowCount = 2;
  EXPECT_EQ(linesOf(ResultTable(result).render()), (std::vector<std::string>{
                                                       "id | name | note",
                                                       "---+------+-----",
                                                       "1  | Zoë  | NULL",
                                                       "22 | NULL | x",
                                                       "(2 rows)",
                                                   }));
}

TEST(ResultTable, CutsLongValuesByCodePointsAndCountsRowsLeftOut) {
  StatementResult result;
  result.columns = {"v"};
  // 50 two-byte characters: cut by bytes, the cell would be 20 characters wide or broken.
  std::string wide;
  for (int i = 0; i < 50; ++i)
    wide += "é";
  for (std::size_t i = 0; i < ResultTable::kMaxRows + 20; ++i)
    result.rows.push_back({i == 0 ? wide : std::string("a")});
  result.rowCount = 1234;
  const std::vector<std::string> lines = linesOf(ResultTable(result).render());
  ASSERT_EQ(lines.size(), 2 + ResultTable::kMaxRows + 1);
  std::string expected;
  for (std::size_t i = 0; i + 1 < ResultTable::kMaxCellWidth; ++i)
    expected += "é";
  expected += "…";
  EXPECT_EQ(lines[2], expected);
  EXPECT_EQ(lines[1], std::string(ResultTable::kMaxCellWidth, '-'));
  EXPECT_EQ(lines.back(), "(1134 more rows not shown; 1234 in all)");
}

// What would break the table or the terminal is replaced, and each replacement is one character.
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
