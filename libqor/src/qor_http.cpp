#include "qor_http.h"

#include <type_traits>
#include <utility>

#include "qor_library.h"

namespace {

template <typename Request, typename Execute>
HTTP::Result exchange(YLRestSession* session, Request& request, const std::string& url,
                      const IYLJsonValue* json, const YLParamList& queryParams,
                      const YLParamList& headerParams, Execute execute) {
  request.requestTag = HTTP::kRequestTag;
  request.setURL(url);
  if constexpr (std::is_same_v<Request, YLRestPostRequest>) {
    // The body is the document as it is now; it stays the caller's.
    if (json != nullptr) request.updateJson(json);
  }
  if (!queryParams.empty()) request.addQueryParams(queryParams);
  if (!headerParams.empty()) request.addHeaderParams(headerParams);

  IYLAppFactory* factory = YL::obtainAppFactory();
  std::unique_ptr<IYLRestClient> client(factory->obtainRestClientFactory()->createRestClient(
      YL::obtainAppFactory(), &qorGlobalRestSettings(), session));

  YLRestResourceResponse* response = nullptr;
  const std::int32_t code = execute(*client, &request, &response);
  std::unique_ptr<YLRestResourceResponse> owned(response);
  // The client always leaves a response; an empty one stands in should it ever not.
  if (!owned) owned = std::make_unique<YLRestResourceResponse>();
  if (code == 0) return {std::move(owned), std::string()};

  const YLErrorRecord record =
      YL::obtainAppFactory()->obtainErrorService()->obtainErrorCatalogue()->obtainErrorRecord(code);
  return {std::move(owned), record.text};
}

}  // namespace

namespace HTTP {

Result Get(YLRestSession* session, const std::string& url, const YLParamList& queryParams,
           const YLParamList& headerParams) {
  YLRestGetRequest request;
  return exchange(session, request, url, nullptr, queryParams, headerParams,
                  [](IYLRestClient& client, YLRestGetRequest* r, YLRestResourceResponse** out) {
                    return client.executeGet(r, out);
                  });
}

Result Post(YLRestSession* session, const std::string& url, const IYLJsonValue* json,
            const YLParamList& queryParams, const YLParamList& headerParams,
            std::function<void(std::string_view piece)> onBodyPiece) {
  YLRestPostRequest request;
  request.setBodyPieceHandler(std::move(onBodyPiece));
  return exchange(session, request, url, json, queryParams, headerParams,
                  [](IYLRestClient& client, YLRestPostRequest* r, YLRestResourceResponse** out) {
                    return client.executePost(r, out);
                  });
}

}  // namespace HTTP
