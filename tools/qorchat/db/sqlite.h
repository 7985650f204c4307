#pragma once
// An SQLite database opened read-only: one catalog per database of the connection (main and
// attached), one schema without a name each; statements run so that nothing can be written.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"
#include "db/sqlite_guard.h"
#include "db/sqlite_stop.h"
#include "db/sqlite_target.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qorchat {

class SqliteDatabase final : public Database {
 public:
  // Opens a path or a "file:" URI, always read-only: nothing is ever created or written, not even
  // beside the file. The failure names the target: missing, a folder or another kind of file that
  // is not a regular one, or not an SQLite database.
  static Result<std::unique_ptr<SqliteDatabase>> open(const std::string& target,
                                                      const DatabaseSettings& settings = {});
  ~SqliteDatabase() override;
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  Result<Structure> describe() override;
  // The schema versions, after the connections opened so far: a file opened again after a writer
  // came may be another one.
  Result<std::string> structureStamp() override;
  // The file's real path, or the URI as given.
  std::string identity() const override;
  std::string displayName() const override;
  // The SQLite library this program runs statements with.
  std::string engineDescription() const override;
  Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                   const RunLimits& limits) override;
  void interrupt() override;
  // Each statement compiled under runReadOnly's guard (its authorizer refuses what the run would)
  // and never stepped.
  Result<std::string> check(const std::string& sql) override;
  // EXPLAIN QUERY PLAN of each statement, its rows as a tree indented two blanks a level.
  Result<std::string> explain(const std::string& sql) override;

  // The open connection, for callers that run statements of their own (tests attach databases).
  sqlite3* handle() const { return db_; }

 private:
  SqliteDatabase(const std::string& target, const DatabaseSettings& settings);
  // Opens the connection and reads the file's header; the failure names the target.
  Status connect();
  // Opens the file again if it was opened immutable and has changed since: a writer has come.
  Status reconnectIfChanged();
  // Compiles the statements of sql in order under the run's guard, each handed to onPrepared
  // with its text, never stepped here; stops at the first failure: the guard's or onPrepared's.
  using OnPrepared =
      std::function<Status(sqlite3_stmt* statement, std::string_view text, sqlite::RunGuard&)>;
  Status eachPrepared(const std::string& sql, const OnPrepared& onPrepared);

  sqlite3* db_ = nullptr;
  std::mutex handleMutex_;   // interrupt() may come while the file is opened again
  sqlite::StopSignal stop_;  // the running statement's time limit and Ctrl-C
  std::string target_;
  std::size_t connections_ = 0;
  std::optional<sqlite::FileMark> immutableMark_;  // when opened immutable, the file as it was
  std::string realPath_;
  std::string identity_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
