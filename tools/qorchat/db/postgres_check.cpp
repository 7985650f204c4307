// Checks and plans the model's queries on PostgreSQL without running them: once the parser has
// passed the whole block, EXPLAIN without ANALYZE of each query runs in the session a run would
// have (the read-only transaction, the role's check, the time limit, Ctrl-C).
#include <utility>

#include "db/postgres.h"
#include "db/postgres_statements.h"
#include "text.h"

namespace qorchat {
namespace {

// The option list leaves no doubt that what follows is the statement, even one that opens with a
// parenthesis, and says that it is only planned.
constexpr const char* kExplain = "EXPLAIN (ANALYZE FALSE) ";
// A plan is a line a row; long filters make long lines.
constexpr RunLimits kPlanLimits{10000, std::size_t{64} * 1024};
// How much of a statement a note names.
constexpr std::size_t kNamedBytes = 60;

// The statement on one line, cut at a character boundary when long.
std::string named(std::string_view statement) {
  std::string line = text::oneLine(statement);
  if (line.size() <= kNamedBytes) return line;
  std::size_t cut = kNamedBytes;
  while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80)
    --cut;
  return line.substr(0, cut) + "\u2026";
}

// A statement's plan as the server wrote it, a line a row; the note of one not planned.
std::string planText(const StatementResult& result) {
  if (result.columns.empty())
    return "(not planned without running it: " + named(result.statement) + ")";
  std::string plan;
  for (const auto& row : result.rows) {
    if (!plan.empty()) plan += '\n';
    if (!row.empty() && row[0]) plan += *row[0];
  }
  return plan;
}

}  // namespace

Result<std::vector<StatementResult>> PostgresDatabase::plans(const std::string& sql) {
  const std::vector<postgres::Statement> statements = postgres::classifyStatements(sql);
  if (const postgres::Statement* refused = postgres::firstRefused(statements))
    return postgres::refusal(*refused);
  std::vector<std::string> explains;
  for (const postgres::Statement& statement : statements) {
    if (!statement.plannable) continue;
    std::string explain = kExplain + std::string(statement.text);
    // The EXPLAIN is judged too, as one statement that reads and nothing else: the text it is
    // made of cannot add to it.
    const std::vector<postgres::Statement> judged = postgres::classifyStatements(explain);
    if (judged.size() != 1 || postgres::firstRefused(judged) != nullptr ||
        judged[0].text != explain) {
      return Status::refused("refused: qorchat cannot plan " + named(statement.text) +
                             " as it stands");
    }
    explains.push_back(std::move(explain));
  }
  Result<std::vector<StatementResult>> planned = runInSession(explains, kPlanLimits);
  if (!planned) return planned.status();
  if (cancelSlot_.interrupted()) return Status::cancelled("interrupted");
  std::vector<StatementResult> results;
  std::size_t next = 0;
  for (const postgres::Statement& statement : statements) {
    if (!statement.plannable) {
      results.emplace_back().statement = std::string(statement.text);
      continue;
    }
    if (next == planned->size()) break;
    StatementResult& result = results.emplace_back(std::move((*planned)[next++]));
    if (!result.allCounted)
      result.status = Status::timedOut("statement timeout: the plan was stopped before its end");
    if (!result.status.isOk()) break;
  }
  return results;
}

Result<std::string> PostgresDatabase::check(const std::string& sql) {
  const Result<std::vector<StatementResult>> planned = plans(sql);
  if (!planned) return planned.status();
  std::string note;
  for (const StatementResult& result : *planned) {
    if (!result.status.isOk()) return result.status;
    if (result.columns.empty())
      note += (note.empty() ? "not checked without running it: " : "; ") + named(result.statement);
  }
  return note;
}

Result<std::string> PostgresDatabase::explain(const std::string& sql) {
  const Result<std::vector<StatementResult>> planned = plans(sql);
  if (!planned) return planned.status();
  std::string text;
  for (const StatementResult& result : *planned) {
    if (!result.status.isOk()) return result.status;
    text += (text.empty() ? "" : "\n\n") + planText(result);
  }
  return text;
}

}  // namespace qorchat
