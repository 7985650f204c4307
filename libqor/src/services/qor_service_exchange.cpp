#include "qor_service_exchange.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "qor_http.h"
#include "qor_library.h"
#include "qor_message.h"

namespace QORExchange {

namespace {

constexpr std::int32_t kHistoryLimit = 20;

bool hasUsableJson(const YLRestResourceResponse& response) {
  return response.responseJson != nullptr && response.responseJson->getIsValidJson();
}

// A listing's array of items, or null and the text the listing ends with (empty after a success
// without usable JSON). The reply the items live in is kept with them.
struct Listing {
  HTTP::Result result;
  const YLJsonValue* items = nullptr;
  std::string failure{};
};

Listing fetchListing(QORAssistant& assistant, const ListingRules& rules) {
  Listing listing{HTTP::Get(assistant.session.get(), urlFor(assistant, rules.pathSegments),
                            rules.queryParams, YLParamList()),
                  nullptr, std::string()};
  const HTTP::Result& result = listing.result;
  const YLRestResourceResponse& response = *result.first;

  if (rules.gate == ListingRules::Gate::ExchangeFirst) {
    if (!result.second.empty()) {
      listing.failure = failedExchangeText(rules.errorReader, result);
      return listing;
    }
    if (!hasUsableJson(response)) {
      listing.failure = failure(kInvalidResponse, failureTail(Method::Get, rules.pathSegments));
      return listing;
    }
  } else {
    if (!hasUsableJson(response)) {
      listing.failure = result.second;
      return listing;
    }
    const YLJsonValue* error = response.responseJson->obtainKeyValue("error");
    if (error != nullptr) {
      if (rules.errorKey == ListingRules::ErrorKey::AnyType) {
        listing.failure = rules.errorReader(&response);
        return listing;
      }
      if (error->obtainType() == YLJsonValueType::Object) {
        listing.failure = errorMessageOr(response, result.second);
        return listing;
      }
    }
  }

  listing.items = member(response.responseJson, rules.arrayKey, YLJsonValueType::Array);
  if (listing.items == nullptr) {
    listing.failure = failure(kUnsupportedDataFormat, failureTail(Method::Get, rules.pathSegments));
  }
  return listing;
}

// A whole number that a double holds exactly, or nothing.
std::optional<std::int64_t> wholeNumber(const YLJsonValue* value) {
  if (value == nullptr || value->obtainType() != YLJsonValueType::Number) return std::nullopt;
  const double number = value->obtainDoubleValue();
  constexpr double kExactLimit = 9007199254740992.0;  // 2^53
  if (!(std::fabs(number) < kExactLimit) || number != std::trunc(number)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::int64_t tokenCount(const YLJsonValue* usage, const char* key) {
  if (key == nullptr) return -1;
  const std::optional<std::int64_t> count =
      wholeNumber(member(usage, key, YLJsonValueType::Number));
  return count.value_or(-1) >= 0 ? *count : -1;
}

// Seconds since the epoch from a number, or from UTC text as "2025-02-19T00:00:00Z"; else -1.
std::int64_t creationTime(const YLJsonValue* value,
                          std::unique_ptr<YLDateTimeConverter>& converter) {
  if (value == nullptr || value->obtainType() != YLJsonValueType::String) {
    return wholeNumber(value).value_or(-1);
  }
  const std::unique_ptr<YLDateTime> date(
      YLDateTime::dateTimeFromString(value->obtainStringValue(), "%Y-%m-%dT%H:%M:%SZ"));
  if (!date->isValid()) return -1;
  if (!converter) {
    converter.reset(YL::obtainAppFactory()->obtainDateTimeFactory()->createDateTimeConverter());
  }
  return converter->timestampFromDateTime(date.get(), 0);
}

std::vector<std::string> capabilitiesOf(const YLJsonValue* item, const char* key) {
  std::vector<std::string> capabilities;
  const YLJsonValue* list = key != nullptr ? member(item, key, YLJsonValueType::Array) : nullptr;
  const std::size_t count = list != nullptr ? list->obtainArraySize() : 0;
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* word = list->obtainArrayItem(i);
    if (word->obtainType() == YLJsonValueType::String)
      capabilities.push_back(word->obtainStringValue());
  }
  return capabilities;
}

}  // namespace

std::string urlFor(const QORAssistant& assistant, const std::vector<std::string>& segments) {
  std::vector<std::string> parts;
  parts.reserve(segments.size() + 1);
  parts.push_back(assistant.properties->apiHost);
  parts.insert(parts.end(), segments.begin(), segments.end());
  return ylConcatURL(parts);
}

std::string failedExchangeText(ErrorReader reader, const HTTP::Result& result) {
  std::string text = reader != nullptr ? reader(result.first.get()) : std::string();
  return text.empty() ? result.second : text;
}

void readDetails(const YLJsonValue& reply, const DetailsRules& rules, QORMessage& message) {
  const YLJsonValue* ending = &reply;
  if (rules.endList != nullptr) {
    const YLJsonValue* list = member(&reply, rules.endList, YLJsonValueType::Array);
    ending = list != nullptr ? list->obtainArrayItem(0) : nullptr;
  }
  const YLJsonValue* word =
      rules.endKey != nullptr ? member(ending, rules.endKey, YLJsonValueType::String) : nullptr;
  if (word != nullptr) {
    message.replyEndText = word->obtainStringValue();
    for (const EndWord& known : rules.endWords) {
      if (known.word == message.replyEndText) message.replyEnd = known.end;
    }
  }
  const YLJsonValue* usage = rules.usageObject != nullptr
                                 ? member(&reply, rules.usageObject, YLJsonValueType::Object)
                                 : &reply;
  message.usage = {tokenCount(usage, rules.inputKey), tokenCount(usage, rules.outputKey)};
}

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
  const Listing listing = fetchListing(assistant, rules);
  if (listing.items == nullptr) return {{}, listing.failure};
  const YLJsonValue* items = listing.items;

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

std::pair<std::vector<QORModelEntry>, std::string> listCatalogue(QORAssistant& assistant,
                                                                 const ListingRules& rules) {
  const Listing listing = fetchListing(assistant, rules);
  if (listing.items == nullptr) return {{}, listing.failure};
  std::unique_ptr<YLDateTimeConverter> converter;  // made for the first date
  std::vector<QORModelEntry> entries;
  const std::size_t count = listing.items->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* item = listing.items->obtainArrayItem(i);
    const YLJsonValue* name = member(item, rules.nameKey, YLJsonValueType::String);
    if (name == nullptr) continue;
    std::string_view text = name->obtainStringView();
    if (!rules.namePrefix.empty() && text.starts_with(rules.namePrefix)) {
      text.remove_prefix(rules.namePrefix.size());
    }
    const YLJsonValue* created =
        rules.createdKey != nullptr ? item->obtainKeyValue(rules.createdKey) : nullptr;
    entries.push_back({std::string(text), creationTime(created, converter),
                       capabilitiesOf(item, rules.capabilitiesKey)});
  }
  return {std::move(entries), std::string()};
}

std::pair<IQORMessage*, std::string> chat(QORAssistant& assistant, const ChatRules& rules,
                                          const std::string& text, const ComposeBody& compose,
                                          const FragmentSink* fragments) {
  const QORAssistantProperties& record = *assistant.properties;
  if (record.model.empty()) {
    return {nullptr, failure(kModelIsEmpty, failureTail(Method::Post, rules.pathSegments))};
  }
  // The instructions read the memory before the history does.
  std::string instructions = record.obtainCombinedInstructions();
  const std::vector<QORHistoryEntry> history = obtainRecentHistory(assistant);
  YLJson body;
  compose(body, ChatTurn{record, instructions, history, text, fragments != nullptr});
  if (fragments != nullptr) return exchangeStream(assistant, rules, body, text, *fragments);
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
  readDetails(*response.responseJson, rules.details, *message);
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
