// Connects to PostgreSQL through libpq, reads its structure in one read-only snapshot, and runs
// statements in a read-only transaction that is rolled back.
#include "db/postgres.h"

#include <libpq-fe.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <optional>
#include <utility>

#include "db/postgres_catalog.h"
#include "db/postgres_result.h"
#include "db/postgres_statements.h"
#include "text.h"

namespace qorchat {
namespace {

using postgres::PgResult;

// The SQLSTATE of a statement the server stopped on request: a cancel or the statement timeout.
constexpr std::string_view kQueryCanceled = "57014";

struct FreeDeleter {
  void operator()(char* block) const { PQfreemem(block); }
};

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// Rolls back whatever a transaction left open, however the run or the read ends.
class RollbackGuard {
 public:
  explicit RollbackGuard(PGconn* connection) : connection_(connection) {}
  ~RollbackGuard() {
    if (PQtransactionStatus(connection_) != PQTRANS_IDLE) PgResult(PQexec(connection_, "ROLLBACK"));
  }
  RollbackGuard(const RollbackGuard&) = delete;
  RollbackGuard& operator=(const RollbackGuard&) = delete;

 private:
  PGconn* connection_;
};

// Runs the statements that open a transaction. A connection that died while idle (a server
// restart, a terminated session) shows only when used: it is opened once more, since nothing
// has run yet.
PgResult begin(PGconn* connection, const std::string& sql, ExecStatusType expected) {
  PgResult result(PQexec(connection, sql.c_str()));
  if (PQresultStatus(result.get()) != expected && PQstatus(connection) == CONNECTION_BAD) {
    PQreset(connection);
    if (PQstatus(connection) == CONNECTION_OK) result.reset(PQexec(connection, sql.c_str()));
  }
  return result;
}

std::string timeoutMs(const DatabaseSettings& settings) {
  const auto ms = settings.statementTimeout.count();
  return std::to_string(std::clamp<decltype(ms)>(ms, 0, INT_MAX));
}

// The rows of a result, or of one row of it in single-row mode, counted and at most maxRows kept.
void takeRows(const PGresult* part, StatementResult& result, std::size_t maxRows) {
  if (result.columns.empty()) {
    for (int column = 0; column < PQnfields(part); ++column)
      result.columns.emplace_back(PQfname(part, column));
  }
  for (int row = 0; row < PQntuples(part); ++row) {
    if (result.rowCount++ >= maxRows) continue;
    auto& values = result.rows.emplace_back();
    for (int column = 0; column < PQnfields(part); ++column) {
      if (PQgetisnull(part, row, column) != 0) {
        values.emplace_back(std::nullopt);
      } else {
        values.emplace_back(postgres::textAt(part, row, column));
      }
    }
  }
}

// COPY ... TO STDOUT: each line of its text is a row.
void takeCopyRows(PGconn* connection, StatementResult& result, std::size_t maxRows) {
  result.columns = {"COPY"};
  char* raw = nullptr;
  int size = 0;
  while ((size = PQgetCopyData(connection, &raw, 0)) > 0) {
    const std::unique_ptr<char, FreeDeleter> line(raw);
    std::string_view text(line.get(), static_cast<std::size_t>(size));
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (result.rowCount++ < maxRows) result.rows.push_back({std::string(text)});
  }
}

std::string parameterOf(PGconn* connection, const char* name) {
  return std::string(orEmpty(PQparameterStatus(connection, name)));
}

// Why the statements after one that just ran are not run, or empty when they may be.
std::string_view reasonToStop(PGconn* connection, bool superuserAtStart) {
  if (PQtransactionStatus(connection) != PQTRANS_INTRANS) {
    return "not run: the statement before ended the read-only transaction";
  }
  if (!superuserAtStart && parameterOf(connection, "is_superuser") == "on") {
    return "not run: the statement before took back a superuser's rights";
  }
  return {};
}

}  // namespace

// From its opening until the run ends, interrupt() reaches the server with a cancel request.
class PostgresDatabase::CancelWindow {
 public:
  CancelWindow(PostgresDatabase& database, PGconn* connection) : database_(database) {
    const std::lock_guard lock(database_.cancelMutex_);
    database_.runningCancel_ = PQgetCancel(connection);
    database_.cancelled_ = false;
  }
  ~CancelWindow() {
    const std::lock_guard lock(database_.cancelMutex_);
    PQfreeCancel(database_.runningCancel_);
    database_.runningCancel_ = nullptr;
  }
  CancelWindow(const CancelWindow&) = delete;
  CancelWindow& operator=(const CancelWindow&) = delete;

