// The query loop's texts: the instruction, the sql-run and tables blocks of a reply, the results
// turn within its caps, the tables and repair turns, and quoted values replaced by placeholders.
#include "query_loop.h"

#include <algorithm>
#include <array>
#include <optional>

#include "sql_blocks.h"
#include "text.h"

namespace qorchat {
namespace {

constexpr std::string_view kRunLabel = "sql-run";
constexpr std::string_view kTablesLabel = "tables";
constexpr std::string_view kValuePlaceholder = "<value>";
// What the closing sentences of a turn take, kept free below the byte cap.
constexpr std::size_t kClosingBytes = 200;
// An error text is cut at this many value lengths: a database's message is a sentence or two.
constexpr std::size_t kErrorValues = 4;

bool isLabel(std::string_view info, std::string_view label) {
  const std::string_view word = info.substr(0, std::min(info.size(), info.find_first_of(" \t{")));
  return text::equalsIgnoringCase(word, label);
}

// A block of one label (sql-run, tables): where its label stands in the reply, and its text.
struct RunBlock {
  std::size_t labelAt;
  std::string sql;
};

std::vector<RunBlock> labelledBlocks(std::string_view reply, std::string_view label) {
  std::vector<RunBlock> found;
  std::optional<CodeFence> open;
  std::optional<std::size_t> labelAt;  // set while the open block is a sql-run one
  std::string block;
  const auto finish = [&] {
    while (!block.empty() && (block.back() == '\n' || block.back() == '\r'))
      block.pop_back();
    if (labelAt && !text::trimmed(block).empty()) found.push_back({*labelAt, std::move(block)});
    block.clear();
    open.reset();
  };
  for (std::size_t start = 0; start < reply.size();) {
    const std::size_t end = std::min(reply.find('\n', start), reply.size());
    std::string_view line = reply.substr(start, end - start);
    const std::size_t lineAt = start;
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::optional<CodeFence> fence = codeFenceOf(line);
    if (!open) {
      open = fence;
      labelAt.reset();
      if (fence && isLabel(fence->info, label))
        labelAt = lineAt + static_cast<std::size_t>(fence->info.data() - line.data());
      continue;
    }
    if (fence && fence->mark == open->mark && fence->length >= open->length &&
        fence->info.empty()) {
      finish();
      continue;
    }
    if (!labelAt) continue;
    line.remove_prefix(std::min(open->indent, indentation(line)));
    block.append(line);
    block += '\n';
  }
  if (open) finish();
  return found;
}

// Appends a value for one cell of the compact table: cut at the cap in characters, and the
// characters that would break the table written as escapes.
void appendCell(std::string& out, const std::optional<std::string>& value,
                std::size_t maxCharacters) {
  if (!value) {
    out += "NULL";
    return;
  }
  const std::string_view whole = *value;
  std::size_t characters = 0;
  for (std::size_t at = 0; at < whole.size(); ++characters) {
    if (characters == maxCharacters) {
      out += "…";
      return;
    }
    // ASCII is the common case: one byte, no look at a sequence.
    const std::size_t length =
        static_cast<unsigned char>(whole[at]) < 0x80
            ? 1
            : std::max<std::size_t>(1, text::utf8SequenceLength(whole.substr(at)));
    switch (whole[at]) {
      case '|':
        out += "\\|";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out.append(whole.substr(at, length));
    }
    at += length;
  }
}

std::string cell(const std::optional<std::string>& value, std::size_t maxCharacters) {
  std::string out;
  appendCell(out, value, maxCharacters);
  return out;
}

std::string rowsWord(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " row" : " rows");
}

// "3 rows:", "1000 rows; the first 50:", "at least 180 rows (the count was stopped); the first 50:"
std::string countLine(const StatementResult& result, std::size_t sent) {
  std::string line = result.allCounted
                         ? rowsWord(result.rowCount)
                         : "at least " + rowsWord(result.rowCount) + " (the count was stopped)";
  if (sent < result.rowCount) line += "; the first " + std::to_string(sent);
  return line + ":\n";
}

// Appends one result's table; false when the byte cap stopped it.
bool appendTable(ResultsTurn& turn, const StatementResult& result, const ResultCaps& caps) {
  const std::size_t sent = std::min({result.rows.size(), caps.rows, result.rowCount});
  turn.text += countLine(result, sent);
  std::string header;
  for (const std::string& column : result.columns)
    header += (header.empty() ? "" : "|") + cell(column, caps.valueCharacters);
  turn.text += header + "\n";
  std::string line;
  for (std::size_t r = 0; r < sent; ++r) {
    line.clear();
    for (std::size_t c = 0; c < result.rows[r].size(); ++c) {
      if (c > 0) line += '|';
      appendCell(line, result.rows[r][c], caps.valueCharacters);
    }
    if (turn.text.size() + line.size() + 1 + kClosingBytes > caps.bytes) {
      turn.text += "(the rest is left out: results are capped at " + std::to_string(caps.bytes) +
                   " bytes)\n";
      return false;
    }
    turn.text.append(line).append(1, '\n');
    ++turn.rows;
  }
  return true;
}

// The end of a quoted value that starts at open (the quote), a doubled quote read as one; the
// text's end when it is never closed.
std::size_t quoteEnd(std::string_view text, std::size_t open) {
  const char quote = text[open];
  std::size_t at = open + 1;
  while (at < text.size()) {
    if (text[at] == quote && at + 1 < text.size() && text[at + 1] == quote) {
      at += 2;
    } else if (text[at] == quote) {
      return at;
    } else {
      ++at;
    }
  }
  return text.size();
}

// The parenthesised values of PostgreSQL's details, "Key (email)=(a@b.c) already exists." and
// "Failing row contains (1, secret).": from the opening to the line's last ")".
void replaceDetailValues(std::string& text) {
  static constexpr std::array<std::string_view, 2> kOpenings{")=(", "contains ("};
  for (const std::string_view opening : kOpenings) {
    for (std::size_t at = text.find(opening); at != std::string::npos;
         at = text.find(opening, at + opening.size())) {
      const std::size_t from = at + opening.size();
      const std::size_t lineEnd = std::min(text.find('\n', from), text.size());
      const std::size_t close = text.rfind(')', lineEnd == 0 ? 0 : lineEnd - 1);
      if (close == std::string::npos || close < from) continue;
      text.replace(from, close - from, kValuePlaceholder);
    }
  }
}

std::string commaSeparated(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

std::string dataAccessInstruction(const ResultCaps& caps) {
  return "You can look at the data yourself before you answer. To run read-only queries, reply "
         "with one or more fenced blocks labelled sql-run, like\n```sql-run\nSELECT count(*) "
         "FROM orders;\n```\nand wait: qorchat runs them and sends the results as the next "
         "message, each headed by its query, as a table (columns separated by |, NULL for no "
         "value) with its row count. At most " +
         std::to_string(caps.rows) + " rows of each result are sent, values are cut at " +
         std::to_string(caps.valueCharacters) + " characters and all results at " +
         std::to_string(caps.bytes) +
         " bytes; the true row count is always given, so use aggregates rather than reading many "
         "rows. If a query fails, the database's error comes back: correct the query. Ask for "
         "queries only when the answer needs the data. When you have what you need, answer in "
         "words, without sql-run blocks; SQL you propose for the user goes in ```sql blocks.";
}

std::vector<std::string> runRequests(std::string_view reply) {
  std::vector<std::string> requests;
  for (RunBlock& block : labelledBlocks(reply, kRunLabel))
    requests.push_back(std::move(block.sql));
  return requests;
}

std::string runBlocksAsSql(std::string_view reply) {
  std::string relabelled(reply);
  const std::vector<RunBlock> blocks = labelledBlocks(reply, kRunLabel);
  for (auto block = blocks.rbegin(); block != blocks.rend(); ++block)
    relabelled.replace(block->labelAt, kRunLabel.size(), "sql");
  return relabelled;
}

ResultsTurn resultsTurn(const std::vector<StatementResult>& results, const ResultCaps& caps,
                        bool lastRound) {
  ResultsTurn turn;
  turn.text = "Results of your sql-run queries, run read-only by qorchat:\n";
  for (std::size_t i = 0; i < results.size(); ++i) {
    const StatementResult& result = results[i];
    turn.text += "\nQuery " + std::to_string(i + 1) + ": " + text::oneLine(result.statement) + "\n";
    if (!result.status) {
      ++turn.errors;
      turn.text +=
          "Error: " +
          cell(text::joinedLines(result.status.message()), caps.valueCharacters * kErrorValues) +
          "\n";
    } else if (result.columns.empty()) {
      turn.text += "Done; it returns no rows.\n";
    } else if (!appendTable(turn, result, caps)) {
      if (i + 1 < results.size())
        turn.text += "(the results of the " + std::to_string(results.size() - i - 1) +
                     " queries after it are left out too)\n";
      break;
    }
  }
  turn.text += lastRound ? "\nThat was the last round of queries for this question: answer now, "
                           "in words, from what you have."
                         : "\nAnswer in words from these results, or ask for more with sql-run "
                           "blocks (correct a failed query first).";
  return turn;
}

std::vector<std::string> tableRequests(std::string_view reply) {
  std::vector<std::string> names;
  for (const RunBlock& block : labelledBlocks(reply, kTablesLabel)) {
    std::string_view rest = block.sql;
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find_first_of(",\n"), rest.size());
      std::string_view name = text::trimmed(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
      if (text::startsWith(name, "- ") || text::startsWith(name, "* "))
        name = text::trimmed(name.substr(2));
      while (!name.empty() && name.back() == ';')
        name.remove_suffix(1);
      if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
        names.emplace_back(name);
    }
  }
  return names;
}

std::string tablesTurn(const TablesOutcome& outcome, bool lastRound) {
  std::string turn = "qorchat has sent the database structure again";
  if (!outcome.added.empty()) turn += "; it now lists " + commaSeparated(outcome.added);
  turn += ".\n";
  if (!outcome.leftOut.empty()) {
    turn += "Left out, past the structure's size budget: " + commaSeparated(outcome.leftOut) +
            "; ask for fewer tables at a time.\n";
  }
  if (!outcome.unknown.empty()) {
    turn += "The database has no table or view named " + commaSeparated(outcome.unknown) +
            "; the table_names instruction lists every name it has.\n";
  }
  turn += lastRound ? "That was the last round for this question: answer now, in words, from "
                      "what you have."
                    : "Answer the question now, or ask for other tables the same way.";
  return turn;
}

std::string repairTurn(const std::vector<FailedCheck>& failed, std::string_view engine) {
  std::string turn = "qorchat checked the SQL of your answer against the " + std::string(engine) +
                     " database without running it, and " +
                     (failed.size() == 1 ? std::string("one block fails")
                                         : std::to_string(failed.size()) + " blocks fail") +
                     ":\n";
  for (const FailedCheck& each : failed) {
    turn += "\nBlock " + std::to_string(each.block) + ":\n```sql\n" + each.sql +
            "\n```\nThe database's error: " + text::oneLine(each.error) + "\n";
  }
  return turn +
         "\nCorrect the SQL against the database structure and give your answer again, with "
         "every SQL block it proposes in a ```sql block.";
}

std::string withoutQuotedValues(std::string_view original) {
  std::string text(original);
  replaceDetailValues(text);
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c != '\'' && c != '"') {
      out += c;
      ++at;
      continue;
    }
    const std::size_t end = quoteEnd(text, at);
    out.append(1, c).append(kValuePlaceholder);
    if (end < text.size()) out += c;
    at = end + 1;
  }
  return out;
}

}  // namespace qorchat
