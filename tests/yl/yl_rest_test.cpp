// The REST client against a real HTTP(S) service on 127.0.0.1: requests, replies, pools, TLS,
// proxies, redirects, and retries: which failures are sent again, the waits, and cancels.

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <regex>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "yl/yl_assert.h"
#include "yl_rest_exchange.h"

namespace {

using namespace qortest;

constexpr std::int32_t kCouldntConnect = YLErrorCode::kCurlCodeBase + 7;
constexpr std::int32_t kTooLarge = YLErrorCode::kResponseTooLarge;

struct SeenRequest {
  std::string method;
  std::string url;
  YLParamList headers;
  std::string body;
};

TEST(RestClient, RequestsGoOutAsBuiltAndTheHookSeesThemWithKeysMasked) {
  LoopbackServer server;
  server.answer("GET", "/v1/models",
                {200, R"({"data":[]})", "application/json", {{"X-Multi", "1"}, {"X-Multi", "2"}}});
  server.answer("POST", "/v1/chat", {201, R"({"ok":true})"});
  std::vector<SeenRequest> seen;
  YLRestGlobalSettings settings = quickSettings();
  settings.requestHook = [&](const YLPreparedRequest& r) -> std::optional<YLStandInReply> {
    seen.push_back({r.method, r.url, r.headers, std::string(r.body)});
    return std::nullopt;
  };
  const YLRestGlobalSettings copied = settings;  // hosts hand the settings over by copy

  // The URL's query, then the added parameters, encoded; the session's headers, then the request's.
  const std::string key = "sk-SECRET";
  YLRestSession session;
  session.setAuthorizationHeaderValue("Bearer " + key);
  session.addHeaderParam("x-api-key", key);
  session.addHeaderParam("X-Order", "session");
  YLRestGetRequest get;
  get.setURL(server.baseUrl() + "/v1/models?key=" + key + "&keyring=1");
  get.addQueryParams({{"q", "a b&c=d"}, {"utf", "\xC3\xA9\xE2\x9C\x93"}});
  get.addQueryParams({{"safe", "x-y_z.~"}, {"key", key}});
  get.addHeaderParams({{"X-Goog-Api-Key", key}, {"api-key", key}, {"X-Order", "request"}});
  const Exchanged got = exchange(get, copied, &session);
  ASSERT_EQ(got.code, 0);
  EXPECT_EQ(headerValues(got.response->headers, "X-Multi"), (Strings{"1", "2"}));
  const std::string added = "q=a%20b%26c%3Dd&utf=%C3%A9%E2%9C%93&safe=x-y_z.~";
  RecordedRequest received = server.lastRequest();
  EXPECT_EQ(received.query, "key=" + key + "&keyring=1&" + added + "&key=" + key);
  EXPECT_EQ(received.header("Authorization"), "Bearer " + key);
  for (const char* name : {"x-api-key", "x-goog-api-key", "api-key"})
    EXPECT_EQ(received.header(name), key) << name;
  EXPECT_EQ(headerValues(received.headers, "X-Order"), (Strings{"session", "request"}));
  EXPECT_TRUE(
      std::regex_match(received.header("User-Agent"), std::regex(R"(libqor/\d+\.\d+\.\d+)")))
      << received.header("User-Agent");
  // Masking is for the hook's eyes only.
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "GET");
  EXPECT_EQ(seen[0].url, server.baseUrl() + "/v1/models?key=****&keyring=1&" + added + "&key=****");
  EXPECT_EQ(seen[0].headers, (YLParamList{{"Authorization", "Bearer ****"},
                                          {"x-api-key", "****"},
                                          {"X-Order", "session"},
                                          {"X-Goog-Api-Key", "****"},
                                          {"api-key", "****"},
                                          {"X-Order", "request"}}));

