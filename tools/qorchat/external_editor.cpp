// The user's editor run on a private temporary file.
#include "external_editor.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "text.h"

extern char** environ;

namespace qorchat {
namespace {

// The temporary file, removed with this.
class PrivateFile {
 public:
  PrivateFile() {
    std::error_code error;
    std::string pattern =
        (std::filesystem::temp_directory_path(error) / "qorchat-edit-XXXXXX.md").string();
    // mkstemps makes the file with mode 0600.
    const int fd = mkstemps(pattern.data(), 3);
    if (fd < 0) return;
    ::close(fd);
    path_ = pattern;
  }
  ~PrivateFile() {
    if (!path_.empty()) std::filesystem::remove(path_);
  }
  PrivateFile(const PrivateFile&) = delete;
  PrivateFile& operator=(const PrivateFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string chosenEditor() {
  for (const char* variable : {"VISUAL", "EDITOR"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && !text::trimmed(value).empty()) return value;
  }
  return "vi";
}

// Runs the editor command on the file through the shell; its exit status, or -1 when it could
// not start or was killed.
int runEditor(const std::string& editor, const std::string& path) {
  const std::string command = editor + " \"$1\"";
  std::vector<std::string> args{"sh", "-c", command, "sh", path};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::optional<std::string> editInEditor(const std::string& initial, std::string* problem) {
  const auto fail = [problem](std::string why) -> std::optional<std::string> {
    if (problem != nullptr) *problem = std::move(why);
    return std::nullopt;
  };
  const PrivateFile file;
  if (file.path().empty()) return fail("cannot make a temporary file for the editor");
  {
    std::ofstream out(file.path(), std::ios::binary);
    out << initial;
    if (!out.flush()) return fail("cannot write the temporary file for the editor");
  }
  const std::string editor = chosenEditor();
  if (const int status = runEditor(editor, file.path()); status != 0) {
    return fail("the editor (" + editor + ") failed" +
                (status > 0 ? " with exit status " + std::to_string(status) : std::string()));
  }
  std::ifstream in(file.path(), std::ios::binary);
  std::string edited(std::istreambuf_iterator<char>(in), {});
  if (text::trimmed(edited).empty()) return fail("the editor left the text empty");
  while (!edited.empty() && (edited.back() == '\n' || edited.back() == '\r'))
    edited.pop_back();
  return edited;
}

}  // namespace qorchat
