// The REST client against a real HTTP(S) service on 127.0.0.1.

#include <cstdlib>
#include <optional>
#include <regex>
#include <stdexcept>
#include <tuple>

#include "yl/yl_assert.h"
#include "yl_rest_exchange.h"

namespace {

using namespace qortest;

constexpr std::int32_t kCouldntConnect = YLErrorCode::kCurlCodeBase + 7;
constexpr std::int32_t kTooLarge = YLErrorCode::kResponseTooLarge;

// A request as a hook saw it, kept beyond the hook's call.
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

  // The URL's own query comes first, then the added parameters, encoded; the session's headers
  // come before the request's.
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
  // The library names itself and its version unless the host says otherwise.
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

  // A POST sends the JSON of the moment of updateJson, and the hook sees its body and, last, the
  // Content-Type the client adds; an authorization without a scheme word is masked whole.
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

  // An empty authorization sends no header.
  YLRestSession none;
  ASSERT_EQ(exchange(get, quickSettings(), &none).code, 0);
  EXPECT_FALSE(server.lastRequest().hasHeader("Authorization"));

  // Headers that would break the request are refused before anything is sent.
  for (const auto& [name, value] :
       Pairs{{"X-Bad", "a\r\nInjected: yes"}, {"Bad Name", "v"}, {"", "v"}}) {
    YLRestGetRequest bad;
    bad.setURL(server.baseUrl() + "/v1/models");
    bad.addHeaderParams({{name, value}});
    EXPECT_EQ(exchange(bad).code, YLErrorCode::kClientSetupFailed) << name;
  }
  EXPECT_EQ(server.requestCount(), 3u);
}

TEST(RestClient, StatusesBecomeCodesWithFixedTextsAndBodiesStayRaw) {
  LoopbackServer server;
  // The status, the body, the text of the code (the status unless it is 2xx), JSON or not.
  for (const auto& [status, body, text, json] :
       {std::tuple{200, std::string("plain words, {not JSON"), "", false},
        {204, "", "", false},
        {401, readWireFile("anthropic/error_401_bad_key.json"), "HTTP 401 Unauthorized", true},
        {404, "", "HTTP 404 Not Found", false},
        {429, R"({"error":"slow down"})", "HTTP 429 Too Many Requests", true},
        {529, "{}", "HTTP 529", true}}) {
    const std::string path = "/" + std::to_string(status);
    server.answer("GET", path, {status, body});
    Exchanged outcome = send(server.baseUrl() + path);
    const std::int32_t code = status / 100 == 2 ? 0 : status;
    EXPECT_EQ(outcome.code, code) << path;
    EXPECT_EQ(code ? recordOf(code).text : "", text) << path;
    EXPECT_EQ(outcome.response->statusCode, status) << path;
    EXPECT_EQ(outcome.response->getBufferString(), body) << path;
    EXPECT_EQ(outcome.response->responseJson != nullptr, json) << path;
  }
  EXPECT_EQ(recordOf(kCouldntConnect).symbol, "CURLE_COULDNT_CONNECT");
  EXPECT_EQ(recordOf(3000).symbol, "kUnknownError");
}

