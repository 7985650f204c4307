// Opens the session of one run, checks its role, and reads each statement's rows one at a time
// against qorchat's own deadline, cancelling the statement when the deadline or Ctrl-C comes.
#include "db/postgres_run.h"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <optional>
#include <string_view>
#include <utility>

#include "db/postgres_result.h"
#include "db/postgres_role.h"

namespace qorchat::postgres {
namespace {

using Clock = std::chrono::steady_clock;

// The SQLSTATE of a statement the server stopped on request: a cancel or its statement timeout.
constexpr std::string_view kQueryCanceled = "57014";
// How long a cancelled statement may take to end before its session is given up.
constexpr auto kCancelGrace = std::chrono::seconds(2);
// How often a wait looks whether Ctrl-C came.
constexpr auto kPollSlice = std::chrono::milliseconds(100);
// The server's own statement timeout comes this much after qorchat's: it ends a statement should
// qorchat die while it runs, and otherwise never fires first.
constexpr auto kServerBackstop = std::chrono::seconds(1);

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

std::string durationText(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return std::to_string(duration.count() / 1000) + " s";
  return std::to_string(duration.count()) + " ms";
}

// At most maxBytes of the value, ending before a character rather than inside one: only this
// much of a huge value is ever copied.
std::string valuePrefix(const char* value, std::size_t length, std::size_t maxBytes) {
  std::size_t cut = std::min(length, maxBytes);
  if (cut < length) {
    while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80)
      --cut;
  }
  return {value, cut};
}

// The rows of a result (one in single-row mode), counted, the first maxRows kept.
void takeRows(const PGresult* part, StatementResult& result, const RunLimits& limits) {
  if (result.columns.empty()) {
    for (int column = 0; column < PQnfields(part); ++column)
      result.columns.emplace_back(PQfname(part, column));
  }
  for (int row = 0; row < PQntuples(part); ++row) {
    if (result.rowCount++ >= limits.maxRows) continue;
    auto& values = result.rows.emplace_back();
    for (int column = 0; column < PQnfields(part); ++column) {
      if (PQgetisnull(part, row, column) != 0) {
        values.emplace_back(std::nullopt);
      } else {
        values.emplace_back(valuePrefix(PQgetvalue(part, row, column),
                                        static_cast<std::size_t>(PQgetlength(part, row, column)),
                                        limits.maxValueBytes));
      }
    }
  }
}

}  // namespace

void ConnectParams::add(std::string keyword, std::string value) {
  keywords_.push_back(std::move(keyword));
  values_.push_back(std::move(value));
}

