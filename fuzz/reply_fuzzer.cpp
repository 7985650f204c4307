// The reply and error-body readers of the seven services, for a chat and a listing. The first byte
// of an input picks the service, the exchange and the HTTP status; the rest is the body. A request
// hook answers every request with that reply, so nothing goes to the network: each input runs the
// library's whole path from the client's handling of the reply to the text the host gets.
//
// For any reply:
// - a chat gives a message or a failure text, never both and never neither; a message is one text
//   section of the assistant; a success adds the question and that text to the history, a failure
//   leaves it as it was;
// - a listing that fails gives no names;
// - a failure text is at most the body and one of the library's sentences.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "assistant_support.h"
#include "fuzz_support.h"
#include "qor.h"
#include "yl/yl.h"

namespace {

using qorfuzz::check;
using qorfuzz::kServiceCount;
using qorfuzz::sameHistory;
using qorfuzz::Service;
using qorfuzz::services;

constexpr long kStatuses[] = {200, 400, 401, 404, 429, 500, 503, 302};

// The reply the hook gives for the request in flight.
long replyStatus = 200;
std::string replyBody;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qorfuzz::answerEveryRequestWith(replyStatus, replyBody);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned selector = data[0];
  Service& service = *services()[selector % kServiceCount];
  const bool chat = (selector / kServiceCount) % 2 == 0;
  replyStatus = kStatuses[(selector / (2 * kServiceCount)) % std::size(kStatuses)];
  replyBody.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  // The longest sentence of the library's own with its tail, and then some.
  const std::size_t longestFailure = replyBody.size() + 256;

  if (chat) {
    service.memory.history = {{kChatRoleUser, "before"}, {kChatRoleAssistant, "answer"}};
    const std::vector<QORHistoryEntry> before = service.memory.history;
    const auto [message, failure] = service.assistant->addMessage("question");
    check((message != nullptr) != !failure.empty(), "a message or a failure text, not both");
    check(failure.size() <= longestFailure, "a failure text is the body or a sentence", failure);
    if (message == nullptr) {
      check(sameHistory(service.memory.history, before), "a failure leaves the history alone");
      return 0;
    }
    check(message->obtainRole() == kChatRoleAssistant, "a reply is the assistant's");
    check(message->obtainSections().size() == 1, "a reply is one section");
    const std::string text(message->obtainSections()[0]->obtainText());
    std::vector<QORHistoryEntry> after = before;
    after.push_back({kChatRoleUser, "question"});
    after.push_back({kChatRoleAssistant, text});
    check(sameHistory(service.memory.history, after), "a success adds the question and reply");
    const auto* details = dynamic_cast<const IQORReplyDetails*>(message);
    check(details != nullptr, "a reply says how it ended");
    const QORTokenUsage usage = details->obtainUsage();
    check(usage.inputTokens >= -1 && usage.outputTokens >= -1, "a token count or -1");
    QORFreeObject(message);
  } else {
    const auto [names, failure] = service.assistant->obtainAvailableModels();
    check(failure.empty() || names.empty(), "a failed listing gives no names", failure);
    check(failure.size() <= longestFailure, "a failure text is the body or a sentence", failure);
    // The whole catalogue fails as the listing does, and holds every name the listing gives.
    auto* catalogue = dynamic_cast<IQORModelCatalogue*>(service.assistant.get());
    check(catalogue != nullptr, "an assistant has a catalogue");
    const auto [entries, catalogueFailure] = catalogue->obtainModelCatalogue();
    check(catalogueFailure == failure, "the catalogue fails as the listing does", catalogueFailure);
    for (const std::string& name : names) {
      check(std::any_of(entries.begin(), entries.end(),
                        [&](const QORModelEntry& entry) { return entry.name == name; }),
            "a listed name is in the catalogue", name);
    }
  }
  return 0;
}
