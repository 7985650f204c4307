// The stream reader of the seven services. The first byte of an input picks the service and a way
// to cut the body into pieces; the rest is the body of a 200 reply. Two things run on it.
//
// The whole path: a request hook stands the body in as the reply to addMessageStreaming, so
// nothing goes to the network. A stand-in reaches the reader as one piece (the library's own tests
// cut a stream with a server on 127.0.0.1, which a fuzz target cannot use), so here:
// - a message or a failure text, never both and never neither; a failure text is at most the body
//   and one of the library's sentences;
// - on success the fragments joined are the message's text, the message is one text section of
//   the assistant, the history grows by the question and that text, and the reply details give
//   token counts of -1 or more;
// - on failure the history is as it was.
//
// The cuts: the library's StreamReader, with the framing of the picked service and an event
// reader that records each event it is given, reads the body whole and cut into the picked pieces.
// However the body is cut, the same events arrive in the same order and the reader concludes the
// same way: the same fragments, the same text, the same failure text.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "assistant_support.h"
#include "fuzz_support.h"
#include "qor.h"
#include "qor_service_stream.h"
#include "yl/yl.h"

namespace {

using QORExchange::ChatRules;
using QORExchange::StreamReader;
using QORExchange::StreamRules;
using qorfuzz::check;
using qorfuzz::kServiceCount;

// The reply the hook gives for the request in flight: a stream, always with success.
const long kReplyStatus = 200;
std::string replyBody;

// The pieces of the body for the cut picked by k: whole (0), a byte each (1), or pieces of 1 to
// 2k bytes drawn from a generator seeded with k.
std::vector<std::string_view> cut(std::string_view body, unsigned k) {
  std::vector<std::string_view> pieces;
  if (k == 0) {
    pieces.push_back(body);
    return pieces;
  }
  std::minstd_rand draw(k);
  std::uniform_int_distribution<std::size_t> sizes(1, k == 1 ? 1 : 2 * std::size_t{k});
  for (std::size_t at = 0; at < body.size();) {
    const std::size_t size = std::min(sizes(draw), body.size() - at);
    pieces.push_back(body.substr(at, size));
    at += size;
  }
  return pieces;
}

// An event reader that hands on each event as one fragment, its name and its data's JSON, and
// counts the stream as ended. A string as data is refused and a null is the stream's error, so
// the reader's ways to fail are reached too.
void recordEvent(std::string_view name, const YLJsonValue& data, StreamReader& reader) {
  const std::string json = data.obtainJsonString();
  if (json.starts_with('"')) {
    reader.refuseEvent();
  } else if (json == "null") {
    reader.failWithEvent();
  } else {
    reader.addText(std::string(name) + '\x1f' + json + '\x1e');
    reader.finish();
  }
}

// The framing each service streams with, in the order of kTypes: chunks ended by "[DONE]" for the
// chat-completions family, events without an end marker for Google and Anthropic, JSON lines for
// Ollama.
const ChatRules& recordingRules(std::size_t service) {
  static const ChatRules family = {.stream = {.framing = StreamRules::Framing::Events,
                                              .doneMarker = "[DONE]",
                                              .readEvent = recordEvent}};
  static const ChatRules events = {
      .stream = {.framing = StreamRules::Framing::Events, .readEvent = recordEvent}};
  static const ChatRules lines = {
      .stream = {.framing = StreamRules::Framing::Lines, .readEvent = recordEvent}};
  switch (qorfuzz::kTypes[service]) {
    case QORAssistantType::GOOGLE:
    case QORAssistantType::ANTHROPIC:
      return events;
    case QORAssistantType::OLLAMA:
      return lines;
    default:
      return family;
  }
}

struct Read {
  std::vector<std::string> fragments;
  std::optional<std::string> text;  // empty after a failure
  std::string failure;
};

Read readInPieces(const ChatRules& rules, const std::vector<std::string_view>& pieces) {
  Read read;
  const QORExchange::FragmentSink sink = [&read](std::string_view fragment) {
    read.fragments.emplace_back(fragment);
  };
  StreamReader reader(rules, sink, ": p/fuzz");
  for (std::string_view piece : pieces)
    reader.take(piece);
  auto [message, failure] = reader.conclude();
  read.failure = std::move(failure);
  if (message != nullptr) {
    read.text = std::string(message->obtainSections()[0]->obtainText());
    QORFreeObject(message);
  }
  return read;
}

void checkCutsReadAlike(std::size_t service, unsigned k) {
  const ChatRules& rules = recordingRules(service);
  const Read whole = readInPieces(rules, cut(replyBody, 0));
  const Read pieces = readInPieces(rules, cut(replyBody, k));
  check(pieces.fragments == whole.fragments, "the same events however the body is cut");
  check(pieces.text == whole.text, "the same text however the body is cut");
  check(pieces.failure == whole.failure, "the same failure however the body is cut",
        pieces.failure);
}

void checkWholePath(qorfuzz::Service& service) {
  // The longest sentence of the library's own with its tail, and then some.
  const std::size_t longestFailure = replyBody.size() + 256;
  service.memory.history = {{kChatRoleUser, "before"}, {kChatRoleAssistant, "answer"}};
  const std::vector<QORHistoryEntry> before = service.memory.history;
  auto* streaming = dynamic_cast<IQORStreamingAssistant*>(service.assistant.get());
  check(streaming != nullptr, "every assistant streams");

  std::string joined;
  const auto [message, failure] = streaming->addMessageStreaming(
      "question", [&joined](std::string_view fragment) { joined.append(fragment); });
  check((message != nullptr) != !failure.empty(), "a message or a failure text, not both");
  check(failure.size() <= longestFailure, "a failure text is the body or a sentence", failure);
  if (message == nullptr) {
    check(qorfuzz::sameHistory(service.memory.history, before),
          "a failure leaves the history alone");
    return;
  }
  check(message->obtainRole() == kChatRoleAssistant, "a reply is the assistant's");
  check(message->obtainSections().size() == 1, "a reply is one section");
  const std::string text(message->obtainSections()[0]->obtainText());
  check(joined == text, "the fragments joined are the reply's text", joined);
  std::vector<QORHistoryEntry> after = before;
  after.push_back({kChatRoleUser, "question"});
  after.push_back({kChatRoleAssistant, text});
  check(qorfuzz::sameHistory(service.memory.history, after),
        "a success adds the question and reply");
  const auto* details = dynamic_cast<const IQORReplyDetails*>(message);
  check(details != nullptr, "a reply says how it ended");
  const QORTokenUsage usage = details->obtainUsage();
  check(usage.inputTokens >= -1 && usage.outputTokens >= -1, "a token count or -1");
  QORFreeObject(message);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qorfuzz::answerEveryRequestWith(kReplyStatus, replyBody);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t service = data[0] % kServiceCount;
  const unsigned k = data[0] / kServiceCount;
  replyBody.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  checkWholePath(*qorfuzz::services()[service]);
  checkCutsReadAlike(service, k);
  return 0;
}