 private:
  PostgresDatabase& database_;
};

void PostgresDatabase::Closer::operator()(pg_conn* connection) const {
  PQfinish(connection);
}

PostgresDatabase::PostgresDatabase(const std::string& target, const DatabaseSettings& settings)
    : cleaner_(target), settings_(settings) {}

PostgresDatabase::~PostgresDatabase() = default;

Result<std::unique_ptr<PostgresDatabase>> PostgresDatabase::connect(
    const std::string& target, const DatabaseSettings& settings) {
  std::unique_ptr<PostgresDatabase> database(new PostgresDatabase(target, settings));
  // Parameters before dbname are defaults that the target's own override. Without a limit of its
  // own, libpq waits for a host that does not answer as long as the system lets it.
  std::vector<const char*> keywords{"fallback_application_name"};
  std::vector<const char*> values{"qorchat"};
  if (std::getenv("PGCONNECT_TIMEOUT") == nullptr) {
    keywords.push_back("connect_timeout");
    values.push_back("10");
  }
  keywords.push_back("dbname");
  values.push_back(target.c_str());
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  database->connection_.reset(PQconnectdbParams(keywords.data(), values.data(), 1));
  PGconn* connection = database->connection_.get();

  const std::string named = "PostgreSQL database '" + postgres::masked(target) + "'";
  if (connection == nullptr)
    return Status::database("cannot connect to " + named + ": out of memory");
  if (PQstatus(connection) != CONNECTION_OK) {
    return Status::database("cannot connect to " + named + ": " +
                            database->cleaner_.clean(PQerrorMessage(connection)));
  }
  // The server's notices (a BEGIN inside the transaction, say) are not for the terminal.
  PQsetNoticeProcessor(
      connection, [](void*, const char*) {}, nullptr);

  std::string host = orEmpty(PQhost(connection));
  if (host.find(':') != std::string::npos && !text::startsWith(host, "/")) host = "[" + host + "]";
  database->identity_ = std::string(orEmpty(PQuser(connection))) + "@" + host + ":" +
                        orEmpty(PQport(connection)) + "/" + orEmpty(PQdb(connection));
  return database;
}

std::string PostgresDatabase::identity() const {
  return identity_;
}

std::string PostgresDatabase::displayName() const {
  return identity_;
}

std::string PostgresDatabase::failureText(const pg_result* result) const {
  PGconn* connection = connection_.get();
  if (PQstatus(connection) == CONNECTION_BAD) {
    return "the connection to " + identity_ +
           " is lost: " + cleaner_.clean(PQerrorMessage(connection));
  }
  if (const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY)) return primary;
  const std::string message = cleaner_.clean(PQresultErrorMessage(result));
  return message.empty() ? cleaner_.clean(PQerrorMessage(connection)) : message;
}

Status PostgresDatabase::statementFailure(const pg_result* result) const {
  std::string message = failureText(result);
  if (orEmpty(PQresultErrorField(result, PG_DIAG_SQLSTATE)) != kQueryCanceled)
    return Status::database(std::move(message));
  return cancelled_ ? Status::cancelled(std::move(message)) : Status::timedOut(std::move(message));
}

Result<Structure> PostgresDatabase::describe() {
  PGconn* connection = connection_.get();
  const RollbackGuard guard(connection);
  const auto checked = [&](PgResult result) -> Result<PgResult> {
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
      return Status::database("cannot read the structure of " + identity_ + ": " +
                              failureText(result.get()));
    }
    return result;
  };
  // One snapshot for every query, so that a concurrent change cannot mix two structures.
  const Result<PgResult> begun = checked(
      begin(connection,
            "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY; SET LOCAL statement_timeout = " +
                timeoutMs(settings_),
            PGRES_COMMAND_OK));
  if (!begun) return begun.status();
  return postgres::readStructure(orEmpty(PQdb(connection)), [&](const std::string& sql) {
    return checked(PgResult(PQexec(connection, sql.c_str())));
  });
}

