// Renders a statement's columns and rows as an aligned table, cells cut by characters.
#include "result_table.h"

#include <algorithm>

#include "text.h"

namespace qorchat {
namespace {

constexpr std::string_view kLineBreak = "\u21b5";    // ↵
constexpr std::string_view kReplacement = "\ufffd";  // �
constexpr std::string_view kEllipsis = "\u2026";     // …
constexpr std::string_view kNull = "NULL";

// One character of a cell as it is shown, and the columns it takes.
struct Shown {
  std::string_view text;
  std::size_t columns;
  std::size_t consumed;  // bytes of the value it stands for
};

bool isHidden(char32_t c) {
  // C0 and C1 controls, DEL, bidirectional overrides and isolates.
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

// The character at the start of text, as a cell shows it: line breaks as "↵", a tab as a blank,
// controls and bytes that start no well-formed sequence as "�".
Shown shownAt(std::string_view text) {
  const char c = text[0];
  if (c == '\r' || c == '\n') {
    return {kLineBreak, 1, (c == '\r' && text.size() > 1 && text[1] == '\n') ? 2u : 1u};
  }
  if (c == '\t') return {" ", 1, 1};
  const std::size_t length = text::utf8SequenceLength(text);
  if (length == 0) return {kReplacement, 1, 1};
  const char32_t codePoint = text::utf8CodePoint(text.substr(0, length));
  if (isHidden(codePoint)) return {kReplacement, 1, length};
  return {text.substr(0, length), text::columnsOf(codePoint), length};
}

std::string padded(const std::string& cell, std::size_t width) {
  const std::size_t used = ResultTable::widthOf(cell);
  return cell + std::string(width > used ? width - used : 0, ' ');
}

}  // namespace

std::size_t ResultTable::widthOf(std::string_view text) {
  return text::displayWidth(text);
}

std::string ResultTable::fitted(std::string_view text, std::size_t width) {
  std::string out;
  std::size_t used = 0;
  // Where out stood, and its width, while the ellipsis still fitted after it.
  std::size_t cutAt = 0;
  std::size_t at = 0;
  while (at < text.size()) {
    const Shown shown = shownAt(text.substr(at));
    if (used + shown.columns > width) {
      // It does not fit: the cell ends in an ellipsis where one still fits.
      if (width == 0) return {};
      out.resize(cutAt);
      out += kEllipsis;
      return out;
    }
    out.append(shown.text);
    used += shown.columns;
    at += shown.consumed;
    if (used + 1 <= width) cutAt = out.size();
  }
  return out;
}

ResultTable::ResultTable(const StatementResult& result)
    : rowCount_(result.rowCount), allCounted_(result.allCounted) {
  for (const std::string& column : result.columns)
    header_.push_back(fitted(column, kMaxCellWidth));
  widths_.resize(header_.size());
  for (std::size_t i = 0; i < header_.size(); ++i)
    widths_[i] = widthOf(header_[i]);

  const std::size_t shown = std::min(result.rows.size(), kMaxRows);
  for (std::size_t r = 0; r < shown; ++r) {
    std::vector<std::string>& row = cells_.emplace_back();
    for (std::size_t i = 0; i < header_.size(); ++i) {
      const bool present = i < result.rows[r].size() && result.rows[r][i].has_value();
      row.push_back(present ? fitted(*result.rows[r][i], kMaxCellWidth) : std::string(kNull));
      widths_[i] = std::max(widths_[i], widthOf(row.back()));
    }
  }
}

std::string ResultTable::render() const {
  std::string text;
  if (!header_.empty()) {
    // The last column is not padded, so that no line ends in blanks.
    const auto appendRow = [&](const std::vector<std::string>& cells) {
      for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i > 0) text += " | ";
        text += i + 1 < cells.size() ? padded(cells[i], widths_[i]) : cells[i];
      }
      text += '\n';
    };
    appendRow(header_);
    for (std::size_t i = 0; i < widths_.size(); ++i) {
      if (i > 0) text += "-+-";
      text += std::string(widths_[i], '-');
    }
    text += '\n';
    for (const std::vector<std::string>& row : cells_)
      appendRow(row);
  }

  if (header_.empty()) {
    text += "(done)\n";
  } else if (!allCounted_) {
    text += "(" + std::to_string(cells_.size()) + (cells_.size() == 1 ? " row" : " rows") +
            " shown; more were coming when the run was stopped, and the rest was not counted)\n";
  } else if (rowCount_ > cells_.size()) {
    const std::size_t more = rowCount_ - cells_.size();
    text += "(" + std::to_string(more) + (more == 1 ? " more row" : " more rows") + " not shown; " +
            std::to_string(rowCount_) + " in all)\n";
  } else {
    text += "(" + std::to_string(rowCount_) + (rowCount_ == 1 ? " row)\n" : " rows)\n");
  }
  return text;
}

}  // namespace qorchat
