#pragma once
// The terminal side of qorchat: reading the user's questions (with libedit on a terminal, plain
// lines otherwise), and watching an exchange, which shows a spinner and lets Ctrl-C or a deadline
// cancel it.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "completion.h"

class YLHTTPPoolCenter;

namespace qorchat {

class LineEditor;

// Installs qorchat's SIGINT handler, once per process. Ctrl-C cancels the exchange being watched,
// if any; at the line editor's prompt it abandons the line; otherwise it interrupts the wait for
// input, which ends the program.
void installInterruptHandler();

// One key answering a question of qorchat's, read from the terminal without waiting for Enter
// (the caller writes the question): the key, in lower case, once it is one of keys; nothing on
// Ctrl-C (the terminal's own signal keys are off meanwhile, and SIGINT counts too), Ctrl-D,
// Escape or the end of input.
std::optional<char> readKey(std::string_view keys);

class LineReader {
 public:
  // With editing, lines are read through libedit and the input history is loaded from and saved to
  // historyFile (none when empty). Without, plain lines are read from standard input.
  LineReader(bool editing, std::string historyFile);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next question. Lines are joined with line breaks while a ``` fence is open or the last one
  // ends in a backslash (which is removed); a bracketed paste is taken whole. Later lines are
  // asked for with a prompt as wide as this one ("    ...> "). On a terminal, Ctrl-C abandons the
  // question and asks again. Nothing at the end of input (Ctrl-D on an empty line), or, without a
  // terminal, after Ctrl-C; at the end of input a question begun is still given.
  std::optional<std::string> readQuestion(const std::string& prompt);
  // One line answering a question of qorchat's, kept out of the input history; nothing on Ctrl-C,
  // Ctrl-D or the end of input, which the caller takes as no.
  std::optional<std::string> readAnswer(const std::string& prompt);

  // The names Tab completes besides the commands: tables, columns and the like.
  void setCompletionWords(CompletionWords words);

 private:
  std::unique_ptr<LineEditor> editor_;  // null without editing
};

// While it lives, Ctrl-C or the deadline cancels the exchange running on the pool, and a spinner
// with the elapsed seconds runs on standard error when asked for, redrawn in place on one line
// that never exceeds the terminal's width.
class ExchangeWatch {
 public:
  // pool: the exchange's pool, cancelled from the signal handler (may be null). alsoCancel runs on
  // the watching thread after Ctrl-C or the deadline, for work that no signal handler may stop (a
  // database statement). label names the wait on the spinner. deadline: how long the exchange
  // may take, zero for no limit.
  ExchangeWatch(YLHTTPPoolCenter* pool, bool spinner, std::function<void()> alsoCancel = {},
                std::string label = "waiting for the model",
                std::chrono::milliseconds deadline = std::chrono::milliseconds(0));
  ~ExchangeWatch();
  ExchangeWatch(const ExchangeWatch&) = delete;
  ExchangeWatch& operator=(const ExchangeWatch&) = delete;

  // True when Ctrl-C came while the exchange ran.
  bool interrupted() const;
  // True when the deadline passed and the exchange was cancelled for it.
  bool timedOut() const { return timedOut_.load(); }
  // What the spinner names from its next tick on ("retrying (attempt 2 of 3)"); any thread may
  // call it.
  void setLabel(std::string label);
  // Ends the spinner and clears its line, for text that now takes its place; Ctrl-C and the
  // deadline still cancel. Call it from the thread that writes that text.
  void stopSpinner();

 private:
  void watch();

  YLHTTPPoolCenter* pool_;
  bool spinner_;  // guarded by mutex_ while the watching thread runs
  std::function<void()> alsoCancel_;
  std::string label_;  // guarded by mutex_
  std::chrono::steady_clock::time_point start_;
  std::chrono::milliseconds deadline_;
  std::atomic<bool> timedOut_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread thread_;
};

}  // namespace qorchat
