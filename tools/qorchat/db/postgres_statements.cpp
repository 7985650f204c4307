// Splits SQL into statements at the semicolons that PostgreSQL's lexer would end them at.
#include "db/postgres_statements.h"

#include <cstddef>

#include "text.h"

namespace qorchat::postgres {
namespace {

constexpr std::size_t npos = std::string_view::npos;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isWordStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool isWordChar(char c) {
  return isWordStart(c) || isDigit(c) || c == '$';
}

// Just past the closing quote of the literal or identifier that opens at i; the end of the text
// when it is never closed, so the server reports it.
std::size_t pastQuoted(std::string_view sql, std::size_t i, char quote, bool backslashEscapes) {
  std::size_t j = i + 1;
  while (j < sql.size()) {
    if (backslashEscapes && sql[j] == '\\') {
      j += 2;
    } else if (sql[j] == quote) {
      if (j + 1 < sql.size() && sql[j + 1] == quote) {
        j += 2;
      } else {
        return j + 1;
      }
    } else {
      ++j;
    }
  }
  return sql.size();
}

// The tag of a dollar quote ($$ or $name$) that opens at i, or nothing: $1 is a parameter.
std::string_view dollarTag(std::string_view sql, std::size_t i) {
  std::size_t j = i + 1;
  if (j < sql.size() && isDigit(sql[j])) return {};
  while (j < sql.size() && sql[j] != '$') {
    if (!isWordStart(sql[j]) && !isDigit(sql[j])) return {};
    ++j;
  }
  if (j >= sql.size()) return {};
  return sql.substr(i, j - i + 1);
}

// Just past the block comment that opens at i, nested ones included; the end of the text if it
// never closes.
std::size_t pastBlockComment(std::string_view sql, std::size_t i) {
  int depth = 1;
  i += 2;
  while (i < sql.size() && depth > 0) {
    if (sql.compare(i, 2, "/*") == 0) {
      ++depth;
      i += 2;
    } else if (sql.compare(i, 2, "*/") == 0) {
      --depth;
      i += 2;
    } else {
      ++i;
    }
  }
  return i;
}

// Just past the piece of a statement that starts at i: a literal, a quoted name, a dollar-quoted
// string, a whole word, or else the one character.
std::size_t pastToken(std::string_view sql, std::size_t i, bool backslashEscapes) {
  const char c = sql[i];
  if (c == '\'') return pastQuoted(sql, i, '\'', backslashEscapes);
  if (c == '"') return pastQuoted(sql, i, '"', false);
  if (c == '$') {
    const std::string_view tag = dollarTag(sql, i);
    if (tag.empty()) return i + 1;
    const std::size_t close = sql.find(tag, i + tag.size());
    return close == npos ? sql.size() : close + tag.size();
  }
  if (!isWordStart(c)) return i + 1;
  // A whole word at once, so that a $ inside it opens no quote. E'...' escapes backslashes.
  const std::size_t word = i;
  while (i < sql.size() && isWordChar(sql[i]))
    ++i;
  if (i - word == 1 && (c == 'E' || c == 'e') && i < sql.size() && sql[i] == '\'') {
    i = pastQuoted(sql, i, '\'', true);
  }
  return i;
}

}  // namespace

// A body of BEGIN ATOMIC is cut at its semicolons; the server then rejects the pieces, which a
// read-only run would refuse anyway.
std::vector<std::string_view> splitStatements(std::string_view sql, bool backslashEscapes) {
  std::vector<std::string_view> statements;
  std::size_t start = 0;
  bool content = false;
  const auto finish = [&](std::size_t end) {
    if (content) statements.push_back(text::trimmed(sql.substr(start, end - start)));
    start = end;
    content = false;
  };
  std::size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    const char next = i + 1 < sql.size() ? sql[i + 1] : '\0';
    if (c == ';') {
      ++i;
      finish(i);
    } else if (text::isSpace(c)) {
      ++i;
    } else if (c == '-' && next == '-') {
      i = sql.find('\n', i);
      if (i == npos) i = sql.size();
    } else if (c == '/' && next == '*') {
      i = pastBlockComment(sql, i);
    } else {
      content = true;
      i = pastToken(sql, i, backslashEscapes);
    }
  }
  finish(sql.size());
  return statements;
}

}  // namespace qorchat::postgres
