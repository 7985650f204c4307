#include "qor_assistant_anthropic.h"

#include <cstdint>
#include <memory>
#include <utility>

#include "qor_assistant_properties_anthropic.h"
#include "qor_service_stream.h"

using namespace QORExchange;

namespace {

constexpr const char* kDefaultHost = "api.anthropic.com";
constexpr const char* kApiVersion = "2023-06-01";
constexpr const char* kCreatedAtFormat = "%Y-%m-%dT%H:%M:%SZ";

// How a reply ended: "stop_reason", and the usage's token counts.
constexpr EndWord kStopReasons[] = {{"end_turn", QORReplyEnd::Complete},
                                    {"stop_sequence", QORReplyEnd::Complete},
                                    {"max_tokens", QORReplyEnd::LengthLimit},
                                    {"refusal", QORReplyEnd::Filtered}};

const ChatRules& chatRules() {
  static const ChatRules rules = {.pathSegments = {"v1", "messages"},
                                  .errorReader = obtainErrorMessage,
                                  .readReply = QORAssistant_ANTHROPIC::readContentBlocks,
                                  .details = {.endKey = "stop_reason",
                                              .endWords = kStopReasons,
                                              .usageObject = "usage",
                                              .inputKey = "input_tokens",
                                              .outputKey = "output_tokens"},
                                  .stream = {.framing = StreamRules::Framing::Events,
                                             .readEvent = QORAssistant_ANTHROPIC::readEvent}};
  return rules;
}

// The listing's request and failures; the catalogue reads each model's "created_at" date.
ListingRules listingRules() {
  return {.pathSegments = {"v1", "models"},
          .gate = ListingRules::Gate::ReplyFirst,
          .errorKey = ListingRules::ErrorKey::AnyType,
          .errorReader = obtainErrorMessage,
          .createdKey = "created_at"};
}

}  // namespace

QORAssistant_ANTHROPIC::QORAssistant_ANTHROPIC(IYLHTTPPoolCenter* pool, const std::string& host,
                                               const std::string& apiKey,
                                               IQORAssistantMemory* memory)
    : QORAssistant(pool, host, memory, kDefaultHost, TemperatureRule::ZeroToOne), apiKey(apiKey) {
  session->addHeaderParam("x-api-key", apiKey);
  session->addHeaderParam("anthropic-version", kApiVersion);
  replaceProperties(std::make_unique<QORAssistantProperties_ANTHROPIC>(this->memory, kDefaultHost));
}

std::pair<std::vector<std::string>, std::string> QORAssistant_ANTHROPIC::obtainAvailableModels() {
  // Made when the first model is read, once the reply has shown its list.
  std::unique_ptr<YLDateTimeConverter> converter;
  ListingRules rules = listingRules();
  rules.newestFirst = true;
  rules.readItem = [&converter](const YLJsonValue* item, ModelEntry& entry) {
    if (item == nullptr) return false;
    const YLJsonValue* id = member(item, "id", YLJsonValueType::String);
    const YLJsonValue* createdAt = member(item, "created_at", YLJsonValueType::String);
    if (id == nullptr || createdAt == nullptr ||
        !isStringEqual(item->obtainKeyValue("type"), "model")) {
      return false;
    }
    if (!converter) {
      converter.reset(YL::obtainAppFactory()->obtainDateTimeFactory()->createDateTimeConverter());
    }
    // A date that does not fit the format gives an invalid record, which converts to 0.
    const std::unique_ptr<YLDateTime> date(
        YLDateTime::dateTimeFromString(createdAt->obtainStringValue(), kCreatedAtFormat));
    // Cut down to a signed 32-bit integer: the low 32 bits, as two's complement. A date after
    // 2038-01-19 wraps to a negative key and sorts behind every earlier one, as required.
    const std::int64_t seconds = converter->timestampFromDateTime(date.get(), 0);
    entry.created = static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds));
    entry.name = id->obtainStringValue();
    return true;
  };
  return listModels(*this, rules);
}

