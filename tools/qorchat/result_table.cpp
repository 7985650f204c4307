// Renders a statement's columns and rows as an aligned table fitted to the terminal, or as
// vertical blocks when a row cannot fit; cells cut by display width.
#include "result_table.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

#include "text.h"

namespace qorchat {
namespace {

constexpr std::string_view kLineBreak = "\u21b5";    // ↵
constexpr std::string_view kReplacement = "\ufffd";  // �
constexpr std::string_view kEllipsis = "\u2026";     // …
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kPlain = "\x1b[0m";
constexpr std::size_t kWhole = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kSeparatorWidth = 3;  // " | "

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

// The value's lines, split where it breaks them (CR LF, LF or CR), each made safe.
std::vector<std::string> safeLines(std::string_view value) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t at = 0; at <= value.size(); ++at) {
    if (at < value.size() && value[at] != '\r' && value[at] != '\n') continue;
    lines.push_back(ResultTable::fitted(value.substr(start, at - start), kWhole));
    if (at + 1 < value.size() && value[at] == '\r' && value[at + 1] == '\n') ++at;
    start = at + 1;
  }
  return lines;
}

// A safe line in pieces of at most width columns; a character wider than width gets a piece of
// its own.
std::vector<std::string> wrapped(std::string_view line, std::size_t width) {
  std::vector<std::string> pieces(1);
  std::size_t used = 0;
  for (std::size_t at = 0; at < line.size();) {
    const std::size_t length = std::max<std::size_t>(text::utf8SequenceLength(line.substr(at)), 1);
    const std::size_t columns = text::columnsOf(text::utf8CodePoint(line.substr(at, length)));
    if (used > 0 && used + columns > width) {
      pieces.emplace_back();
      used = 0;
    }
    pieces.back().append(line.substr(at, length));
    used += columns;
    at += length;
  }
  return pieces;
}

std::string padding(std::size_t used, std::size_t width) {
  return std::string(width > used ? width - used : 0, ' ');
}

// The largest cap such that the widths, each cut to it, sum to at most room.
std::size_t capToFit(const std::vector<std::size_t>& widths, std::size_t room) {
  const auto sumCut = [&](std::size_t cap) {
    return std::accumulate(
        widths.begin(), widths.end(), std::size_t{0},
        [cap](std::size_t sum, std::size_t w) { return sum + std::min(w, cap); });
  };
  std::size_t low = 0;
  std::size_t high = *std::max_element(widths.begin(), widths.end());
  while (low < high) {
    const std::size_t middle = low + (high - low + 1) / 2;
    if (sumCut(middle) <= room) {
      low = middle;
    } else {
      high = middle - 1;
    }
  }
  return low;
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

ResultTable::ResultTable(const StatementResult& result, OutputSettings settings)
    : settings_(std::move(settings)),
      numeric_(numericColumns(result)),
      footer_(rowCountFooter(result)) {
  for (const std::string& column : result.columns)
    header_.push_back(fitted(column, kWhole));
  settings_.nullText = fitted(settings_.nullText, kWhole);
  for (const auto& values : result.rows) {
    std::vector<Cell>& row = rows_.emplace_back();
    for (std::size_t i = 0; i < header_.size(); ++i) {
      const bool present = i < values.size() && values[i].has_value();
      row.push_back(present ? Cell{safeLines(*values[i]), false} : Cell{{}, true});
    }
  }
}

std::string ResultTable::cellText(const Cell& cell) const {
  if (cell.null) return settings_.nullText;
  std::string joined;
  for (std::size_t i = 0; i < cell.lines.size(); ++i) {
    if (i > 0) joined += kLineBreak;
    joined += cell.lines[i];
  }
  return joined;
}

// A NULL is dimmed when colour is on, so that it differs from a value that reads the same.
std::string ResultTable::shown(const Cell& cell, std::string text) const {
  if (!cell.null || !settings_.color) return text;
  return std::string(kDim) + text + std::string(kPlain);
}

std::vector<std::size_t> ResultTable::naturalWidths() const {
  std::vector<std::size_t> widths;
  for (const std::string& name : header_)
    widths.push_back(widthOf(name));
  for (const std::vector<Cell>& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], widthOf(cellText(row[i])));
  }
  return widths;
}

// The widest each column may be so that a row fits the terminal; empty when it cannot fit
// without cutting a column below kMinCellWidth.
std::vector<std::size_t> ResultTable::fittedWidths() const {
  std::vector<std::size_t> widths = naturalWidths();
  const std::size_t columns = settings_.terminalColumns;
  if (columns == 0) return widths;
  const std::size_t separators = kSeparatorWidth * (widths.size() - 1);
  if (columns <= separators) return {};
  const std::size_t cap = capToFit(widths, columns - separators);
  for (std::size_t& width : widths) {
    if (width > cap && cap < kMinCellWidth) return {};
    width = std::min(width, cap);
  }
  return widths;
}

