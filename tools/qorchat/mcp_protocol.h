#pragma once
// JSON-RPC 2.0 as MCP speaks it over standard input and output: the error codes, the protocol
// revisions qorchat speaks, an incoming message sorted out, and replies made with libyl's JSON.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "yl/yl.h"

namespace qorchat::mcp {

enum ErrorCode : int {
  kParseError = -32700,
  kInvalidRequest = -32600,
  kMethodNotFound = -32601,
  kInvalidParams = -32602,
};

// The revision to answer initialize with: the client's own when qorchat speaks it, else the
// newest qorchat speaks.
std::string_view negotiatedVersion(std::string_view clientVersion);

// A line of input as JSON-RPC sees it.
struct Message {
  enum class Kind { kRequest, kNotification, kResponse, kInvalid };
  Kind kind = Kind::kInvalid;
  std::string method;
  const YLJsonValue* id = nullptr;      // a request's: a string or a number
  const YLJsonValue* params = nullptr;  // an object, or null when absent
  std::string problem;                  // why it is invalid (kInvalid, or a request's bad params)
  int code = kInvalidRequest;           // the error code that problem answers with
};

// Sorts out a parsed message; the pointers point into the document.
Message readMessage(const YLJsonValue& document);

// A reply's line: a result, which fill writes into an empty object, or an error. A null or absent
// id is written as null.
std::string resultReply(const YLJsonValue* id,
                        const std::function<void(YLJsonValue& result)>& fill = {});
std::string errorReply(const YLJsonValue* id, int code, std::string_view message);

}  // namespace qorchat::mcp
