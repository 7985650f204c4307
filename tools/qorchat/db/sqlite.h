#pragma once
// An SQLite database opened read-only: one catalog per database of the connection (main and
// attached), one schema without a name each; statements run so that nothing can be written.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "db/database.h"

struct sqlite3;

namespace qorchat {

class SqliteDatabase final : public Database {
 public:
  // Opens a path or a "file:" URI, always read-only: nothing is ever created or written. The
  // failure names the target: missing, a folder, or not an SQLite database.
  static Result<std::unique_ptr<SqliteDatabase>> open(const std::string& target,
                                                      const DatabaseSettings& settings = {});
  ~SqliteDatabase() override;
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  Result<Structure> describe() override;
  // The file's real path, or the URI as given.
  std::string identity() const override;
  std::string displayName() const override;
  Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                   const RunLimits& limits) override;
  void interrupt() override;

  // The open connection, for callers that run statements of their own (tests attach databases).
  sqlite3* handle() const { return db_; }

 private:
  SqliteDatabase(const std::string& target, const DatabaseSettings& settings);
  // Opens the connection and reads the file's header; the failure names the target.
  Status connect();

  sqlite3* db_ = nullptr;
  std::string target_;
  std::string identity_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
