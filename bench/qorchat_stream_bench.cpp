// How soon a streamed answer reaches the person: the real qorchat on a pseudo-terminal, asked
// question after question, each answered by an Ollama stream whose first line the server writes
// alone, then a pause, then the rest. Each iteration is the time from the server's write of that
// first line to the read of the answer's first characters from the terminal, plain and laid out
// as Markdown; the server's pause is printed beside it as the reference (the library's own figure
// is qor_stream_bench's FirstFragment). The program's start is outside the timing. On a loaded
// machine a few late iterations pull the mean far up: the counter median_us is the figure to read.
// Run the release build:
//   build/release/bench/qorchat_stream_bench

#include <benchmark/benchmark.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "bench_ratios.h"
#include "bench_server.h"
#include "qor.h"

namespace {

using qorbench::BenchServer;
using Clock = BenchServer::Clock;

constexpr auto kGap = std::chrono::milliseconds(50);
constexpr auto kPatience = std::chrono::seconds(10);
constexpr int kQuestions = 20;
// The answer's first words: text that nothing else on the screen holds.
constexpr std::string_view kOpening = "Seventeen";
constexpr std::string_view kPrompt = "qorchat>";

// Ollama's chat stream: the first line alone, a pause, then the rest as a line a write. The first
// fragment ends a paragraph and starts the next, so that a Markdown layout can show it at once.
qorbench::StreamedReply ollamaStream() {
  const std::vector<std::string> fragments = {
      std::string(kOpening) + " customers ordered twice.\n\nThis query counts their orders:\n",
      "\n```sql\nSELECT count(*) FROM orders;\n```\n", "That is all.\n"};
  qorbench::StreamedReply reply{"application/x-ndjson", {}, kGap};
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    const bool last = i + 1 == fragments.size();
    YLJson line;
    line.addKeyValue("model")->setStringValue("m");
    IYLJsonValue* message = line.addKeyValue("message");
    message->addKeyValue("role")->setStringValue("assistant");
    message->addKeyValue("content")->setStringValue(fragments[i]);
    line.addKeyValue("done")->setBoolValue(last);
    if (last) {
      line.addKeyValue("done_reason")->setStringValue("stop");
      line.addKeyValue("prompt_eval_count")->setIntValue(412);
      line.addKeyValue("eval_count")->setIntValue(96);
    }
    reply.pieces.push_back(line.obtainJsonString() + "\n");
  }
  return reply;
}

// A folder of its own for the program's home and state, with a small database; removed after.
class Home {
 public:
  Home() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "qorchat-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = pattern;
    sqlite3* db = nullptr;
    const bool made =
        sqlite3_open(database().c_str(), &db) == SQLITE_OK &&
        sqlite3_exec(db,
                     "CREATE TABLE customers(id INTEGER PRIMARY KEY, name TEXT);"
                     "CREATE TABLE orders(id INTEGER PRIMARY KEY, customer_id INTEGER "
                     "REFERENCES customers(id), total REAL);"
                     "INSERT INTO customers VALUES (1, 'Ada'), (2, 'Brook');"
                     "INSERT INTO orders VALUES (1, 1, 9.5), (2, 1, 4.0), (3, 2, 12.25);",
                     nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    if (!made) throw std::runtime_error("cannot make the database");
  }
  ~Home() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  std::string path() const { return path_.string(); }
  std::string database() const { return (path_ / "shop.db").string(); }

 private:
  std::filesystem::path path_;
};