TEST(RestClient, CompressedRepliesAreDecodedAndMeasuredDecoded) {
  LoopbackServer server;
  const std::string json = R"({"text":")" + std::string(4096, 'a') + R"("})";
  server.answer("GET", "/json", {200, json});
  // The service picks br before gzip when both are offered.
  for (const std::string coding : {"br", "gzip"}) {
    YLRestGetRequest request;
    request.setURL(server.baseUrl() + "/json");
    if (coding == "gzip") request.addHeaderParams({{"Accept-Encoding", "gzip"}});
    Exchanged outcome = exchange(request);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(headerValues(outcome.response->headers, "Content-Encoding"), Strings{coding});
    EXPECT_EQ(outcome.response->getBufferString(), json);
    EXPECT_NE(outcome.response->responseJson, nullptr);
  }

  // The compressed reply exceeds the limit only once decoded; the others announce their size.
  YLRestGlobalSettings settings = quickSettings();
  settings.maxResponseBytes = 1024;
  for (const auto& [body, type] : {std::pair{json, "application/json"},
                                   {std::string(1024, 'x'), "application/octet-stream"},
                                   {std::string(1025, 'x'), "application/octet-stream"}}) {
    const std::string path = "/" + std::to_string(body.size()) + type;
    server.answer("GET", path, {200, body, type});
    Exchanged outcome = send(server.baseUrl() + path, settings);
    EXPECT_EQ(outcome.code, body.size() > 1024 ? kTooLarge : 0) << path;
    EXPECT_EQ(outcome.response->getBufferString(), body.size() > 1024 ? "" : body) << path;
    EXPECT_EQ(outcome.response->responseJson, nullptr) << path;
    EXPECT_EQ(headerValues(outcome.response->headers, "Content-Encoding").empty(), body != json)
        << path;
  }
  EXPECT_EQ(recordOf(kTooLarge).text, "Response body exceeds the accepted size");
}

TEST(RestClient, PoolsShareConnectionsBetweenClients) {
  // A debug assertion tells that a pool was destroyed while a client still used it.
  ylSetAssertionHandler([](const char* condition, const char*) { ADD_FAILURE() << condition; });
  enum { OnePool, PoolEach, NoPool };
  for (int mode : {OnePool, PoolEach, NoPool}) {
    LoopbackServer server;
    server.answer("GET", "/ping", {200, "{}"});
    YLHTTPPoolCenter pools[2];
    YLRestSession sessions[2];
    for (int i = 0; i < 2; ++i) {
      if (mode != NoPool) sessions[i].connectionPool = &pools[mode == OnePool ? 0 : i];
      EXPECT_EQ(send(server.baseUrl() + "/ping", quickSettings(), &sessions[i]).code, 0);
    }
    EXPECT_EQ(server.connectionCount(), mode == OnePool ? 1u : 2u) << mode;
  }

  // A pool may go before its client; its connection leaves with it.
  LoopbackServer server;
  server.answer("GET", "/ping", {200, "{}"});
  const YLRestGlobalSettings settings = quickSettings();
  YLRestSession session;
  const std::unique_ptr<IYLRestClient> client = makeClient(settings, &session);
  YLRestGetRequest request;
  request.setURL(server.baseUrl() + "/ping");
  for (int round = 0; round < 2; ++round) {
    std::optional<YLHTTPPoolCenter> pool;
    session.connectionPool = round == 0 ? &pool.emplace() : nullptr;
    EXPECT_EQ(exchange(request, settings, &session, client.get()).code, 0);
  }
  EXPECT_EQ(server.connectionCount(), 2u);
  ylSetAssertionHandler(nullptr);
}

