// Completion candidates for the line editor, and their listing.
#include "completion.h"

#include <algorithm>

#include "display.h"
#include "text.h"

namespace qorchat {
namespace {

// How far back a name may begin: longer tails of a line are never names.
constexpr std::size_t kLongestName = 128;

bool isWordByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 || byte == '_' || (byte >= '0' && byte <= '9') ||
         ((byte | 0x20) >= 'a' && (byte | 0x20) <= 'z');
}

bool startsIgnoringCase(std::string_view text, std::string_view start) {
  return text.size() >= start.size() &&
         text::equalsIgnoringCase(text.substr(0, start.size()), start);
}

std::vector<std::string> startingWith(std::string_view typed, const std::vector<std::string>& all) {
  std::vector<std::string> found;
  for (const std::string& candidate : all) {
    if (startsIgnoringCase(candidate, typed)) found.push_back(candidate);
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

}  // namespace

CompletionWords completionWords(const Structure& structure) {
  CompletionWords words;
  for (const Catalog& catalog : structure.catalogs) {
    for (const Schema& schema : catalog.schemas) {
      if (!schema.name.empty()) words.all.push_back(schema.name);
      for (const std::vector<Relation>& relations : schema.relations) {
        for (const Relation& relation : relations) {
          words.all.push_back(relation.name);
          words.relations.push_back(relation.name);
          for (const Column& column : relation.columns)
            words.all.push_back(column.name);
        }
      }
    }
  }
  return words;
}

Completion completeAt(std::string_view beforeCursor, const std::vector<std::string>& commands,
                      const std::vector<std::string>& names) {
  const bool commandWord = !beforeCursor.empty() && beforeCursor.front() == '/' &&
                           std::none_of(beforeCursor.begin(), beforeCursor.end(), text::isSpace);
  if (commandWord) return {0, startingWith(beforeCursor, commands)};
  const std::size_t end = beforeCursor.size();
  for (std::size_t from = end > kLongestName ? end - kLongestName : 0; from < end; ++from) {
    if (from > 0 && isWordByte(beforeCursor[from - 1])) continue;
    if (text::utf8SequenceLength(beforeCursor.substr(from)) == 0) continue;  // inside a character
    Completion found{from, startingWith(beforeCursor.substr(from), names)};
    if (!found.matches.empty()) return found;
  }
  // Nothing typed of a name yet: every name is a candidate.
  if (end == 0 || !isWordByte(beforeCursor.back())) return {end, startingWith("", names)};
  return {end, {}};
}

std::string commonStart(const std::vector<std::string>& matches) {
  if (matches.empty()) return {};
  const std::string& first = matches.front();
  std::size_t length = first.size();
  for (const std::string& match : matches) {
    std::size_t same = 0;
    while (same < length && same < match.size() &&
           text::lowerAscii(match[same]) == text::lowerAscii(first[same]))
      ++same;
    length = same;
  }
  // Back to the start of a character, should the shared bytes end inside one.
  while (length > 0 && length < first.size() &&
         (static_cast<unsigned char>(first[length]) & 0xC0) == 0x80)
    --length;
  return first.substr(0, length);
}

std::string listInColumns(const std::vector<std::string>& matches, std::size_t width) {
  std::vector<std::string> shown;
  std::size_t widest = 0;
  for (const std::string& match : matches) {
    shown.push_back(terminalSafe(match));
    widest = std::max(widest, text::displayWidth(shown.back()));
  }
  const std::size_t columnWidth = widest + 2;
  const std::size_t perRow = std::max<std::size_t>(1, width / columnWidth);
  const std::size_t rows = (shown.size() + perRow - 1) / perRow;
  std::string listing;
  for (std::size_t row = 0; row < rows; ++row) {
    for (std::size_t at = row; at < shown.size(); at += rows) {
      listing += shown[at];
      if (at + rows < shown.size())
        listing.append(columnWidth - text::displayWidth(shown[at]), ' ');
    }
    listing += '\n';
  }
  return listing;
}

}  // namespace qorchat
