#pragma once
// A throwaway PostgreSQL cluster for tests and benchmarks: a server in a temporary folder,
// listening only on a Unix socket there, stopped and deleted when the process ends however it ends.

#include <cstdio>
#include <string>
#include <vector>

namespace qortest {

class PostgresCluster {
 public:
  // Started at the first call; throws std::runtime_error with what is missing or what was logged.
  static PostgresCluster& shared();

  PostgresCluster();
  ~PostgresCluster();
  PostgresCluster(const PostgresCluster&) = delete;
  PostgresCluster& operator=(const PostgresCluster&) = delete;

  const std::string& socketDir() const { return dir_; }
  // Connection parameters over the socket, without a password.
  std::string conninfo(const std::string& database, const std::string& user = "postgres") const;
  // Those of a role made as qorchat asks (LOGIN, pg_read_all_data), with its password.
  std::string readerConninfo(const std::string& database);
  // Runs as the superuser; throws with the server's message. NULL reads as "NULL".
  void execute(const std::string& sql, const std::string& database = "postgres") const;
  std::vector<std::vector<std::string>> query(const std::string& sql,
                                              const std::string& database) const;
  std::string createDatabase();  // new and empty

 private:
  std::string dir_;
  FILE* watchdog_ = nullptr;  // a shell that stops the server and deletes dir_ when its input ends
  int databases_ = 0;
  bool readerMade_ = false;
};

}  // namespace qortest
