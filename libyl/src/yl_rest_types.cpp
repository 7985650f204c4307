#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "yl/yl_rest.h"

void YLRestRequest::addQueryParams(const YLParamList& params) {
  // Stored raw: the client percent-encodes names and values when it builds the URL, so a value is
  // never encoded twice.
  query_.insert(query_.end(), params.begin(), params.end());
}

void YLRestRequest::addHeaderParams(const YLParamList& params) {
  headers_.insert(headers_.end(), params.begin(), params.end());
}

void YLRestPostRequest::updateJson(const IYLJsonValue* json) {
  if (json == nullptr) return;
  body_ = json->obtainJsonString();
}

YLRestResourceResponse::~YLRestResourceResponse() {
  delete responseJson;
}

void YLRestResourceResponse::setBody(std::string body) {
  body_ = std::move(body);
  delete responseJson;
  responseJson = nullptr;
  if (body_.empty()) return;
  // Parsed from a copy, not moved in: parsing in place rewrites its buffer, and the raw body must
  // stay readable, since failure texts quote it when it carries no message of its own.
  auto json = std::make_unique<YLJson>(std::string_view(body_));
  if (json->getIsValidJson()) responseJson = json.release();
}
