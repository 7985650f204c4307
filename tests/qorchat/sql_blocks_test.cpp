// Tests which fenced blocks of a reply qorchat offers to run, and what text each one holds.
#include "sql_blocks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qorchat::SqlBlocks;

std::vector<std::string> blocksOf(const std::string& reply) {
  const SqlBlocks blocks(reply);
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < blocks.size(); ++i)
    texts.push_back(blocks[i]);
  return texts;
}

TEST(SqlBlocks, TakesSqlAndUnlabelledBlocksInOrderAndSkipsOtherLanguages) {
  const std::string reply =
      "First:\n"
      "```sql\nSELECT 1;\n```\n"
      "Then in Python, which is not for the database:\n"
      "```python\nprint('SELECT 2')\n```\n"
      "```\nSELECT 3\nFROM t;\n```\n"
      "```SQLite title=\"x\"\nSELECT 4;\n```\n"
      "~~~postgresql\nSELECT 5;\n~~~\n"
      "```json\n{\"a\": 1}\n```\n"
      "```sql\n   \n```\n";  // blank: nothing to run
  EXPECT_EQ(blocksOf(reply),
            (std::vector<std::string>{"SELECT 1;", "SELECT 3\nFROM t;", "SELECT 4;", "SELECT 5;"}));
}

// Fences inside list items, longer fences around shorter ones, inline code that looks like a
// fence, CRLF line ends, and a block the reply never closes.
TEST(SqlBlocks, FollowsTheFencesAsMarkdownDoes) {
  EXPECT_EQ(blocksOf("1. Run:\n   ```sql\n   SELECT a\n     FROM t;\n   ```\n2. Done"),
            (std::vector<std::string>{"SELECT a\n  FROM t;"}));
  EXPECT_EQ(blocksOf("````sql\nSELECT '```';\n```\nSELECT 2;\n````\n"),
            (std::vector<std::string>{"SELECT '```';\n```\nSELECT 2;"}));
  EXPECT_EQ(blocksOf("Inline ```SELECT 1``` is no block.\n```sql\nSELECT 2;\n```"),
            (std::vector<std::string>{"SELECT 2;"}));
  EXPECT_EQ(blocksOf("```sql\r\nSELECT 1;\r\n```\r\n"), (std::vector<std::string>{"SELECT 1;"}));
  // A closing fence takes no language: "```sql" inside a block starts nothing new.
  EXPECT_EQ(blocksOf("```\nSELECT 1;\n```sql\n```\n"),
            (std::vector<std::string>{"SELECT 1;\n```sql"}));
  EXPECT_EQ(blocksOf("```sql\nSELECT 1;\nSELECT 2"),
            (std::vector<std::string>{"SELECT 1;\nSELECT 2"}));
  EXPECT_TRUE(SqlBlocks("No code at all; ``not a fence``.").empty());
}

}  // namespace
