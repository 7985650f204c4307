// A reply rendered block by block while it arrives.
#include <algorithm>

#include "markdown.h"
#include "text.h"

namespace qorchat {
namespace {

bool isBlankLine(std::string_view line) {
  return text::trimmed(line).empty();
}

// The fence a line opens or closes: its mark and length, or 0 when it is none. A fence line is
// set in by at most three blanks; an opening backtick fence has no backtick in its info.
std::pair<char, std::size_t> fenceOf(std::string_view line) {
  const std::size_t indent = std::min(line.find_first_not_of(' '), line.size());
  if (indent > 3) return {0, 0};
  line.remove_prefix(indent);
  if (line.empty() || (line.front() != '`' && line.front() != '~')) return {0, 0};
  const char mark = line.front();
  const std::size_t length = std::min(line.find_first_not_of(mark), line.size());
  if (length < 3) return {0, 0};
  if (mark == '`' && line.find('`', length) != std::string_view::npos) return {0, 0};
  return {mark, length};
}

// Whether a line after a blank one surely starts a new top-level block: it starts at the left
// margin (an indented line may continue a list item or a code block) and is not a list item
// (which may continue a list and change whether it is tight).
bool startsNewBlock(std::string_view line) {
  if (line.empty() || line.front() == ' ' || line.front() == '\t') return false;
  std::size_t marker = 0;
  if (line.front() == '-' || line.front() == '+' || line.front() == '*') {
    marker = 1;
  } else {
    while (marker < line.size() && marker < 9 && line[marker] >= '0' && line[marker] <= '9')
      ++marker;
    if (marker == 0 || marker == line.size() || (line[marker] != '.' && line[marker] != ')'))
      return true;
    ++marker;
  }
  const bool isItem =
      marker == line.size() || line[marker] == ' ' || line[marker] == '\t' || line[marker] == '\r';
  return !isItem;
}

}  // namespace

MarkdownStream::MarkdownStream(MarkdownStyle style) : style_(style) {}

std::string MarkdownStream::rendered(std::string_view blocks) {
  std::string text = renderMarkdown(blocks, style_);
  if (text.empty()) return text;
  if (wrote_) text.insert(0, "\n");
  wrote_ = true;
  return text;
}

std::string MarkdownStream::add(std::string_view fragment) {
  pending_ += fragment;
  std::string out;
  std::size_t end = 0;
  while ((end = pending_.find('\n', scanned_)) != std::string::npos) {
    const std::size_t start = scanned_;
    const std::string_view line(pending_.data() + start, end - start);
    scanned_ = end + 1;
    const auto [mark, length] = fenceOf(line);
    if (fenceMark_ != 0) {
      const bool closes = mark == fenceMark_ && length >= fenceLength_ &&
                          isBlankLine(line.substr(line.find(mark) + length));
      if (closes) fenceMark_ = 0;
      continue;
    }
    if (isBlankLine(line)) {
      blankSeen_ = textSeen_;
      continue;
    }
    if (blankSeen_ && startsNewBlock(line)) {
      out += rendered(std::string_view(pending_).substr(0, start));
      pending_.erase(0, start);
      scanned_ -= start;
    }
    blankSeen_ = false;
    textSeen_ = true;
    fenceMark_ = mark;
    fenceLength_ = length;
  }
  return out;
}

std::string MarkdownStream::finish() {
  std::string out = rendered(pending_);
  pending_.clear();
  scanned_ = 0;
  blankSeen_ = textSeen_ = false;
  fenceMark_ = 0;
  return out;
}

}  // namespace qorchat
