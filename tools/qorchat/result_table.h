#pragma once
// Shows what a statement returned as an aligned text table for a terminal.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"

namespace qorchat {

class ResultTable {
 public:
  // Rows shown at most; the rest are counted on a line of their own.
  static constexpr std::size_t kMaxRows = 100;
  // The widest a cell is shown, in terminal columns; longer values end in an ellipsis.
  static constexpr std::size_t kMaxCellWidth = 40;

  explicit ResultTable(const StatementResult& result);

  // The header, a rule, the rows and a closing line that counts them, each ending in a line break.
  // A statement without columns gives its closing line alone.
  std::string render() const;

  // The text made safe for one table cell and cut to at most width terminal columns (wide
  // characters take two), ending in an ellipsis when it was cut. Line breaks become "↵", tabs
  // blanks, other control characters, bidirectional controls and bytes that are not UTF-8 "�".
  static std::string fitted(std::string_view text, std::size_t width);
  // The columns a fitted text takes on a terminal.
  static std::size_t widthOf(std::string_view text);

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> cells_;
  std::vector<std::size_t> widths_;
  std::size_t rowCount_;
  bool allCounted_;
};

}  // namespace qorchat
