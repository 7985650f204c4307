#include "qor_service_exchange.h"

#include <algorithm>

#include "qor_http.h"
#include "qor_library.h"
#include "qor_message.h"

namespace QORExchange {

namespace {

constexpr std::int32_t kHistoryLimit = 20;

bool hasUsableJson(const YLRestResourceResponse& response) {
  return response.responseJson != nullptr && response.responseJson->getIsValidJson();
}

std::string urlFor(const QORAssistant& assistant, const std::vector<std::string>& segments) {
  std::vector<std::string> parts;
  parts.reserve(segments.size() + 1);
  parts.push_back(assistant.properties->apiHost);
  parts.insert(parts.end(), segments.begin(), segments.end());
  return ylConcatURL(parts);
}

// The service's text for a failed exchange, or the exchange's own when the body says nothing.
std::string failedExchangeText(ErrorReader reader, const HTTP::Result& result) {
  std::string text = reader != nullptr ? reader(result.first.get()) : std::string();
  return text.empty() ? result.second : text;
}

}  // namespace

std::string errorMessageOr(const YLRestResourceResponse& response, std::string_view fallback) {
  const YLJsonValue* message =
      hasUsableJson(response)
          ? member(member(response.responseJson, "error", YLJsonValueType::Object), "message",
                   YLJsonValueType::String)
          : nullptr;
  return message != nullptr ? message->obtainStringValue() : std::string(fallback);
}

std::string obtainErrorMessage(const YLRestResourceResponse* response) {
  return errorMessageOr(*response, response->getBufferString());
}

std::string failure(std::string_view sentence, std::string_view tail) {
  std::string text = obtainLocalizedText(sentence);
  text += tail;
  return text;
}

std::string failureTail(Method method, const std::vector<std::string>& pathSegments) {
  std::string tail = ": ";
  tail += static_cast<char>(method);
  for (const std::string& segment : pathSegments) {
    tail += '/';
    tail += segment;
  }
  return tail;
}

const YLJsonValue* member(const YLJsonValue* value, std::string_view key, YLJsonValueType type) {
  if (value == nullptr) return nullptr;
  const YLJsonValue* found = value->obtainKeyValue(key);
  return found != nullptr && found->obtainType() == type ? found : nullptr;
}

bool isStringEqual(const YLJsonValue* value, std::string_view text) {
  return value != nullptr && value->obtainType() == YLJsonValueType::String &&
         value->obtainStringView() == text;
}

std::vector<QORHistoryEntry> obtainRecentHistory(QORAssistant& assistant) {
  return assistant.memory->obtainHistory(kHistoryLimit);
}

std::pair<std::vector<std::string>, std::string> listModels(QORAssistant& assistant,
                                                            const ListingRules& rules) {
  const HTTP::Result result =
      HTTP::Get(assistant.session.get(), urlFor(assistant, rules.pathSegments), rules.queryParams,
                YLParamList());
  const YLRestResourceResponse& response = *result.first;

  if (rules.gate == ListingRules::Gate::ExchangeFirst) {
    if (!result.second.empty()) return {{}, failedExchangeText(rules.errorReader, result)};
    if (!hasUsableJson(response)) {
      return {{}, failure(kInvalidResponse, failureTail(Method::Get, rules.pathSegments))};
    }
  } else {
    if (!hasUsableJson(response)) return {{}, result.second};
    const YLJsonValue* error = response.responseJson->obtainKeyValue("error");
    if (error != nullptr) {
      if (rules.errorKey == ListingRules::ErrorKey::AnyType) {
        return {{}, rules.errorReader(&response)};
      }
      if (error->obtainType() == YLJsonValueType::Object) {
        return {{}, errorMessageOr(response, result.second)};
      }
    }
  }

  const YLJsonValue* items = member(response.responseJson, rules.arrayKey, YLJsonValueType::Array);
  if (items == nullptr) {
    return {{}, failure(kUnsupportedDataFormat, failureTail(Method::Get, rules.pathSegments))};
  }

  std::vector<ModelEntry> entries;
  const std::size_t count = items->obtainArraySize();
  entries.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    ModelEntry entry;
    if (rules.readItem(items->obtainArrayItem(i), entry)) entries.push_back(std::move(entry));
  }
  if (rules.newestFirst) {
    std::stable_sort(entries.begin(), entries.end(), [](const ModelEntry& a, const ModelEntry& b) {
      return a.created > b.created;
    });
  }

  std::vector<std::string> names;
  names.reserve(entries.size());
  for (ModelEntry& entry : entries)
    names.push_back(std::move(entry.name));
  return {std::move(names), std::string()};
}

std::pair<IQORMessage*, std::string> chat(QORAssistant& assistant, const ChatRules& rules,
                                          const std::string& text, const ComposeBody& compose) {
  const QORAssistantProperties& record = *assistant.properties;
  if (record.model.empty()) {
    return {nullptr, failure(kModelIsEmpty, failureTail(Method::Post, rules.pathSegments))};
  }
  // The instructions read the memory before the history does.
  std::string instructions = record.obtainCombinedInstructions();
  const std::vector<QORHistoryEntry> history = obtainRecentHistory(assistant);
  YLJson body;
  compose(body, ChatTurn{record, instructions, history, text});
  return exchangeChat(assistant, rules, body, text);
}

std::pair<IQORMessage*, std::string> exchangeChat(QORAssistant& assistant, const ChatRules& rules,
                                                  const YLJson& body, const std::string& text) {
  const HTTP::Result result =
      HTTP::Post(assistant.session.get(), urlFor(assistant, rules.pathSegments), &body,
                 rules.queryParams, YLParamList());
  if (!result.second.empty()) return {nullptr, failedExchangeText(rules.errorReader, result)};

  const YLRestResourceResponse& response = *result.first;
  if (!hasUsableJson(response)) {
    return {nullptr, failure(kInvalidResponse, failureTail(Method::Post, rules.pathSegments))};
  }

  std::string reply;
  if (!rules.readReply(*response.responseJson, reply)) {
    return {nullptr,
            failure(kUnsupportedDataFormat, failureTail(Method::Post, rules.pathSegments))};
  }

  std::unique_ptr<QORMessage> message(QORMessage::makeTextReply(reply));
  assistant.memory->addHistoryEntry(kChatRoleUser, text);
  assistant.memory->addHistoryEntry(kChatRoleAssistant, reply);
  return {message.release(), std::string()};
}

void appendConversation(YLJsonValue* messages, const char* instructionRole,
                        std::string&& instructions, const std::vector<QORHistoryEntry>& history,
                        const std::string& text) {
  const auto append = [messages](std::string_view role, const std::string& content) {
    YLJsonValue* item = messages->addArrayItem();
    item->addKeyValue("role")->setStringValue(role);
    item->addKeyValue("content")->setStringValue(content);
  };
  if (instructionRole != nullptr && !instructions.empty()) {
    // The instructions (the digest of a large structure among them) are taken, not copied.
    YLJsonValue* item = messages->addArrayItem();
    item->addKeyValue("role")->setStringValue(instructionRole);
    item->addKeyValue("content")->takeStringValue(std::move(instructions));
  }
  for (const QORHistoryEntry& entry : history) {
    append(entry.role == kChatRoleAssistant ? "assistant" : "user", entry.text);
  }
  append("user", text);
}

}  // namespace QORExchange
