// Choosing a chat model from a listing, near names for a mistyped one, and the remembered choice.
#include "model_choice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

#include "text.h"

namespace qorchat {
namespace {

// Capabilities that mean a model answers a conversation, in the services' own words.
constexpr std::array<std::string_view, 4> kChatCapabilities{"generateContent", "completion", "chat",
                                                            "chat.completions"};

// Parts of names that mark a model that cannot hold a conversation, for listings that give no
// capabilities. Chat models rarely carry them; the cost of a miss is only a worse default.
constexpr std::array<std::string_view, 17> kNotChatNames{
    "embed",      "tts",   "whisper", "transcribe", "dall-e",      "image",
    "moderation", "audio", "speech",  "realtime",   "rerank",      "davinci",
    "babbage",    "sora",  "codex",   "search",     "computer-use"};

std::string lowered(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), text::lowerAscii);
  return lower;
}

std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

constexpr const char* kModelsFile = "/models";

}  // namespace

bool isChatModel(const QORModelEntry& entry) {
  if (!entry.capabilities.empty()) {
    return std::any_of(
        entry.capabilities.begin(), entry.capabilities.end(), [](const std::string& capability) {
          return std::find(kChatCapabilities.begin(), kChatCapabilities.end(), capability) !=
                 kChatCapabilities.end();
        });
  }
  const std::string name = lowered(entry.name);
  return std::none_of(kNotChatNames.begin(), kNotChatNames.end(),
                      [&](std::string_view part) { return name.find(part) != std::string::npos; });
}

std::vector<std::string> chatModels(std::vector<QORModelEntry> entries) {
  std::erase_if(entries, [](const QORModelEntry& entry) { return !isChatModel(entry); });
  // Undated entries sort as oldest; stable, so they keep the listing's order among themselves.
  std::stable_sort(
      entries.begin(), entries.end(),
      [](const QORModelEntry& a, const QORModelEntry& b) { return a.created > b.created; });
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (QORModelEntry& entry : entries)
    names.push_back(std::move(entry.name));
  return names;
}

std::vector<std::string> nearNames(std::string_view typed, const std::vector<std::string>& names) {
  const std::string wanted = lowered(typed);
  // Far enough for a slip of two keys or a forgotten suffix digit, not so far that anything goes.
  const std::size_t limit = std::max<std::size_t>(2, wanted.size() / 3);
  std::multimap<std::size_t, std::string> ranked;
  for (const std::string& name : names) {
    const std::string candidate = lowered(name);
    std::size_t distance = editDistance(wanted, candidate);
    if (candidate.find(wanted) != std::string::npos || wanted.find(candidate) != std::string::npos)
      distance = std::min<std::size_t>(distance, 1);
    if (distance <= limit) ranked.emplace(distance, name);
  }
  std::vector<std::string> near;
  for (auto it = ranked.begin(); it != ranked.end() && near.size() < 3; ++it)
    near.push_back(it->second);
  return near;
}

std::string rememberedModel(const std::string& folder, std::string_view service) {
  std::ifstream file(folder + kModelsFile);
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t tab = line.find('\t');
    if (tab != std::string::npos && line.compare(0, tab, service) == 0) return line.substr(tab + 1);
  }
  return {};
}

Status rememberModel(const std::string& folder, std::string_view service,
                     const std::string& model) {
  if (model.find_first_of("\t\r\n") != std::string::npos) return Status::ok();
  std::map<std::string, std::string, std::less<>> choices;
  {
    std::ifstream file(folder + kModelsFile);
    std::string line;
    while (std::getline(file, line)) {
      if (const std::size_t tab = line.find('\t'); tab != std::string::npos)
        choices[line.substr(0, tab)] = line.substr(tab + 1);
    }
  }
  choices[std::string(service)] = model;
  std::string content;
  for (const auto& [name, chosen] : choices)
    content.append(name).append("\t").append(chosen).append("\n");
  // Written beside and renamed over, so that a crash leaves the old file or the new one.
  const std::string path = folder + kModelsFile;
  const std::string temporary = path + ".new";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return Status::ioError("cannot write '" + temporary + "': " + std::strerror(errno));
  const bool written =
      ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  const bool closed = ::close(fd) == 0;
  if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    ::unlink(temporary.c_str());
    return Status::ioError("cannot write '" + path + "': " + reason);
  }
  return Status::ok();
}

}  // namespace qorchat