bool PostgresDatabase::runStatement(StatementResult& result, std::size_t maxRows) {
  PGconn* connection = connection_.get();
  if (PQsendQueryParams(connection, result.statement.c_str(), 0, nullptr, nullptr, nullptr, nullptr,
                        0) == 0) {
    result.status = Status::database(cleaner_.clean(PQerrorMessage(connection)));
    return false;
  }
  // Row by row, so that a large result is counted without being held.
  PQsetSingleRowMode(connection);
  while (PGresult* raw = PQgetResult(connection)) {
    const PgResult part(raw);
    switch (PQresultStatus(part.get())) {
      case PGRES_SINGLE_TUPLE:
      case PGRES_TUPLES_OK:
        takeRows(part.get(), result, maxRows);
        break;
      case PGRES_COPY_OUT:
        takeCopyRows(connection, result, maxRows);
        break;
      case PGRES_COPY_IN:
        PQputCopyEnd(connection, "qorchat sends no data to COPY FROM STDIN");
        break;
      case PGRES_COMMAND_OK:
      case PGRES_EMPTY_QUERY:
        break;
      default:
        if (result.status.isOk()) result.status = statementFailure(part.get());
        break;
    }
  }
  return true;
}

void PostgresDatabase::runStatements(const std::vector<std::string_view>& statements,
                                     std::size_t maxRows, std::vector<StatementResult>& results) {
  PGconn* connection = connection_.get();
  const bool superuserAtStart = parameterOf(connection, "is_superuser") == "on";
  for (std::size_t i = 0; i < statements.size(); ++i) {
    StatementResult& result = results.emplace_back();
    result.statement = std::string(statements[i]);
    if (!runStatement(result, maxRows) || !result.status.isOk()) return;
    if (i + 1 == statements.size()) return;
    const std::string_view stop = reasonToStop(connection, superuserAtStart);
    if (!stop.empty()) {
      StatementResult& skipped = results.emplace_back();
      skipped.statement = std::string(statements[i + 1]);
      skipped.status = Status::refused(std::string(stop));
      return;
    }
  }
}

Result<std::vector<StatementResult>> PostgresDatabase::runReadOnly(const std::string& sql,
                                                                   const RunLimits& limits) {
  const std::size_t maxRows = limits.maxRows;
  std::vector<StatementResult> results;
  PGconn* connection = connection_.get();
  const std::vector<std::string_view> statements = postgres::splitStatements(
      sql, parameterOf(connection, "standard_conforming_strings") == "off");
  if (statements.empty()) return results;

  // Each statement is sent on its own with the extended protocol, which refuses two statements in
  // one: none can run after a COMMIT of its block, outside the read-only transaction. The SELECT
  // takes the snapshot, after which SET TRANSACTION READ WRITE is refused. A superuser may run
  // programs and write files of the server's machine even in a read-only transaction: as
  // pg_read_all_data, the server refuses those too.
  bool ended = false;
  {
    const RollbackGuard guard(connection);
    const PgResult begun =
        begin(connection,
              "BEGIN READ ONLY; SELECT pg_catalog.set_config('statement_timeout', '" +
                  timeoutMs(settings_) +
                  "', true), CASE WHEN pg_catalog.current_setting('is_superuser') = 'on' AND "
                  "pg_catalog.to_regrole('pg_read_all_data') IS NOT NULL THEN "
                  "pg_catalog.set_config('role', 'pg_read_all_data', true) END",
              PGRES_TUPLES_OK);
    // Nothing ran: the connection, not a statement, failed.
    if (PQresultStatus(begun.get()) != PGRES_TUPLES_OK)
      return Status::database(failureText(begun.get()));
    const CancelWindow window(*this, connection);
    runStatements(statements, maxRows, results);
    ended = PQtransactionStatus(connection) == PQTRANS_IDLE;
  }
  // A statement that ended the transaction may have made settings of its block last: the session
  // goes back to how it began.
  if (ended) PgResult(PQexec(connection, "DISCARD ALL"));
  return results;
}

void PostgresDatabase::interrupt() {
  const std::lock_guard lock(cancelMutex_);
  if (runningCancel_ == nullptr) return;
  cancelled_ = true;
  // The server ends the statement with "canceling statement due to user request".
  char reason[256];
  PQcancel(runningCancel_, reason, sizeof reason);
}

}  // namespace qorchat
