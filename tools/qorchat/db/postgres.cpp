// Connects to PostgreSQL through libpq, reads its structure in one read-only snapshot, and runs
// the statements the parser lets through in a read-only session of their own.
#include "db/postgres.h"

#include <libpq-fe.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

#include "db/postgres_catalog.h"
#include "db/postgres_result.h"
#include "db/postgres_statements.h"
#include "text.h"

namespace qorchat {
namespace {

using postgres::PgResult;

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// Rolls back the structure's snapshot, however the read ends.
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

// PostgreSQL's version number as people write it: 150008 is 15.8, and 90624, from before
// version 10, is 9.6.24.
std::string versionText(int number) {
  if (number >= 100000)
    return std::to_string(number / 10000) + "." + std::to_string(number % 10000);
  return std::to_string(number / 10000) + "." + std::to_string(number / 100 % 100) + "." +
         std::to_string(number % 100);
}

std::string timeoutMs(const DatabaseSettings& settings) {
  const auto ms = settings.statementTimeout.count();
  return std::to_string(std::clamp<decltype(ms)>(ms, 0, INT_MAX));
}

}  // namespace

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
  postgres::ConnectParams params;
  params.add("fallback_application_name", "qorchat");
  if (std::getenv("PGCONNECT_TIMEOUT") == nullptr) params.add("connect_timeout", "10");
  params.add("dbname", target);
  // After the target, so that they hold whatever it says: qorchat reads and writes UTF-8.
  params.add("client_encoding", "UTF8");
  database->connection_.reset(params.connect());
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

  database->engineDescription_ = "PostgreSQL " + versionText(PQserverVersion(connection));

  std::string host = orEmpty(PQhost(connection));
  if (host.find(':') != std::string::npos && !text::startsWith(host, "/")) host = "[" + host + "]";
  database->identity_ = std::string(orEmpty(PQuser(connection))) + "@" + host + ":" +
                        orEmpty(PQport(connection)) + "/" + orEmpty(PQdb(connection));

  // Each run's session reaches the server, database and role this connection reached, with the
  // password it used, wherever libpq found that (a list of hosts, a password file read again
  // later could lead elsewhere).
  const auto pin = [&](const char* keyword, const char* value) {
    if (value != nullptr && *value != '\0') params.add(keyword, value);
  };
  pin("host", PQhost(connection));
  pin("hostaddr", PQhostaddr(connection));
  pin("port", PQport(connection));
  pin("user", PQuser(connection));
  pin("dbname", PQdb(connection));
  pin("password", PQpass(connection));
  database->runParams_ = std::move(params);
  return database;
}

std::string PostgresDatabase::identity() const {
  return identity_;
}

std::string PostgresDatabase::displayName() const {
  return identity_;
}

std::string PostgresDatabase::engineDescription() const {
  return engineDescription_;
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

Result<std::string> PostgresDatabase::structureStamp() {
  static const std::string kStampQuery = [] {
    std::string sql = "SELECT concat_ws(' '";
    for (const char* catalog : {"pg_namespace", "pg_class", "pg_attribute", "pg_constraint",
                                "pg_index", "pg_description", "pg_type", "pg_auth_members"}) {
      sql += std::string(
                 ", (SELECT count(*) || ':' || coalesce(sum(xmin::text::bigint), 0) FROM "
                 "pg_catalog.") +
             catalog + ")";
    }
    return sql + ")";
  }();
  PGconn* connection = connection_.get();
  const RollbackGuard guard(connection);
  const PgResult begun =
      begin(connection, "BEGIN READ ONLY; SET LOCAL statement_timeout = " + timeoutMs(settings_),
            PGRES_COMMAND_OK);
  const PgResult stamp = PQresultStatus(begun.get()) == PGRES_COMMAND_OK
                             ? PgResult(PQexec(connection, kStampQuery.c_str()))
                             : PgResult(nullptr);
  if (PQresultStatus(stamp.get()) != PGRES_TUPLES_OK || PQntuples(stamp.get()) != 1) {
    return Status::database("cannot read the structure of " + identity_ + ": " +
                            failureText(stamp ? stamp.get() : begun.get()));
  }
  return postgres::textAt(stamp.get(), 0, 0);
}

Result<std::vector<StatementResult>> PostgresDatabase::runReadOnly(const std::string& sql,
                                                                   const RunLimits& limits) {
  const std::vector<postgres::Statement> statements = postgres::classifyStatements(sql);
  // Nothing of a block reaches the server unless every statement of it only reads.
  if (const postgres::Statement* refused = postgres::firstRefused(statements)) {
    std::vector<StatementResult> results(1);
    results[0].statement = std::string(refused->text);
    results[0].status = postgres::refusal(*refused);
    return results;
  }
  std::vector<std::string> texts;
  texts.reserve(statements.size());
  for (const postgres::Statement& statement : statements)
    texts.emplace_back(statement.text);
  return runInSession(texts, limits);
}

Result<std::vector<StatementResult>> PostgresDatabase::runInSession(
    const std::vector<std::string>& statements, const RunLimits& limits) {
  std::vector<StatementResult> results;
  if (statements.empty()) return results;
  struct RunWindow {
    explicit RunWindow(postgres::CancelSlot& slot) : slot(slot) { slot.beginRun(); }
    ~RunWindow() { slot.endRun(); }
    RunWindow(const RunWindow&) = delete;
    RunWindow& operator=(const RunWindow&) = delete;
    postgres::CancelSlot& slot;
  } const window(cancelSlot_);
  std::unique_ptr<postgres::RunSession> session;
  for (const std::string& statement : statements) {
    if (cancelSlot_.interrupted()) break;
    if (session == nullptr) {
      auto opened = postgres::RunSession::open(runParams_, settings_.statementTimeout, cancelSlot_,
                                               cleaner_, identity_);
      if (!opened) return opened.status();
      session = std::move(opened.value());
    }
    StatementResult& result = results.emplace_back();
    result.statement = statement;
    // A session that sent a cancel is closed: a late cancel must not reach the next statement.
    if (!session->run(result, limits)) session.reset();
    if (!result.status.isOk()) break;
  }
  if (results.empty()) return Status::cancelled("interrupted");
  return results;
}

void PostgresDatabase::interrupt() {
  cancelSlot_.interrupt();
}

}  // namespace qorchat
