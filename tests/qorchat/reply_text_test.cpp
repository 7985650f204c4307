// Tests what qorchat takes from a reply and how outside text reaches the terminal: the SQL blocks
// it offers to run, table cells, and the one function that makes any outside text safe.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "display.h"
#include "result_table.h"
#include "sql_blocks.h"

namespace {

using qorchat::ResultTable;
using qorchat::SqlBlocks;
using Blocks = std::vector<std::string>;
using namespace std::string_literals;

// Which fenced blocks count, in order, and their text: SQL and unlabelled ones, not other
// languages or blank ones; fences inside list items, longer fences around shorter ones, inline
// code that looks like a fence, CRLF, a closing fence that takes no language, a block never
// closed.
TEST(SqlBlocks, FollowTheFencesAsMarkdownDoes) {
  const struct {
    std::string reply;
    Blocks blocks;
  } rows[] = {
      {"```sql\nSELECT 1;\n```\n```python\nprint('SELECT 2')\n```\n```\nSELECT 3\nFROM t;\n```\n"
       "```SQLite title=\"x\"\nSELECT 4;\n```\n~~~postgresql\nSELECT 5;\n~~~\n"
       "```json\n{\"a\": 1}\n```\n```sql\n   \n```\n",
       {"SELECT 1;", "SELECT 3\nFROM t;", "SELECT 4;", "SELECT 5;"}},
      {"1. Run:\n   ```sql\n   SELECT a\n     FROM t;\n   ```\n2. Done", {"SELECT a\n  FROM t;"}},
      {"````sql\nSELECT '```';\n```\nSELECT 2;\n````\n", {"SELECT '```';\n```\nSELECT 2;"}},
      {"Inline ```SELECT 1``` is no block.\n```sql\nSELECT 2;\n```", {"SELECT 2;"}},
      {"```sql\r\nSELECT 1;\r\n```\r\n", {"SELECT 1;"}},
      {"```\nSELECT 1;\n```sql\n```\n", {"SELECT 1;\n```sql"}},
      {"```sql\nSELECT 1;\nSELECT 2", {"SELECT 1;\nSELECT 2"}},
      {"No code at all; ``not a fence``.", {}},
  };
  for (const auto& row : rows) {
    const SqlBlocks blocks(row.reply);
    Blocks texts;
    for (std::size_t i = 0; i < blocks.size(); ++i)
      texts.push_back(blocks[i]);
    EXPECT_EQ(texts, row.blocks) << row.reply;
  }
}

// A cell can break neither the table nor the terminal; a cut is by characters, not bytes.
TEST(ResultTable, FittedMakesCellsSafe) {
  const struct {
    std::string value;
    std::size_t width;
    std::string cell;
  } rows[] = {
      {"a\r\nb\nc\td", 40, "a↵b↵c d"},
      {"\x1b[31mred", 40, "�[31mred"},
      {"bad\xC3 \xE2\x82", 40, "bad� ��"},
      {"\xED\xA0\x80", 40, "���"},  // a UTF-16 surrogate
      {"exactly", 7, "exactly"},
      {"longer!", 6, "longe…"},
      {"日本語のテキスト", 4, "日…"},  // wide characters take two columns
      {"日本語", 6, "日本語"},
      {"a\xe2\x80\xae"
       "b\xc2\x9b",
       40, "a�b�"},  // a bidirectional override, a C1 control
  };
  for (const auto& row : rows)
    EXPECT_EQ(ResultTable::fitted(row.value, row.width), row.cell) << row.value;
}

// Escape sequences that set a window title or write the clipboard, other controls, C1 controls,
// bidirectional overrides and broken UTF-8 never pass; what was removed shows.
TEST(TerminalSafe, NoControlFromOutsidePasses) {
  const struct {
    std::string outside;
    std::string shown;
  } rows[] = {
      {"plain text, ünïcode 日本\n\tindented", "plain text, ünïcode 日本\n\tindented"},
      {"\x1b]0;title\x07", "␛]0;title␇"},
      {"\x1b]52;c;aGk=\x1b\\", "␛]52;c;aGk=␛\\"},
      {"bell\x07 nul\x00 cr\r del\x7f"s, "bell␇ nul␀ cr␍ del␡"},
      {"c1 \xc2\x9b"
       "31m and \xc2\x85",
       "c1 �31m and �"},
      {"bidi \xe2\x80\xae"
       "evil\xe2\x80\xac \xe2\x81\xa6x\xe2\x81\xa9",
       "bidi �evil� �x�"},
      {"broken \xff\xc3", "broken ��"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(qorchat::terminalSafe(row.outside), row.shown) << row.outside;
}

// The key is masked before a long failure is cut, so no run of it shows.
TEST(Display, MasksSecretsBeforeCutting) {
  std::ostringstream out, err;
  qorchat::Display display(out, err);
  const std::string key = "sk-" + std::string(500, 'k');
  display.addSecret(key);
  const std::string line = display.failureLine("{\"error\": \"bad key " + key + "\"}\nmore");
  EXPECT_EQ(line.find("kkkk"), std::string::npos) << line;
  EXPECT_NE(line.find("bad key ****"), std::string::npos) << line;
  EXPECT_EQ(display.failureLine(""), "the service gave no reason");
}

}  // namespace