bool ResultTable::vertical() const {
  return !header_.empty() && fittedWidths().empty();
}

std::string ResultTable::render() const {
  if (header_.empty()) return footer_ + "\n";
  const std::vector<std::size_t> caps = fittedWidths();
  return caps.empty() ? renderVertical() : renderTable(caps);
}

// One line of the table: numbers to the right, text to the left, the last column of text not
// padded so that no line ends in blanks. values: the row's cells, for NULL; none for the header.
std::string ResultTable::alignedLine(const std::vector<std::string>& cells,
                                     const std::vector<std::size_t>& widths,
                                     const std::vector<Cell>* values) const {
  std::string line;
  for (std::size_t i = 0; i < widths.size(); ++i) {
    if (i > 0) line += " | ";
    const std::string pad = padding(widthOf(cells[i]), widths[i]);
    const std::string content = values == nullptr ? cells[i] : shown((*values)[i], cells[i]);
    if (numeric_[i]) {
      line += pad + content;
    } else {
      line += content + (i + 1 < widths.size() ? pad : "");
    }
  }
  return line + "\n";
}

std::string ResultTable::renderTable(const std::vector<std::size_t>& caps) const {
  // Cut first, since the widths are those of the cut cells.
  std::vector<std::vector<std::string>> lines{{}};
  for (std::size_t i = 0; i < header_.size(); ++i)
    lines[0].push_back(fitted(header_[i], caps[i]));
  for (const std::vector<Cell>& row : rows_) {
    std::vector<std::string>& line = lines.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i)
      line.push_back(fitted(cellText(row[i]), caps[i]));
  }
  std::vector<std::size_t> widths(header_.size(), 0);
  for (const std::vector<std::string>& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i)
      widths[i] = std::max(widths[i], widthOf(line[i]));
  }

  std::string text = alignedLine(lines[0], widths, nullptr);
  for (std::size_t i = 0; i < widths.size(); ++i)
    text += (i > 0 ? "-+-" : "") + std::string(widths[i], '-');
  text += '\n';
  for (std::size_t r = 1; r < lines.size(); ++r)
    text += alignedLine(lines[r], widths, &rows_[r - 1]);
  return text + footer_ + "\n";
}

std::vector<std::string> ResultTable::valuePieces(const Cell& cell, std::size_t width) const {
  std::vector<std::string> pieces;
  const std::vector<std::string> lines =
      cell.null ? std::vector<std::string>{settings_.nullText} : cell.lines;
  for (std::size_t l = 0; l < lines.size(); ++l) {
    const std::string line = lines[l] + (l + 1 < lines.size() ? std::string(kLineBreak) : "");
    for (std::string& piece : wrapped(line, width))
      pieces.push_back(std::move(piece));
  }
  return pieces;
}

std::string ResultTable::renderVertical() const {
  const std::size_t columns = settings_.terminalColumns;
  // Names take at most a third of the line; the values wrap in the rest.
  std::size_t nameWidth = 0;
  std::vector<std::string> names;
  for (const std::string& name : header_) {
    names.push_back(fitted(name, std::max<std::size_t>(columns / 3, 1)));
    nameWidth = std::max(nameWidth, widthOf(names.back()));
  }
  const std::size_t valueWidth =
      std::max(columns > nameWidth + kSeparatorWidth ? columns - nameWidth - kSeparatorWidth : 0,
               kMinCellWidth);

  std::vector<std::vector<std::vector<std::string>>> records;
  std::size_t widest = 0;
  for (const std::vector<Cell>& row : rows_) {
    auto& record = records.emplace_back();
    for (const Cell& cell : row) {
      record.push_back(valuePieces(cell, valueWidth));
      for (const std::string& piece : record.back())
        widest = std::max(widest, widthOf(piece));
    }
  }
  // The title line is as wide as the widest line of any record.
  const std::size_t ruleWidth = nameWidth + kSeparatorWidth + widest;

  std::string text;
  for (std::size_t r = 0; r < records.size(); ++r) {
    const std::string title = "-[ RECORD " + std::to_string(r + 1) + " ]";
    text +=
        title + std::string(ruleWidth > title.size() ? ruleWidth - title.size() : 0, '-') + "\n";
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::vector<std::string>& pieces = records[r][i];
      for (std::size_t p = 0; p < pieces.size(); ++p) {
        const std::string name = p == 0 ? names[i] : std::string();
        text += name + padding(widthOf(name), nameWidth) + " |";
        if (!pieces[p].empty()) text += " " + shown(rows_[r][i], pieces[p]);
        text += '\n';
      }
    }
  }
  return text + footer_ + "\n";
}

}  // namespace qorchat