  // A POST sends updateJson's JSON; the hook sees it, the added Content-Type last, a bare key
  // masked.
  YLRestSession bare;
  bare.setAuthorizationHeaderValue(key);
  YLJson document(R"({"model":"m","n":3})");
  YLRestPostRequest post;
  post.setURL(server.baseUrl() + "/v1/chat");
  post.updateJson(&document);
  document.addKeyValue("late")->setBoolValue(true);
  post.updateJson(nullptr);
  post.addHeaderParams({{"X-Trace", "t"}});
  const std::string expected = R"({"model":"m","n":3})";
  const Exchanged posted = exchange(post, copied, &bare);
  EXPECT_EQ(posted.code, 0) << "every 2xx status is a success";
  EXPECT_EQ(posted.response->statusCode, 201);
  received = server.lastRequest();
  EXPECT_EQ(received.body, expected) << "later changes and a null value leave the body alone";
  EXPECT_EQ(headerValues(received.headers, "Content-Type"), (Strings{"application/json"}));
  EXPECT_EQ(received.header("Content-Length"), std::to_string(expected.size()));
  EXPECT_EQ(received.header("Authorization"), key);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].url, server.baseUrl() + "/v1/chat");
  EXPECT_EQ(seen[1].headers, (YLParamList{{"Authorization", "****"},
                                          {"X-Trace", "t"},
                                          {"Content-Type", "application/json"}}));
  EXPECT_EQ(seen[1].body, expected);

  for (const auto& [name, value] :
       Pairs{{"X-Bad", "a\r\nInjected: yes"}, {"Bad Name", "v"}, {"", "v"}}) {
    YLRestGetRequest bad;
    bad.setURL(server.baseUrl() + "/v1/models");
    bad.addHeaderParams({{name, value}});
    EXPECT_EQ(exchange(bad).code, YLErrorCode::kClientSetupFailed) << name;
  }
  EXPECT_EQ(server.requestCount(), 2u);
}

TEST(RestClient, RepliesOfTheServerOrAStandInBecomeCodesAndLaterOnesAreSentAgain) {
  LoopbackServer server;
  std::optional<YLStandInReply> standIn;
  Strings sent;  // the bodies the hook saw
  YLRestGlobalSettings settings = quickSettings();
  settings.maxResponseBytes = 1024;
  settings.maxRetries = 2;
  settings.retryBaseDelayMs = 20;
  settings.requestHook = [&](const YLPreparedRequest& r) {
    sent.emplace_back(r.body);
    return standIn;
  };
  // Stand-in or not, status, body, code, JSON or not, requests sent: "later" is sent again, whole,
  // the last reply kept; a stand-in answers its exchange only; compressed JSON is over once
  // decoded.
  const std::string large = R"({"text":")" + std::string(4096, 'a') + R"("})";
  std::vector<std::tuple<bool, long, std::string, std::int32_t, bool, std::size_t>> rows = {
      {true, 201L, R"({"ok":true})", 0, true, 1u},
      {true, 500L, R"({"error":{"message":"boom"}})", 500, true, 3u},
      {true, 200L, std::string(1025, 'x'), kTooLarge, false, 1u},
      {true, 200L, std::string(1024, 'x'), 0, false, 1u},
      {true, 999L, "{}", YLErrorCode::kCurlCodeBase + 8, true, 1u},
      {false, 200L, "plain words, {not JSON", 0, false, 1u},
      {false, 200L, large, kTooLarge, false, 1u},
      {false, 200L, std::string(1025, 'x'), kTooLarge, false, 1u},
      {false, 200L, std::string(1024, 'x'), 0, false, 1u},
      {false, 204L, "", 0, false, 1u},
      {false, 401L, readWireFile("anthropic/error_401_bad_key.json"), 401, true, 1u}};
  for (const long status : {408L, 429L, 500L, 502L, 503L, 504L})  // "later": rows 12 to 17
    rows.emplace_back(false, status, "{}", status, true, 3u);
  for (const long status : {400L, 403L, 404L, 409L, 422L, 501L, 529L})
    rows.emplace_back(false, status, "{}", status, true, 1u);
  int row = 0;
  for (const auto& [hooked, status, body, code, json, attempts] : rows) {
    const std::string path = "/" + std::to_string(++row);
    SCOPED_TRACE(std::to_string(status) + (hooked ? " from the hook" : ""));
    standIn.reset();
    if (hooked) standIn = YLStandInReply{status, {{"X-From", "hook"}}, body};
    server.answer("POST", path,
                  {static_cast<int>(status), body,
                   body == large ? "application/json" : "application/octet-stream"});
    sent.clear();
    const std::size_t before = server.requestCount();
    Exchanged outcome = send(server.baseUrl() + path, settings, nullptr, R"({"q":1})");
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_EQ(outcome.response->getBufferString(), code == kTooLarge ? "" : body);
    EXPECT_EQ(outcome.response->responseJson != nullptr, json);
    EXPECT_EQ(headerValues(outcome.response->headers, "X-From"),
              hooked ? Strings{"hook"} : Strings{});
    EXPECT_EQ(sent, Strings(attempts, R"({"q":1})"));
    EXPECT_EQ(server.requestCount() - before, hooked ? 0 : attempts) << "a stand-in sends nothing";
    EXPECT_TRUE(hooked || server.lastRequest().body == R"({"q":1})") << server.lastRequest().body;
  }
  // Unless the host asks, one call is one request.
  const std::size_t before = server.requestCount();
  EXPECT_EQ(send(server.baseUrl() + "/16", quickSettings(), nullptr, "{}").code, 503);
  EXPECT_EQ(server.requestCount(), before + 1);
  settings.requestHook = [](const YLPreparedRequest&) -> std::optional<YLStandInReply> {
    throw std::runtime_error("host failure");
  };
  EXPECT_EQ(send(server.baseUrl() + "/6", settings).code, YLErrorCode::kClientSetupFailed);
  EXPECT_EQ(server.requestCount(), before + 1);

  // The texts a host shows: HTTP statuses with and without a reason phrase, curl's, the library's.
  EXPECT_EQ(recordOf(401).text + "|" + recordOf(529).text + "|" + recordOf(kCouldntConnect).text +
                "|" + recordOf(kTooLarge).text,
            "HTTP 401 Unauthorized|HTTP 529|Couldn't connect to server|Response body exceeds the "
            "accepted size");
  EXPECT_EQ(recordOf(kCouldntConnect).symbol + recordOf(YLErrorCode::kCancelled).symbol +
                recordOf(3000).symbol,
            "CURLE_COULDNT_CONNECTkCancelledkUnknownError");
}

