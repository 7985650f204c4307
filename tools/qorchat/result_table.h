#pragma once
// Shows what a statement returned as an aligned text table for a terminal: numbers to the right,
// NULL marked, cells cut to fit the terminal, and one block a row (a vertical view) when even cut
// cells cannot make a row fit.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"
#include "output_format.h"

namespace qorchat {

class ResultTable {
 public:
  // Rows a run keeps by default; the rest are counted.
  static constexpr std::size_t kMaxRows = 100;
  // Cells are cut to fit the terminal, but none below this width: a row that does not fit then
  // is shown as a vertical block instead.
  static constexpr std::size_t kMinCellWidth = 12;

  explicit ResultTable(const StatementResult& result, OutputSettings settings = {});

  // The header, a rule, the rows and rowCountFooter, or the vertical blocks and the footer; each
  // line ends in a line break. A statement without columns gives its footer alone.
  std::string render() const;
  // True when render shows the vertical view.
  bool vertical() const;

  // The text made safe for one table cell and cut to at most width terminal columns (wide
  // characters take two), ending in an ellipsis when it was cut. Line breaks become "↵", tabs
  // blanks, other control characters, bidirectional controls and bytes that are not UTF-8 "�".
  static std::string fitted(std::string_view text, std::size_t width);
  // The columns a fitted text takes on a terminal.
  static std::size_t widthOf(std::string_view text);

 private:
  // A value as shown: its lines made safe (split where the value breaks its lines), or NULL.
  struct Cell {
    std::vector<std::string> lines;
    bool null = false;
  };

  std::string cellText(const Cell& cell) const;
  std::string shown(const Cell& cell, std::string text) const;
  std::vector<std::size_t> naturalWidths() const;
  std::vector<std::size_t> fittedWidths() const;
  std::string alignedLine(const std::vector<std::string>& cells,
                          const std::vector<std::size_t>& widths,
                          const std::vector<Cell>* values) const;
  std::string renderTable(const std::vector<std::size_t>& caps) const;
  std::vector<std::string> valuePieces(const Cell& cell, std::size_t width) const;
  std::string renderVertical() const;

  OutputSettings settings_;
  std::vector<std::string> header_;
  std::vector<std::vector<Cell>> rows_;
  std::vector<bool> numeric_;
  std::string footer_;
};

}  // namespace qorchat
