// Small text helpers shared by qorchat's rooms.
#include "text.h"

#include <algorithm>

namespace qorchat::text {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

std::string oneLine(std::string_view text) {
  std::string line;
  bool gap = false;
  for (const char c : trimmed(text)) {
    if (isSpace(c)) {
      gap = true;
      continue;
    }
    if (gap) line += ' ';
    gap = false;
    line += c;
  }
  return line;
}

std::string joinedLines(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    if (end == std::string_view::npos) end = text.size();
    const std::string_view part = trimmed(text.substr(0, end));
    if (!part.empty()) {
      if (!line.empty()) line += "; ";
      line += part;
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return line;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  if (from.empty()) return;
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

namespace {
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

std::string percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string withSeparators(std::size_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3)
    digits.insert(at - 3, ",");
  return digits;
}

char lowerAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return lowerAscii(x) == lowerAscii(y);
         });
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace qorchat::text
