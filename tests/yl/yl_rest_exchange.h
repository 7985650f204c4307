#pragma once
// What the tests of the REST client share: one exchange on a new client, as a host would make it.

#include <gtest/gtest.h>
#include <strings.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/loopback_server.h"
#include "yl/yl_rest.h"

namespace qortest {

using Strings = std::vector<std::string>;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Settings that keep a broken test from hanging the binary.
inline YLRestGlobalSettings quickSettings() {
  YLRestGlobalSettings settings;
  settings.connectTimeoutMs = 2000;
  settings.totalTimeoutMs = 5000;
  return settings;
}

inline YLErrorRecord recordOf(std::int32_t code) {
  return YL::obtainAppFactory()->obtainErrorService()->obtainErrorCatalogue()->obtainErrorRecord(
      code);
}

inline std::string refusingUrl() {
  return "http://127.0.0.1:" + std::to_string(closedLoopbackPort());
}

struct Exchanged {
  std::int32_t code;
  std::unique_ptr<YLRestResourceResponse> response;
  milliseconds took;
};

inline std::unique_ptr<IYLRestClient> makeClient(const YLRestGlobalSettings& settings,
                                                 YLRestSession* session) {
  return std::unique_ptr<IYLRestClient>(
      YL::obtainAppFactory()->obtainRestClientFactory()->createRestClient(YL::obtainAppFactory(),
                                                                          &settings, session));
}

// One exchange on the given client, or on a new one gone when this returns, as a host's would be.
inline Exchanged exchange(YLRestRequest& request,
                          const YLRestGlobalSettings& settings = quickSettings(),
                          YLRestSession* session = nullptr, IYLRestClient* kept = nullptr) {
  const std::unique_ptr<IYLRestClient> made = kept ? nullptr : makeClient(settings, session);
  IYLRestClient* client = kept ? kept : made.get();
  YLRestResourceResponse* response = nullptr;
  const Clock::time_point start = Clock::now();
  auto* post = dynamic_cast<YLRestPostRequest*>(&request);
  const std::int32_t code =
      post ? client->executePost(post, &response)
           : client->executeGet(static_cast<YLRestGetRequest*>(&request), &response);
  const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  EXPECT_NE(response, nullptr) << "every exchange must leave a response";
  return {code,
          std::unique_ptr<YLRestResourceResponse>(response ? response : new YLRestResourceResponse),
          took};
}

// A GET, or a POST when a body is given.
inline Exchanged send(const std::string& url,
                      const YLRestGlobalSettings& settings = quickSettings(),
                      YLRestSession* session = nullptr, const char* body = nullptr) {
  YLJson document(body != nullptr ? body : "");
  YLRestPostRequest post;
  YLRestGetRequest get;
  YLRestRequest& request = body != nullptr ? static_cast<YLRestRequest&>(post) : get;
  if (body != nullptr) post.updateJson(&document);
  request.setURL(url);
  return exchange(request, settings, session);
}

inline Strings headerValues(const Pairs& headers, const std::string& name) {
  Strings values;
  for (const auto& [key, value] : headers)
    if (strcasecmp(key.c_str(), name.c_str()) == 0) values.push_back(value);
  return values;
}

}  // namespace qortest
