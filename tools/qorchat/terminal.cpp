// Questions read through the line editor or plain reads, the SIGINT handler, and the exchange
// spinner.
#include "terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "display.h"
#include "editor.h"
#include "text.h"
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
constexpr std::string_view kFence = "```";

// The prompt for the later lines of a question: "...> " right-aligned to the first prompt's width.
std::string continuationPrompt(const std::string& prompt) {
  constexpr std::string_view kMark = "...> ";
  if (prompt.empty()) return {};
  const std::size_t width = text::displayWidth(prompt);
  return std::string(width > kMark.size() ? width - kMark.size() : 0, ' ') + std::string(kMark);
}

// Whether the question goes on after its last line: inside an open ``` fence, or after a line
// ending in a backslash, which is taken away. Either way a line break joins the next line.
bool continues(std::string& question) {
  std::size_t fences = 0;
  for (std::size_t at = question.find(kFence); at != std::string::npos;
       at = question.find(kFence, at + kFence.size()))
    ++fences;
  if (fences % 2 == 1) return true;
  if (question.empty() || question.back() != '\\') return false;
  question.pop_back();
  return true;
}

std::size_t errorColumns() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

// The text cut to at most columns terminal columns, "…" ending it when cut.
std::string cutToColumns(std::string_view text, std::size_t columns) {
  if (text::displayWidth(text) <= columns) return std::string(text);
  std::string cut;
  std::size_t used = 0;
  while (!text.empty()) {
    const std::size_t length = std::max<std::size_t>(1, text::utf8SequenceLength(text));
    const std::size_t width = text::displayWidth(text.substr(0, length));
    if (used + width + 1 > columns) break;
    cut.append(text.substr(0, length));
    used += width;
    text.remove_prefix(length);
  }
  return columns == 0 ? cut : cut + "…";
}

// One spinner line that fits in columns - 1 (the last column would wrap on some terminals): the
// whole line, else the label cut, else without the hint, else the seconds alone.
std::string spinnerLine(char frame, const std::string& label, long long seconds,
                        std::size_t columns) {
  constexpr std::size_t kShortestLabel = 8;
  const std::size_t room = columns > 1 ? columns - 1 : 0;
  const std::string elapsed = std::to_string(seconds) + "s";
  const std::string start = std::string(1, frame) + " ";
  for (const std::string& tail : {", " + elapsed + " (Ctrl-C cancels)", ", " + elapsed}) {
    const std::size_t fixed = start.size() + tail.size();
    std::string line = start;
    if (fixed + text::displayWidth(label) <= room) return line.append(label).append(tail);
    if (fixed + kShortestLabel <= room)
      return line.append(cutToColumns(label, room - fixed)).append(tail);
  }
  if (start.size() + elapsed.size() <= room) return start + elapsed;
  return elapsed.size() <= room ? elapsed : std::string();
}

}  // namespace

void installInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = &onInterrupt;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a read waiting for input must return, so that Ctrl-C reaches the line editor
  // at once and ends a run that reads plain lines.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
}

std::optional<char> readKey(std::string_view keys) {
  interruptSeen.store(false);
  termios saved{};
  const bool terminal = tcgetattr(STDIN_FILENO, &saved) == 0;
  if (terminal) {
    termios raw = saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  constexpr char kCtrlC = 3, kCtrlD = 4, kEscape = 27;
  std::optional<char> answer;
  while (!answer) {
    char key = 0;
    // A read cut by a signal ends the question: SIGINT sent by kill is Ctrl-C too.
    if (::read(STDIN_FILENO, &key, 1) != 1 || interruptSeen.load()) break;
    if (key == kCtrlC || key == kCtrlD || key == kEscape) break;
    if (keys.find(text::lowerAscii(key)) != std::string_view::npos) answer = text::lowerAscii(key);
  }
  if (terminal) tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  return answer;
}

LineReader::LineReader(bool editing, std::string historyFile) {
  if (editing) editor_ = std::make_unique<LineEditor>(interruptSeen, std::move(historyFile));
}

LineReader::~LineReader() = default;

void LineReader::setCompletionWords(CompletionWords words) {
  if (editor_) editor_->setCompletionWords(std::move(words));
}

std::optional<std::string> LineReader::readAnswer(const std::string& prompt) {
  interruptSeen.store(false);
  if (editor_) {
    LineEditor::Read read = editor_->read(prompt);
    if (read.outcome != LineEditor::Outcome::kLine) return std::nullopt;
    return std::move(read.text);
  }
  std::string line;
  if (!std::getline(std::cin, line) || interruptSeen.load()) return std::nullopt;
  return line;
}

std::optional<std::string> LineReader::readQuestion(const std::string& prompt) {
  interruptSeen.store(false);
  std::string question;
  bool begun = false;
  while (true) {
    std::string line;
    if (editor_) {
      LineEditor::Read read = editor_->read(begun ? continuationPrompt(prompt) : prompt);
      if (read.outcome == LineEditor::Outcome::kEnd) return std::nullopt;
      if (read.outcome == LineEditor::Outcome::kCancelled) {
        question.clear();
        begun = false;
        continue;
      }
      line = std::move(read.text);
    } else if (!std::getline(std::cin, line) || interruptSeen.load()) {
      if (begun && !interruptSeen.load()) return question;
      return std::nullopt;
    } else if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    question += line;
    begun = true;
    if (!continues(question)) break;
    question += '\n';
  }
  if (editor_) editor_->remember(question);
  return question;
}

ExchangeWatch::ExchangeWatch(YLHTTPPoolCenter* pool, bool spinner, std::function<void()> alsoCancel,
                             std::string label, std::chrono::milliseconds deadline)
    : pool_(pool),
      spinner_(spinner),
      alsoCancel_(std::move(alsoCancel)),
      label_(std::move(label)),
      start_(std::chrono::steady_clock::now()),
      deadline_(deadline) {
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

void ExchangeWatch::setLabel(std::string label) {
  const std::lock_guard lock(mutex_);
  label_ = std::move(label);
}

void ExchangeWatch::stopSpinner() {
  const std::lock_guard lock(mutex_);
  if (!spinner_) return;
  spinner_ = false;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

void ExchangeWatch::watch() {
  static constexpr char kFrames[] = {'|', '/', '-', '\\'};
  unsigned frame = 0;
  std::unique_lock lock(mutex_);
  while (!done_) {
    const auto elapsed = std::chrono::steady_clock::now() - start_;
    if (deadline_.count() > 0 && elapsed >= deadline_) timedOut_.store(true);
    // A Ctrl-C that came before the transfer began found nothing to cancel: repeat it until the
    // exchange is over.
    if (interruptSeen.load() || timedOut_.load()) {
      if (pool_ != nullptr) pool_->cancel();
      if (alsoCancel_) alsoCancel_();
    }
    if (spinner_) {
      const std::string line = spinnerLine(
          kFrames[frame++ % sizeof kFrames], terminalSafe(label_),
          std::chrono::duration_cast<std::chrono::seconds>(elapsed).count(), errorColumns());
      std::fprintf(stderr, "\r%s\033[K", line.c_str());
      std::fflush(stderr);
    }
    wake_.wait_for(lock, kTick, [this] { return done_; });
  }
}

}  // namespace qorchat
