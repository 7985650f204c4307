// Makes, starts, and at the end stops and deletes a PostgreSQL cluster of the tests' own.

#include "postgres_cluster.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

extern char** environ;

namespace qortest {
namespace {

namespace fs = std::filesystem;

// Only the socket's file name carries the port: the server opens no TCP port.
constexpr const char* kPort = "5432";

std::string trimmedOutput(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr)
      out += buffer;
    pclose(pipe);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
    out.pop_back();
  return out;
}

// The folder of initdb and pg_ctl: pg_config's, else that of Debian's postgresql-15.
std::string serverPrograms() {
  for (const std::string& dir : {trimmedOutput("pg_config --bindir 2>/dev/null"),
                                 std::string("/usr/lib/postgresql/15/bin")}) {
    if (!dir.empty() && access((dir + "/initdb").c_str(), X_OK) == 0 &&
        access((dir + "/pg_ctl").c_str(), X_OK) == 0) {
      return dir;
    }
  }
  throw std::runtime_error(
      "the PostgreSQL server programs initdb and pg_ctl are not installed; the tests need "
      "postgresql-15 (scripts/setup.sh installs it)");
}

std::string tailOf(const std::string& path) {
  std::ifstream file(path);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

std::vector<char*> argvOf(std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (std::string& arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  return argv;
}

// Runs a program to its end, its output added to the log. Root may not run a server: as root the
// programs run as the postgres account that the package creates.
void run(std::vector<std::string> args, bool asPostgres, const std::string& log,
         const std::string& serverLog = {}) {
  if (asPostgres) args.insert(args.begin(), {"runuser", "-u", "postgres", "--"});
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  std::vector<char*> argv = argvOf(args);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (spawned != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    std::string command;
    for (const std::string& arg : args)
      command += (command.empty() ? "" : " ") + arg;
    throw std::runtime_error(command + " failed:\n" + tailOf(log) +
                             (serverLog.empty() ? "" : "\nserver log:\n" + tailOf(serverLog)));
  }
}

// A libpq parameter value in quotes, as a conninfo wants one that may hold spaces.
std::string quoted(const std::string& value) {
  std::string out = "'";
  for (const char c : value) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  return out + "'";
}

struct ConnectionCloser {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
struct ResultCloser {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;
using Result = std::unique_ptr<PGresult, ResultCloser>;

Connection connect(const std::string& conninfo) {
  Connection connection(PQconnectdb(conninfo.c_str()));
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    throw std::runtime_error("cannot connect to the test cluster: " +
                             std::string(PQerrorMessage(connection.get())));
  }
  PQsetNoticeProcessor(
      connection.get(), [](void*, const char*) {}, nullptr);
  return connection;
}

Result runOn(PGconn* connection, const std::string& sql) {
  Result result(PQexec(connection, sql.c_str()));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    throw std::runtime_error(std::string(PQresultErrorMessage(result.get())) +
                             "in: " + (sql.size() > 300 ? sql.substr(0, 300) + "..." : sql));
  }
  return result;
}

}  // namespace

void PostgresCluster::Watchdog::start(const std::string& pgCtl, const std::string& dir,
                                      bool asPostgres) {
  int pipe[2];
  if (pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  // The shell waits for the end of its input, which comes when this process closes the pipe or
  // dies. Everything is prepared before the fork: the child only execs.
  std::vector<std::string> args{
      "/bin/sh",
      "-c",
      "cat >/dev/null; "
      "if [ -n \"$4\" ]; then runuser -u postgres -- \"$1\" -D \"$2\" -m immediate -w stop; "
      "else \"$1\" -D \"$2\" -m immediate -w stop; fi; rm -rf \"$3\"",
      "qorchat-pg-watchdog",
      pgCtl,
      dir + "/data",
      dir,
      asPostgres ? "as-postgres" : ""};
  std::vector<char*> argv = argvOf(args);
  pid_ = fork();
  if (pid_ < 0) {
    close(pipe[0]);
    close(pipe[1]);
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    dup2(pipe[0], STDIN_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    // Its own session: a Ctrl-C meant for the tests must not end it before it cleans up.
    setsid();
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipe[0]);
  input_ = pipe[1];
}

PostgresCluster::Watchdog::~Watchdog() {
  if (input_ >= 0) close(input_);
  if (pid_ > 0) waitpid(pid_, nullptr, 0);
}

PostgresCluster& PostgresCluster::shared() {
  static PostgresCluster cluster;
  return cluster;
}

PostgresCluster::PostgresCluster() {
  const std::string programs = serverPrograms();
  const bool asPostgres = geteuid() == 0;
  std::string pattern = (fs::temp_directory_path() / "qorchat-pg-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot create a folder for the test cluster in " +
                             fs::temp_directory_path().string());
  }
  dir_ = pattern;
  try {
    watchdog_.start(programs + "/pg_ctl", dir_, asPostgres);
  } catch (...) {
    fs::remove_all(dir_);
    throw;
  }
  // From here on the watchdog deletes the folder, whatever happens.
  if (asPostgres) {
    const passwd* account = getpwnam("postgres");
    if (account == nullptr || chown(dir_.c_str(), account->pw_uid, account->pw_gid) != 0) {
      throw std::runtime_error(
          "running as root, the test cluster needs the postgres account of postgresql-15");
    }
  }
  const std::string data = dir_ + "/data";
  const std::string log = dir_ + "/setup.log";
  const std::string serverLog = dir_ + "/server.log";
  run({programs + "/initdb", "-D", data, "-U", "postgres", "-A", "trust", "-E", "UTF8",
       "--locale=C", "--no-sync", "--no-instructions"},
      asPostgres, log);
  {
    std::ofstream conf(data + "/postgresql.conf", std::ios::app);
    conf << "listen_addresses = ''\n"
         << "unix_socket_directories = '" << dir_ << "'\n"
         << "port = " << kPort << "\n"
         << "fsync = off\nsynchronous_commit = off\nfull_page_writes = off\n"
         << "max_connections = 20\n";
  }
  {
    // The superuser enters freely; any other role needs its password.
    std::ofstream hba(data + "/pg_hba.conf", std::ios::trunc);
    hba << "local all postgres trust\nlocal all all scram-sha-256\n";
  }
  run({programs + "/pg_ctl", "-D", data, "-l", serverLog, "-w", "-t", "60", "start"}, asPostgres,
      log, serverLog);
}

PostgresCluster::~PostgresCluster() = default;

std::string PostgresCluster::conninfo(const std::string& database, const std::string& user) const {
  return "host=" + quoted(dir_) + " port=" + kPort + " dbname=" + quoted(database) +
         " user=" + quoted(user);
}

void PostgresCluster::execute(const std::string& sql, const std::string& database) const {
  const Connection connection = connect(conninfo(database));
  runOn(connection.get(), sql);
}

std::vector<std::vector<std::string>> PostgresCluster::query(const std::string& sql,
                                                             const std::string& database) const {
  const Connection connection = connect(conninfo(database));
  const Result result = runOn(connection.get(), sql);
  std::vector<std::vector<std::string>> rows;
  for (int row = 0; row < PQntuples(result.get()); ++row) {
    auto& values = rows.emplace_back();
    for (int column = 0; column < PQnfields(result.get()); ++column) {
      values.emplace_back(PQgetisnull(result.get(), row, column) != 0
                              ? "NULL"
                              : PQgetvalue(result.get(), row, column));
    }
  }
  return rows;
}

std::string PostgresCluster::createDatabase() {
  const std::string name = "qorchat_test_" + std::to_string(++databases_);
  execute("CREATE DATABASE " + name);
  return name;
}

}  // namespace qortest