std::pair<std::vector<QORModelEntry>, std::string> QORAssistant_ANTHROPIC::obtainModelCatalogue() {
  return listCatalogue(*this, listingRules());
}

std::pair<IQORMessage*, std::string> QORAssistant_ANTHROPIC::addMessage(std::string text) {
  return converse(text, nullptr);
}

std::pair<IQORMessage*, std::string> QORAssistant_ANTHROPIC::addMessageStreaming(
    std::string text, std::function<void(std::string_view fragment)> onFragment) {
  return converse(text, &onFragment);
}

std::pair<IQORMessage*, std::string> QORAssistant_ANTHROPIC::converse(
    const std::string& text, const FragmentSink* fragments) {
  const ComposeBody compose = [](YLJson& body, const ChatTurn& turn) {
    const auto& record = static_cast<const QORAssistantProperties_ANTHROPIC&>(turn.record);
    body.addKeyValue("model")->setStringValue(record.model);
    if (record.hasChanged("temperature")) {
      body.addKeyValue("temperature")->setDoubleValue(record.temperature);
    }
    body.addKeyValue("max_tokens")
        ->setIntValue(record.hasChanged("max_tokens")
                          ? record.maxTokens
                          : QORAssistantProperties_ANTHROPIC::kDefaultMaxTokens);
    if (!turn.instructions.empty())
      body.addKeyValue("system")->takeStringValue(std::move(turn.instructions));
    YLJsonValue* messages = body.addKeyValue("messages");
    messages->setArrayType();
    // The instructions go in "system", not in the list.
    appendConversation(messages, nullptr, std::string(), turn.history, turn.text);
    if (turn.streaming) body.addKeyValue("stream")->setBoolValue(true);
  };
  return chat(*this, chatRules(), text, compose, fragments);
}

void QORAssistant_ANTHROPIC::readEvent(std::string_view /*name*/, const YLJsonValue& event,
                                       StreamReader& reader) {
  // The data's own type names the event, as the event line does.
  const YLJsonValue* type = member(&event, "type", YLJsonValueType::String);
  const std::string_view kind = type != nullptr ? type->obtainStringView() : std::string_view();
  if (kind == "content_block_delta") {
    const YLJsonValue* delta = member(&event, "delta", YLJsonValueType::Object);
    const YLJsonValue* text = member(delta, "text", YLJsonValueType::String);
    if (text != nullptr && isStringEqual(delta->obtainKeyValue("type"), "text_delta")) {
      reader.addText(text->obtainStringView());
    }
  } else if (kind == "content_block_start") {
    const YLJsonValue* block = member(&event, "content_block", YLJsonValueType::Object);
    const YLJsonValue* text = member(block, "text", YLJsonValueType::String);
    if (text != nullptr && isStringEqual(block->obtainKeyValue("type"), "text")) {
      reader.addText(text->obtainStringView());
    }
  } else if (kind == "message_start") {
    const YLJsonValue* message = member(&event, "message", YLJsonValueType::Object);
    if (message != nullptr) reader.readDetails(*message);
  } else if (kind == "message_delta") {
    const YLJsonValue* delta = member(&event, "delta", YLJsonValueType::Object);
    if (delta != nullptr) reader.readDetails(*delta);
    reader.readDetails(event);
  } else if (kind == "message_stop") {
    reader.finish();
  } else if (kind == "error") {
    reader.failWithEvent();
  }
}

bool QORAssistant_ANTHROPIC::readContentBlocks(const YLJsonValue& reply, std::string& text) {
  const YLJsonValue* blocks = member(&reply, "content", YLJsonValueType::Array);
  if (blocks == nullptr) return false;
  const std::size_t count = blocks->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* block = blocks->obtainArrayItem(i);
    const YLJsonValue* blockText = member(block, "text", YLJsonValueType::String);
    if (blockText != nullptr && isStringEqual(block->obtainKeyValue("type"), "text")) {
      text += blockText->obtainStringView();
    }
  }
  return true;
}
