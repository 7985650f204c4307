// Reads the key, finds the state folder and the sample, and sets up HTTP for a run.
#include "setup.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "text.h"

namespace qorchat {

namespace fs = std::filesystem;

Result<std::string> readKey(const Options& options, const Service& service) {
  if (service.keyVariable.empty()) return std::string();
  if (!options.apiKeyFile.empty()) {
    std::ifstream file(options.apiKeyFile);
    if (!file) {
      return Status::ioError("cannot read the key file '" + options.apiKeyFile +
                             "': " + std::strerror(errno));
    }
    std::stringstream content;
    content << file.rdbuf();
    std::string key(text::trimmed(content.str()));
    if (key.empty() || key.find_first_of("\r\n") != std::string::npos) {
      return Status::invalidInput("the key file '" + options.apiKeyFile +
                                  "' must hold the key alone on one line");
    }
    return key;
  }
  const std::string variable(service.keyVariable);
  std::string key;
  if (const char* value = std::getenv(variable.c_str()); value != nullptr)
    key = std::string(text::trimmed(value));
  if (!key.empty()) return key;
  // A dry run sends nothing, so it needs no key; what it prints masks the key anyway.
  if (options.mode == Mode::PrintRequest) return std::string("no-key-set");
  return Status::invalidInput("no key for " + std::string(service.name) + ": set " + variable +
                              " or pass --api-key-file FILE");
}

Result<std::string> stateFolder() {
  std::string folder;
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && state[0] == '/') {
    folder = std::string(state) + "/qorchat";
  } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
    folder = std::string(home) + "/.local/state/qorchat";
  } else {
    return Status::invalidInput("neither XDG_STATE_HOME nor HOME is set");
  }
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) return Status::ioError("cannot create '" + folder + "' (" + error.message() + ")");
  // Conversations quote the user's questions and the model's answers: the folder is the user's
  // alone, whatever the umask.
  if (::chmod(folder.c_str(), S_IRWXU) != 0) {
    return Status::ioError("cannot make '" + folder + "' private (" + std::strerror(errno) + ")");
  }
  return folder;
}

std::string samplePath() {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (error) return {};
  const fs::path folder = program.parent_path();
  for (const fs::path& candidate :
       {folder / "shop.db", folder / ".." / "share" / "qorchat" / "shop.db"}) {
    if (fs::is_regular_file(candidate, error)) return fs::weakly_canonical(candidate).string();
  }
  return {};
}

YLRestGlobalSettings httpSettings(const Options& options, std::function<void()> onRequest) {
  YLRestGlobalSettings settings;
  // The whole question, retries included, is bounded by the conversation's own deadline; no
  // single attempt may take longer either.
  settings.totalTimeoutMs = options.timeoutSeconds * 1000;
  // A dropped connection, a 429 or a 503 is usually gone a moment later; the library waits with
  // backoff and honours Retry-After. Ctrl-C ends a wait at once.
  settings.maxRetries = kHttpRetries;
  if (onRequest) {
    settings.requestHook = [onRequest = std::move(onRequest)](const YLPreparedRequest&) {
      onRequest();
      return std::optional<YLStandInReply>();
    };
  }
  settings.maxResponseBytes = kMaxReplyBytes;
  settings.proxy = options.proxy;
  settings.caFile = options.caFile;
  settings.userAgent = std::string("qorchat/") + QORCHAT_VERSION;
  return settings;
}

}  // namespace qorchat
