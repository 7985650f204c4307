#pragma once
// The request and reply skeleton that every service adapter shares. An adapter describes how its
// service differs in a table of rules; the steps and their order live here once.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "qor_http.h"
#include "qor_message.h"

namespace QORExchange {

// Reads a service's error body into a text; empty when it holds none.
using ErrorReader = std::string (*)(const YLRestResourceResponse* response);

// The string at error.message of the reply's JSON, the shape most services give their errors;
// else the fallback.
std::string errorMessageOr(const YLRestResourceResponse& response, std::string_view fallback);
// The error reader of most services: error.message, else the raw body (which may be empty).
std::string obtainErrorMessage(const YLRestResourceResponse* response);

// One model of a listing: its name and, for sorted listings, its age.
struct ModelEntry {
  std::string name;
  std::int32_t created = 0;
};

struct ListingRules {
  std::vector<std::string> pathSegments{};  // behind the host
  YLParamList queryParams{};

  // What decides first. ReplyFirst: a reply without usable JSON ends with the exchange's text
  // (empty after success), and the exchange's text decides nothing else. ExchangeFirst: a failed
  // exchange ends the listing at once, and a success without JSON is an invalid response.
  enum class Gate { ReplyFirst, ExchangeFirst };
  Gate gate = Gate::ReplyFirst;

  // With ReplyFirst, how an "error" key of the reply ends the listing. ObjectWithMessage: an
  // object ends it, with its "message" string or else the exchange's text. AnyType: any value
  // ends it, with the text of errorReader.
  enum class ErrorKey { ObjectWithMessage, AnyType };
  ErrorKey errorKey = ErrorKey::ObjectWithMessage;

  // Reads error bodies; with ExchangeFirst a null reader leaves the exchange's text alone.
  ErrorReader errorReader = nullptr;

  const char* arrayKey = "data";
  // Gives false for an item that does not count.
  std::function<bool(const YLJsonValue* item, ModelEntry& entry)> readItem{};
  // Newest first by ModelEntry::created, models of equal age in reply order; else reply order.
  bool newestFirst = false;

