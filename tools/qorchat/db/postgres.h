#pragma once
// A PostgreSQL database reached through libpq: one catalog named after the database, one schema
// for each the user may use, its tables, views and materialized views, their columns and keys;
// the model's statements judged by PostgreSQL's own grammar, then run in a session of their own
// by a role that can only read.

#include <memory>
#include <string>
#include <vector>

#include "db/database.h"
#include "db/postgres_connection.h"
#include "db/postgres_run.h"

struct pg_conn;
struct pg_result;

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
  // The count of rows and the sum of their creating transactions in each catalog the structure is
  // read from: every change of the structure writes a row there, and a read-only role may read
  // them all. Not seen: row estimates (VACUUM and ANALYZE write them in place) and a change of
  // the role's own attributes (pg_authid is not readable without privileges).
  Result<std::string> structureStamp() override;
  // user@host:port/dbname of the live connection.
  std::string identity() const override;
  std::string displayName() const override;
  // The server's version, as it was when connected.
  std::string engineDescription() const override;
  // Nothing reaches the server unless every statement of the block only reads, as the parser
  // judges it (postgres_statements.h). The statements then run in a session opened for the run
  // and closed after it (postgres_run.h), inside a READ ONLY transaction, each stopped by
  // qorchat itself at the statement timeout. A login role that may do more than read (a
  // superuser, say) runs nothing: the run is refused whole, saying why.
  Result<std::vector<StatementResult>> runReadOnly(const std::string& sql,
                                                   const RunLimits& limits) override;
  void interrupt() override;
  // EXPLAIN (without ANALYZE) of each query, in a run's session as runReadOnly would run it, once
  // every statement of the block passed the parser's judgement; SHOW and EXPLAIN pass unplanned.
  Result<std::string> check(const std::string& sql) override;
  // The server's EXPLAIN text of each query, found as check finds it.
  Result<std::string> explain(const std::string& sql) override;

 private:
  struct Closer {
    void operator()(pg_conn* connection) const;
  };

  PostgresDatabase(const std::string& target, const DatabaseSettings& settings);

  // Runs statements the parser let through, in order, in a session opened for them, until one
  // fails; the last result carries the failure. Empty when there are none.
  Result<std::vector<StatementResult>> runInSession(const std::vector<std::string>& statements,
                                                    const RunLimits& limits);
  // The result of each statement of sql as check and explain see it: a query's plan (its
  // statement is the EXPLAIN that planned it), a statement that cannot be planned with no
  // columns, up to and including the first that failed. A block the parser refuses is the Status.
  Result<std::vector<StatementResult>> plans(const std::string& sql);

  // The server's own text for a failed result, or libpq's when the connection is lost.
  std::string failureText(const pg_result* result) const;

  // The long-lived connection, for the structure and the identity.
  std::unique_ptr<pg_conn, Closer> connection_;
  // How each run's session connects: as the long-lived connection did, to the same server as the
  // same role with the same password.
  postgres::ConnectParams runParams_;
  postgres::CancelSlot cancelSlot_;
  postgres::MessageCleaner cleaner_;
  std::string identity_;
  std::string engineDescription_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
