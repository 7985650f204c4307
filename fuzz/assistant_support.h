#pragma once
// What the targets that run a whole chat share: the seven services in the factory's order, one
// assistant of each with a memory the target sets before every input, and a comparison of
// histories.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qor.h"

namespace qorfuzz {

inline constexpr QORAssistantType kTypes[] = {
    QORAssistantType::OPENAI_v1, QORAssistantType::GOOGLE, QORAssistantType::DEEPSEEK,
    QORAssistantType::OLLAMA,    QORAssistantType::X,      QORAssistantType::ANTHROPIC,
    QORAssistantType::ALIBABA};
inline constexpr std::size_t kServiceCount = std::size(kTypes);

// A memory whose history the target sets before every input.
class Memory final : public IQORAssistantMemory {
 public:
  void setDatabaseStructure(const std::string& structure) override { structure_ = structure; }
  std::string obtainDatabaseStructure() override { return structure_; }
  void addHistoryEntry(ChatRole role, const std::string& text) override {
    history.push_back({role, text});
  }
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t) override { return history; }
  std::vector<QORHistoryEntry> history;

 private:
  std::string structure_;
};

struct FreeObject {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};

struct Service {
  Memory memory;
  // Freed at exit, before the leak check, and before its memory.
  std::unique_ptr<IQORAssistant, FreeObject> assistant;
};

// One assistant of each service, in the order of kTypes, with the model "m" and a host that
// nothing answers: the targets' request hook stands in for every reply.
inline std::vector<std::unique_ptr<Service>>& services() {
  static std::vector<std::unique_ptr<Service>> all;
  if (all.empty()) {
    for (QORAssistantType type : kTypes) {
      auto service = std::make_unique<Service>();
      service->assistant.reset(QORCreateAssistant(type, new YLHTTPPoolCenter, "key",
                                                  "http://127.0.0.1:9", &service->memory));
      service->assistant->updateProperties(
          [](IQORProperties* p) { p->setValue("model", YLVariant("m")); });
      all.push_back(std::move(service));
    }
  }
  return all;
}

// Set up once by a target: the library's debug assertions ignored (the target feeds it anything),
// every request answered by a stand-in with the status and body the target set for the input
// being run (read as the request goes out), at most 1 MiB, and the assistants made.
inline void answerEveryRequestWith(const long& status, const std::string& body) {
  ylSetAssertionHandler([](const char*, const char*) {});
  YLRestGlobalSettings settings;
  settings.maxResponseBytes = std::size_t{1} << 20;
  settings.requestHook = [&status, &body](const YLPreparedRequest&) {
    return std::optional<YLStandInReply>(YLStandInReply{status, {}, body});
  };
  QORSetHTTPSettings(settings);
  (void)services();
}

inline bool sameHistory(const std::vector<QORHistoryEntry>& a,
                        const std::vector<QORHistoryEntry>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].role != b[i].role || a[i].text != b[i].text) return false;
  }
  return true;
}

}  // namespace qorfuzz
