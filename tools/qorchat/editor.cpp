// The libedit line editor: its set-up, the character reader that turns Ctrl-C into a key, and the
// functions bound to Ctrl-C, Tab and the start of a bracketed paste.
#include "editor.h"

#include <fcntl.h>
#include <histedit.h>
#include <langinfo.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "commands.h"
#include "completion.h"
#include "text.h"

namespace qorchat {
namespace {

// The words a command's argument may be, where the command table spells them out
// ("table|csv|json|markdown", "[on|off]"); none for a free argument such as NAME.
std::vector<std::string> argumentChoices(std::string_view line) {
  const std::size_t blank = line.find(' ');
  if (line.empty() || line.front() != '/' || blank == std::string_view::npos) return {};
  const std::string_view name = line.substr(0, blank);
  for (const Command& command : allCommands()) {
    if (name != command.name && name != command.alias) continue;
    std::string_view argument = command.argument;
    if (argument.find('|') == std::string_view::npos) return {};
    if (argument.size() > 2 && argument.front() == '[')
      argument = argument.substr(1, argument.size() - 2);
    std::vector<std::string> choices;
    for (std::size_t from = 0; from <= argument.size();) {
      const std::size_t bar = std::min(argument.find('|', from), argument.size());
      choices.emplace_back(argument.substr(from, bar - from));
      from = bar + 1;
    }
    return choices;
  }
  return {};
}

constexpr wchar_t kCtrlC = L'\x03';
constexpr std::string_view kPasteOn = "\033[?2004h";
constexpr std::string_view kPasteOff = "\033[?2004l";
constexpr std::wstring_view kPasteEnd = L"\033[201~";

std::atomic<bool> resized{false};
static_assert(std::atomic<bool>::is_always_lock_free);
extern "C" void onResize(int) {
  resized.store(true);
}

// While a line is read, a resized terminal interrupts the read so that the editor learns the new
// width at once.
class ResizeWatch {
 public:
  ResizeWatch() {
    struct sigaction action {};
    action.sa_handler = &onResize;
    sigemptyset(&action.sa_mask);
    sigaction(SIGWINCH, &action, &previous_);
  }
  ~ResizeWatch() { sigaction(SIGWINCH, &previous_, nullptr); }
  ResizeWatch(const ResizeWatch&) = delete;
  ResizeWatch& operator=(const ResizeWatch&) = delete;

