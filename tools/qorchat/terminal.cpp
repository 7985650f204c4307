// Line input through libedit or plain reads, the SIGINT handler, and the exchange spinner.
#include "terminal.h"

#include <editline/readline.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>

#include "yl/yl_rest.h"

namespace qorchat {
namespace {

// What the handler may touch: lock-free atomics only, and the pool's cancel, which is
// async-signal-safe.
std::atomic<YLHTTPPoolCenter*> watchedPool{nullptr};
std::atomic<bool> interruptSeen{false};
static_assert(std::atomic<YLHTTPPoolCenter*>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void onInterrupt(int) {
  interruptSeen.store(true);
  if (YLHTTPPoolCenter* pool = watchedPool.load()) pool->cancel();
}

constexpr auto kTick = std::chrono::milliseconds(100);

}  // namespace

void installInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = &onInterrupt;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a read waiting for input must return, so that Ctrl-C at the prompt ends the
  // program.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
}

LineReader::LineReader(bool editing, std::string historyFile)
    : editing_(editing), historyFile_(std::move(historyFile)) {
  if (!editing_) return;
  rl_readline_name = "qorchat";
  using_history();
  stifle_history(1000);
  if (historyFile_.empty()) return;
  // What was typed is the user's alone, whatever the umask: made private before libedit writes it.
  const int fd = ::open(historyFile_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd >= 0) {
    ::fchmod(fd, S_IRUSR | S_IWUSR);
    ::close(fd);
  }
  read_history(historyFile_.c_str());
}

LineReader::~LineReader() {
  if (editing_ && !historyFile_.empty()) write_history(historyFile_.c_str());
}

std::optional<std::string> LineReader::readLine(const std::string& prompt) {
  interruptSeen.store(false);
  if (editing_) {
    std::unique_ptr<char, decltype(&std::free)> line(readline(prompt.c_str()), &std::free);
    if (line == nullptr || interruptSeen.load()) return std::nullopt;
    std::string text(line.get());
    if (text.find_first_not_of(" \t") != std::string::npos) {
      add_history(line.get());
      // Saved at once, so that a killed session keeps what was typed.
      if (!historyFile_.empty()) write_history(historyFile_.c_str());
    }
    return text;
  }
  std::string text;
  if (!std::getline(std::cin, text) || interruptSeen.load()) return std::nullopt;
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return text;
}

ExchangeWatch::ExchangeWatch(YLHTTPPoolCenter* pool, bool spinner, std::function<void()> alsoCancel,
                             std::string label)
    : pool_(pool),
      spinner_(spinner),
      alsoCancel_(std::move(alsoCancel)),
      label_(std::move(label)),
      start_(std::chrono::steady_clock::now()) {
  interruptSeen.store(false);
  watchedPool.store(pool_);
  thread_ = std::thread([this] { watch(); });
}

ExchangeWatch::~ExchangeWatch() {
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
  }
  wake_.notify_one();
  thread_.join();
  watchedPool.store(nullptr);
  if (spinner_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

bool ExchangeWatch::interrupted() const {
  return interruptSeen.load();
}

void ExchangeWatch::watch() {
  static constexpr char kFrames[] = {'|', '/', '-', '\\'};
  unsigned frame = 0;
  std::unique_lock lock(mutex_);
  while (!done_) {
    // A Ctrl-C that came before the transfer began found nothing to cancel: repeat it until the
    // exchange is over.
    if (interruptSeen.load()) {
      if (pool_ != nullptr) pool_->cancel();
      if (alsoCancel_) alsoCancel_();
    }
    if (spinner_) {
      const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::steady_clock::now() - start_)
                               .count();
      std::fprintf(stderr, "\r%c %s, %llds (Ctrl-C cancels)\033[K",
                   kFrames[frame++ % sizeof kFrames], label_.c_str(),
                   static_cast<long long>(elapsed));
      std::fflush(stderr);
    }
    wake_.wait_for(lock, kTick, [this] { return done_; });
  }
}

}  // namespace qorchat
