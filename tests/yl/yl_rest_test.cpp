// The REST client against a real HTTP(S) service on 127.0.0.1.

#include <gtest/gtest.h>
#include <strings.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/loopback_server.h"
#include "yl/yl_assert.h"
#include "yl/yl_rest.h"

namespace {

using qortest::LoopbackServer;
using qortest::ScriptedReply;

IYLAppFactory* app() {
  return YL::obtainAppFactory();
}

YLErrorRecord recordOf(std::int32_t code) {
  return app()->obtainErrorService()->obtainErrorCatalogue()->obtainErrorRecord(code);
}

constexpr std::int32_t kCouldntConnect = YLErrorCode::kCurlCodeBase + 7;
constexpr std::int32_t kTimedOut = YLErrorCode::kCurlCodeBase + 28;
constexpr std::int32_t kTooManyRedirects = YLErrorCode::kCurlCodeBase + 47;
constexpr std::int32_t kPeerFailedVerification = YLErrorCode::kCurlCodeBase + 60;

// Settings that keep a broken test from hanging the binary.
YLRestGlobalSettings quickSettings() {
  YLRestGlobalSettings settings;
  settings.connectTimeoutMs = 2000;
  settings.totalTimeoutMs = 5000;
  return settings;
}

ScriptedReply reply(int status, std::string body, std::string contentType = "application/json") {
  ScriptedReply r;
  r.status = status;
  r.body = std::move(body);
  r.contentType = std::move(contentType);
  return r;
}

struct Outcome {
  std::int32_t code = -1;
  std::unique_ptr<YLRestResourceResponse> response;
};

// One exchange on a new client; the client is gone when this returns, like a host's would be.
template <typename Request>
Outcome exchange(Request& request, const YLRestGlobalSettings& settings,
                 YLRestSession* session = nullptr) {
  std::unique_ptr<IYLRestClient> client(
      app()->obtainRestClientFactory()->createRestClient(app(), &settings, session));
  YLRestResourceResponse* response = nullptr;
  Outcome outcome;
  if constexpr (std::is_same_v<Request, YLRestPostRequest>) {
    outcome.code = client->executePost(&request, &response);
  } else {
    outcome.code = client->executeGet(&request, &response);
  }
  outcome.response.reset(response);
  EXPECT_NE(response, nullptr) << "every exchange must leave a response";
  if (!outcome.response) outcome.response = std::make_unique<YLRestResourceResponse>();
  return outcome;
}

Outcome get(const std::string& url, const YLRestGlobalSettings& settings = quickSettings(),
            YLRestSession* session = nullptr) {
  YLRestGetRequest request;
  request.setURL(url);
  return exchange(request, settings, session);
}

std::vector<std::string> headerValues(const qortest::Pairs& headers, const std::string& name) {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (key == name) values.push_back(value);
  }
  return values;
}