TEST(RestClient, PoolsShareConnectionsAndReusedHandlesCarryNothingOver) {
  // A debug assertion tells that a pool was destroyed while a client still used it.
  ylSetAssertionHandler([](const char* condition, const char*) { ADD_FAILURE() << condition; });
  LoopbackServer server;
  server.answer("POST", "/chat", {200, R"({"from":"server"})"});
  server.answer("GET", "/models", {200, R"({"data":[]})"});
  const YLRestGlobalSettings settings = quickSettings();
  YLHTTPPoolCenter pool;
  YLRestSession pooled;
  pooled.connectionPool = &pool;
  YLRestSession bare;
  YLRestGetRequest models;
  models.setURL(server.baseUrl() + "/models");

  const std::string large = R"({"text":")" + std::string(3000, 'x') + R"("})";
  const std::string small = R"({"n":2})";
  // The pool's handles serve a new client per exchange; without, one client uses its own handles.
  for (const bool onPool : {true, false}) {
    SCOPED_TRACE(onPool ? "the pool's handles" : "a client's own handles");
    YLRestSession* session = onPool ? &pooled : &bare;
    const std::unique_ptr<IYLRestClient> kept = onPool ? nullptr : makeClient(settings, session);
    const auto post = [&](const std::string& body, const YLParamList& headers) {
      YLJson document(body);
      YLRestPostRequest request;
      request.setURL(server.baseUrl() + "/chat");
      request.updateJson(&document);
      request.addHeaderParams(headers);
      return exchange(request, settings, session, kept.get());
    };
    const auto getModels = [&] { return exchange(models, settings, session, kept.get()); };

    ASSERT_EQ(post(large, {{"X-Once", "1"}}).code, 0);
    EXPECT_EQ(server.lastRequest().header("X-Once"), "1");
    // After a POST, a GET: no body, no size, no type, no header of the POST's.
    ASSERT_EQ(getModels().code, 0);
    RecordedRequest seen = server.lastRequest();
    EXPECT_EQ(seen.method, "GET");
    EXPECT_TRUE(seen.body.empty());
    for (const char* name : {"Content-Length", "Content-Type", "X-Once"})
      EXPECT_EQ(headerValues(seen.headers, name), Strings{}) << name;
    // A shorter body after a longer one goes with its own size.
    ASSERT_EQ(post(small, {}).code, 0);
    seen = server.lastRequest();
    EXPECT_EQ(seen.body, small);
    EXPECT_EQ(seen.header("Content-Length"), std::to_string(small.size()));

    // The pool's handles kept one connection for all its clients.
    EXPECT_EQ(server.connectionCount(), onPool ? 1u : 2u);
  }
  // Another pool, and a new client without one, connect anew.
  YLHTTPPoolCenter other;
  YLRestSession elsewhere;
  elsewhere.connectionPool = &other;
  EXPECT_EQ(send(server.baseUrl() + "/models", quickSettings(), &elsewhere).code, 0);
  EXPECT_EQ(send(server.baseUrl() + "/models").code, 0);
  EXPECT_EQ(server.connectionCount(), 4u);

  // A pool may go before its client; its connection leaves with it.
  const std::unique_ptr<IYLRestClient> client = makeClient(settings, &bare);
  for (int round = 0; round < 2; ++round) {
    std::optional<YLHTTPPoolCenter> passing;
    bare.connectionPool = round == 0 ? &passing.emplace() : nullptr;
    EXPECT_EQ(exchange(models, settings, &bare, client.get()).code, 0);
  }
  EXPECT_EQ(server.connectionCount(), 6u);
  ylSetAssertionHandler(nullptr);
}

