#pragma once
// What qorchat's tests share: a folder of their own, SQLite files made and read directly, the
// digest the assistant makes of a structure (what the model is told), databases opened and run
// as qorchat does, and the real qorchat binary run as a child process that tests can type into,
// read and send signals.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "db/database.h"
#include "qor.h"
#include "support/loopback_server.h"
#include "support/raw_server.h"
#include "yl/yl.h"

namespace qortest {

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i)
    all += text;
  return all;
}

// A new folder, deleted with all it holds at the end of the scope.
struct TempDir {
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qorchat-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::filesystem::path path;
};

// Runs statements on an SQLite file, made if missing; gives the first value of the last row
// (NULL as "NULL"). A failure fails the test with SQLite's text.
inline std::string sqlite(const std::filesystem::path& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::string value;
  char* error = nullptr;
  const auto keep = [](void* out, int, char** values, char**) {
    *static_cast<std::string*>(out) = values[0] != nullptr ? values[0] : "NULL";
    return 0;
  };
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, sql.c_str(), keep, &value, &error) != SQLITE_OK) {
    ADD_FAILURE() << sqlite3_errmsg(db) << " in: " << sql;
  }
  sqlite3_free(error);
  sqlite3_close(db);
  return value;
}

// The digest of a structure, without the line feed that follows it in the instructions.
inline std::string digestOf(const std::string& structure) {
  IQORAssistant* assistant =
      QORCreateAssistant(QORAssistantType::OLLAMA, new YLHTTPPoolCenter, "", "", nullptr);
  assistant->updateProperties([&](IQORProperties* properties) {
    EXPECT_TRUE(properties->setValue("db_structure", YLVariant(structure)));
  });
  IQORProperties* properties = assistant->obtainProperties();
  const YLVariant combined = properties->obtainValue("combined_instructions");
  QORFreeObject(properties);
  QORFreeObject(assistant);
  std::string text = combined.stringPtr() != nullptr ? *combined.stringPtr() : std::string();
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

using Rows = std::vector<std::vector<std::optional<std::string>>>;

// What a database opening gave. A failure throws, which fails the test with its message.
template <typename Opened>
std::unique_ptr<Opened> opened(qorchat::Result<std::unique_ptr<Opened>> result) {
  if (!result) throw std::runtime_error("cannot open: " + result.status().message());
  return std::move(result.value());
}

// The results of a run; a failure of the run itself (not of a statement) throws.
inline std::vector<qorchat::StatementResult> ran(qorchat::Database& database,
                                                 const std::string& sql, std::size_t maxRows = 10) {
  auto results = database.runReadOnly(sql, qorchat::RunLimits{maxRows});
  if (!results) throw std::runtime_error("the run failed: " + results.status().message());
  return std::move(results.value());
}

// The catalog and CREATE lines of what the model is told of the database; a failure to describe
// it throws.
inline std::vector<std::string> describedLines(qorchat::Database& database) {
  const qorchat::Result<qorchat::Structure> structure = database.describe();
  if (!structure) throw std::runtime_error("cannot describe: " + structure.status().message());
  std::istringstream digest(digestOf(qorchat::structureJson(structure.value())));
  std::vector<std::string> lines;
  for (std::string line; std::getline(digest, line);)
    if (line.rfind("USE CATALOG ", 0) == 0 || line.rfind("CREATE ", 0) == 0) lines.push_back(line);
  return lines;
}

class Program {
 public:
  // Starts qorchat with the arguments and these variables over the test's environment (an empty
  // value removes the variable). What it prints goes to files, read as it comes.
  Program(std::vector<std::string> args, const std::map<std::string, std::string>& env) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    args.insert(args.begin(), QORCHAT_BINARY);
    std::vector<char*> argv;
    for (std::string& arg : args)
      argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string out = (dir_.path / "out").string();
    const std::string err = (dir_.path / "err").string();
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO);
      dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
      for (const auto& [name, value] : env)
        value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    input_ = in[1];
  }

  // A program the test leaves running is killed.
  ~Program() {
    if (input_ >= 0) close(input_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  std::string out() const { return printed("out"); }
  std::string err() const { return printed("err"); }
  void write(const std::string& text) {
    if (::write(input_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("write to qorchat failed");
  }
  void signal(int number) { kill(pid_, number); }

  // Whether the predicate comes to hold within 20 seconds.
  static bool waitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 400 && !done(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return done();
  }
  bool waitForOutput(const std::string& text) const {
    return waitFor([&] { return has(out(), text); });
  }
  bool waitForError(const std::string& text) const {
    return waitFor([&] { return has(err(), text); });
  }

  // Waits for the exit, its input closed unless told not to, and gives the status (128 + the
  // signal when killed).
  int finish(std::chrono::seconds limit = std::chrono::seconds(30), bool closingInput = true) {
    if (closingInput && input_ >= 0) {
      close(input_);
      input_ = -1;
    }
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) != pid_) {
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("qorchat did not exit");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  std::string printed(const char* name) const {
    std::ifstream file(dir_.path / name);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  TempDir dir_;
  pid_t pid_ = -1;
  int input_ = -1;
};

// The body of the last request a behaviour saw, read on the test's thread.
struct KeptBody {
  std::string text() {
    const std::lock_guard lock(mutex);
    return body;
  }
  std::mutex mutex;
  std::string body;
};

// Ollama's reply streamed in these fragments, a JSON line a piece, gap apart; the last line ends
// it with 412 tokens in and 96 out. One fragment is also the reply unstreamed.
inline RawBehaviour ollamaStream(const std::vector<std::string>& fragments,
                                 std::chrono::milliseconds gap, KeptBody* kept = nullptr) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    const bool last = i + 1 == fragments.size();
    YLJson line;
    line.addKeyValue("model")->setStringValue("m");
    IYLJsonValue* message = line.addKeyValue("message");
    message->addKeyValue("role")->setStringValue("assistant");
    message->addKeyValue("content")->setStringValue(fragments[i]);
    line.addKeyValue("done")->setBoolValue(last);
    if (last) {
      line.addKeyValue("prompt_eval_count")->setIntValue(412);
      line.addKeyValue("eval_count")->setIntValue(96);
    }
    lines.push_back(line.obtainJsonString() + "\n");
  }
  return [kept, reply = piecewiseReply(200, std::move(lines), -1, gap)](RawConnection& connection,
                                                                        const RawRequest& request) {
    if (kept != nullptr) {
      const std::lock_guard lock(kept->mutex);
      kept->body = request.body;
    }
    reply(connection, request);
  };
}

// Runs qorchat to its end with the input given at once.
struct Outcome {
  int status;
  std::string out;
  std::string err;
};
inline Outcome runQorchat(const std::vector<std::string>& args,
                          const std::map<std::string, std::string>& env = {},
                          const std::string& input = "") {
  Program program(args, env);
  if (!input.empty()) program.write(input);
  const int status = program.finish();
  return {status, program.out(), program.err()};
}

// A reply of the Ollama service whose text may hold anything: quotes, line breaks, backticks.
inline ScriptedReply ollamaReply(const std::string& text,
                                 std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                                 const std::string& doneReason = "stop") {
  YLJson reply;
  reply.addKeyValue("model")->setStringValue("m");
  IYLJsonValue* message = reply.addKeyValue("message");
  message->addKeyValue("role")->setStringValue("assistant");
  message->addKeyValue("content")->setStringValue(text);
  reply.addKeyValue("done")->setBoolValue(true);
  reply.addKeyValue("done_reason")->setStringValue(doneReason);
  ScriptedReply scripted{200, reply.obtainJsonString()};
  scripted.delay = delay;
  return scripted;
}

}  // namespace qortest