std::string responseHeader(const YLRestResourceResponse& response, const std::string& name) {
  for (const auto& [key, value] : response.headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return {};
}

// Sets an environment variable for the scope and restores what was there before.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(RestClient, GetEncodesQueryAndSendsHeadersInOrder) {
  LoopbackServer server;
  ScriptedReply models = reply(200, R"({"data":[{"id":"m1"}]})");
  models.headers = {{"X-Multi", "1"}, {"X-Multi", "2"}};
  server.answer("GET", "/v1/models", models);

  YLRestSession session;
  session.setAuthorizationHeaderValue("Bearer sk-test");
  session.addHeaderParam("X-Order", "session");
  YLRestGetRequest request;
  request.setURL(server.baseUrl() + "/v1/models");
  request.addQueryParams({{"q", "a b&c=d"}, {"utf", "\xC3\xA9\xE2\x9C\x93"}});
  request.addQueryParams({{"safe", "x-y_z.~"}});
  request.addHeaderParams({{"X-Order", "request"}});

  Outcome outcome = exchange(request, quickSettings(), &session);
  ASSERT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.response->statusCode, 200);
  ASSERT_NE(outcome.response->responseJson, nullptr);
  EXPECT_EQ(outcome.response->responseJson->obtainKeyValue("data")
                ->obtainArrayItem(0)
                ->obtainKeyValue("id")
                ->obtainStringValue(),
            "m1");
  EXPECT_EQ(headerValues(outcome.response->headers, "X-Multi"),
            (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(responseHeader(*outcome.response, "Content-Type"), "application/json");

  const qortest::RecordedRequest seen = server.lastRequest();
  EXPECT_EQ(seen.method, "GET");
  EXPECT_EQ(seen.path, "/v1/models");
  EXPECT_EQ(seen.query, "q=a%20b%26c%3Dd&utf=%C3%A9%E2%9C%93&safe=x-y_z.~");
  EXPECT_EQ(
      seen.queryParams,
      (qortest::Pairs{{"q", "a b&c=d"}, {"utf", "\xC3\xA9\xE2\x9C\x93"}, {"safe", "x-y_z.~"}}));
  EXPECT_EQ(seen.header("Authorization"), "Bearer sk-test");
  EXPECT_EQ(headerValues(seen.headers, "X-Order"),
            (std::vector<std::string>{"session", "request"}));
  EXPECT_EQ(seen.header("User-Agent"), "libqor/0.1");
  EXPECT_FALSE(seen.hasHeader("Content-Type"));
  EXPECT_TRUE(seen.body.empty());

  // A URL that has a query of its own keeps it and gets the parameters after it; an empty
  // authorization sends no header.
  YLRestSession bare;
  YLRestGetRequest withQuery;
  withQuery.setURL(server.baseUrl() + "/v1/models?key=abc");
  withQuery.addQueryParams({{"n", "1"}});
  ASSERT_EQ(exchange(withQuery, quickSettings(), &bare).code, 0);
  EXPECT_EQ(server.lastRequest().query, "key=abc&n=1");
  EXPECT_FALSE(server.lastRequest().hasHeader("Authorization"));
}

TEST(RestClient, PostSendsTheJsonOfTheMomentExactly) {
  LoopbackServer server;
  server.answer("POST", "/v1/chat", reply(201, R"({"ok":true})"));

  YLJson document;
  document.addKeyValue("model")->setStringValue("m");
  document.addKeyValue("n")->setIntValue(3);
  YLRestPostRequest request;
  request.setURL(server.baseUrl() + "/v1/chat");
  request.updateJson(&document);
  const std::string expected = R"({"model":"m","n":3})";
  EXPECT_EQ(request.body(), expected);
  document.addKeyValue("late")->setBoolValue(true);
  request.updateJson(nullptr);
  EXPECT_EQ(request.body(), expected) << "later changes and a null value leave the body alone";

  YLRestSession session;
  session.setAuthorizationHeaderValue("Bearer k");
  Outcome outcome = exchange(request, quickSettings(), &session);
  EXPECT_EQ(outcome.code, 0) << "every 2xx status is a success";
  EXPECT_EQ(outcome.response->statusCode, 201);

  const qortest::RecordedRequest seen = server.lastRequest();
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.body, expected);
  EXPECT_EQ(headerValues(seen.headers, "Content-Type"),
            (std::vector<std::string>{"application/json"}));
  EXPECT_EQ(seen.header("Content-Length"), std::to_string(expected.size()));
  EXPECT_EQ(seen.header("Authorization"), "Bearer k");
  EXPECT_FALSE(seen.hasHeader("Expect"));
}

TEST(RestClient, BodiesAreKeptRawAndParsedOnlyWhenJson) {
  LoopbackServer server;
  server.answer("GET", "/text", reply(200, "plain words, {not JSON", "text/plain"));
  server.answer("GET", "/empty", reply(204, "", "text/plain"));

  Outcome text = get(server.baseUrl() + "/text");
  EXPECT_EQ(text.code, 0);
  EXPECT_EQ(text.response->getBufferString(), "plain words, {not JSON");
  EXPECT_EQ(text.response->responseJson, nullptr);

  Outcome empty = get(server.baseUrl() + "/empty");
  EXPECT_EQ(empty.code, 0);
  EXPECT_EQ(empty.response->statusCode, 204);
  EXPECT_TRUE(empty.response->getBufferString().empty());
  EXPECT_EQ(empty.response->responseJson, nullptr);
}