TEST(RestClient, TlsTrustsOnlyWhatItIsTold) {
  LoopbackServer server(LoopbackServer::Transport::Tls);
  server.answer("GET", "/secure", {200, R"({"tls":true})"});
  YLRestGlobalSettings trusting = quickSettings();
  trusting.caFile = server.certificateFile();
  Exchanged trusted = send(server.baseUrl() + "/secure", trusting);
  EXPECT_EQ(trusted.code, 0);
  EXPECT_EQ(trusted.response->getBufferString(), R"({"tls":true})");

  EXPECT_EQ(send(server.baseUrl() + "/secure").code, YLErrorCode::kCurlCodeBase + 60);
  EXPECT_EQ(server.requestCount(), 1u) << "nothing is sent over an unverified connection";

  YLRestGlobalSettings careless = quickSettings();
  careless.verifyPeer = careless.verifyHost = false;
  EXPECT_EQ(send(server.baseUrl() + "/secure", careless).code, 0);
}

TEST(RestClient, ProxyAndRedirectsComeOnlyFromTheSettings) {
  LoopbackServer server;
  server.answer("GET", "/direct", {200, "{}"});
  YLRestGlobalSettings settings = quickSettings();
  settings.proxy = refusingUrl();
  EXPECT_EQ(send(server.baseUrl() + "/direct", settings).code, kCouldntConnect);
  EXPECT_EQ(server.requestCount(), 0u);
  settings.noProxy = "127.0.0.1";
  EXPECT_EQ(send(server.baseUrl() + "/direct", settings).code, 0);

  const std::string saved = std::getenv("http_proxy") ? std::getenv("http_proxy") : "";
  setenv("http_proxy", settings.proxy.c_str(), 1);
  EXPECT_EQ(send(server.baseUrl() + "/direct").code, 0) << "proxy variables are not honoured";
  saved.empty() ? unsetenv("http_proxy") : setenv("http_proxy", saved.c_str(), 1);
  EXPECT_EQ(server.requestCount(), 2u);

  server.answer("GET", "/old", {302, "", "text/plain", {{"Location", "/new"}, {"X-Hop", "old"}}});
  server.answer("GET", "/new", {200, R"({"at":"new"})"});
  server.answer("GET", "/loop", {302, "", "text/plain", {{"Location", "/loop"}}});
  Exchanged unfollowed = send(server.baseUrl() + "/old");
  EXPECT_EQ(unfollowed.code, 302);
  EXPECT_EQ(headerValues(unfollowed.response->headers, "Location"), Strings{"/new"});

  settings.followRedirects = true;
  settings.maxRedirects = 3;
  Exchanged followed = send(server.baseUrl() + "/old", settings);
  EXPECT_EQ(followed.code, 0);
  EXPECT_EQ(followed.response->getBufferString(), R"({"at":"new"})");
  EXPECT_TRUE(headerValues(followed.response->headers, "X-Hop").empty()) << "last reply's only";
  // Three redirects are followed, the fourth fails; a hop leaves the web only to fail.
  const std::size_t before = server.requestCount();
  EXPECT_EQ(send(server.baseUrl() + "/loop", settings).code, YLErrorCode::kCurlCodeBase + 47);
  EXPECT_EQ(server.requestCount(), before + 4);
  server.answer("GET", "/away", {301, "", "text/plain", {{"Location", "ftp://127.0.0.1/x"}}});
  EXPECT_EQ(send(server.baseUrl() + "/away", settings).code, YLErrorCode::kCurlCodeBase + 1);
}

