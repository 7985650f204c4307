#pragma once
// The PostgreSQL session that one run of the model's statements has to itself: opened for the
// run and closed after it, so that nothing a statement leaves behind (a setting, a lock, a
// temporary table, an open transaction) reaches the next run. Its statements are read row by row
// against a deadline of qorchat's own, which no setting of the server can lift, and Ctrl-C
// reaches them from another thread.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "db/database.h"
#include "db/postgres_connection.h"

struct pg_conn;
struct pg_cancel;

namespace qorchat::postgres {

// Connection parameters in libpq's order: a keyword given again overrides the one before.
class ConnectParams {
 public:
  void add(std::string keyword, std::string value);
  // Connects with expand_dbname, so that a dbname holding a connection string or URI is read.
  pg_conn* connect() const;

 private:
  std::vector<std::string> keywords_;
  std::vector<std::string> values_;
};

// Where interrupt() finds the run under way and the statement it is running.
class CancelSlot {
 public:
  CancelSlot() = default;
  ~CancelSlot();
  CancelSlot(const CancelSlot&) = delete;
  CancelSlot& operator=(const CancelSlot&) = delete;

  // From beginRun to endRun a run is under way: interrupt() stops it.
  void beginRun();
  void endRun();
  // The session whose running statement a cancel reaches, until detach().
  void attach(pg_conn* connection);
  void detach();
  // From any thread: cancels the running statement, and no other statement of the run starts.
  // Does nothing while no run is under way.
  void interrupt();
  bool interrupted() const { return interrupted_; }
  // Cancels the running statement for the run's own reason, its time limit.
  void cancel();

 private:
  std::mutex mutex_;
  pg_cancel* cancel_ = nullptr;
  bool running_ = false;
  std::atomic<bool> interrupted_{false};
};

class RunSession {
 public:
  // Connects anew and opens a READ ONLY transaction in which the server's own statement timeout
  // backs up qorchat's. Refused when the login role may do more than read (see postgres_role.h),
  // or when the session would not read literals as the parser that judged the statements does.
  // name is the database as the user knows it, for messages.
  static Result<std::unique_ptr<RunSession>> open(const ConnectParams& params,
                                                  std::chrono::milliseconds limit, CancelSlot& slot,
                                                  const MessageCleaner& cleaner,
                                                  const std::string& name);
  ~RunSession();
  RunSession(const RunSession&) = delete;
  RunSession& operator=(const RunSession&) = delete;

  // Runs the statement of result and fills in its columns, its rows (as the limits allow, each
  // value cut as it is read) and its status. Past the time limit, or on Ctrl-C, the statement is
  // cancelled: when rows had arrived they stand and allCounted is false, else it failed. False
  // when the session must run no other statement: a cancel was sent, which could reach the next
  // one, or the connection is lost.
  bool run(StatementResult& result, const RunLimits& limits);

 private:
  struct Closer {
    void operator()(pg_conn* connection) const;
  };
  RunSession(pg_conn* connection, std::chrono::milliseconds limit, CancelSlot& slot,
             const MessageCleaner& cleaner, const std::string& name);

  Status start();
  // Waits until the statement's next result can be taken, cancelling the statement at its
  // deadline or on Ctrl-C. False when the server does not answer the cancel in time or the
  // connection fails: the session is given up.
  bool awaitResult(std::chrono::steady_clock::time_point deadline);
  // The status of a statement once its results are read: what stopped it, or how it failed.
  void finish(StatementResult& result, const std::optional<Status>& failure, bool stoppedByServer,
              bool lost) const;
  std::string lostText() const;

  std::unique_ptr<pg_conn, Closer> connection_;
  std::chrono::milliseconds limit_;
  CancelSlot& slot_;
  const MessageCleaner& cleaner_;
  std::string name_;
  // What stopped the statement under way: a cancel sent (by Ctrl-C or at the deadline), and when
  // waiting for its answer is given up.
  bool stopSent_ = false;
  std::chrono::steady_clock::time_point giveUpAt_{};
};

}  // namespace qorchat::postgres
