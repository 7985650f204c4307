// Parses a block with libpg_query, PostgreSQL's own parser, cuts it where the grammar ends each
// statement and walks each parse tree for what must not run. The tree, not the text, decides:
// comments, quotes and dollar quotes hide nothing from it.
#include "db/postgres_statements.h"

#include <pg_query.h>

#include <utility>

#include "db/postgres_refusals.h"
#include "text.h"
#include "yl/yl_json.h"

namespace qorchat::postgres {
namespace {

using Verdict = Statement::Verdict;

class ParseResult {
 public:
  explicit ParseResult(const std::string& sql) : result_(pg_query_parse(sql.c_str())) {}
  ~ParseResult() { pg_query_free_parse_result(result_); }
  ParseResult(const ParseResult&) = delete;
  ParseResult& operator=(const ParseResult&) = delete;
  const PgQueryParseResult* operator->() const { return &result_; }

 private:
  PgQueryParseResult result_;
};

class SplitResult {
 public:
  explicit SplitResult(const std::string& sql)
      : result_(pg_query_split_with_scanner(sql.c_str())) {}
  ~SplitResult() { pg_query_free_split_result(result_); }
  SplitResult(const SplitResult&) = delete;
  SplitResult& operator=(const SplitResult&) = delete;
  const PgQuerySplitResult* operator->() const { return &result_; }

