// Extracts the fenced SQL blocks of a model's reply.
#include "sql_blocks.h"

#include <algorithm>
#include <array>
#include <optional>

#include "text.h"

namespace qorchat {
namespace {

constexpr std::array<std::string_view, 6> kSqlLanguages = {"sql",      "sqlite",     "sqlite3",
                                                           "postgres", "postgresql", "pgsql"};

bool isSqlLabel(std::string_view info) {
  const std::string_view word = info.substr(0, std::min(info.size(), info.find_first_of(" \t{")));
  if (word.empty()) return true;
  std::string lower(word);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
    return static_cast<char>(c | (c >= 'A' && c <= 'Z' ? 0x20 : 0));
  });
  return std::find(kSqlLanguages.begin(), kSqlLanguages.end(), lower) != kSqlLanguages.end();
}

bool closes(const CodeFence& open, std::string_view line) {
  const std::optional<CodeFence> fence = codeFenceOf(line);
  return fence && fence->mark == open.mark && fence->length >= open.length && fence->info.empty();
}

}  // namespace

std::size_t indentation(std::string_view line) {
  std::size_t count = 0;
  while (count < line.size() && (line[count] == ' ' || line[count] == '\t'))
    ++count;
  return count;
}

std::optional<CodeFence> codeFenceOf(std::string_view line) {
  const std::size_t indent = indentation(line);
  line.remove_prefix(indent);
  if (line.empty() || (line.front() != '`' && line.front() != '~')) return std::nullopt;
  const char mark = line.front();
  const std::size_t length = std::min(line.find_first_not_of(mark), line.size());
  if (length < 3) return std::nullopt;
  const std::string_view info = text::trimmed(line.substr(length));
  // A backtick in the rest makes the line inline code, such as ```SELECT 1```.
  if (mark == '`' && info.find('`') != std::string_view::npos) return std::nullopt;
  return CodeFence{mark, length, indent, info};
}

SqlBlocks::SqlBlocks(std::string_view reply) {
  std::optional<CodeFence> open;
  bool wanted = false;
  std::string block;
  const auto finish = [&] {
    while (!block.empty() && (block.back() == '\n' || block.back() == '\r'))
      block.pop_back();
    if (wanted && !text::trimmed(block).empty()) blocks_.push_back(std::move(block));
    block.clear();
    open.reset();
  };

  std::size_t start = 0;
  while (start < reply.size()) {
    std::size_t end = reply.find('\n', start);
    if (end == std::string_view::npos) end = reply.size();
    std::string_view line = reply.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);

    if (!open) {
      open = codeFenceOf(line);
      if (open) wanted = isSqlLabel(open->info);
      continue;
    }
    if (closes(*open, line)) {
      finish();
      continue;
    }
    if (!wanted) continue;
    // The fence's own indentation belongs to the surrounding text, not to the SQL.
    line.remove_prefix(std::min(open->indent, indentation(line)));
    block.append(line);
    block += '\n';
  }
  if (open) finish();
}

}  // namespace qorchat
