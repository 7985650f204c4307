#pragma once
// A PostgreSQL database reached through libpq: one catalog named after the database, one schema
// for each the user may use, its tables, views and materialized views, their columns and keys;
// statements run so that the server itself refuses every write.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"
#include "db/postgres_connection.h"

struct pg_conn;
struct pg_result;
struct pg_cancel;

namespace qorchat {

class PostgresDatabase final : public Database {
 public:
  // Connects with a libpq connection string or URI. The password comes from libpq's own sources
  // (PGPASSWORD, the password file, a service file) or the text itself, and never appears in a
  // message. The failure is libpq's reason on one line, naming the database.
  static Result<std::unique_ptr<PostgresDatabase>> connect(const std::string& target,
                                                           const DatabaseSettings& settings = {});
  ~PostgresDatabase() override;
  PostgresDatabase(const PostgresDatabase&) = delete;
  PostgresDatabase& operator=(const PostgresDatabase&) = delete;

  Result<Structure> describe() override;
  // user@host:port/dbname of the live connection.
  std::string identity() const override;
  std::string displayName() const override;
  // Runs each statement on its own inside one READ ONLY transaction that is always rolled back.
  // A superuser's statements run as pg_read_all_data, so that the server also refuses programs
  // and files of its own machine, which a read-only transaction allows a superuser.
  Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                   const RunLimits& limits) override;
  void interrupt() override;

 private:
  struct Closer {
    void operator()(pg_conn* connection) const;
  };
  class CancelWindow;

  PostgresDatabase(const std::string& target, const DatabaseSettings& settings);

  // The server's own text for a failed result, or libpq's when the connection is lost.
  std::string failureText(const pg_result* result) const;
  // A failed statement's Status: a cancel is told from the statement timeout.
  Status statementFailure(const pg_result* result) const;
  // Runs the statements in the open transaction until one fails or must not run.
  void runStatements(const std::vector<std::string_view>& statements, std::size_t maxRows,
                     std::vector<StatementResult>& results);
  // Sends the statement of the result on its own and collects its rows, at most maxRows of them
  // kept, or its failure. False when it could not even be sent.
  bool runStatement(StatementResult& result, std::size_t maxRows);

  std::unique_ptr<pg_conn, Closer> connection_;
  // The cancel request of the statements running now, null between runs; the mutex guards it
  // against interrupt() from another thread.
  std::mutex cancelMutex_;
  pg_cancel* runningCancel_ = nullptr;
  std::atomic<bool> cancelled_{false};  // interrupt() sent a cancel during this run
  postgres::MessageCleaner cleaner_;
  std::string identity_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
