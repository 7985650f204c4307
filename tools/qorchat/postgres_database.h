#pragma once
// A PostgreSQL database reached through libpq, described as db_structure JSON: one catalog named
// after the database, one schema for each the user may use, its tables, views and materialized
// views, their columns and keys.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "database.h"

struct pg_conn;
struct pg_result;
struct pg_cancel;

namespace qorchat {

class PostgresDatabase final : public Database {
 public:
  // True for what libpq reads as connection parameters rather than a file: a postgresql:// or
  // postgres:// URI, or keyword=value text that names no existing file.
  static bool accepts(const std::string& target);

  // Connects with a libpq connection string or URI. The password comes from libpq's own sources
  // (PGPASSWORD, the password file, a service file) or the text itself, and never appears in a
  // message. Throws DatabaseError with libpq's reason on one line.
  explicit PostgresDatabase(const std::string& target, const DatabaseSettings& settings = {});
  ~PostgresDatabase() override;
  PostgresDatabase(const PostgresDatabase&) = delete;
  PostgresDatabase& operator=(const PostgresDatabase&) = delete;

  std::string describeStructure() override;
  // user@host:port/dbname of the live connection.
  std::string identity() const override;
  std::string displayName() const override;
  // Runs each statement on its own inside one READ ONLY transaction that is always rolled back.
  // A superuser's statements run as pg_read_all_data, so that the server also refuses programs
  // and files of its own machine, which a read-only transaction allows a superuser.
  std::vector<StatementResult> runReadOnly(const std::string& sql, std::size_t maxRows) override;
  void interrupt() override;

  // The target as given, any password in it replaced by ****.
  static std::string masked(const std::string& target);

 private:
  struct Closer {
    void operator()(pg_conn* connection) const;
  };

  // The server's own text for a failed result, or libpq's when the connection is lost.
  std::string failure(const pg_result* result) const;
  // Sends the statement of the result on its own and collects its rows, at most maxRows of them
  // kept, or its failure. False when it could not even be sent.
  bool runStatement(StatementResult& result, std::size_t maxRows);
  // One line of libpq's text, every password of the target taken out.
  std::string clean(const std::string& message) const;

  std::unique_ptr<pg_conn, Closer> connection_;
  // The cancel request of the statements running now, null between runs; the mutex guards it
  // against interrupt() from another thread.
  std::mutex cancelMutex_;
  pg_cancel* runningCancel_ = nullptr;
  std::string target_;
  std::vector<std::string> secrets_;  // the target's passwords, as written and as libpq reads them
  std::string identity_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
