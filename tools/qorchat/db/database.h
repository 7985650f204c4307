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
  std::size_t rowCount = 0;  // every row the statement returned, shown or not
  Status status;             // the database's own text when the statement failed
};

// How statements of runReadOnly are bounded.
struct DatabaseSettings {
  std::chrono::milliseconds statementTimeout{30000};
};

class Database {
 public:
  virtual ~Database() = default;

  virtual Result<Structure> describe() = 0;
  // Stays the same for the same database across runs; the conversation is stored under it.
  virtual std::string identity() const = 0;
  // A short name for people, such as the file name.
  virtual std::string displayName() const = 0;
  // Runs the statements of sql in order, read-only by the database's own means, until one fails;
  // keeps at most maxRows rows of each. The last result carries the failure, if any. A failure of
  // the connection itself (nothing to fix in the statement) is the Status.
  virtual Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                           std::size_t maxRows) = 0;
  // Stops the statement runReadOnly is running, called from another thread (Ctrl-C); the
  // statement then fails with the database's own text. Does nothing while none runs.
  virtual void interrupt() = 0;
};

// Opens the database that --db names: a PostgreSQL connection string or URI, else an SQLite file
// or file: URI. The failure is one line that names the database.
Result<std::unique_ptr<Database>> openDatabase(const std::string& target,
                                               const DatabaseSettings& settings = {});

}  // namespace qorchat
