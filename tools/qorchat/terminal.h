#pragma once
// The terminal side of qorchat: reading the user's lines (with libedit on a terminal, plain lines
// otherwise), and watching an exchange, which shows a spinner and lets Ctrl-C cancel it.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class YLHTTPPoolCenter;

namespace qorchat {

// Installs qorchat's SIGINT handler, once per process. Ctrl-C cancels the exchange being watched,
// if any; otherwise it interrupts the wait for input, which ends the program.
void installInterruptHandler();

class LineReader {
 public:
  // With editing, lines are read through libedit and the input history is loaded from and saved to
  // historyFile (none when empty). Without, plain lines are read from standard input.
  LineReader(bool editing, std::string historyFile);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line without its line break; nothing at the end of input or after Ctrl-C.
  std::optional<std::string> readLine(const std::string& prompt);

 private:
  bool editing_;
  std::string historyFile_;
};

// While it lives, Ctrl-C cancels the exchange running on the pool, and a spinner with the elapsed
// seconds runs on standard error when asked for.
class ExchangeWatch {
 public:
  // pool: the exchange's pool, cancelled from the signal handler (may be null). alsoCancel runs on
  // the watching thread after Ctrl-C, for work that no signal handler may stop (a database
  // statement). label names the wait on the spinner.
  ExchangeWatch(YLHTTPPoolCenter* pool, bool spinner, std::function<void()> alsoCancel = {},
                std::string label = "waiting for the model");
  ~ExchangeWatch();
  ExchangeWatch(const ExchangeWatch&) = delete;
  ExchangeWatch& operator=(const ExchangeWatch&) = delete;

  // True when Ctrl-C came while the exchange ran.
  bool interrupted() const;

 private:
  void watch();

  YLHTTPPoolCenter* pool_;
  bool spinner_;
  std::function<void()> alsoCancel_;
  std::string label_;
  std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread thread_;
};

}  // namespace qorchat
