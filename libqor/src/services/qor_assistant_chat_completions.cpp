#include "qor_assistant_chat_completions.h"

#include <utility>

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
  return chat(*this, profile_.chat, text, [this](YLJson& body, const ChatTurn& turn) {
    body.addKeyValue("model")->setStringValue(turn.record.model);
    if (turn.record.hasChanged("temperature")) {
      body.addKeyValue("temperature")->setDoubleValue(turn.record.temperature);
    }
    YLJsonValue* messages = body.addKeyValue("messages");
    messages->setArrayType();
    appendConversation(messages, profile_.instructionRole, std::move(turn.instructions),
                       turn.history, turn.text);
  });
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