 private:
  struct sigaction previous_ {};
};

void writeOut(std::string_view bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  std::fflush(stdout);
}

// libedit shows and decodes characters by the locale; qorchat's text is UTF-8 whatever the user's
// locale says.
void useUtf8Characters() {
  if (std::setlocale(LC_CTYPE, "") != nullptr && std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0)
    return;
  std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text)
    count += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
  return count;
}

std::size_t terminalWidth() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

LineEditor::LineEditor(std::atomic<bool>& interrupted, std::string historyFile)
    : interrupted_(interrupted), historyFile_(std::move(historyFile)) {
  useUtf8Characters();
  for (const Command& command : allCommands()) {
    commands_.emplace_back(command.name);
    if (!command.alias.empty()) commands_.emplace_back(command.alias);
  }
  history_ = history_init();
  HistEvent event{};
  history(history_, &event, H_SETSIZE, 1000);
  history(history_, &event, H_SETUNIQUE, 1);
  if (!historyFile_.empty()) {
    // What was typed is the user's alone, whatever the umask: made private before it is written.
    const int fd = ::open(historyFile_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd >= 0) {
      ::fchmod(fd, S_IRUSR | S_IWUSR);
      ::close(fd);
    }
    history(history_, &event, H_LOAD, historyFile_.c_str());
  }

  editLine_ = el_init("qorchat", stdin, stdout, stderr);
  el_set(editLine_, EL_CLIENTDATA, this);
  el_set(editLine_, EL_EDITOR, "emacs");
  el_set(editLine_, EL_HIST, history, history_);
  el_set(editLine_, EL_PROMPT, &LineEditor::promptOf);
  el_set(editLine_, EL_GETCFN, &LineEditor::readCharacter);
  // The wide form keeps our own strings: the narrow one copies them and never frees the copies.
  el_wset(editLine_, EL_ADDFN, L"qorchat-interrupt", L"abandon the line", &LineEditor::onInterrupt);
  el_wset(editLine_, EL_ADDFN, L"qorchat-paste", L"take a bracketed paste", &LineEditor::onPaste);
  el_wset(editLine_, EL_ADDFN, L"qorchat-complete", L"complete a name", &LineEditor::onTab);
  el_source(editLine_, nullptr);
  // After the user's editrc: these keys are qorchat's.
  el_set(editLine_, EL_BIND, "^C", "qorchat-interrupt", nullptr);
  el_set(editLine_, EL_BIND, "^I", "qorchat-complete", nullptr);
  el_set(editLine_, EL_BIND, "\\e[200~", "qorchat-paste", nullptr);
}

LineEditor::~LineEditor() {
  el_end(editLine_);
  history_end(history_);
}

LineEditor::Read LineEditor::read(const std::string& prompt) {
  prompt_ = prompt;
  cancelled_ = false;
  lastTab_.reset();
  const ResizeWatch resizeWatch;
  writeOut(kPasteOn);
  int count = 0;
  const char* line = el_gets(editLine_, &count);
  writeOut(kPasteOff);
  if (cancelled_) return {Outcome::kCancelled, {}};
  if (line == nullptr || count <= 0) return {Outcome::kEnd, {}};
  std::string text(line, static_cast<std::size_t>(count));
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return {Outcome::kLine, std::move(text)};
}

void LineEditor::remember(const std::string& question) {
  if (question.find_first_not_of(" \t\n") == std::string::npos) return;
  HistEvent event{};
  history(history_, &event, H_ENTER, question.c_str());
  if (!historyFile_.empty()) history(history_, &event, H_SAVE, historyFile_.c_str());
}

LineEditor& LineEditor::of(EditLine* editLine) {
  void* self = nullptr;
  el_get(editLine, EL_CLIENTDATA, &self);
  return *static_cast<LineEditor*>(self);
}

char* LineEditor::promptOf(EditLine* editLine) {
  return of(editLine).prompt_.data();
}

// One character from the terminal. Ctrl-C comes as SIGINT, which interrupts the read: it is handed
// on as the Ctrl-C key.
int LineEditor::readCharacter(EditLine* editLine, wchar_t* character) {
  LineEditor& self = of(editLine);
  std::mbstate_t state{};
  while (true) {
    if (self.interrupted_.exchange(false)) {
      *character = kCtrlC;
      return 1;
    }
    if (resized.exchange(false)) el_resize(editLine);
    char byte = 0;
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    if (got == 0) return 0;
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    wchar_t decoded = 0;
    const std::size_t used = std::mbrtowc(&decoded, &byte, 1, &state);
    if (used == static_cast<std::size_t>(-2)) continue;  // more bytes of the character to come
    if (used == static_cast<std::size_t>(-1)) {          // not a character: dropped
      state = {};
      continue;
    }
    *character = decoded;
    return 1;
  }
}

// Ctrl-C: the line ends where it is, and read reports it abandoned.
unsigned char LineEditor::onInterrupt(EditLine* editLine, int) {
  of(editLine).cancelled_ = true;
  el_push(editLine, "\n");
  return CC_NORM;
}

// What the terminal sends between ESC[200~ and ESC[201~ goes into the line as it is, line breaks
// included; Enter then sends it.
unsigned char LineEditor::onPaste(EditLine* editLine, int) {
  std::wstring pasted;
  wchar_t character = 0;
  while (el_wgetc(editLine, &character) == 1) {
    pasted += character;
    if (pasted.ends_with(kPasteEnd)) {
      pasted.resize(pasted.size() - kPasteEnd.size());
      break;
    }
  }
  // Terminals send a line break as CR.
  std::wstring text;
  for (std::size_t at = 0; at < pasted.size(); ++at) {
    if (pasted[at] != L'\r') {
      text += pasted[at];
    } else if (at + 1 >= pasted.size() || pasted[at + 1] != L'\n') {
      text += L'\n';
    }
  }
  if (!text.empty()) el_winsertstr(editLine, text.c_str());
  return CC_REFRESH;
}

// Tab: a single candidate is completed with a blank after it; several are completed as far as
// they agree, and the next Tab lists them.
unsigned char LineEditor::onTab(EditLine* editLine, int) {
  LineEditor& self = of(editLine);
  const LineInfo* line = el_line(editLine);
  const std::string before(line->buffer, line->cursor);
  const std::vector<std::string> choices = argumentChoices(before);
  // /describe takes a table or view, never a column.
  const bool relationWanted =
      text::startsWith(before, "/describe ") || text::startsWith(before, "/d ");
  const Completion completion = !choices.empty() ? completeAt(before, {}, choices)
                                : relationWanted
                                    ? completeAt(before, {}, self.words_.relations)
                                    : completeAt(before, self.commands_, self.words_.all);
  if (completion.matches.empty()) return CC_REFRESH_BEEP;
  const std::string typed = before.substr(completion.from);
  const std::string replacement = completion.matches.size() == 1 ? completion.matches.front() + " "
                                                                 : commonStart(completion.matches);
  if (completion.matches.size() == 1 || replacement.size() > typed.size()) {
    el_deletestr(editLine, static_cast<int>(characterCount(typed)));
    el_insertstr(editLine, replacement.c_str());
    // After a partial completion the next Tab lists what is left.
    if (completion.matches.size() == 1) {
      self.lastTab_.reset();
    } else {
      self.lastTab_ = before.substr(0, completion.from) + replacement;
    }
    return CC_REFRESH;
  }
  if (self.lastTab_ != before) {
    self.lastTab_ = before;
    return CC_REFRESH_BEEP;
  }
  writeOut("\n" + listInColumns(completion.matches, terminalWidth()));
  return CC_REDISPLAY;
}

}  // namespace qorchat