TEST(RestClient, StatusesBecomeCodesWithFixedTexts) {
  LoopbackServer server;
  const std::string badKey = qortest::readWireFile("anthropic/error_401_bad_key.json");
  server.answer("GET", "/401", reply(401, badKey));
  server.answer("GET", "/404", reply(404, ""));
  server.answer("GET", "/429", reply(429, R"({"error":"slow down"})"));
  server.answer("GET", "/529", reply(529, R"({"error":"overloaded"})"));
  ScriptedReply moved = reply(302, "");
  moved.headers = {{"Location", "/elsewhere"}};
  server.answer("GET", "/302", moved);

  Outcome unauthorized = get(server.baseUrl() + "/401");
  EXPECT_EQ(unauthorized.code, 401);
  EXPECT_EQ(unauthorized.response->statusCode, 401);
  EXPECT_EQ(unauthorized.response->getBufferString(), badKey);
  ASSERT_NE(unauthorized.response->responseJson, nullptr);
  EXPECT_EQ(unauthorized.response->responseJson->obtainKeyValue("error")
                ->obtainKeyValue("message")
                ->obtainStringValue(),
            "invalid x-api-key");
  const YLErrorRecord record = recordOf(401);
  EXPECT_EQ(record.text, "HTTP 401 Unauthorized");
  EXPECT_EQ(record.symbol, "HTTP_401");
  EXPECT_EQ(record.code, 401);

  EXPECT_EQ(get(server.baseUrl() + "/404").code, 404);
  EXPECT_EQ(recordOf(404).text, "HTTP 404 Not Found");
  Outcome limited = get(server.baseUrl() + "/429");
  EXPECT_EQ(limited.code, 429);
  ASSERT_NE(limited.response->responseJson, nullptr);
  EXPECT_EQ(recordOf(429).text, "HTTP 429 Too Many Requests");
  EXPECT_EQ(get(server.baseUrl() + "/529").code, 529);
  EXPECT_EQ(recordOf(529).text, "HTTP 529");
  // Without following, a redirect is a reply like any other.
  Outcome redirect = get(server.baseUrl() + "/302");
  EXPECT_EQ(redirect.code, 302);
  EXPECT_EQ(responseHeader(*redirect.response, "Location"), "/elsewhere");

  EXPECT_EQ(recordOf(YLErrorCode::kResponseTooLarge).text,
            "Response body exceeds the accepted size");
  EXPECT_EQ(recordOf(kCouldntConnect).symbol, "CURLE_COULDNT_CONNECT");
  EXPECT_EQ(recordOf(3000).symbol, "kUnknownError");
}