TEST(RestClient, ReusedHandlesCarryNothingIntoTheNextExchange) {
  LoopbackServer server;
  server.answer("POST", "/chat", {200, R"({"from":"server"})"});
  server.answer("GET", "/models", {200, R"({"data":[]})"});
  std::optional<YLStandInReply> standIn;
  YLRestGlobalSettings settings = quickSettings();
  settings.requestHook = [&](const YLPreparedRequest&) { return standIn; };
  YLHTTPPoolCenter pool;
  YLRestSession pooled;
  pooled.connectionPool = &pool;
  YLRestSession bare;

  const std::string large = R"({"text":")" + std::string(3000, 'x') + R"("})";
  const std::string small = R"({"n":2})";
  // The pool's handles serve a new client for every exchange, as the library makes them; without
  // a pool one client serves every exchange on its own handles.
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
    const auto getModels = [&] {
      YLRestGetRequest request;
      request.setURL(server.baseUrl() + "/models");
      return exchange(request, settings, session, kept.get());
    };
    const std::size_t sent = server.requestCount();

    ASSERT_EQ(post(large, {{"X-Once", "1"}}).code, 0);
    EXPECT_EQ(server.lastRequest().header("X-Once"), "1");
    // After a POST, a GET: no body, no size, no type, no header of the POST's.
    ASSERT_EQ(getModels().code, 0);
    RecordedRequest seen = server.lastRequest();
    EXPECT_EQ(seen.method, "GET");
    EXPECT_TRUE(seen.body.empty());
    for (const char* name : {"Content-Length", "Content-Type", "X-Once"})
      EXPECT_FALSE(seen.hasHeader(name)) << name;
    // A shorter body after a longer one goes with its own size.
    ASSERT_EQ(post(small, {}).code, 0);
    seen = server.lastRequest();
    EXPECT_EQ(seen.body, small);
    EXPECT_EQ(seen.header("Content-Length"), std::to_string(small.size()));

    // A stand-in answers one exchange only: the next goes out and gets the server's reply.
    standIn = YLStandInReply{201, {{"X-From", "hook"}}, R"({"from":"hook"})"};
    EXPECT_EQ(post(small, {}).response->statusCode, 201);
    standIn.reset();
    const Exchanged got = getModels();
    ASSERT_EQ(got.code, 0);
    EXPECT_EQ(got.response->statusCode, 200);
    EXPECT_EQ(got.response->getBufferString(), R"({"data":[]})");
    EXPECT_TRUE(headerValues(got.response->headers, "X-From").empty());
    EXPECT_EQ(server.requestCount(), sent + 4) << "the stand-in's exchange sent nothing";
    // The pool's handles kept one connection for all its clients.
    EXPECT_EQ(server.connectionCount(), onPool ? 1u : 2u);
  }
}

TEST(RestClient, TlsTrustsOnlyWhatItIsTold) {
  LoopbackServer server(LoopbackServer::Transport::Tls);
  server.answer("GET", "/secure", {200, R"({"tls":true})"});
  YLRestGlobalSettings trusting = quickSettings();
  trusting.caFile = server.certificateFile();
  Exchanged trusted = send(server.baseUrl() + "/secure", trusting);
  EXPECT_EQ(trusted.code, 0);
  EXPECT_EQ(trusted.response->getBufferString(), R"({"tls":true})");
  EXPECT_EQ(send("https://localhost:" + std::to_string(server.port()) + "/secure", trusting).code,
            0);

  Exchanged untrusted = send(server.baseUrl() + "/secure");
  EXPECT_EQ(untrusted.code, YLErrorCode::kCurlCodeBase + 60);
  EXPECT_EQ(recordOf(untrusted.code).text, "SSL peer certificate or SSH remote key was not OK");
  EXPECT_EQ(server.requestCount(), 2u) << "nothing is sent over an unverified connection";

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

  // Redirects are followed only when asked.
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

// The credentials a request carried: the four key headers, then "?key" for a query parameter of
// that name.
Strings credentialsIn(const YLParamList& headers, const Pairs& query = {}) {
  Strings found;
  for (const char* name : {"Authorization", "x-api-key", "x-goog-api-key", "api-key"})
    if (!headerValues(headers, name).empty()) found.push_back(name);
  for (const auto& [name, value] : query)
    if (strcasecmp(name.c_str(), "key") == 0) found.push_back("?key");
  return found;
}

TEST(RestClient, CredentialsNeverFollowARedirectToAnotherOrigin) {
  const std::string key = "sk-SECRET";
  LoopbackServer home;
  LoopbackServer elsewhere;
  const auto redirect = [](int status, const std::string& to) {
    return ScriptedReply{status, "", "text/plain", {{"Location", to}}};
  };
  // Another port; another host name for the same server; the same origin. A server that copies
  // its query into the Location would pass the key on.
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
  const Strings all = {"Authorization", "x-api-key", "x-goog-api-key", "api-key", "?key"};

  // The first request's method and path, the server it lands on, whether it lands as a POST and
  // keeps its credentials, and the query it lands with.
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
    // The landing is the last request of either server; the first hop came just before it.
    const auto requests = landing->requests();
    ASSERT_FALSE(requests.empty());
    const RecordedRequest& landed = requests.back();
    const auto fromHome = home.requests();
    const RecordedRequest& first = fromHome[fromHome.size() - (landing == &home ? 2 : 1)];
    EXPECT_EQ(first.path, path);
    EXPECT_EQ(credentialsIn(first.headers, first.queryParams), all);
    EXPECT_EQ(landed.path, "/landing");
    EXPECT_EQ(landed.method, posted ? "POST" : "GET");
    EXPECT_EQ(landed.body, posted ? R"({"q":1})" : "");
    EXPECT_EQ(landed.query, query);
    EXPECT_EQ(landed.header("X-Trace"), "t") << "other headers go along";
    EXPECT_EQ(credentialsIn(landed.headers, landed.queryParams), kept ? all : Strings{});
    if (kept) {
      EXPECT_EQ(landed.header("x-api-key"), key);
    }
    // The hook sees each hop as it leaves.
    ASSERT_EQ(hooked.size(), 2u);
    EXPECT_EQ(credentialsIn(hooked[1]).size(), kept ? 4u : 0u);
  }
  EXPECT_EQ(elsewhere.requestCount(), 2u);
}

