#include "postgres_cluster.h"

#include <libpq-fe.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace qortest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPort = "5432";  // names the socket only: no TCP port is opened

// Text in single quotes, each quote (and, given, each other character) escaped.
std::string quoted(const std::string& text, const std::string& quote, const char* other = "'") {
  std::string out = "'";
  for (const char c : text)
    out += c == '\'' || c == *other ? quote + c : std::string(1, c);
  return out + "'";
}
std::string shellWord(const std::string& text) {
  return quoted(text, "'\\'");
}
std::string libpqValue(const std::string& text) {
  return quoted(text, "\\", "\\");
}

std::string tailOf(const std::string& path) {
  std::ifstream file(path);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return text.substr(text.size() > 2000 ? text.size() - 2000 : 0);
}

// The folder of initdb and pg_ctl, as pg_config names it.
std::string serverPrograms() {
  char found[512] = "";
  if (FILE* pipe = popen("pg_config --bindir 2>/dev/null", "r")) {
    if (fscanf(pipe, "%511s", found) != 1) found[0] = '\0';
    pclose(pipe);
  }
  if (access((found + std::string("/initdb")).c_str(), X_OK) != 0)
    throw std::runtime_error(
        "the PostgreSQL server programs are not installed; the tests need postgresql-15 "
        "(scripts/setup.sh installs it)");
  return found;
}

std::unique_ptr<PGresult, void (*)(PGresult*)> run(const std::string& conninfo,
                                                   const std::string& sql) {
  const std::unique_ptr<PGconn, void (*)(PGconn*)> connection(PQconnectdb(conninfo.c_str()),
                                                              PQfinish);
  if (PQstatus(connection.get()) != CONNECTION_OK)
    throw std::runtime_error("cannot connect to the test cluster: " +
                             std::string(PQerrorMessage(connection.get())));
  PQsetNoticeProcessor(
      connection.get(), [](void*, const char*) {}, nullptr);
  std::unique_ptr<PGresult, void (*)(PGresult*)> result(PQexec(connection.get(), sql.c_str()),
                                                        PQclear);
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
    throw std::runtime_error(std::string(PQresultErrorMessage(result.get())) +
                             "in: " + sql.substr(0, 300));
  return result;
}

}  // namespace

PostgresCluster& PostgresCluster::shared() {
  static PostgresCluster cluster;
  return cluster;
}

PostgresCluster::PostgresCluster() {
  const std::string programs = serverPrograms();
  // Root may not run a server: as root the programs run as the account the package creates.
  const std::string as = geteuid() == 0 ? "runuser -u postgres -- " : "";
  dir_ = (fs::temp_directory_path() / "qorchat-pg-XXXXXX").string();
  if (mkdtemp(dir_.data()) == nullptr)
    throw std::runtime_error("cannot create a folder for the test cluster in " + dir_);
  const std::string data = dir_ + "/data", log = dir_ + "/setup.log",
                    serverLog = dir_ + "/server.log";
  // Its input ends when this process closes it or dies; it ignores the Ctrl-C meant for the tests.
  watchdog_ = popen(
      ("exec >/dev/null 2>&1; trap '' INT QUIT HUP; cat; " + as + shellWord(programs + "/pg_ctl") +
       " -D " + shellWord(data) + " -m immediate -w stop; rm -rf " + shellWord(dir_))
          .c_str(),
      "we");
  if (watchdog_ == nullptr) {
    fs::remove_all(dir_);
    throw std::runtime_error("cannot start the test cluster's watchdog");
  }
  const passwd* account = as.empty() ? nullptr : getpwnam("postgres");
  if (!as.empty() &&
      (account == nullptr || chown(dir_.c_str(), account->pw_uid, account->pw_gid) != 0))
    throw std::runtime_error(
        "running as root, the test cluster needs the postgres account of postgresql-15");
  const auto step = [&](const std::string& program, const std::string& arguments) {
    const std::string command = as + shellWord(programs + program) + " -D " + shellWord(data);
    if (std::system((command + arguments + " </dev/null >>" + shellWord(log) + " 2>&1").c_str()))
      throw std::runtime_error(command + " failed:\n" + tailOf(log) + "\nserver log:\n" +
                               tailOf(serverLog));
  };
  step("/initdb", " -U postgres -A trust -E UTF8 --locale=C --no-sync --no-instructions");
  std::ofstream(data + "/postgresql.conf", std::ios::app)
      << "listen_addresses = ''\nunix_socket_directories = '" << dir_ << "'\nport = " << kPort
      << "\nfsync = off\nsynchronous_commit = off\nfull_page_writes = off\nmax_connections = 20\n";
  // The superuser enters freely; any other role needs its password.
  std::ofstream(data + "/pg_hba.conf", std::ios::trunc)
      << "local all postgres trust\nlocal all all scram-sha-256\n";
  step("/pg_ctl", " -l " + shellWord(serverLog) + " -w -t 60 start");
}

PostgresCluster::~PostgresCluster() {
  if (watchdog_ != nullptr) pclose(watchdog_);
}

std::string PostgresCluster::conninfo(const std::string& database, const std::string& user) const {
  return "host=" + libpqValue(dir_) + " port=" + kPort + " dbname=" + libpqValue(database) +
         " user=" + libpqValue(user);
}

std::string PostgresCluster::readerConninfo(const std::string& database) {
  if (!readerMade_)
    execute(
        "CREATE ROLE qorchat_reader LOGIN PASSWORD 'reader-pw'; "
        "GRANT pg_read_all_data TO qorchat_reader");
  readerMade_ = true;
  return conninfo(database, "qorchat_reader") + " password=reader-pw";
}

void PostgresCluster::execute(const std::string& sql, const std::string& database) const {
  run(conninfo(database), sql);
}

std::vector<std::vector<std::string>> PostgresCluster::query(const std::string& sql,
                                                             const std::string& database) const {
  const auto result = run(conninfo(database), sql);
  std::vector<std::vector<std::string>> rows(PQntuples(result.get()));
  for (int row = 0; row < static_cast<int>(rows.size()); ++row) {
    for (int column = 0; column < PQnfields(result.get()); ++column)
      rows[row].emplace_back(PQgetisnull(result.get(), row, column) != 0
                                 ? "NULL"
                                 : PQgetvalue(result.get(), row, column));
  }
  return rows;
}

std::string PostgresCluster::createDatabase() {
  const std::string name = "qorchat_test_" + std::to_string(++databases_);
  execute("CREATE DATABASE " + name);
  return name;
}

}  // namespace qortest
