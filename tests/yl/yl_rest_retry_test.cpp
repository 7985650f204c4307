// Retries of the REST client: which failures are sent again, how long it waits, and cancels.

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <iomanip>
#include <locale>
#include <optional>
#include <sstream>
#include <thread>

#include "yl_rest_exchange.h"

namespace {

using namespace qortest;

// Generous enough for a loaded machine; the waits under test are far shorter or far longer.
constexpr milliseconds kSlack{3000};

// Settings that retry quickly, and a hook that counts what the client sends.
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

// An HTTP date, written without the locale: "Sun, 06 Nov 1994 08:49:37 GMT".
std::string httpDate(std::time_t when) {
  std::tm parts{};
  gmtime_r(&when, &parts);
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::put_time(&parts, "%a, %d %b %Y %H:%M:%S GMT");
  return text.str();
}

TEST(RestRetry, StatusesThatMeanLaterAreSentAgainAndOthersNot) {
  LoopbackServer server;
  for (const int status : {408, 429, 500, 502, 503, 504, 400, 401, 403, 404, 409, 422, 501}) {
    SCOPED_TRACE(status);
    const std::string path = "/" + std::to_string(status);
    const std::string body = R"({"status":)" + std::to_string(status) + "}";
    server.answer("POST", path, {status, body});
    const bool retried = status == 408 || status == 429 || (status >= 500 && status != 501);
    Retrying retrying(2);
    const std::size_t before = server.requestCount();
    const Exchanged outcome =
        send(server.baseUrl() + path, retrying.settings, nullptr, R"({"q":1})");
    // The last reply is reported as it came.
    EXPECT_EQ(outcome.code, status);
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_EQ(outcome.response->getBufferString(), body);
    EXPECT_NE(outcome.response->responseJson, nullptr);
    const std::size_t expected = retried ? 3 : 1;
    EXPECT_EQ(server.requestCount() - before, expected);
    // Every attempt sends the whole body again, and the hook sees each.
    EXPECT_EQ(*retrying.sent, Strings(expected, "POST " + server.baseUrl() + path + R"( {"q":1})"));
    EXPECT_EQ(server.lastRequest().body, R"({"q":1})");
  }
  // Unless the host asks, one call is one request.
  const std::size_t before = server.requestCount();
  EXPECT_EQ(send(server.baseUrl() + "/503", quickSettings(), nullptr, "{}").code, 503);
  EXPECT_EQ(server.requestCount(), before + 1);
}

TEST(RestRetry, BackoffDoublesUpToTheCapAndARecoveredServiceSucceeds) {
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

  // The cap holds every wait: three waits of at most 120 ms where doubling would reach 800 ms.
  server.answer("GET", "/down", {500, "{}"});
  Retrying capped(3, 200, 120);
  const Exchanged down = send(server.baseUrl() + "/down", capped.settings);
  EXPECT_EQ(down.code, 500);
  EXPECT_EQ(capped.sent->size(), 4u);
  EXPECT_GE(down.took, milliseconds(180));
  EXPECT_LT(down.took, milliseconds(360) + kSlack);
}

TEST(RestRetry, RetryAfterSetsTheWaitWithinTheCap) {
  LoopbackServer server;
  server.answer("GET", "/seconds", {429, "{}", "application/json", {{"Retry-After", "1"}}});
  Retrying retrying(1, 10, 5000);
  Exchanged outcome = send(server.baseUrl() + "/seconds", retrying.settings);
  EXPECT_EQ(outcome.code, 429);
  EXPECT_EQ(server.requestCount(), 2u);
  EXPECT_GE(outcome.took, milliseconds(1000));
  EXPECT_LT(outcome.took, milliseconds(1000) + kSlack);

  // A date: the second request leaves no earlier than the date.
  const std::time_t date = std::time(nullptr) + 2;
  server.answer("GET", "/date", {503, "{}", "application/json", {{"Retry-After", httpDate(date)}}});
  outcome = send(server.baseUrl() + "/date", retrying.settings);
  EXPECT_EQ(outcome.code, 503);
  EXPECT_GE(std::chrono::system_clock::now(), std::chrono::system_clock::from_time_t(date));
  EXPECT_LT(outcome.took, milliseconds(2000) + kSlack);

  // An hour is cut to the cap; a Retry-After on a status that is not retried changes nothing.
  server.answer("GET", "/hour", {503, "{}", "application/json", {{"Retry-After", "3600"}}});
  server.answer("GET", "/bad", {400, "{}", "application/json", {{"Retry-After", "0"}}});
  Retrying capped(1, 10, 300);
  outcome = send(server.baseUrl() + "/hour", capped.settings);
  EXPECT_EQ(outcome.code, 503);
  EXPECT_GE(outcome.took, milliseconds(300));
  EXPECT_LT(outcome.took, milliseconds(300) + kSlack);
  EXPECT_EQ(send(server.baseUrl() + "/bad", capped.settings).code, 400);
  EXPECT_EQ(capped.sent->size(), 3u);
}

TEST(RestRetry, FailuresBeforeAnyReplyAreSentAgainAndLeaveAnEmptyResponse) {
  // Nothing listens: every attempt fails to connect. A server that says nothing in time.
  LoopbackServer server;
  server.answer("GET", "/silent", {200, "{}", "application/json", {}, milliseconds(1500)});
  for (const auto& [url, code, text] :
       {std::tuple{refusingUrl() + "/v1", YLErrorCode::kCurlCodeBase + 7,
                   "Couldn't connect to server"},
        {server.baseUrl() + "/silent", YLErrorCode::kCurlCodeBase + 28, "Timeout was reached"}}) {
    SCOPED_TRACE(url);
    Retrying retrying(2);
    retrying.settings.totalTimeoutMs = 300;
    const Exchanged outcome = send(url, retrying.settings);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(recordOf(code).text, text);
    EXPECT_EQ(retrying.sent->size(), 3u);
    EXPECT_LT(outcome.took, milliseconds(3 * 300 + 60 + 900)) << "three limits and two waits";
    EXPECT_EQ(outcome.response->statusCode, 0);
    EXPECT_TRUE(outcome.response->getBufferString().empty() && outcome.response->headers.empty());
    EXPECT_EQ(outcome.response->responseJson, nullptr);
  }
  EXPECT_EQ(server.requestCount(), 3u);

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
  EXPECT_EQ(recordOf(YLErrorCode::kCancelled).text, "Cancelled");
  EXPECT_EQ(recordOf(YLErrorCode::kCancelled).symbol, "kCancelled");
}

}  // namespace
