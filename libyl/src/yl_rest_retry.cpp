// Retries: what may be sent again, the wait a Retry-After asks for, the backoff between attempts.

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "yl/yl_util.h"
#include "yl_rest_client_internal.h"

namespace ylrest {
namespace {

// Statuses that say "later" or "not now" rather than "not like this".
bool isRetryableStatus(long status) {
  switch (status) {
    case 408:
    case 429:
    case 500:
    case 502:
    case 503:
    case 504:
      return true;
    default:
      return false;
  }
}

std::uint_fast32_t randomSeed() {
  try {
    return std::random_device()();
  } catch (...) {
    // Without an entropy source the clock still sets clients apart.
    return static_cast<std::uint_fast32_t>(
        std::chrono::steady_clock::now().time_since_epoch().count());
  }
}

}  // namespace

bool isRetryableTransport(CURLcode result, bool replyStarted) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
      return true;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return !replyStarted;
    default:
      return false;
  }
}

std::optional<std::chrono::milliseconds> parseRetryAfter(std::string_view text) {
  using std::chrono::milliseconds;
  const std::string value = ylTrimAsString(text);
  if (value.empty()) return std::nullopt;
  if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    // Any wait beyond a day is cut to the cap anyway; stopping there keeps the number in range.
    constexpr long long kDay = 24LL * 60 * 60;
    long long seconds = 0;
    for (char c : value) {
      seconds = seconds * 10 + (c - '0');
      if (seconds > kDay) {
        seconds = kDay;
        break;
      }
    }
    return milliseconds(seconds * 1000);
  }
  const std::time_t when = curl_getdate(value.c_str(), nullptr);
  if (when == -1) return std::nullopt;
  const auto left = std::chrono::ceil<milliseconds>(std::chrono::system_clock::from_time_t(when) -
                                                    std::chrono::system_clock::now());
  return std::max(left, milliseconds(0));
}

Attempt replyAttempt(std::int32_t code, const YLRestResourceResponse& response) {
  Attempt attempt{code};
  if (code == response.statusCode && isRetryableStatus(response.statusCode)) {
    attempt.retryable = true;
    attempt.retryAfter = parseRetryAfter(headerValue(response.headers, "Retry-After"));
  }
  return attempt;
}

std::chrono::milliseconds retryDelay(const YLRestGlobalSettings& settings, int retry,
                                     std::optional<std::chrono::milliseconds> asked,
                                     std::optional<std::minstd_rand>& random) {
  using std::chrono::milliseconds;
  const long cap = std::max(0L, settings.retryMaxDelayMs);
  if (asked) return std::min(*asked, milliseconds(cap));
  long delay = std::clamp(settings.retryBaseDelayMs, 0L, cap);
  for (int i = 0; i < retry && delay < cap; ++i)
    delay = delay > cap / 2 ? cap : delay * 2;
  // Between half and all of the delay: clients that failed together spread out, and each still
  // waits at least half of what the backoff asks.
  std::uniform_int_distribution<long> draw(delay / 2, delay);
  if (!random) random.emplace(randomSeed());
  return milliseconds(draw(*random));
}

}  // namespace ylrest
