// Small text helpers shared by qorchat's rooms.
#include "text.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

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

std::string shortNumber(double number) {
  char buffer[32];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, number);
  return error == std::errc() ? std::string(buffer, end) : std::string("?");
}

std::string milliseconds(double milliseconds) {
  char buffer[64];
  if (milliseconds < 1000) {
    std::snprintf(buffer, sizeof buffer, "%.3f ms", milliseconds);
  } else {
    std::snprintf(buffer, sizeof buffer, "%.3f ms (%.3f s)", milliseconds, milliseconds / 1000);
  }
  return buffer;
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

std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
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
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
    return 0;
  }
  return length;
}

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = utf8SequenceLength(text);
    if (length == 0) {
      appendUtf8(out, 0xFFFD);
      text.remove_prefix(1);
    } else {
      out.append(text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  return out;
}

char32_t utf8CodePoint(std::string_view sequence) {
  const auto byte = [&](std::size_t i) {
    return static_cast<char32_t>(static_cast<unsigned char>(sequence[i]));
  };
  switch (sequence.size()) {
    case 1:
      return byte(0);
    case 2:
      return ((byte(0) & 0x1F) << 6) | (byte(1) & 0x3F);
    case 3:
      return ((byte(0) & 0x0F) << 12) | ((byte(1) & 0x3F) << 6) | (byte(2) & 0x3F);
    default:
      return ((byte(0) & 0x07) << 18) | ((byte(1) & 0x3F) << 12) | ((byte(2) & 0x3F) << 6) |
             (byte(3) & 0x3F);
  }
}

std::size_t columnsOf(char32_t codePoint) {
  if (codePoint < 0x80) return 1;
  // The C library knows the widths of Unicode, but only under a UTF-8 locale: this thread uses one
  // for the question, whatever locale the user runs under.
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  if (utf8 == static_cast<locale_t>(nullptr)) return 1;
  const locale_t previous = uselocale(utf8);
  const int columns = wcwidth(static_cast<wchar_t>(codePoint));
  uselocale(previous);
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

std::size_t displayWidth(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const std::size_t length = std::max<std::size_t>(1, utf8SequenceLength(text));
    columns += length == 1 ? 1 : columnsOf(utf8CodePoint(text.substr(0, length)));
    text.remove_prefix(std::min(length, text.size()));
  }
  return columns;
}

void appendUtf8(std::string& out, char32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

}  // namespace qorchat::text
