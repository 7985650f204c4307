// SQL keywords highlighted in the code blocks of a rendered reply.
#include <algorithm>
#include <cctype>
#include <iterator>
#include <string>

#include "markdown_layout.h"
#include "text.h"

namespace qorchat::markdown {
namespace {

// Sorted, lower case.
constexpr std::string_view kKeywords[] = {
    "all",       "alter",   "and",       "as",      "asc",      "begin",     "between",
    "by",        "case",    "cast",      "check",   "collate",  "commit",    "create",
    "cross",     "default", "delete",    "desc",    "distinct", "drop",      "else",
    "end",       "except",  "exists",    "explain", "false",    "filter",    "following",
    "foreign",   "from",    "full",      "glob",    "group",    "having",    "if",
    "ilike",     "in",      "index",     "inner",   "insert",   "intersect", "into",
    "is",        "join",    "key",       "lateral", "left",     "like",      "limit",
    "natural",   "not",     "null",      "offset",  "on",       "or",        "order",
    "outer",     "over",    "partition", "pragma",  "primary",  "recursive", "references",
    "returning", "right",   "rollback",  "select",  "set",      "table",     "then",
    "true",      "union",   "unique",    "update",  "using",    "values",    "view",
    "when",      "where",   "window",    "with",
};
static_assert(std::is_sorted(std::begin(kKeywords), std::end(kKeywords)));

bool isKeyword(std::string_view word) {
  std::string lower;
  for (const char c : word)
    lower += text::lowerAscii(c);
  return std::binary_search(std::begin(kKeywords), std::end(kKeywords), std::string_view(lower));
}

bool isWordChar(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return std::isalnum(byte) != 0 || c == '_' || c == '$' || byte >= 0x80;
}

// The length of the string, quoted name or comment at the start of code; 0 when there is none.
// One left open runs to the end.
std::size_t quotedLength(std::string_view code) {
  auto through = [&](std::string_view close, std::size_t from) {
    const std::size_t end = code.find(close, from);
    return end == std::string_view::npos ? code.size() : end + close.size();
  };
  if (code.front() == '\'' || code.front() == '"') return through(code.substr(0, 1), 1);
  // A line comment ends before its line break.
  if (text::startsWith(code, "--")) return std::min(code.find('\n'), code.size());
  if (text::startsWith(code, "/*")) return through("*/", 2);
  return 0;
}

}  // namespace

std::string highlightedSql(std::string_view code) {
  std::string out;
  std::size_t at = 0;
  while (at < code.size()) {
    const std::string_view rest = code.substr(at);
    if (const std::size_t quoted = quotedLength(rest); quoted != 0) {
      out.append(rest.substr(0, quoted));
      at += quoted;
      continue;
    }
    if (!isWordChar(rest.front())) {
      out += rest.front();
      ++at;
      continue;
    }
    std::size_t length = 0;
    while (length < rest.size() && isWordChar(rest[length]))
      ++length;
    const std::string_view word = rest.substr(0, length);
    if (isKeyword(word)) {
      out += "\x1b[1;34m";
      out += word;
      out += "\x1b[0m";
    } else {
      out += word;
    }
    at += length;
  }
  return out;
}

}  // namespace qorchat::markdown
