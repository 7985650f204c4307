#pragma once
// Cuts a block of SQL into statements with PostgreSQL's own grammar and says of each whether it
// only reads, before anything of the block reaches the server.

#include <string>
#include <string_view>
#include <vector>

#include "status.h"

namespace qorchat::postgres {

// One statement of a block, and whether it may run.
struct Statement {
  enum class Verdict {
    kReads,    // it may run
    kRefused,  // it would write, change the session or the server, or run SQL text
    kInvalid,  // the grammar rejects it
  };
  std::string_view text;  // as written, without the white space and comments before it, with
                          // its semicolon
  Verdict verdict = Verdict::kReads;
  std::string reason;  // the refusal, naming what was refused, or the parser's message
  // A query EXPLAIN can plan: SELECT, VALUES, TABLE or WITH (not SHOW, not EXPLAIN itself).
  bool plannable = false;

  bool operator==(const Statement&) const = default;
};

// The statements of a block, as PostgreSQL's grammar cuts them (libpg_query parses the block
// with standard_conforming_strings on, as the session that runs them has it), each judged by its
// parse tree. Only reading statements pass: SELECT, VALUES, TABLE and WITH whose every part reads,
// EXPLAIN of those, SHOW; and no call of a function that changes the session or the server,
// reaches the server's files or runs a query of its own, wherever it stands in the tree. A block
// the grammar rejects gives one kInvalid statement, the part that holds the error. Pieces of only
// white space, comments and semicolons are no statements.
std::vector<Statement> classifyStatements(std::string_view sql);

// The first statement that may not run, or nullptr when every one reads.
const Statement* firstRefused(const std::vector<Statement>& statements);
// Why the statement may not run: kRefused with qorchat's refusal, kDatabase with the parser's
// message.
Status refusal(const Statement& statement);

}  // namespace qorchat::postgres
