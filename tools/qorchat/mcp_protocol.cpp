// Sorts out JSON-RPC messages and writes replies, ids copied as the client sent them.
#include "mcp_protocol.h"

#include <array>

#include "mcp_json.h"

namespace qorchat::mcp {
namespace {

// Newest first: those the official TypeScript SDK lists as supported.
constexpr std::array<std::string_view, 5> kVersions = {"2025-11-25", "2025-06-18", "2025-03-26",
                                                       "2024-11-05", "2024-10-07"};

bool isType(const YLJsonValue* value, YLJsonValueType type) {
  return value != nullptr && value->obtainType() == type;
}

// A reply with its id set: the document starts from a constant text, so that an empty result
// object can be had (the documents' interface cannot make one).
std::unique_ptr<YLJson> replyWithId(std::string_view skeleton, const YLJsonValue* id) {
  auto reply = std::make_unique<YLJson>(skeleton);
  YLJsonValue* target = reply->addKeyValue("id");  // keeps the skeleton's place, made null
  if (isType(id, YLJsonValueType::String) || isType(id, YLJsonValueType::Number))
    copyJson(*id, *target);
  return reply;
}

}  // namespace

std::string_view negotiatedVersion(std::string_view clientVersion) {
  for (const std::string_view version : kVersions) {
    if (version == clientVersion) return version;
  }
  return kVersions.front();
}

Message readMessage(const YLJsonValue& document) {
  Message message;
  if (document.obtainType() != YLJsonValueType::Object) {
    message.problem = "a message must be one JSON object (batches are not supported)";
    return message;
  }
  const YLJsonValue* id = document.obtainKeyValue("id");
  const YLJsonValue* method = document.obtainKeyValue("method");
  if (id != nullptr && !isType(id, YLJsonValueType::String) &&
      !isType(id, YLJsonValueType::Number)) {
    message.problem = "the id must be a string or a number";
    return message;
  }
  if (method == nullptr && id != nullptr &&
      (document.obtainKeyValue("result") != nullptr ||
       document.obtainKeyValue("error") != nullptr)) {
    message.kind = Message::Kind::kResponse;
    return message;
  }
  message.id = id;
  const YLJsonValue* version = document.obtainKeyValue("jsonrpc");
  if (!isType(version, YLJsonValueType::String) || version->obtainStringView() != "2.0") {
    message.problem = "jsonrpc must be \"2.0\"";
  } else if (!isType(method, YLJsonValueType::String)) {
    message.problem = "a request needs a method, as a string";
  }
  if (!message.problem.empty()) {
    // A notification is never answered, even a bad one: the caller only notes it.
    message.kind = id == nullptr && isType(method, YLJsonValueType::String)
                       ? Message::Kind::kNotification
                       : Message::Kind::kInvalid;
    return message;
  }
  message.method = method->obtainStringView();
  message.kind = id == nullptr ? Message::Kind::kNotification : Message::Kind::kRequest;
  message.params = document.obtainKeyValue("params");
  if (message.params != nullptr && message.params->obtainType() == YLJsonValueType::Null)
    message.params = nullptr;
  if (message.params != nullptr && message.params->obtainType() != YLJsonValueType::Object) {
    message.problem = "params must be an object";
    message.code = kInvalidParams;
  }
  return message;
}

std::string resultReply(const YLJsonValue* id, const std::function<void(YLJsonValue&)>& fill) {
  const std::unique_ptr<YLJson> reply =
      replyWithId(R"({"jsonrpc":"2.0","id":null,"result":{}})", id);
  if (fill) fill(*reply->obtainKeyValue("result"));
  return reply->obtainJsonString();
}

std::string errorReply(const YLJsonValue* id, int code, std::string_view message) {
  const std::unique_ptr<YLJson> reply = replyWithId(R"({"jsonrpc":"2.0","id":null})", id);
  YLJsonValue* error = reply->addKeyValue("error");
  error->addKeyValue("code")->setIntValue(code);
  error->addKeyValue("message")->setStringValue(message);
  return reply->obtainJsonString();
}

}  // namespace qorchat::mcp
