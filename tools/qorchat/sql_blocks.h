#pragma once
// Finds the SQL a model's reply proposes: its fenced code blocks, numbered in order.
//
// A block counts when its fence (``` or ~~~, three or more) carries no language or an SQL one:
// sql, sqlite, sqlite3, postgres, postgresql, pgsql (any case). Models often leave the label out,
// so an unlabelled block is taken too; one that is not SQL fails harmlessly, since statements run
// read-only. Blocks in another language (python, bash, json, text...) and blank blocks are not.
// Fences may be indented, as inside list items; that indentation is removed from the lines. A
// block the reply leaves open runs to the reply's end.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorchat {

// A line that opens or closes a fenced block: ``` or ~~~ (three or more), its indentation, and
// the info text after it (the label). A backtick in the info makes the line inline code instead.
struct CodeFence {
  char mark;
  std::size_t length;
  std::size_t indent;
  std::string_view info;
};
std::optional<CodeFence> codeFenceOf(std::string_view line);
// The spaces and tabs that start the line.
std::size_t indentation(std::string_view line);

class SqlBlocks {
 public:
  SqlBlocks() = default;
  explicit SqlBlocks(std::string_view reply);

  bool empty() const { return blocks_.empty(); }
  std::size_t size() const { return blocks_.size(); }
  // The block's text without its fences, its last line break removed. index < size().
  const std::string& operator[](std::size_t index) const { return blocks_[index]; }

 private:
  std::vector<std::string> blocks_;
};

}  // namespace qorchat