pg_conn* ConnectParams::connect() const {
  std::vector<const char*> keywords;
  std::vector<const char*> values;
  for (std::size_t i = 0; i < keywords_.size(); ++i) {
    keywords.push_back(keywords_[i].c_str());
    values.push_back(values_[i].c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  return PQconnectdbParams(keywords.data(), values.data(), 1);
}

CancelSlot::~CancelSlot() {
  PQfreeCancel(cancel_);
}

void CancelSlot::beginRun() {
  const std::lock_guard lock(mutex_);
  running_ = true;
  interrupted_ = false;
}

void CancelSlot::endRun() {
  const std::lock_guard lock(mutex_);
  running_ = false;
}

void CancelSlot::attach(pg_conn* connection) {
  const std::lock_guard lock(mutex_);
  PQfreeCancel(cancel_);
  cancel_ = PQgetCancel(connection);
}

void CancelSlot::detach() {
  const std::lock_guard lock(mutex_);
  PQfreeCancel(cancel_);
  cancel_ = nullptr;
}

void CancelSlot::interrupt() {
  const std::lock_guard lock(mutex_);
  if (!running_) return;
  interrupted_ = true;
  // The server ends the statement with "canceling statement due to user request".
  char reason[256];
  if (cancel_ != nullptr) PQcancel(cancel_, reason, sizeof reason);
}

void CancelSlot::cancel() {
  const std::lock_guard lock(mutex_);
  char reason[256];
  if (cancel_ != nullptr) PQcancel(cancel_, reason, sizeof reason);
}

void RunSession::Closer::operator()(pg_conn* connection) const {
  PQfinish(connection);
}

RunSession::RunSession(pg_conn* connection, std::chrono::milliseconds limit, CancelSlot& slot,
                       const MessageCleaner& cleaner, const std::string& name)
    : connection_(connection), limit_(limit), slot_(slot), cleaner_(cleaner), name_(name) {}

RunSession::~RunSession() {
  slot_.detach();
}

Result<std::unique_ptr<RunSession>> RunSession::open(const ConnectParams& params,
                                                     std::chrono::milliseconds limit,
                                                     CancelSlot& slot,
                                                     const MessageCleaner& cleaner,
                                                     const std::string& name) {
  pg_conn* connection = params.connect();
  if (connection == nullptr)
    return Status::database("cannot connect to " + name + ": out of memory");
  std::unique_ptr<RunSession> session(new RunSession(connection, limit, slot, cleaner, name));
  if (PQstatus(connection) != CONNECTION_OK) {
    return Status::database("cannot connect to " + name + ": " +
                            cleaner.clean(PQerrorMessage(connection)));
  }
  PQsetNoticeProcessor(
      connection, [](void*, const char*) {}, nullptr);
  slot.attach(connection);
  const Status started = session->start();
  if (!started) return started;
  return session;
}

Status RunSession::start() {
  PGconn* connection = connection_.get();
  const auto backstop = limit_.count() > 0 ? (limit_ + kServerBackstop).count() : 0;
  const std::string setup =
      "BEGIN READ ONLY; SET LOCAL standard_conforming_strings = on; SET LOCAL statement_timeout "
      "= " +
      std::to_string(std::min<decltype(backstop)>(backstop, INT_MAX)) + "; " + kRoleReachQuery;
  const PgResult reach(PQexec(connection, setup.c_str()));
  if (PQresultStatus(reach.get()) != PGRES_TUPLES_OK) {
    const char* primary = PQresultErrorField(reach.get(), PG_DIAG_MESSAGE_PRIMARY);
    return Status::database("cannot begin a run on " + name_ + ": " +
                            (primary != nullptr ? std::string(primary) : lostText()));
  }
  std::vector<RoleReach> reaches;
  for (int row = 0; row < PQntuples(reach.get()); ++row) {
    const auto yes = [&](int column) { return textAt(reach.get(), row, column) == "t"; };
    reaches.push_back({textAt(reach.get(), row, 0), yes(1), yes(2), yes(3)});
  }
  const std::string refused = roleRefusal(orEmpty(PQuser(connection)), reaches);
  if (!refused.empty()) return Status::refused(refused);
  // The parser judged the statements with standard literals, in UTF-8: a session that read a
  // backslash in a literal, or a byte of another encoding, otherwise would run something else.
  if (std::string_view(orEmpty(PQparameterStatus(connection, "standard_conforming_strings"))) !=
          "on" ||
      std::string_view(orEmpty(PQparameterStatus(connection, "client_encoding"))) != "UTF8") {
    return Status::refused(
        "refused: the session does not read SQL as qorchat checked it (standard literals, UTF-8)");
  }
  return Status::ok();
}

std::string RunSession::lostText() const {
  return "the connection to " + name_ +
         " is lost: " + cleaner_.clean(PQerrorMessage(connection_.get()));
}

bool RunSession::awaitResult(Clock::time_point deadline) {
  PGconn* connection = connection_.get();
  for (;;) {
    // Looked at before every result: rows that keep coming leave libpq never busy.
    const auto now = Clock::now();
    if (!stopSent_ && (slot_.interrupted() || now >= deadline)) {
      // Ctrl-C sent a cancel of its own.
      if (!slot_.interrupted()) slot_.cancel();
      stopSent_ = true;
      giveUpAt_ = now + kCancelGrace;
    }
    if (stopSent_ && now >= giveUpAt_) return false;
    if (PQisBusy(connection) == 0) return true;
    const auto until = std::min(stopSent_ ? giveUpAt_ : deadline, now + kPollSlice);
    pollfd socket{PQsocket(connection), POLLIN, 0};
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count();
    const int ready = poll(&socket, 1, static_cast<int>(wait) + 1);
    if ((ready < 0 && errno != EINTR) || PQstatus(connection) == CONNECTION_BAD) return false;
    if (ready > 0 && PQconsumeInput(connection) == 0) return false;
  }
}

bool RunSession::run(StatementResult& result, const RunLimits& limits) {
  PGconn* connection = connection_.get();
  stopSent_ = false;
  // The extended protocol takes one statement: the text runs as the parser judged it, alone.
  if (PQsendQueryParams(connection, result.statement.c_str(), 0, nullptr, nullptr, nullptr, nullptr,
                        0) == 0 ||
      PQsetSingleRowMode(connection) == 0) {
    result.status = Status::database(lostText());
    return false;
  }
  const auto deadline = limit_.count() > 0 ? Clock::now() + limit_ : Clock::time_point::max();
  std::optional<Status> failure;
  bool stoppedByServer = false;
  bool lost = false;
  while (!lost) {
    lost = !awaitResult(deadline);
    const PgResult part(lost ? nullptr : PQgetResult(connection));
    if (part == nullptr) break;
    const ExecStatusType status = PQresultStatus(part.get());
    if (status == PGRES_SINGLE_TUPLE || status == PGRES_TUPLES_OK) {
      takeRows(part.get(), result, limits);
    } else if (status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH) {
      // No statement that passed the parser copies; COPY data would hold the session.
      failure = Status::database("qorchat reads no COPY data");
      lost = true;
    } else if (status != PGRES_COMMAND_OK && status != PGRES_EMPTY_QUERY && !failure) {
      stoppedByServer = orEmpty(PQresultErrorField(part.get(), PG_DIAG_SQLSTATE)) == kQueryCanceled;
      const char* primary = PQresultErrorField(part.get(), PG_DIAG_MESSAGE_PRIMARY);
      failure = Status::database(primary != nullptr ? primary : lostText());
    }
  }
  finish(result, failure, stoppedByServer, lost);
  return !stopSent_ && !stoppedByServer && !lost;
}

void RunSession::finish(StatementResult& result, const std::optional<Status>& failure,
                        bool stoppedByServer, bool lost) const {
  const bool stopped = stoppedByServer || (stopSent_ && lost);
  if (stopped && result.rowCount > 0) {
    // The rows that came before the stop stand; only their count is unfinished.
    result.allCounted = false;
  } else if (stopped && slot_.interrupted()) {
    result.status =
        Status::cancelled(stoppedByServer && failure ? failure->message() : "interrupted");
  } else if (stopped && limit_.count() > 0) {
    result.status = Status::timedOut("statement timeout: stopped after " + durationText(limit_) +
                                     " (--statement-timeout SECONDS changes the limit)");
  } else if (failure) {
    result.status = *failure;
  } else if (lost) {
    result.status = Status::database(lostText());
  }
}

}  // namespace qorchat::postgres
