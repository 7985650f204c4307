#pragma once
// What qorchat needs of the user's database, whatever its engine: its structure in the form the
// assistant reads (the db_structure JSON text), and names to show and to key the conversation by.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qorchat {

// A database that cannot be opened or read. The message is one line that names the database.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What one statement gave: its columns and first rows, or the database's own error text.
struct StatementResult {
  std::string statement;  // the statement's text as run
  std::vector<std::string> columns;
  std::vector<std::vector<std::optional<std::string>>>
      rows;                  // at most the rows asked for; NULL is empty
  std::size_t rowCount = 0;  // every row the statement returned, shown or not
  std::string error;         // not empty when the statement failed
};

class Database {
 public:
  virtual ~Database() = default;

  // The structure as db_structure JSON: catalogs, schemas, tables, views. Throws DatabaseError.
  virtual std::string describeStructure() = 0;
  // Stays the same for the same database across runs; the conversation is stored under it.
  virtual std::string identity() const = 0;
  // A short name for people, such as the file name.
  virtual std::string displayName() const = 0;
  // Runs the statements of sql in order, read-only by the database's own means (never by reading
  // the SQL), until one fails; keeps at most maxRows rows of each. The last result carries the
  // failure, if any.
  virtual std::vector<StatementResult> runReadOnly(const std::string& sql, std::size_t maxRows) = 0;
  // Stops the statement runReadOnly is running, called from another thread (Ctrl-C); the
  // statement then fails with the database's own text. Does nothing while none runs.
  virtual void interrupt() = 0;
};

}  // namespace qorchat

namespace qorchat {

// How statements of runReadOnly are bounded.
struct DatabaseSettings {
  std::chrono::milliseconds statementTimeout{30000};
};

// Opens the database that --db names: a PostgreSQL connection string or URI, else an SQLite file
// or file: URI. Throws DatabaseError.
std::unique_ptr<Database> openDatabase(const std::string& target,
                                       const DatabaseSettings& settings = {});

}  // namespace qorchat
