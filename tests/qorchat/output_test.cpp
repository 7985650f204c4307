// Tests how results are printed: the same small result in every format, the vertical view a
// narrow terminal gets, and the pager, run for real with a shell command standing in for it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "output_format.h"
#include "pager.h"
#include "result_table.h"

namespace {

using qorchat::OutputFormat;
using qorchat::OutputSettings;
using qorchat::StatementResult;

// NULL, an empty string, a number column, a value with a comma, quotes and a line break, wide
// characters, a control character.
StatementResult smallResult() {
  StatementResult result;
  result.columns = {"id", "name", "note"};
  result.rows = {
      {"1", "Zoë", std::nullopt}, {"10", "", "a, \"b\"\nc"}, {"-2.5", "日本", "x|y\x07"}};
  result.rowCount = 3;
  return result;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  text.replace(text.find(from), from.size(), to);
  return text;
}

TEST(OutputFormat, EachFormatPrintsTheSameResult) {
  const std::string table =
      "  id | name | note\n"
      "-----+------+---------\n"
      "   1 | Zoë  | <null>\n"
      "  10 |      | a, \"b\"↵c\n"
      "-2.5 | 日本 | x|y�\n"
      "(3 rows)\n";
  const std::string csv = "id,name,note\n1,Zoë,\n10,\"\",\"a, \"\"b\"\"\nc\"\n-2.5,日本,x|y\x07\n";
  const std::string json =
      "[\n{\"id\":1,\"name\":\"Zoë\",\"note\":null},\n"
      "{\"id\":10,\"name\":\"\",\"note\":\"a, \\\"b\\\"\\nc\"},\n"
      "{\"id\":-2.5,\"name\":\"日本\",\"note\":\"x|y\\u0007\"}\n]\n";
  const std::string markdown =
      "| id | name | note |\n| ---: | --- | --- |\n| 1 | Zoë | <null> |\n"
      "| 10 | | a, \"b\"<br>c |\n| -2.5 | 日本 | x\\|y\x07 |\n\n(3 rows)\n";
  const struct {
    OutputFormat format;
    std::size_t terminalColumns;
    bool color;
    std::string expected;
  } rows[] = {
      {OutputFormat::Table, 0, false, table},
      {OutputFormat::Table, 80, true, replaced(table, "<null>", "\x1b[2m<null>\x1b[0m")},
      {OutputFormat::Csv, 0, false, csv},
      {OutputFormat::Csv, 80, false, replaced(csv, "\x07", "␇")},  // made safe on a terminal
      {OutputFormat::Json, 0, false, json},
      {OutputFormat::Markdown, 0, false, markdown},
  };
  for (const auto& row : rows) {
    const OutputSettings settings{row.format, "<null>", row.terminalColumns, row.color};
    EXPECT_EQ(qorchat::formatResult(smallResult(), settings), row.expected)
        << static_cast<int>(row.format) << " at " << row.terminalColumns;
  }
}

TEST(OutputFormat, FooterSaysHowManyRowsThereWere) {
  StatementResult result = smallResult();
  EXPECT_EQ(qorchat::rowCountFooter(result), "(3 rows)");
  result.rowCount = 2500;
  EXPECT_EQ(qorchat::rowCountFooter(result), "(first 3 of 2500 rows)");
  result.allCounted = false;
  EXPECT_EQ(qorchat::rowCountFooter(result),
            "(first 3 of at least 2500 rows; the count was stopped)");
  EXPECT_EQ(qorchat::rowCountFooter(StatementResult{}), "(done)");
}

// A row too wide for 40 columns even with its cells cut becomes a vertical block, its long value
// wrapped; at 120 columns the row fits once the widest cell is cut.
TEST(ResultTable, VerticalWhenARowCannotFit) {
  StatementResult result;
  result.columns = {"id", "title", "author", "body"};
  std::string body;
  for (int i = 0; i < 10; ++i)
    body += "0123456789";
  result.rows = {{"7", "A title of some length here", "Someone Withalongname", body}};
  result.rowCount = 1;

  const qorchat::ResultTable narrow(result, {OutputFormat::Table, "<null>", 40, false});
  EXPECT_TRUE(narrow.vertical());
  EXPECT_EQ(narrow.render(), "-[ RECORD 1 ]" + std::string(27, '-') +
                                 "\n"
                                 "id     | 7\n"
                                 "title  | A title of some length here\n"
                                 "author | Someone Withalongname\n"
                                 "body   | " +
                                 body.substr(0, 31) + "\n       | " + body.substr(31, 31) +
                                 "\n       | " + body.substr(62, 31) + "\n       | " +
                                 body.substr(93) + "\n(1 row)\n");

  const qorchat::ResultTable wide(result, {OutputFormat::Table, "<null>", 120, false});
  EXPECT_FALSE(wide.vertical());
  EXPECT_EQ(wide.render(),
            "id | title                       | author                | body\n---+-" +
                std::string(27, '-') + "-+-" + std::string(21, '-') + "-+-" + std::string(61, '-') +
                "\n 7 | A title of some length here | Someone Withalongname | " +
                body.substr(0, 60) + "…\n(1 row)\n");
}

class Pager : public ::testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove(received_); }

  std::string received() const {
    std::ifstream in(received_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  const std::string received_ =
      ::testing::TempDir() + "qorchat-pager-" + std::to_string(::getpid()) + ".txt";
  const qorchat::TerminalSize terminal_{5, 20};
  std::ostringstream out_, err_;
};

TEST_F(Pager, TakesWhatDoesNotFitTheTerminal) {
  const qorchat::PagerSettings settings{terminal_, "cat > '" + received_ + "'"};
  const std::string tall = "1\n2\n3\n4\n5\n";
  const std::string wide = std::string(21, 'x') + "\n";
  const std::string fits = "1\n2\n\x1b[2m" + std::string(20, 'x') + "\x1b[0m\n";
  for (const std::string& text : {tall, wide}) {
    qorchat::showPaged(text, settings, out_, err_);
    EXPECT_EQ(received(), text);
  }
  std::filesystem::remove(received_);
  qorchat::showPaged(fits, settings, out_, err_);
  EXPECT_FALSE(std::filesystem::exists(received_));
  EXPECT_EQ(out_.str(), fits);
  // Not a terminal, or no pager: straight out.
  qorchat::showPaged(tall, {std::nullopt, settings.command}, out_, err_);
  qorchat::showPaged(tall, {terminal_, qorchat::pagerCommandFrom("cat")}, out_, err_);
  EXPECT_EQ(out_.str(), fits + tall + tall);
  EXPECT_EQ(err_.str(), "");
}

// A pager that reads one line of a text far larger than a pipe holds, then quits: qorchat lives.
TEST_F(Pager, QuittingEarlyHarmsNothing) {
  const std::string text(std::size_t{1} << 22, '\n');
  qorchat::showPaged(text, {terminal_, "head -c 1 > '" + received_ + "'"}, out_, err_);
  EXPECT_EQ(received(), "\n");
  EXPECT_EQ(err_.str(), "");
}

TEST_F(Pager, OneThatCannotStartFallsBackToPlainOutput) {
  const std::string tall = "1\n2\n3\n4\n5\n6\n";
  for (const std::string command : {"/nonexistent/pager -R", "'/nonexistent/pager' -R"}) {
    out_.str("");
    err_.str("");
    qorchat::showPaged(tall, {terminal_, command}, out_, err_);
    EXPECT_EQ(out_.str(), tall);
    const std::string warning = err_.str();
    EXPECT_EQ(warning.find("qorchat: warning: the pager \"" + command + "\" could not start"), 0u)
        << warning;
    EXPECT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1) << warning;
  }
}

}  // namespace