TEST(RestClient, TransportFailuresLeaveAnEmptyResponse) {
  Outcome refused = get("http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()) + "/");
  EXPECT_EQ(refused.code, kCouldntConnect);
  EXPECT_EQ(recordOf(refused.code).text, "Couldn't connect to server");
  EXPECT_EQ(refused.response->statusCode, 0);
  EXPECT_TRUE(refused.response->getBufferString().empty());
  EXPECT_TRUE(refused.response->headers.empty());
  EXPECT_EQ(refused.response->responseJson, nullptr);

  // Only the web is spoken: another scheme fails before any connection is tried.
  const std::string ftp = "ftp://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()) + "/";
  EXPECT_EQ(get(ftp).code, YLErrorCode::kCurlCodeBase + 1);

  LoopbackServer server;
  ScriptedReply slow = reply(200, "{}");
  slow.delay = std::chrono::milliseconds(1500);
  server.answer("GET", "/slow", slow);
  YLRestGlobalSettings settings = quickSettings();
  settings.totalTimeoutMs = 300;
  const auto start = std::chrono::steady_clock::now();
  Outcome late = get(server.baseUrl() + "/slow", settings);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(late.code, kTimedOut);
  EXPECT_EQ(recordOf(late.code).text, "Timeout was reached");
  EXPECT_EQ(late.response->statusCode, 0);
  EXPECT_LT(elapsed, std::chrono::milliseconds(1200));
}

TEST(RestClient, OversizedRepliesAreRefusedAfterDecoding) {
  LoopbackServer server;
  // JSON is compressed by the service, so only the decoded size can exceed the limit.
  const std::string big = R"({"text":")" + std::string(4096 - 11, 'a') + R"("})";
  ASSERT_EQ(big.size(), 4096u);
  server.answer("GET", "/big-json", reply(200, big));
  // An identity reply announces its size and is refused from its Content-Length.
  server.answer("GET", "/big-raw", reply(200, std::string(4096, 'x'), "application/octet-stream"));
  server.answer("GET", "/at-limit", reply(200, std::string(1024, 'x'), "application/octet-stream"));
  server.answer("GET", "/one-over", reply(200, std::string(1025, 'x'), "application/octet-stream"));
  YLRestGlobalSettings settings = quickSettings();
  settings.maxResponseBytes = 1024;

  Outcome json = get(server.baseUrl() + "/big-json", settings);
  EXPECT_EQ(json.code, YLErrorCode::kResponseTooLarge);
  EXPECT_FALSE(responseHeader(*json.response, "Content-Encoding").empty())
      << "the test relies on a compressed reply";
  EXPECT_TRUE(json.response->getBufferString().empty());
  EXPECT_EQ(json.response->responseJson, nullptr);

  Outcome raw = get(server.baseUrl() + "/big-raw", settings);
  EXPECT_EQ(raw.code, YLErrorCode::kResponseTooLarge);
  EXPECT_TRUE(raw.response->getBufferString().empty());

  Outcome atLimit = get(server.baseUrl() + "/at-limit", settings);
  EXPECT_EQ(atLimit.code, 0);
  EXPECT_EQ(atLimit.response->getBufferString().size(), 1024u);
  EXPECT_EQ(get(server.baseUrl() + "/one-over", settings).code, YLErrorCode::kResponseTooLarge);
}

TEST(RestClient, CompressedRepliesAreDecoded) {
  LoopbackServer server;
  std::string body = R"({"items":[)";
  for (int i = 0; i < 500; ++i)
    body += (i ? "," : "") + std::string(R"({"id":"model-entry"})");
  body += "]}";
  server.answer("GET", "/models", reply(200, body));

  // Whatever coding the service picks among those offered (br before gzip here).
  Outcome preferred = get(server.baseUrl() + "/models");
  EXPECT_EQ(preferred.code, 0);
  EXPECT_NE(server.lastRequest().header("Accept-Encoding").find("gzip"), std::string::npos);
  EXPECT_FALSE(responseHeader(*preferred.response, "Content-Encoding").empty());
  EXPECT_EQ(preferred.response->getBufferString(), body);
  ASSERT_NE(preferred.response->responseJson, nullptr);
  EXPECT_EQ(preferred.response->responseJson->obtainKeyValue("items")->obtainArraySize(), 500u);

  YLRestGetRequest gzipOnly;
  gzipOnly.setURL(server.baseUrl() + "/models");
  gzipOnly.addHeaderParams({{"Accept-Encoding", "gzip"}});
  Outcome gzip = exchange(gzipOnly, quickSettings());
  EXPECT_EQ(gzip.code, 0);
  EXPECT_EQ(responseHeader(*gzip.response, "Content-Encoding"), "gzip");
  EXPECT_EQ(gzip.response->getBufferString(), body);
}

TEST(RestClient, PoolsShareConnectionsBetweenClients) {
  const std::string path = "/ping";
  {
    LoopbackServer server;
    server.answer("GET", path, reply(200, "{}"));
    YLHTTPPoolCenter pool;
    YLRestSession session;
    session.connectionPool = &pool;
    EXPECT_EQ(get(server.baseUrl() + path, quickSettings(), &session).code, 0);
    EXPECT_EQ(get(server.baseUrl() + path, quickSettings(), &session).code, 0);
    EXPECT_EQ(server.requestCount(), 2u);
    EXPECT_EQ(server.connectionCount(), 1u) << "two clients of one pool share a connection";
  }
  {
    LoopbackServer server;
    server.answer("GET", path, reply(200, "{}"));
    YLHTTPPoolCenter poolA;
    YLHTTPPoolCenter poolB;
    YLRestSession sessionA;
    YLRestSession sessionB;
    sessionA.connectionPool = &poolA;
    sessionB.connectionPool = &poolB;
    EXPECT_EQ(get(server.baseUrl() + path, quickSettings(), &sessionA).code, 0);
    EXPECT_EQ(get(server.baseUrl() + path, quickSettings(), &sessionB).code, 0);
    EXPECT_EQ(server.connectionCount(), 2u);
  }
  {
    LoopbackServer server;
    server.answer("GET", path, reply(200, "{}"));
    EXPECT_EQ(get(server.baseUrl() + path).code, 0);
    EXPECT_EQ(get(server.baseUrl() + path).code, 0);
    EXPECT_EQ(server.connectionCount(), 2u) << "clients without a pool share nothing";
  }
}

int failedAssertions = 0;

TEST(RestClient, APoolCanGoBeforeItsClients) {
  LoopbackServer server;
  server.answer("GET", "/ping", reply(200, "{}"));
  failedAssertions = 0;
  const YLAssertionHandler previous =
      ylSetAssertionHandler([](const char*, const char*) { ++failedAssertions; });
  const YLRestGlobalSettings settings = quickSettings();
  YLRestSession session;
  std::unique_ptr<IYLRestClient> client(
      app()->obtainRestClientFactory()->createRestClient(app(), &settings, &session));
  YLRestGetRequest request;
  request.setURL(server.baseUrl() + "/ping");
  YLRestResourceResponse* response = nullptr;
  {
    YLHTTPPoolCenter pool;
    session.connectionPool = &pool;
    EXPECT_EQ(client->executeGet(&request, &response), 0);
    delete response;
    session.connectionPool = nullptr;
  }
  EXPECT_EQ(client->executeGet(&request, &response), 0);
  delete response;
  ylSetAssertionHandler(previous);
  EXPECT_EQ(failedAssertions, 0) << "the pool was still in use when it was destroyed";
  EXPECT_EQ(server.connectionCount(), 2u) << "the pool's connection left with the pool";
}

TEST(RestClient, TlsTrustsOnlyWhatItIsTold) {
  LoopbackServer server(LoopbackServer::Transport::Tls);
  server.answer("GET", "/secure", reply(200, R"({"tls":true})"));
  ASSERT_FALSE(server.certificateFile().empty());

  YLRestGlobalSettings trusting = quickSettings();
  trusting.caFile = server.certificateFile();
  Outcome trusted = get(server.baseUrl() + "/secure", trusting);
  EXPECT_EQ(trusted.code, 0);
  EXPECT_EQ(trusted.response->getBufferString(), R"({"tls":true})");
  Outcome byName = get("https://localhost:" + std::to_string(server.port()) + "/secure", trusting);
  EXPECT_EQ(byName.code, 0) << "the certificate names localhost too";

  Outcome untrusted = get(server.baseUrl() + "/secure");
  EXPECT_EQ(untrusted.code, kPeerFailedVerification);
  EXPECT_EQ(recordOf(untrusted.code).text, "SSL peer certificate or SSH remote key was not OK");
  EXPECT_EQ(server.requestCount(), 2u) << "nothing is sent over an unverified connection";

  YLRestGlobalSettings careless = quickSettings();
  careless.verifyPeer = false;
  careless.verifyHost = false;
  EXPECT_EQ(get(server.baseUrl() + "/secure", careless).code, 0);
}

TEST(RestClient, KeysNeverReachErrorTexts) {
  const std::string key = "sk-SECRET-4711";
  const auto carryKey = [&key](YLRestGetRequest& request) {
    request.addQueryParams({{"key", key}});
    request.addHeaderParams({{"x-api-key", key}});
  };
  YLRestSession session;
  session.setAuthorizationHeaderValue("Bearer " + key);

  YLRestGetRequest refused;
  refused.setURL("http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()) + "/v1");
  carryKey(refused);
  const std::int32_t transportCode = exchange(refused, quickSettings(), &session).code;
  EXPECT_EQ(transportCode, kCouldntConnect);

  LoopbackServer server;
  server.answer("GET", "/v1", reply(401, R"({"error":"bad key"})"));
  YLRestGetRequest rejected;
  rejected.setURL(server.baseUrl() + "/v1");
  rejected.requestTag = 987654321987ull;
  carryKey(rejected);
  const std::int32_t httpCode = exchange(rejected, quickSettings(), &session).code;
  EXPECT_EQ(httpCode, 401);

  for (std::int32_t code : {transportCode, httpCode}) {
    const YLErrorRecord record = recordOf(code);
    EXPECT_FALSE(record.text.empty());
    EXPECT_EQ(record.text.find(key), std::string::npos) << record.text;
    EXPECT_EQ(record.symbol.find(key), std::string::npos) << record.symbol;
  }

  // The request tag stays with the caller.
  const qortest::RecordedRequest seen = server.lastRequest();
  EXPECT_EQ(seen.queryParam("key"), key);
  for (const auto& [name, value] : seen.headers) {
    EXPECT_EQ(value.find("987654321987"), std::string::npos) << name;
  }
  EXPECT_EQ(seen.query.find("987654321987"), std::string::npos);
}

TEST(RestClient, ProxyComesOnlyFromTheSettings) {
  LoopbackServer server;
  server.answer("GET", "/direct", reply(200, "{}"));
  const std::string deadProxy = "http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort());

  YLRestGlobalSettings viaProxy = quickSettings();
  viaProxy.proxy = deadProxy;
  EXPECT_EQ(get(server.baseUrl() + "/direct", viaProxy).code, kCouldntConnect);
  EXPECT_EQ(server.requestCount(), 0u);

  viaProxy.noProxy = "127.0.0.1";
  EXPECT_EQ(get(server.baseUrl() + "/direct", viaProxy).code, 0);
  EXPECT_EQ(server.requestCount(), 1u);

  {
    const ScopedEnv httpProxy("http_proxy", deadProxy);
    const ScopedEnv allProxy("all_proxy", deadProxy);
    EXPECT_EQ(get(server.baseUrl() + "/direct").code, 0) << "proxy variables are not honoured";
  }
  EXPECT_EQ(server.requestCount(), 2u);
}

TEST(RestClient, RedirectsAreFollowedOnlyWhenAsked) {
  LoopbackServer server;
  ScriptedReply moved = reply(302, "");
  moved.headers = {{"Location", "/new"}, {"X-Hop", "old"}};
  server.answer("GET", "/old", moved);
  server.answer("GET", "/new", reply(200, R"({"at":"new"})"));
  ScriptedReply loop = reply(302, "");
  loop.headers = {{"Location", "/loop"}};
  server.answer("GET", "/loop", loop);

  YLRestGlobalSettings following = quickSettings();
  following.followRedirects = true;
  following.maxRedirects = 3;
  Outcome followed = get(server.baseUrl() + "/old", following);
  EXPECT_EQ(followed.code, 0);
  EXPECT_EQ(followed.response->statusCode, 200);
  EXPECT_EQ(followed.response->getBufferString(), R"({"at":"new"})");
  EXPECT_TRUE(responseHeader(*followed.response, "X-Hop").empty())
      << "only the last reply's headers are kept";
  EXPECT_EQ(server.lastRequest().path, "/new");

  EXPECT_EQ(get(server.baseUrl() + "/loop", following).code, kTooManyRedirects);
  EXPECT_EQ(get(server.baseUrl() + "/old").code, 302);
}

TEST(RestClient, HeadersThatWouldBreakTheRequestAreRefused) {
  LoopbackServer server;
  for (const auto& [name, value] :
       qortest::Pairs{{"X-Bad", "a\r\nInjected: yes"}, {"Bad Name", "v"}, {"", "v"}}) {
    YLRestGetRequest request;
    request.setURL(server.baseUrl() + "/");
    request.addHeaderParams({{name, value}});
    EXPECT_EQ(exchange(request, quickSettings()).code, YLErrorCode::kClientSetupFailed) << name;
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