Strings credentialsIn(const YLParamList& headers) {
  Strings found;
  for (const char* name : {"Authorization", "x-api-key", "x-goog-api-key", "api-key"})
    if (!headerValues(headers, name).empty()) found.push_back(name);
  return found;
}

TEST(RestClient, CredentialsNeverFollowARedirectToAnotherOrigin) {
  const std::string key = "sk-SECRET";
  LoopbackServer home;
  LoopbackServer elsewhere;
  const auto redirect = [](int status, const std::string& to) {
    return ScriptedReply{status, "", "text/plain", {{"Location", to}}};
  };
  // Another port; another host name; the same origin (a Location with the query keeps the key).
  home.answer("GET", "/port", redirect(301, elsewhere.baseUrl() + "/landing?key=" + key + "&x=1"));
  home.answer("POST", "/port", redirect(307, elsewhere.baseUrl() + "/landing?KEY=" + key));
  home.answer("GET", "/host",
              redirect(302, "http://localhost:" + std::to_string(home.port()) + "/landing?x=1"));
  home.answer("POST", "/here", redirect(302, "/landing?key=" + key));
  for (LoopbackServer* server : {&home, &elsewhere}) {
    server->answer("GET", "/landing", {200, R"({"landed":"get"})"});
    server->answer("POST", "/landing", {200, R"({"landed":"post"})"});
  }

  YLRestSession session;
  session.setAuthorizationHeaderValue("Bearer " + key);
  session.addHeaderParam("x-api-key", key);
  YLRestGlobalSettings settings = quickSettings();
  settings.followRedirects = true;
  std::vector<YLParamList> hooked;
  settings.requestHook = [&](const YLPreparedRequest& r) -> std::optional<YLStandInReply> {
    hooked.push_back(r.headers);
    return std::nullopt;
  };
  const Strings all = {"Authorization", "x-api-key", "x-goog-api-key", "api-key"};

  // Method and path, the server landed on, whether as a POST and with credentials, and the query.
  for (const auto& [method, path, landing, posted, kept, query] :
       {std::tuple{std::string("GET"), std::string("/port"), &elsewhere, false, false,
                   std::string("x=1")},
        {"POST", "/port", &elsewhere, true, false, ""},
        {"GET", "/host", &home, false, false, "x=1"},
        {"POST", "/here", &home, false, true, "key=" + key}}) {
    SCOPED_TRACE(method + path);
    hooked.clear();
    YLJson document(R"({"q":1})");
    YLRestPostRequest post;
    post.updateJson(&document);
    YLRestGetRequest get;
    YLRestRequest& request = method == "POST" ? static_cast<YLRestRequest&>(post) : get;
    request.setURL(home.baseUrl() + path);
    request.addHeaderParams({{"X-Goog-Api-Key", key}, {"api-key", key}, {"X-Trace", "t"}});
    request.addQueryParams({{"key", key}});

    Exchanged outcome = exchange(request, settings, &session);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.response->getBufferString(),
              posted ? R"({"landed":"post"})" : R"({"landed":"get"})");
    // The first hop carried them all (see the test of requests); the landing is the last request.
    const RecordedRequest landed = landing->lastRequest();
    EXPECT_EQ(landed.path, "/landing");
    EXPECT_EQ(landed.method, posted ? "POST" : "GET");
    EXPECT_EQ(landed.body, posted ? R"({"q":1})" : "");
    EXPECT_EQ(landed.query, query);
    EXPECT_EQ(landed.header("X-Trace"), "t") << "other headers go along";
    EXPECT_EQ(credentialsIn(landed.headers), kept ? all : Strings{});
    // The hook sees each hop as it leaves.
    ASSERT_EQ(hooked.size(), 2u);
    EXPECT_EQ(credentialsIn(hooked[1]), kept ? all : Strings{});
  }
  EXPECT_EQ(elsewhere.requestCount(), 2u);
}

// Generous enough for a loaded machine; the waits under test are far shorter or far longer.
constexpr milliseconds kSlack{3000};