  // The model catalogue reads every item with a string under nameKey, cut of namePrefix when it
  // starts with it; the date under createdKey (a number of seconds, or RFC 3339 text in UTC
  // such as "2025-02-19T00:00:00Z"); the strings of the array under capabilitiesKey. A null key
  // reads nothing.
  const char* nameKey = "id";
  std::string_view namePrefix{};
  const char* createdKey = nullptr;
  const char* capabilitiesKey = nullptr;
};

// A service's word for how a reply ended, and what it means.
struct EndWord {
  std::string_view word;
  QORReplyEnd end;
};

// Where a reply says how it ended and what it cost. A null key reads nothing; a null container
// means the top level of the reply. A missing or mistyped field leaves its default.
struct DetailsRules {
  const char* endList = nullptr;  // the end is read from the first item of this array
  const char* endKey = nullptr;
  std::span<const EndWord> endWords{};  // a word not listed gives QORReplyEnd::Unknown
  const char* usageObject = nullptr;
  const char* inputKey = nullptr;
  const char* outputKey = nullptr;
};

class StreamReader;

// How a service streams its reply.
struct StreamRules {
  // Server-sent events ("event:" and "data:" lines, a blank line after each event), or one JSON
  // object a line.
  enum class Framing { Events, Lines };
  Framing framing = Framing::Events;
  // The data of the event that ends the stream, when the service sends one that is not JSON.
  const char* doneMarker = nullptr;
  // Reads one event: its name (empty when it has none) and its JSON data.
  void (*readEvent)(std::string_view name, const YLJsonValue& data, StreamReader& reader) = nullptr;
};

struct ChatRules {
  std::vector<std::string> pathSegments{};
  YLParamList queryParams{};
  ErrorReader errorReader = nullptr;
  // Reads the reply's text; false when the reply has not the service's shape.
  bool (*readReply)(const YLJsonValue& reply, std::string& text) = nullptr;
  // Read only after readReply succeeded; never a reason to fail.
  DetailsRules details{};
  StreamRules stream{};
};

// The library's own failure sentence, translated by the host, with its untranslated tail.
std::string failure(std::string_view sentence, std::string_view tail);

// What goes behind a sentence of the library's own: ": ", 'g' for a GET or 'p' for a POST, "/",
// and the request's path, as in ": g/v1/models".
enum class Method : char { Get = 'g', Post = 'p' };
std::string failureTail(Method method, const std::vector<std::string>& pathSegments);

inline constexpr std::string_view kModelIsEmpty = "Model is empty";
inline constexpr std::string_view kUnsupportedDataFormat = "Unsupported data format";
inline constexpr std::string_view kInvalidResponse = "Invalid response";

std::pair<std::vector<std::string>, std::string> listModels(QORAssistant& assistant,
                                                            const ListingRules& rules);
// The same request and failures as listModels; every item with a name, in the listing's order.
std::pair<std::vector<QORModelEntry>, std::string> listCatalogue(QORAssistant& assistant,
                                                                 const ListingRules& rules);

// The shared parts of one chat, handed to the service that composes its body.
struct ChatTurn {
  const QORAssistantProperties& record;
  std::string& instructions;                    // the combined instructions; the body may take them
  const std::vector<QORHistoryEntry>& history;  // the recent history, oldest first
  const std::string& text;                      // the user's new text
  bool streaming = false;                       // the reply is asked for as a stream
};
using ComposeBody = std::function<void(YLJson& body, const ChatTurn& turn)>;

// Where the fragments of a streamed reply go.
using FragmentSink = std::function<void(std::string_view fragment)>;

// The steps of every chat, in this order: an empty model fails at once; the instructions are read
// from the memory, then the history; the service composes its body; exchangeChat posts it, or
// exchangeStream when fragments are asked for.
std::pair<IQORMessage*, std::string> chat(QORAssistant& assistant, const ChatRules& rules,
                                          const std::string& text, const ComposeBody& compose,
                                          const FragmentSink* fragments = nullptr);

// Posts the body and reads the reply. On success the message is made and the user's text and the
// reply's text are added to the memory, in this order; on failure nothing changes.
std::pair<IQORMessage*, std::string> exchangeChat(QORAssistant& assistant, const ChatRules& rules,
                                                  const YLJson& body, const std::string& text);

// As exchangeChat, with the reply read as a stream: each fragment of its text goes to the sink as
// it arrives, and the stream's own error, a cut or a body that is not the stream fail it.
std::pair<IQORMessage*, std::string> exchangeStream(QORAssistant& assistant, const ChatRules& rules,
                                                    const YLJson& body, const std::string& text,
                                                    const FragmentSink& fragments);

// The service's host with the path's segments behind it.
std::string urlFor(const QORAssistant& assistant, const std::vector<std::string>& segments);
// The service's text for a failed exchange, or the exchange's own when the body says nothing.
std::string failedExchangeText(ErrorReader reader, const HTTP::Result& result);
// Fills the message with the end and the usage the reply (or a part of a stream) gives.
void readDetails(const YLJsonValue& reply, const DetailsRules& rules, QORMessage& message);

// Appends {"role", "content"} items: the instructions under instructionRole when not empty, each
// history entry ("assistant" for role 1, "user" for any other), then the new text as "user". The
// instructions are taken into the document.
void appendConversation(YLJsonValue* messages, const char* instructionRole,
                        std::string&& instructions, const std::vector<QORHistoryEntry>& history,
                        const std::string& text);

// The history that every request carries, asked for with the figure all adapters use.
std::vector<QORHistoryEntry> obtainRecentHistory(QORAssistant& assistant);

// Helpers for readers of replies.
const YLJsonValue* member(const YLJsonValue* value, std::string_view key, YLJsonValueType type);
bool isStringEqual(const YLJsonValue* value, std::string_view text);

}  // namespace QORExchange
