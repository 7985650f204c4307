#include "qor_assistant_chat_completions.h"

#include <utility>

#include "qor_service_stream.h"

using namespace QORExchange;

QORAssistantChatCompletions::QORAssistantChatCompletions(const Profile& profile,
                                                         IYLHTTPPoolCenter* pool,
                                                         const std::string& host,
                                                         const std::string& apiKey,
                                                         IQORAssistantMemory* memory)
    : QORAssistant(pool, host, memory, profile.defaultHost, profile.temperatureRule),
      apiKey(apiKey),
      profile_(profile) {
  // An empty key is not refused: the service answers for it.
  session->setAuthorizationHeaderValue("Bearer " + apiKey);
}

std::pair<std::vector<std::string>, std::string>
QORAssistantChatCompletions::obtainAvailableModels() {
  return listModels(*this, profile_.listing);
}

std::pair<std::vector<QORModelEntry>, std::string>
QORAssistantChatCompletions::obtainModelCatalogue() {
  return listCatalogue(*this, profile_.listing);
}

std::pair<IQORMessage*, std::string> QORAssistantChatCompletions::addMessage(std::string text) {
  return converse(text, nullptr);
}

std::pair<IQORMessage*, std::string> QORAssistantChatCompletions::addMessageStreaming(
    std::string text, std::function<void(std::string_view fragment)> onFragment) {
  return converse(text, &onFragment);
}

std::pair<IQORMessage*, std::string> QORAssistantChatCompletions::converse(
    const std::string& text, const FragmentSink* fragments) {
  return chat(
      *this, profile_.chat, text,
      [this](YLJson& body, const ChatTurn& turn) {
        body.addKeyValue("model")->setStringValue(turn.record.model);
        if (turn.record.hasChanged("temperature")) {
          body.addKeyValue("temperature")->setDoubleValue(turn.record.temperature);
        }
        YLJsonValue* messages = body.addKeyValue("messages");
        messages->setArrayType();
        appendConversation(messages, profile_.instructionRole, std::move(turn.instructions),
                           turn.history, turn.text);
        if (turn.streaming) {
          body.addKeyValue("stream")->setBoolValue(true);
          // Without it the family's streams give no token counts.
          body.addKeyValue("stream_options")->addKeyValue("include_usage")->setBoolValue(true);
        }
      },
      fragments);
}

bool QORAssistantChatCompletions::readUndatedModel(const YLJsonValue* item, ModelEntry& entry) {
  if (item == nullptr) return false;
  const YLJsonValue* id = member(item, "id", YLJsonValueType::String);
  if (id == nullptr || !isStringEqual(item->obtainKeyValue("object"), "model")) return false;
  entry.name = id->obtainStringValue();
  return true;
}

bool QORAssistantChatCompletions::readDatedModel(const YLJsonValue* item, ModelEntry& entry) {
  if (item == nullptr) return false;
  const YLJsonValue* created = member(item, "created", YLJsonValueType::Number);
  if (created == nullptr || !readUndatedModel(item, entry)) return false;
  entry.created = created->obtainIntValue();
  return true;
}

bool QORAssistantChatCompletions::readChoices(const YLJsonValue& reply, std::string& text) {
  const YLJsonValue* choices = member(&reply, "choices", YLJsonValueType::Array);
  if (choices == nullptr) return false;
  const std::size_t count = choices->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* message =
        member(choices->obtainArrayItem(i), "message", YLJsonValueType::Object);
    if (message == nullptr) continue;
    const YLJsonValue* content = member(message, "content", YLJsonValueType::String);
    if (content != nullptr && isStringEqual(message->obtainKeyValue("role"), "assistant")) {
      text += content->obtainStringView();
    }
  }
  return true;
}

void QORAssistantChatCompletions::readChunk(std::string_view /*name*/, const YLJsonValue& chunk,
                                            StreamReader& reader) {
  if (chunk.obtainKeyValue("error") != nullptr) {
    reader.failWithEvent();
    return;
  }
  const YLJsonValue* choices = member(&chunk, "choices", YLJsonValueType::Array);
  if (choices == nullptr) {
    reader.refuseEvent();
    return;
  }
  const std::size_t count = choices->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* delta =
        member(choices->obtainArrayItem(i), "delta", YLJsonValueType::Object);
    const YLJsonValue* content = member(delta, "content", YLJsonValueType::String);
    if (content != nullptr) reader.addText(content->obtainStringView());
  }
  reader.readDetails(chunk);
}
