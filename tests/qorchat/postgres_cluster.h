#pragma once
// A throwaway PostgreSQL cluster for tests and benchmarks: initdb into a temporary folder, a
// server listening only on a Unix socket in it, stopped and deleted when the process ends, also
// when it crashes or is killed.

#include <cstdio>
#include <string>
#include <vector>

namespace qortest {

class PostgresCluster {
 public:
  // The cluster of this process, started at the first call. Throws std::runtime_error saying what
  // is missing or what the server logged when it cannot start.
  static PostgresCluster& shared();

  PostgresCluster();
  ~PostgresCluster();
  PostgresCluster(const PostgresCluster&) = delete;
  PostgresCluster& operator=(const PostgresCluster&) = delete;

  // The folder of the server's socket.
  const std::string& socketDir() const { return dir_; }
  // Connection parameters for a database over the socket, as the user (without a password).
  std::string conninfo(const std::string& database, const std::string& user = "postgres") const;
  // Runs statements as the superuser postgres; throws with the server's message when one fails.
  void execute(const std::string& sql, const std::string& database = "postgres") const;
  // The rows of a query, as text (NULL as "NULL"), run as the superuser.
  std::vector<std::vector<std::string>> query(const std::string& sql,
                                              const std::string& database) const;
  // A new empty database with a name not used before in this cluster.
  std::string createDatabase();

 private:
  std::string dir_;
  // The input of a shell that waits for this process to end, however it ends, then stops the
  // server and deletes the folder.
  FILE* watchdog_ = nullptr;
  int databases_ = 0;
};

}  // namespace qortest