// qorchat on a terminal of its own, talking to the server; ended with Ctrl-D, or a signal if it
// will not go.
class Program {
 public:
  Program(const Home& home, const BenchServer& server, bool color) {
    // Everything the child needs is made before the fork: the server's thread runs on meanwhile.
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string_view name =
          std::string_view(*entry).substr(0, std::string_view(*entry).find('='));
      if (name != "HOME" && !name.starts_with("XDG_") && name != "TERM" && name != "NO_COLOR" &&
          name != "PAGER")
        env.emplace_back(*entry);
    }
    for (const char* name : {"HOME=", "XDG_STATE_HOME=", "XDG_CONFIG_HOME="})
      env.push_back(name + home.path());
    env.emplace_back("TERM=xterm-256color");
    if (!color) env.emplace_back("NO_COLOR=1");
    std::vector<std::string> args = {
        "qorchat", "--service",      "ollama", "--model",       "m",
        "--host",  server.baseUrl(), "--db",   home.database(), "--no-history"};
    std::vector<char*> argv, envp;
    for (std::string& arg : args)
      argv.push_back(arg.data());
    for (std::string& entry : env)
      envp.push_back(entry.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    winsize size{};
    size.ws_col = 100;
    size.ws_row = 40;
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ < 0) throw std::runtime_error("forkpty failed");
    if (pid_ == 0) {
      ::execve(QORCHAT_BINARY, argv.data(), envp.data());
      ::_exit(127);
    }
  }
  ~Program() {
    (void)::write(master_, "\x04", 1);
    for (int waited = 0; waited < 200; ++waited) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
        ::close(master_);
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::close(master_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Reads until text appears after from in what the terminal showed; gives when the read that
  // completed it returned, or nothing if the program went quiet or away first.
  std::optional<Clock::time_point> waitFor(std::string_view text, std::size_t from) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (shown_.find(text, from) == std::string::npos) {
      pollfd entry{master_, POLLIN, 0};
      if (Clock::now() > deadline || ::poll(&entry, 1, 100) < 0) return std::nullopt;
      if ((entry.revents & POLLIN) == 0) continue;
      char buffer[4096];
      const ssize_t got = ::read(master_, buffer, sizeof buffer);
      if (got <= 0) return std::nullopt;
      read_ = Clock::now();
      shown_.append(buffer, static_cast<std::size_t>(got));
    }
    return read_;
  }
  void type(std::string_view keys) const {
    if (::write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
      throw std::runtime_error("cannot type");
  }
  std::size_t shownSize() const { return shown_.size(); }
  const std::string& shown() const { return shown_; }

 private:
  pid_t pid_ = -1;
  int master_ = -1;
  std::string shown_;
  Clock::time_point read_;
};

void BM_FirstCharacter(benchmark::State& state, bool color) {
  try {
    Home home;
    BenchServer server(BenchServer::Transport::Plain, "/api/chat", ollamaStream());
    Program program(home, server, color);
    if (!program.waitFor(kPrompt, 0)) throw std::runtime_error("no prompt: " + program.shown());
    std::vector<double>
        waits;  // microseconds: on a loaded machine the median says more than the mean
    for (auto _ : state) {
      const std::size_t from = program.shownSize();
      const Clock::time_point began = Clock::now();
      program.type("How many customers ordered twice?\r");
      const std::optional<Clock::time_point> shown = program.waitFor(kOpening, from);
      // The next prompt: the answer is whole and the program waits again.
      if (!shown || !program.waitFor(kPrompt, program.shown().find(kOpening, from))) {
        state.SkipWithError(("no answer: " + program.shown().substr(from)).c_str());
        break;
      }
      const BenchServer::Write write = server.firstPieceWrite();
      if (write.started < began || *shown - write.started > kGap / 2) {
        state.SkipWithError("the answer's first line waited for the rest");
        break;
      }
      state.SetIterationTime(std::chrono::duration<double>(*shown - write.started).count());
      waits.push_back(std::chrono::duration<double, std::micro>(*shown - write.started).count());
    }
    if (!waits.empty()) {
      const auto middle = waits.begin() + static_cast<std::ptrdiff_t>(waits.size() / 2);
      std::nth_element(waits.begin(), middle, waits.end());
      state.counters["median_us"] = *middle;
    }
    state.counters["server_gap_us"] = static_cast<double>(std::chrono::microseconds(kGap).count());
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const auto& [name, color] :
       {std::pair{"FirstCharacter/plain", false}, {"FirstCharacter/markdown", true}}) {
    benchmark::RegisterBenchmark(name, BM_FirstCharacter, color)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(kQuestions);
  }
  // No ratio: the reference is the server's own pause, printed beside each figure.
  return qorbench::runWithRatios(argc, argv, {});
}
