#include "qor_assistant_google.h"

#include <utility>

#include "qor_service_stream.h"

using namespace QORExchange;

namespace {

constexpr const char* kDefaultHost = "generativelanguage.googleapis.com";
constexpr std::string_view kModelPrefix = "models/";

void addTextParts(IYLJsonValue* item, std::string_view role, const std::string& text) {
  item->addKeyValue("role")->setStringValue(role);
  // The first item added makes "parts" an array.
  item->addKeyValue("parts")->addArrayItem()->addKeyValue("text")->setStringValue(text);
}

// How a reply ended: the first candidate's "finishReason", and the usage's token counts.
constexpr EndWord kFinishReasons[] = {
    {"STOP", QORReplyEnd::Complete},      {"MAX_TOKENS", QORReplyEnd::LengthLimit},
    {"SAFETY", QORReplyEnd::Filtered},    {"RECITATION", QORReplyEnd::Filtered},
    {"BLOCKLIST", QORReplyEnd::Filtered}, {"PROHIBITED_CONTENT", QORReplyEnd::Filtered},
    {"SPII", QORReplyEnd::Filtered}};

}  // namespace

QORAssistant_GOOGLE::QORAssistant_GOOGLE(IYLHTTPPoolCenter* pool, const std::string& host,
                                         const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistant(pool, host, memory, kDefaultHost, TemperatureRule::ZeroToTwo), apiKey(apiKey) {}

ListingRules QORAssistant_GOOGLE::listingRules() const {
  return {.pathSegments = {"v1beta", "models"},
          .queryParams = {{"key", apiKey}},
          .gate = ListingRules::Gate::ExchangeFirst,
          .errorReader = obtainErrorMessage,
          .arrayKey = "models",
          .readItem = readModel,
          .nameKey = "name",
          .namePrefix = kModelPrefix,
          .capabilitiesKey = "supportedGenerationMethods"};
}

std::pair<std::vector<std::string>, std::string> QORAssistant_GOOGLE::obtainAvailableModels() {
  return listModels(*this, listingRules());
}

std::pair<std::vector<QORModelEntry>, std::string> QORAssistant_GOOGLE::obtainModelCatalogue() {
  return listCatalogue(*this, listingRules());
}

std::pair<IQORMessage*, std::string> QORAssistant_GOOGLE::addMessage(std::string text) {
  return converse(text, nullptr);
}

std::pair<IQORMessage*, std::string> QORAssistant_GOOGLE::addMessageStreaming(
    std::string text, std::function<void(std::string_view fragment)> onFragment) {
  return converse(text, &onFragment);
}

std::pair<IQORMessage*, std::string> QORAssistant_GOOGLE::converse(const std::string& text,
                                                                   const FragmentSink* fragments) {
  const std::string& model = properties->model;
  // The model is part of the path; without one, the path (and the failure's tail) names the
  // method alone. A stream asks for server-sent events.
  const std::string method = fragments != nullptr ? "streamGenerateContent" : "generateContent";
  YLParamList query = {{"key", apiKey}};
  if (fragments != nullptr) query.emplace_back("alt", "sse");
  const ChatRules rules = {
      .pathSegments = {"v1beta", "models", model.empty() ? method : model + ":" + method},
      .queryParams = std::move(query),
      .errorReader = obtainErrorMessage,
      .readReply = readCandidates,
      .details = {.endList = "candidates",
                  .endKey = "finishReason",
                  .endWords = kFinishReasons,
                  .usageObject = "usageMetadata",
                  .inputKey = "promptTokenCount",
                  .outputKey = "candidatesTokenCount"},
      .stream = {.framing = StreamRules::Framing::Events, .readEvent = readEvent}};
  const ComposeBody compose = [](YLJson& body, const ChatTurn& turn) {
    if (turn.record.hasChanged("temperature")) {
      body.addKeyValue("generationConfig")
          ->addKeyValue("temperature")
          ->setDoubleValue(turn.record.temperature);
    }
    if (!turn.instructions.empty()) {
      // Here "parts" is an object, unlike in "contents".
      body.addKeyValue("system_instruction")
          ->addKeyValue("parts")
          ->addKeyValue("text")
          ->takeStringValue(std::move(turn.instructions));
    }
    IYLJsonValue* contents = body.addKeyValue("contents");
    contents->setArrayType();
    for (const QORHistoryEntry& entry : turn.history) {
      addTextParts(contents->addArrayItem(), entry.role == kChatRoleAssistant ? "model" : "user",
                   entry.text);
    }
    addTextParts(contents->addArrayItem(), "user", turn.text);
  };
  return chat(*this, rules, text, compose, fragments);
}

void QORAssistant_GOOGLE::readEvent(std::string_view /*name*/, const YLJsonValue& reply,
                                    StreamReader& reader) {
  if (reply.obtainKeyValue("error") != nullptr) {
    reader.failWithEvent();
    return;
  }
  // The same reader as a whole reply's, so that the two give the same text.
  std::string text;
  if (readCandidates(reply, text)) {
    reader.addText(text);
    reader.finish();
  } else if (!reader.finished()) {
    // A prompt refused before any reply fails as the whole reply would; a late event without
    // candidates (usage alone) does not.
    reader.refuseEvent();
  }
  reader.readDetails(reply);
}

std::string QORAssistant_GOOGLE::obtainErrorMessage(const YLRestResourceResponse* response) {
  return errorMessageOr(*response, {});
}

bool QORAssistant_GOOGLE::readCandidates(const YLJsonValue& reply, std::string& text) {
  const YLJsonValue* candidates = member(&reply, "candidates", YLJsonValueType::Array);
  if (candidates == nullptr) return false;
  const std::size_t count = candidates->obtainArraySize();
  for (std::size_t c = 0; c < count; ++c) {
    const YLJsonValue* content =
        member(candidates->obtainArrayItem(c), "content", YLJsonValueType::Object);
    const YLJsonValue* parts = member(content, "parts", YLJsonValueType::Array);
    if (parts == nullptr || !isStringEqual(content->obtainKeyValue("role"), "model")) continue;
    const std::size_t partCount = parts->obtainArraySize();
    for (std::size_t p = 0; p < partCount; ++p) {
      const YLJsonValue* part = member(parts->obtainArrayItem(p), "text", YLJsonValueType::String);
      if (part != nullptr) text += part->obtainStringView();
    }
  }
  return true;
}

bool QORAssistant_GOOGLE::readModel(const YLJsonValue* item, ModelEntry& entry) {
  const YLJsonValue* name = member(item, "name", YLJsonValueType::String);
  const YLJsonValue* methods = member(item, "supportedGenerationMethods", YLJsonValueType::Array);
  if (name == nullptr || methods == nullptr) return false;
  bool generates = false;
  const std::size_t count = methods->obtainArraySize();
  for (std::size_t i = 0; i < count && !generates; ++i) {
    generates = isStringEqual(methods->obtainArrayItem(i), "generateContent");
  }
  if (!generates) return false;
  std::string_view text = name->obtainStringView();
  if (text.starts_with(kModelPrefix)) text.remove_prefix(kModelPrefix.size());
  entry.name.assign(text);
  return true;
}
