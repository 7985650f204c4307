#include "qor_assistant_ollama.h"

#include <utility>

#include "qor_service_stream.h"

using namespace QORExchange;

namespace {

const ListingRules& listingRules() {
  static const ListingRules rules = {
      .pathSegments = {"api", "tags"},
      // A failed listing shows the exchange's text only; the body is not read.
      .gate = ListingRules::Gate::ExchangeFirst,
      .arrayKey = "models",
      .readItem =
          [](const YLJsonValue* item, ModelEntry& entry) {
            const YLJsonValue* name = member(item, "name", YLJsonValueType::String);
            if (name == nullptr) return false;
            entry.name = name->obtainStringValue();
            return true;
          },
      .nameKey = "name",
      .capabilitiesKey = "capabilities"};
  return rules;
}

// How a reply ended: "done_reason", and the token counts at the top level.
constexpr EndWord kDoneReasons[] = {{"stop", QORReplyEnd::Complete},
                                    {"length", QORReplyEnd::LengthLimit}};

const ChatRules& chatRules() {
  static const ChatRules rules = {.pathSegments = {"api", "chat"},
                                  .errorReader = obtainErrorMessage,
                                  .readReply = QORAssistant_OLLAMA::readMessage,
                                  .details = {.endKey = "done_reason",
                                              .endWords = kDoneReasons,
                                              .inputKey = "prompt_eval_count",
                                              .outputKey = "eval_count"},
                                  .stream = {.framing = StreamRules::Framing::Lines,
                                             .readEvent = QORAssistant_OLLAMA::readLine}};
  return rules;
}

}  // namespace

QORAssistant_OLLAMA::QORAssistant_OLLAMA(IYLHTTPPoolCenter* pool, const std::string& host,
                                         IQORAssistantMemory* memory)
    : QORAssistant(pool, host, memory, kDefaultHost, TemperatureRule::ZeroToTwo) {}

std::pair<std::vector<std::string>, std::string> QORAssistant_OLLAMA::obtainAvailableModels() {
  return listModels(*this, listingRules());
}

std::pair<std::vector<QORModelEntry>, std::string> QORAssistant_OLLAMA::obtainModelCatalogue() {
  return listCatalogue(*this, listingRules());
}

std::pair<IQORMessage*, std::string> QORAssistant_OLLAMA::addMessage(std::string text) {
  return converse(text, nullptr);
}

std::pair<IQORMessage*, std::string> QORAssistant_OLLAMA::addMessageStreaming(
    std::string text, std::function<void(std::string_view fragment)> onFragment) {
  return converse(text, &onFragment);
}

std::pair<IQORMessage*, std::string> QORAssistant_OLLAMA::converse(const std::string& text,
                                                                   const FragmentSink* fragments) {
  return chat(
      *this, chatRules(), text,
      [](YLJson& body, const ChatTurn& turn) {
        body.addKeyValue("model")->setStringValue(turn.record.model);
        body.addKeyValue("stream")->setBoolValue(turn.streaming);
        if (turn.record.hasChanged("temperature")) {
          body.addKeyValue("options")
              ->addKeyValue("temperature")
              ->setDoubleValue(turn.record.temperature);
        }
        YLJsonValue* messages = body.addKeyValue("messages");
        messages->setArrayType();
        appendConversation(messages, "system", std::move(turn.instructions), turn.history,
                           turn.text);
      },
      fragments);
}

void QORAssistant_OLLAMA::readLine(std::string_view /*name*/, const YLJsonValue& line,
                                   StreamReader& reader) {
  if (line.obtainKeyValue("error") != nullptr) {
    reader.failWithEvent();
    return;
  }
  const YLJsonValue* message = member(&line, "message", YLJsonValueType::Object);
  const YLJsonValue* content = member(message, "content", YLJsonValueType::String);
  if (content != nullptr) reader.addText(content->obtainStringView());
  reader.readDetails(line);
  const YLJsonValue* done = line.obtainKeyValue("done");
  if (done != nullptr && done->obtainType() == YLJsonValueType::Bool && done->obtainBoolValue()) {
    reader.finish();
  }
}

bool QORAssistant_OLLAMA::readMessage(const YLJsonValue& reply, std::string& text) {
  // A reply that is not the assistant's text is refused, not skipped.
  const YLJsonValue* message = member(&reply, "message", YLJsonValueType::Object);
  const YLJsonValue* content = member(message, "content", YLJsonValueType::String);
  if (content == nullptr || !isStringEqual(message->obtainKeyValue("role"), "assistant")) {
    return false;
  }
  text = content->obtainStringValue();
  return true;
}
