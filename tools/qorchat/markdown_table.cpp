// The tables of a rendered reply: columns aligned by display width.
#include <algorithm>

#include "markdown_layout.h"

namespace qorchat::markdown {
namespace {

// A cell on one line, bold in the header row.
Pieces cellLine(const Pieces& cell, bool header) {
  Pieces line;
  for (const Pieces& part : wrapped(cell, 0)) {
    if (!line.empty()) line.push_back({Piece::Kind::kSpace, " ", 0});
    line.insert(line.end(), part.begin(), part.end());
  }
  if (header)
    for (Piece& piece : line)
      piece.style |= kBold;
  return line;
}

std::string rowLine(const std::vector<Pieces>& cells, const std::vector<std::size_t>& widths,
                    const std::vector<Align>& aligns, bool color) {
  std::string line;
  for (std::size_t column = 0; column < cells.size(); ++column) {
    const std::size_t room = widths[column] - displayWidthOf(cells[column]);
    std::size_t before = 0;
    if (aligns[column] == Align::kRight) before = room;
    if (aligns[column] == Align::kCenter) before = room / 2;
    if (column > 0) line += " │ ";
    line += std::string(before, ' ') + styledText(cells[column], color);
    // The last column has no blanks at the line's end.
    if (column + 1 < cells.size()) line += std::string(room - before, ' ');
  }
  return line;
}

}  // namespace

std::vector<std::string> tableLines(const std::vector<std::vector<Pieces>>& rows,
                                    const std::vector<Align>& aligns, bool color) {
  std::vector<std::vector<Pieces>> cells;
  std::vector<std::size_t> widths(aligns.size(), 0);
  for (const auto& row : rows) {
    auto& line = cells.emplace_back();
    for (std::size_t column = 0; column < row.size() && column < widths.size(); ++column) {
      line.push_back(cellLine(row[column], cells.size() == 1));
      widths[column] = std::max(widths[column], displayWidthOf(line.back()));
    }
  }
  std::vector<std::string> lines;
  for (const auto& row : cells) {
    lines.push_back(rowLine(row, widths, aligns, color));
    if (lines.size() > 1) continue;
    std::string rule;
    for (std::size_t column = 0; column < widths.size(); ++column) {
      if (column > 0) rule += "─┼─";
      for (std::size_t i = 0; i < widths[column]; ++i)
        rule += "─";
    }
    lines.push_back(rule);
  }
  return lines;
}

}  // namespace qorchat::markdown