struct Retrying {
  YLRestGlobalSettings settings = quickSettings();
  std::shared_ptr<Strings> sent = std::make_shared<Strings>();

  explicit Retrying(int retries, long baseMs = 20, long capMs = 1000) {
    settings.maxRetries = retries;
    settings.retryBaseDelayMs = baseMs;
    settings.retryMaxDelayMs = capMs;
    settings.requestHook = [sent = sent](const YLPreparedRequest& r) {
      sent->push_back(std::string(r.method) + " " + r.url + " " + std::string(r.body));
      return std::optional<YLStandInReply>();
    };
  }
};

// An HTTP date, "Sun, 06 Nov 1994 08:49:37 GMT", in the C locale that the tests keep.
std::string httpDate(std::time_t when) {
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&when));
  return text;
}

TEST(RestRetry, WaitsDoubleUpToTheCapOrFollowRetryAfter) {
  LoopbackServer server;
  server.answer("GET", "/flaky", {502, "bad gateway", "text/plain"});
  // The service recovers just before the fourth request.
  Retrying retrying(5, 100, 10000);
  auto sent = retrying.sent;
  retrying.settings.requestHook = [&server, sent](const YLPreparedRequest& r) {
    sent->push_back(r.url);
    if (sent->size() == 4) server.answer("GET", "/flaky", {200, R"({"ok":true})"});
    return std::optional<YLStandInReply>();
  };
  const Exchanged outcome = send(server.baseUrl() + "/flaky", retrying.settings);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.response->getBufferString(), R"({"ok":true})");
  EXPECT_EQ(server.requestCount(), 4u);
  // Waits of at least 50, 100 and 200 ms: more than three undoubled waits could take.
  EXPECT_GE(outcome.took, milliseconds(350));
  EXPECT_LT(outcome.took, milliseconds(700) + kSlack);

  // Status, Retry-After, retries, base, cap, requests sent, least and most time. A date is waited
  // for: the second request leaves no earlier than it, and every later row runs later still.
  const std::time_t date = std::time(nullptr) + 2;
  const std::tuple<int, std::string, int, long, long, std::size_t, long, long> cases[] = {
      {503, httpDate(date), 1, 10, 5000, 2, 0, 2000},
      {429, "1", 1, 10, 5000, 2, 1000, 1000},
      // The cap holds every wait: three of at most 120 ms where doubling would reach 800 ms.
      {500, "", 3, 200, 120, 4, 180, 360},
      // An hour is cut to the cap; a Retry-After on a status that is not retried changes nothing.
      {503, "3600", 1, 10, 300, 2, 300, 300},
      {400, "0", 1, 10, 300, 1, 0, 0},
  };
  int row = 0;
  for (const auto& [status, retryAfter, retries, baseMs, capMs, sentCount, leastMs, mostMs] :
       cases) {
    const std::string path = "/" + std::to_string(++row);
    SCOPED_TRACE(retryAfter);
    server.answer("GET", path, {status, "{}", "application/json", {{"Retry-After", retryAfter}}});
    Retrying waiting(retries, baseMs, capMs);
    const Exchanged got = send(server.baseUrl() + path, waiting.settings);
    EXPECT_EQ(got.code, status);
    EXPECT_EQ(waiting.sent->size(), sentCount);
    EXPECT_GE(got.took, milliseconds(leastMs));
    EXPECT_LT(got.took, milliseconds(mostMs) + kSlack);
    EXPECT_GE(std::chrono::system_clock::now(), std::chrono::system_clock::from_time_t(date));
  }
}

