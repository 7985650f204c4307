// Checks and plans the model's statements on SQLite without running them: each is compiled under
// the guard runReadOnly runs with, so that its authorizer refuses the same statements, and only
// EXPLAIN QUERY PLAN, which reads no table, is ever stepped.
#include <sqlite3.h>

#include <memory>
#include <utility>
#include <vector>

#include "db/sqlite.h"
#include "text.h"

namespace qorchat {
namespace {

using StatementHandle = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

constexpr const char* kPlanPrefix = "EXPLAIN QUERY PLAN ";

// The rows of an EXPLAIN QUERY PLAN (id, parent, notused, detail) as SQLite's shell draws them:
// each detail under its parent, two blanks deeper.
Result<std::string> planTree(sqlite3_stmt* plan, sqlite::RunGuard& guard) {
  std::vector<std::pair<int, std::size_t>> depths;  // each row's id and depth
  std::string tree;
  int stepped = SQLITE_ROW;
  while ((stepped = sqlite3_step(plan)) == SQLITE_ROW) {
    const int parent = sqlite3_column_int(plan, 1);
    std::size_t depth = 0;
    for (const auto& [id, known] : depths) {
      if (id == parent) depth = known + 1;
    }
    depths.emplace_back(sqlite3_column_int(plan, 0), depth);
    const auto* detail = reinterpret_cast<const char*>(sqlite3_column_text(plan, 3));
    if (!tree.empty()) tree += '\n';
    tree += std::string(2 * depth, ' ') + (detail != nullptr ? detail : "");
  }
  if (stepped != SQLITE_DONE) return guard.failure();
  return tree.empty() ? std::string("(SQLite gives no plan steps for it)") : tree;
}

}  // namespace

Status SqliteDatabase::eachPrepared(const std::string& sql, const OnPrepared& onPrepared) {
  if (Status fresh = reconnectIfChanged(); !fresh) return fresh;
  sqlite::RunGuard guard(db_, stop_, settings_.statementTimeout, sqlite::storedValueBound(db_));
  const char* next = sql.c_str();
  const char* const end = next + sql.size();
  while (next < end) {
    guard.startStatement(std::string_view(next, static_cast<std::size_t>(end - next)));
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int prepared = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &raw, &tail);
    const StatementHandle statement(raw, &sqlite3_finalize);
    if (prepared != SQLITE_OK) return guard.failure();
    // A zero byte ends what SQLite reads, as it ends a run.
    if (tail == nullptr || tail <= next) break;
    const std::string_view text(next, static_cast<std::size_t>(tail - next));
    next = tail;
    if (statement == nullptr) continue;  // white space or a comment
    if (Status handled = onPrepared(statement.get(), text::trimmed(text), guard); !handled)
      return handled;
  }
  return Status::ok();
}

Result<std::string> SqliteDatabase::check(const std::string& sql) {
  const Status checked = eachPrepared(
      sql, [](sqlite3_stmt*, std::string_view, sqlite::RunGuard&) { return Status::ok(); });
  if (!checked) return checked;
  return std::string();
}

Result<std::string> SqliteDatabase::explain(const std::string& sql) {
  std::string plans;
  const Status planned = eachPrepared(
      sql, [&](sqlite3_stmt* statement, std::string_view text, sqlite::RunGuard& guard) -> Status {
        // An EXPLAIN QUERY PLAN of the user's own is stepped as it is; anything else is planned by
        // one made of its text, which compiles it again under the same guard.
        StatementHandle plan(nullptr, &sqlite3_finalize);
        plans += plans.empty() ? "" : "\n\n";
        if (sqlite3_stmt_isexplain(statement) == 1) {
          plans += "(EXPLAIN gives SQLite's program rather than a plan)";
          return Status::ok();
        }
        if (sqlite3_stmt_isexplain(statement) == 0) {
          const std::string planText = kPlanPrefix + std::string(text);
          guard.startStatement(planText);
          sqlite3_stmt* raw = nullptr;
          const int prepared = sqlite3_prepare_v2(db_, planText.c_str(),
                                                  static_cast<int>(planText.size()), &raw, nullptr);
          plan.reset(raw);
          if (prepared != SQLITE_OK) return guard.failure();
          statement = plan.get();
        }
        Result<std::string> tree = planTree(statement, guard);
        if (!tree) return tree.status();
        plans += *tree;
        return Status::ok();
      });
  if (!planned) return planned;
  return plans;
}

}  // namespace qorchat
