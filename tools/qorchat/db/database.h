#pragma once
// What qorchat needs of the user's database, whatever its engine: its structure, names to show
// and to key the conversation by, and statements run so that they cannot write.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "db/structure.h"
#include "status.h"

namespace qorchat {

// What one statement gave: its columns and first rows, or why it failed.
struct StatementResult {
  std::string statement;  // the statement's text as run
  std::vector<std::string> columns;
  std::vector<std::vector<std::optional<std::string>>> rows;  // at most the rows asked for
  std::size_t rowCount = 0;  // the rows the statement returned, kept or not
  // False when the count stopped early (the time limit or Ctrl-C came after rows had arrived):
  // the rows kept stand, and rowCount is only a lower bound.
  bool allCounted = true;
  Status status;  // the database's own text when the statement failed
};

// How much of a result is kept. Values are cut as they are read, at a character boundary, so that
// a row of huge values costs no more than the rows shown need.
struct RunLimits {
  std::size_t maxRows = 100;
  std::size_t maxValueBytes = 4096;
};

// How statements of runReadOnly are bounded.
struct DatabaseSettings {
  std::chrono::milliseconds statementTimeout{30000};
};

class Database {
 public:
  virtual ~Database() = default;

  virtual Result<Structure> describe() = 0;
  // A text that changes whenever what describe() reads does (a table made, altered or dropped, a
  // comment, a grant) and that is cheap to read, so that a long-lived caller knows when to
  // describe again; compared, never shown. A stamp that changes without a change in the
  // structure costs one describe() too many.
  virtual Result<std::string> structureStamp() = 0;
  // Stays the same for the same database across runs; the conversation is stored under it.
  virtual std::string identity() const = 0;
  // A short name for people, such as the file name.
  virtual std::string displayName() const = 0;
  // The engine and its version, such as "SQLite 3.40.1" or "PostgreSQL 15.8" (the server's), for
  // the model to write SQL the engine knows.
  virtual std::string engineDescription() const = 0;
  // Runs the statements of sql in order, read-only by the database's own means, until one fails;
  // keeps what the limits allow of each. The last result carries the failure, if any. A failure
  // of the connection itself, or a run refused whole, is the Status.
  virtual Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                           const RunLimits& limits) = 0;
  // Stops the statement runReadOnly, check or explain is running, called from another thread
  // (Ctrl-C): it fails as cancelled, or, when rows had arrived, keeps them uncounted. Does nothing
  // while none runs.
  virtual void interrupt() = 0;

  // Whether the statements of sql would run, found without running any: each is compiled or
  // planned by the engine under the guards of runReadOnly, so that nothing is read from a table
  // and nothing can be written. The failure is that of the first statement that fails:
  //  - kRefused with the runner's own refusal, when runReadOnly would refuse it;
  //  - kDatabase with the engine's own message (an unknown table or column, a syntax error, a
  //    type mismatch), one line, never holding a value read from a row;
  //  - kCancelled on interrupt(), kTimedOut past the statement timeout; the connection's failure.
  // The value is a note, empty when every statement was checked. A statement the engine cannot
  // plan without running it (PostgreSQL plans only queries: SHOW or EXPLAIN is not planned)
  // passes unchecked, since the runner's judgement is all a check could say of it, and the note
  // names it ("not checked without running it: SHOW work_mem"). Text of outside origin: pass the
  // message and the note through terminalSafe before showing them.
  virtual Result<std::string> check(const std::string& sql) = 0;
  // The engine's plan of each statement of sql, found as check finds it and failing as it does:
  // SQLite's EXPLAIN QUERY PLAN as an indented tree, PostgreSQL's EXPLAIN (without ANALYZE) as
  // the server writes it; the plans of several statements apart by a blank line. A statement
  // that cannot be planned gives the note check would give, as its plan.
  virtual Result<std::string> explain(const std::string& sql) = 0;
};

// Opens the database that --db names: a PostgreSQL connection string or URI, else an SQLite file
// or file: URI. The failure is one line that names the database.
Result<std::unique_ptr<Database>> openDatabase(const std::string& target,
                                               const DatabaseSettings& settings = {});

}  // namespace qorchat
