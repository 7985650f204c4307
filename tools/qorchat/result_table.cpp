// Renders a statement's columns and rows as an aligned table, cells cut by characters.
#include "result_table.h"

#include <algorithm>

namespace qorchat {
namespace {

constexpr std::string_view kLineBreak = "\u21b5";    // ↵
constexpr std::string_view kReplacement = "\ufffd";  // �
constexpr std::string_view kEllipsis = "\u2026";     // …
constexpr std::string_view kNull = "NULL";

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// The length of the well-formed UTF-8 sequence at the start of text; 0 when it is not one.
std::size_t sequenceLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  std::size_t length = 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(static_cast<unsigned char>(text[i]))) return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
    return 0;
  }
  return length;
}

// The length of the character at the start of text as a cell shows it; 0 for a control character
// or a byte that starts no well-formed sequence, which both show as the replacement character.
std::size_t printableLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x20 || lead == 0x7F) return 0;
  return sequenceLength(text);
}

std::string padded(const std::string& cell, std::size_t width) {
  const std::size_t used = ResultTable::widthOf(cell);
  return cell + std::string(width > used ? width - used : 0, ' ');
}

}  // namespace

std::size_t ResultTable::widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return !isContinuation(static_cast<unsigned char>(c));
  }));
}

std::string ResultTable::fitted(std::string_view text, std::size_t width) {
  std::string out;
  std::size_t characters = 0;
  std::size_t beforeLast = 0;  // the length of out before its last character
  std::size_t at = 0;
  while (at < text.size()) {
    if (characters == width) {
      // One more character follows: the last one shown gives way to the ellipsis.
      if (width == 0) return {};
      out.resize(beforeLast);
      out += kEllipsis;
      return out;
    }
    const std::size_t start = out.size();
    const char c = text[at];
    if (c == '\r' || c == '\n') {
      out += kLineBreak;
      at += (c == '\r' && at + 1 < text.size() && text[at + 1] == '\n') ? 2 : 1;
    } else if (c == '\t') {
      out += ' ';
      ++at;
    } else if (const std::size_t length = printableLength(text.substr(at)); length == 0) {
      out += kReplacement;
      ++at;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
    beforeLast = start;
    ++characters;
  }
  return out;
}

ResultTable::ResultTable(const StatementResult& result) : rowCount_(result.rowCount) {
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