TEST(RestClient, OnlyTheTotalLimitBoundsASilentServerByDefault) {
  // Silent for longer than a one-second stall window, well within the total limit.
  LoopbackServer server;
  server.answer("GET", "/thinking",
                {200, R"({"done":true})", "application/json", {}, std::chrono::milliseconds(1500)});
  YLRestGlobalSettings settings = quickSettings();
  settings.lowSpeedTimeSeconds = 1;
  EXPECT_EQ(send(server.baseUrl() + "/thinking", settings).code, 0);
  // The same silence fails once a host switches the stall check on.
  settings.lowSpeedLimitBytes = 1;
  EXPECT_EQ(send(server.baseUrl() + "/thinking", settings).code, YLErrorCode::kCurlCodeBase + 28);
}

TEST(RestClient, StandInRepliesAreTakenAsTheServersAndNothingIsSent) {
  LoopbackServer server;
  const std::string url = server.baseUrl() + "/v1/models";
  std::optional<YLStandInReply> standIn;
  YLRestGlobalSettings settings = quickSettings();
  settings.maxResponseBytes = 64;
  settings.requestHook = [&](const YLPreparedRequest&) { return standIn; };

  // The status, the body, the code, JSON or not.
  for (const auto& [status, body, code, json] :
       {std::tuple{201L, std::string(R"({"ok":true})"), 0, true},
        {500L, R"({"error":{"message":"boom"}})", 500, true},
        {200L, std::string(65, 'x'), kTooLarge, false},
        {200L, std::string(64, 'x'), 0, false},
        {999L, "{}", YLErrorCode::kCurlCodeBase + 8, true}}) {
    SCOPED_TRACE(status);
    standIn = YLStandInReply{status, {{"X-From", "hook"}}, body};
    Exchanged outcome = send(url, settings);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_EQ(headerValues(outcome.response->headers, "X-From"), Strings{"hook"});
    EXPECT_EQ(outcome.response->getBufferString(), code == kTooLarge ? "" : body);
    EXPECT_EQ(outcome.response->responseJson != nullptr, json);
  }
  // A hook that throws stops the request too.
  settings.requestHook = [](const YLPreparedRequest&) -> std::optional<YLStandInReply> {
    throw std::runtime_error("host failure");
  };
  EXPECT_EQ(send(url, settings).code, YLErrorCode::kClientSetupFailed);
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