 private:
  PgQuerySplitResult result_;
};

// The statement the parser placed at location with length (0: to the end of the block), with its
// semicolon: exactly the text the parser judged, so that the server reads the statement it was
// judged as. Only white space is taken off its ends; comments stay, since cutting them by a rule
// of our own (where does a -- comment end?) could cut a different statement out of the text.
std::string_view statementText(std::string_view sql, std::size_t location, std::size_t length) {
  location = std::min(location, sql.size());
  std::size_t end = length > 0 ? std::min(location + length, sql.size()) : sql.size();
  std::size_t begin = location;
  while (begin < end && text::isSpace(sql[begin]))
    ++begin;
  if (end < sql.size() && sql[end] == ';') return sql.substr(begin, end + 1 - begin);
  while (end > begin && text::isSpace(sql[end - 1]))
    --end;
  return sql.substr(begin, end - begin);
}

// The byte offset of a 1-based character position, as PostgreSQL reports where an error is.
std::size_t byteOffset(std::string_view sql, int position) {
  std::size_t at = 0;
  for (int characters = 1; characters < position && at < sql.size(); ++characters) {
    ++at;
    while (at < sql.size() && (static_cast<unsigned char>(sql[at]) & 0xC0) == 0x80)
      ++at;
  }
  return at;
}

// The statement that holds a syntax error: the scanner cuts a block the grammar cannot. The whole
// block when the error has no place or the scanner fails too.
std::string_view failingPart(std::string_view sql, const std::string& copy, int position) {
  if (position <= 0) return text::trimmed(sql);
  const std::size_t at = byteOffset(sql, position);
  const SplitResult split(copy);
  if (split->error != nullptr) return text::trimmed(sql);
  for (int i = 0; i < split->n_stmts; ++i) {
    const auto location = static_cast<std::size_t>(split->stmts[i]->stmt_location);
    const auto length = static_cast<std::size_t>(split->stmts[i]->stmt_len);
    const bool last = i + 1 == split->n_stmts;
    if (at >= location && (last || length == 0 || at <= location + length))
      return statementText(sql, location, length);
  }
  return text::trimmed(sql);
}

std::size_t numberField(const YLJsonValue& node, std::string_view key) {
  const YLJsonValue* field = node.obtainKeyValue(key);
  return field != nullptr ? static_cast<std::size_t>(std::max(field->obtainIntValue(), 0)) : 0;
}

// The refusal of one node, met as the member key of an object: a statement or a function call.
// under is the key the object itself was met under.
std::string nodeRefusal(std::string_view key, const YLJsonValue& node, std::string_view under) {
  if (key == "FuncCall") {
    const YLJsonValue* names = node.obtainKeyValue("funcname");
    const std::size_t parts = names != nullptr ? names->obtainArraySize() : 0;
    const YLJsonValue* last = parts > 0 ? names->obtainArrayItem(parts - 1) : nullptr;
    const YLJsonValue* string = last != nullptr ? last->obtainKeyValue("String") : nullptr;
    const YLJsonValue* name = string != nullptr ? string->obtainKeyValue("sval") : nullptr;
    if (name == nullptr) return "refused: a function call qorchat cannot name";
    return functionRefusal(name->obtainStringView());
  }
  const bool statement = !key.empty() && key.front() >= 'A' && key.front() <= 'Z' &&
                         key.size() > 4 && key.substr(key.size() - 4) == "Stmt";
  return statement ? statementRefusal(key, node, under == "ctequery") : std::string();
}

// The first refusal anywhere in a statement's tree, parents before their children; empty when
// every node of it reads.
std::string treeRefusal(const YLJsonValue& root) {
  struct Pending {
    const YLJsonValue* value;
    std::string_view under;
  };
  std::vector<Pending> pending{{&root, {}}};
  while (!pending.empty()) {
    const Pending next = pending.back();
    pending.pop_back();
    const YLJsonValue& value = *next.value;
    if (value.obtainType() == YLJsonValueType::Array) {
      for (std::size_t i = value.obtainArraySize(); i-- > 0;)
        pending.push_back({value.obtainArrayItem(i), next.under});
      continue;
    }
    for (std::size_t i = value.obtainMemberCount(); i-- > 0;) {
      const std::string_view key = value.obtainMemberKey(i);
      const YLJsonValue* member = value.obtainMemberValue(i);
      std::string refused = nodeRefusal(key, *member, next.under);
      if (!refused.empty()) return refused;
      pending.push_back({member, key});
    }
  }
  return {};
}

}  // namespace

std::vector<Statement> classifyStatements(std::string_view sql) {
  const auto invalid = [](std::string_view part, std::string reason) {
    return std::vector<Statement>{{part, Verdict::kInvalid, std::move(reason)}};
  };
  // The parser reads a C string: what follows a zero byte would never be judged.
  if (sql.find('\0') != std::string_view::npos)
    return invalid(text::trimmed(sql), "the SQL holds a zero byte");
  const std::string copy(sql);
  const ParseResult parsed(copy);
  if (parsed->error != nullptr) {
    const PgQueryError& error = *parsed->error;
    return invalid(failingPart(sql, copy, error.cursorpos),
                   error.message != nullptr ? error.message : "syntax error");
  }
  const YLJson tree(std::string_view(parsed->parse_tree != nullptr ? parsed->parse_tree : ""));
  const YLJsonValue* statements = tree.obtainKeyValue("stmts");
  if (!tree.getIsValidJson())
    return invalid(text::trimmed(sql), "the statement is nested too deeply to check");

  std::vector<Statement> out;
  for (std::size_t i = 0; statements != nullptr && i < statements->obtainArraySize(); ++i) {
    const YLJsonValue& raw = *statements->obtainArrayItem(i);
    Statement& statement = out.emplace_back();
    statement.text =
        statementText(sql, numberField(raw, "stmt_location"), numberField(raw, "stmt_len"));
    const YLJsonValue* node = raw.obtainKeyValue("stmt");
    statement.reason = node != nullptr ? treeRefusal(*node) : "refused: an empty statement";
    if (!statement.reason.empty()) statement.verdict = Verdict::kRefused;
    statement.plannable = statement.verdict == Verdict::kReads && node != nullptr &&
                          node->obtainMemberCount() == 1 &&
                          node->obtainMemberKey(0) == "SelectStmt";
  }
  return out;
}

const Statement* firstRefused(const std::vector<Statement>& statements) {
  for (const Statement& statement : statements) {
    if (statement.verdict != Verdict::kReads) return &statement;
  }
  return nullptr;
}

Status refusal(const Statement& statement) {
  return statement.verdict == Verdict::kRefused ? Status::refused(statement.reason)
                                                : Status::database(statement.reason);
}

}  // namespace qorchat::postgres