TEST(RestRetry, FailuresBeforeAnyReplyAreSentAgainAndLeaveAnEmptyResponse) {
  // Nothing listens: every attempt fails to connect. A server that says nothing in time.
  LoopbackServer server;
  server.answer("GET", "/silent", {200, "{}", "application/json", {}, milliseconds(1500)});
  for (const auto& [url, code] :
       {std::pair{refusingUrl() + "/v1", YLErrorCode::kCurlCodeBase + 7},
        {server.baseUrl() + "/silent", YLErrorCode::kCurlCodeBase + 28}}) {
    SCOPED_TRACE(url);
    Retrying retrying(2);
    retrying.settings.totalTimeoutMs = 300;
    const Exchanged outcome = send(url, retrying.settings);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(retrying.sent->size(), 3u);
    EXPECT_LT(outcome.took, milliseconds(3 * 300 + 60 + 900)) << "three limits and two waits";
    EXPECT_EQ(outcome.response->statusCode, 0);
    EXPECT_TRUE(outcome.response->getBufferString().empty() && outcome.response->headers.empty());
    EXPECT_EQ(outcome.response->responseJson, nullptr);
  }
  EXPECT_EQ(server.requestCount(), 3u);
  // A silence past a one-second stall window fails only once a host switches the stall check on.
  YLRestGlobalSettings settings = quickSettings();
  settings.lowSpeedTimeSeconds = 1;
  EXPECT_EQ(send(server.baseUrl() + "/silent", settings).code, 0);
  settings.lowSpeedLimitBytes = 1;
  EXPECT_EQ(send(server.baseUrl() + "/silent", settings).code, YLErrorCode::kCurlCodeBase + 28);

  // Only the web is spoken: another scheme fails before any connection is tried.
  EXPECT_EQ(send("ftp" + refusingUrl().substr(4) + "/").code, YLErrorCode::kCurlCodeBase + 1);
  // A reply that is refused for its size is an answer, not a failure to get one.
  server.answer("GET", "/huge", {503, std::string(2048, 'x'), "text/plain"});
  Retrying strict(2);
  strict.settings.maxResponseBytes = 1024;
  EXPECT_EQ(send(server.baseUrl() + "/huge", strict.settings).code, YLErrorCode::kResponseTooLarge);
  EXPECT_EQ(strict.sent->size(), 1u);
}

// The pool a SIGUSR2 handler cancels.
std::atomic<YLHTTPPoolCenter*> waitingPool{nullptr};
extern "C" void cancelWaitingPool(int) {
  if (YLHTTPPoolCenter* pool = waitingPool.load()) pool->cancel();
}

TEST(RestRetry, ACancelEndsTheExchangeAtOnceAndIsNeverRetried) {
  LoopbackServer server;
  // A wait of ten seconds after the first reply, and a request that stalls in flight.
  server.answer("GET", "/later", {503, "{}", "application/json", {{"Retry-After", "10"}}});
  server.answer("POST", "/stall", {503, "{}", "application/json", {}, std::chrono::seconds(5)});
  server.answer("GET", "/ok", {200, "{}"});
  YLHTTPPoolCenter pool;
  YLRestSession session;
  session.connectionPool = &pool;
  Retrying retrying(3, 10, 20000);
  retrying.settings.totalTimeoutMs = 20000;
  const auto next = [&] {
    return send(server.baseUrl() + "/ok", retrying.settings, &session).code;
  };

  // A cancel while nothing runs must not carry over to the next exchange.
  pool.cancel();
  EXPECT_EQ(next(), 0);

  // From another thread, and from a signal handler that interrupts the waiting thread itself.
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = &cancelWaitingPool;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  waitingPool = &pool;
  const pthread_t waiter = pthread_self();
  for (const std::string path : {"/later", "/stall"}) {
    for (const bool bySignal : {false, true}) {
      SCOPED_TRACE(path + (bySignal ? " by signal" : " by thread"));
      const std::size_t before = server.requestCount();
      Clock::time_point cancelledAt;
      std::thread canceller([&] {
        std::this_thread::sleep_for(milliseconds(300));
        cancelledAt = Clock::now();
        bySignal ? static_cast<void>(pthread_kill(waiter, SIGUSR2)) : pool.cancel();
      });
      const Exchanged outcome = send(server.baseUrl() + path, retrying.settings, &session,
                                     path == "/stall" ? R"({"q":1})" : nullptr);
      const Clock::time_point ended = Clock::now();
      canceller.join();
      EXPECT_EQ(outcome.code, YLErrorCode::kCancelled);
      EXPECT_EQ(outcome.response->statusCode, 0) << "a cancelled exchange keeps no reply";
      EXPECT_LT(ended - cancelledAt, milliseconds(400)) << "the cancel must not wait";
      EXPECT_EQ(server.requestCount(), before + 1) << "nothing is sent after a cancel";
      EXPECT_EQ(next(), 0) << "the next exchange on the pool is unaffected";
    }
  }
  waitingPool = nullptr;
  sigaction(SIGUSR2, &previous, nullptr);
}

}  // namespace
