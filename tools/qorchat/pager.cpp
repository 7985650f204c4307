// Runs the pager with posix_spawn and writes the text into its standard input, with qorchat
// shielded from Ctrl-C and from the pager quitting early while it runs.
#include "pager.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <vector>

#include "display.h"
#include "status.h"
#include "text.h"

extern char** environ;  // declared by unistd.h only with _GNU_SOURCE

namespace qorchat {
namespace {

constexpr std::string_view kDefaultPager = "less -S -R -F -X";
// A command with any of these is run by the shell; one without is split at blanks and run itself,
// so that a missing program is known before any text is written.
constexpr std::string_view kShellCharacters = "|&;<>()$`\\\"'*?[]#~=%{}!";
// The shell's exit statuses for a command it found but could not run, and one it did not find.
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

// While it lives, Ctrl-C belongs to the pager (qorchat's handler would end qorchat at the next
// prompt) and a pager that has quit makes writes fail with EPIPE instead of killing qorchat.
class SignalsLeftToPager {
 public:
  SignalsLeftToPager() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGINT, &ignore, &interrupt_);
    sigaction(SIGPIPE, &ignore, &pipe_);
  }
  ~SignalsLeftToPager() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGPIPE, &pipe_, nullptr);
  }
  SignalsLeftToPager(const SignalsLeftToPager&) = delete;
  SignalsLeftToPager& operator=(const SignalsLeftToPager&) = delete;

 private:
  struct sigaction interrupt_ {};
  struct sigaction pipe_ {};
};

struct RunningPager {
  pid_t pid;
  int input;  // the write end of the pipe to its standard input
};

std::vector<std::string> commandWords(const std::string& command) {
  if (command.find_first_of(kShellCharacters) != std::string::npos)
    return {"/bin/sh", "-c", command};
  std::vector<std::string> words;
  std::size_t at = 0;
  while (at < command.size()) {
    if (text::isSpace(command[at])) {
      ++at;
      continue;
    }
    std::size_t end = at;
    while (end < command.size() && !text::isSpace(command[end]))
      ++end;
    words.push_back(command.substr(at, end - at));
    at = end;
  }
  return words;
}

// Starts the command with a pipe for its standard input, its signals as a program's are by
// default (qorchat ignores some of them meanwhile, and ignored signals are inherited).
Result<RunningPager> startPager(const std::string& command) {
  std::vector<std::string> words = commandWords(command);
  if (words.empty()) return Status::invalidInput("the pager command is empty");
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) return Status::ioError(std::strerror(errno));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[0], STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int number : {SIGINT, SIGPIPE, SIGQUIT})
    sigaddset(&defaults, number);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  pid_t pid = 0;
  // A NULL is dimmed with an escape sequence: a less the user names without options would show
  // it raw. Options of the user's own win, as with other programs that page.
  ::setenv("LESS", "FRSX", 0);
  const int error = ::posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipeEnds[0]);
  if (error != 0) {
    ::close(pipeEnds[1]);
    return Status::ioError(std::strerror(error));
  }
  return RunningPager{pid, pipeEnds[1]};
}

// Writes until done or the pager stops reading (EPIPE); either is fine.
void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// The pager's exit status; -1 when it did not exit of itself.
int waitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The columns a line takes, the SGR sequences of a dimmed NULL left out.
std::size_t visibleWidth(std::string_view line) {
  std::string plain;
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (line[at] == '\x1b' && at + 1 < line.size() && line[at + 1] == '[') {
      at = std::min(line.find('m', at), line.size());
      continue;
    }
    plain += line[at];
  }
  return text::displayWidth(plain);
}

void warnPlain(std::ostream& err, const std::string& command, const std::string& reason) {
  err << "qorchat: warning: the pager \"" << terminalSafe(command) << "\" could not start ("
      << terminalSafe(reason) << "); showing the text without it\n";
}

}  // namespace

std::optional<TerminalSize> terminalSizeOf(int fd) {
  if (::isatty(fd) == 0) return std::nullopt;
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
    return std::nullopt;
  return TerminalSize{size.ws_row, size.ws_col};
}

std::string pagerCommandFrom(const char* pagerVariable) {
  if (pagerVariable == nullptr) return std::string(kDefaultPager);
  const std::string command(text::trimmed(pagerVariable));
  return command == "cat" ? std::string() : command;
}

bool needsPaging(std::string_view text, TerminalSize terminal) {
  std::size_t lines = 0;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (visibleWidth(text.substr(0, end)) > terminal.columns) return true;
    // One line stays for the prompt that follows.
    if (++lines >= terminal.rows) return true;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return false;
}

PagerSettings pagerSettingsForStandardOutput(bool wanted) {
  PagerSettings settings{terminalSizeOf(STDOUT_FILENO), {}};
  if (wanted) settings.command = pagerCommandFrom(std::getenv("PAGER"));
  return settings;
}

void showPaged(std::string_view text, const PagerSettings& settings, std::ostream& out,
               std::ostream& err) {
  if (!settings.terminal || settings.command.empty() || !needsPaging(text, *settings.terminal)) {
    out << text;
    out.flush();
    return;
  }
  out.flush();
  const SignalsLeftToPager shield;
  Result<RunningPager> pager = startPager(settings.command);
  if (!pager) {
    warnPlain(err, settings.command, pager.status().message());
    out << text;
    out.flush();
    return;
  }
  writeAll(pager->input, text);
  ::close(pager->input);
  const int status = waitFor(pager->pid);
  // The shell ran, but found no such program or could not run it: nothing was shown.
  if (status == kCannotRun || status == kNotFound) {
    warnPlain(err, settings.command, "the shell could not run it");
    out << text;
    out.flush();
  }
}

}  // namespace qorchat
