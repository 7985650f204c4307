#pragma once
// The pieces the REST client's exchange is made of, shared by its source files; not installed.

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "yl/yl_rest.h"

namespace ylrest {

// --- Building the request (yl_rest_request_setup.cpp) ---

char asciiLower(char c);
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// The first value of the header, or empty; a reply's Location and Retry-After are read with it.
std::string_view headerValue(const YLParamList& headers, std::string_view name);
// Headers that carry a key: masked for a request hook, and never sent to another origin.
bool isCredentialHeader(std::string_view name);
// Whether a raw query item's name is "key", as a server reads it: percent-decoded, any case.
bool isKeyParameter(std::string_view item);
// The header's value as a request hook may see it: a credential is masked, and an authorization
// keeps its scheme word so that the log still tells Bearer from Basic.
std::string maskedHeaderValue(std::string_view name, std::string_view value);
// The URL as curl sends it, without a fragment, and with the value of every query parameter named
// key masked, wherever it came from: the caller's URL or the request's parameters.
std::string maskedUrl(std::string_view url);

using CurlList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

// Adds "name: value" to the list. A name or value that would break the header block (a line
// break, a NUL, a colon or blank in the name) refuses the whole request rather than sending
// something other than what the caller wrote.
bool appendHeader(CurlList& list, std::string_view name, std::string_view value);
bool hasHeader(const YLParamList& headers, std::string_view name);
// The request's URL with its query parameters appended, each name and value percent-encoded
// (everything but letters, digits and "-._~"). A fragment stays at the end, where curl drops it.
std::optional<std::string> buildUrl(CURL* easy, const YLRestRequest& request);

// Sets options one after the other until one fails; result() tells the first failure.
class CurlOptions {
 public:
  explicit CurlOptions(CURL* easy) : easy_(easy) {}

  template <typename T>
  CurlOptions& set(CURLoption option, T value) {
    if (result_ == CURLE_OK) result_ = curl_easy_setopt(easy_, option, value);
    return *this;
  }
  CurlOptions& set(CURLoption option, const std::string& value) {
    return set(option, value.c_str());
  }

  CURLcode result() const { return result_; }

 private:
  CURL* easy_;
  CURLcode result_ = CURLE_OK;
};

// Runs on a handle just reset: what curl does by default is left alone, and only what differs is
// set. Among the defaults kept: certificates are verified, and redirects are not followed (the
// client follows them itself: curl would send the credential headers wherever they lead).
CURLcode applySettings(CURL* easy, const YLRestGlobalSettings& settings);

// --- Redirects, and the origin credentials are kept to (yl_rest_redirect.cpp) ---

// What credentials are bound to: the scheme, the host and the port, a default port spelled out.
struct Origin {
  std::string scheme;
  std::string host;
  std::string port;
  bool operator==(const Origin&) const = default;
};

// The origin of a URL as curl reads it (a URL without a scheme is http), or nothing if curl cannot
// read the URL.
std::optional<Origin> originOf(const std::string& url);
// Where a redirect leads: its Location resolved against the URL that was asked, as curl resolves
// it when it follows by itself.
std::optional<std::string> redirectTarget(const std::string& from, std::string_view location);
// The URL without its query parameters named key, for a hop to another origin: a server that
// copies its own URL's query into the Location must not pass the key on.
std::string withoutKeyParameters(std::string_view url);
bool isFollowedRedirect(long status);

// --- Retries and their backoff (yl_rest_retry.cpp) ---

// What one request came to, and whether sending it again may help.
struct Attempt {
  // Implicit, so that the many returns of a bare code stay short.
  Attempt(std::int32_t result, bool again = false) : code(result), retryable(again) {}

  std::int32_t code = YLErrorCode::kSuccess;
  bool retryable = false;
  // The reply's Retry-After, when it had one that reads as a wait.
  std::optional<std::chrono::milliseconds> retryAfter;
};

// Failures that left no reply: the connection never came about, or it ended before any byte of
// an answer, so asking again loses nothing the server said.
bool isRetryableTransport(CURLcode result, bool replyStarted);
// A Retry-After value: a number of seconds or an HTTP date; nothing when it is neither.
std::optional<std::chrono::milliseconds> parseRetryAfter(std::string_view text);
// A reply's result with what a retry needs to know of it.
Attempt replyAttempt(std::int32_t code, const YLRestResourceResponse& response);
// The wait before retry number retry (from 0): the reply's own Retry-After when it gave one, else
// the settings' exponential backoff, drawn between half and all of it; never above the settings'
// cap. The generator is seeded at its first use.
std::chrono::milliseconds retryDelay(const YLRestGlobalSettings& settings, int retry,
                                     std::optional<std::chrono::milliseconds> asked,
                                     std::optional<std::minstd_rand>& random);

// --- The reply (yl_rest_reply.cpp) ---

// The request's body-piece function, or null when the whole body is kept.
using BodyPieceHandler = std::function<void(std::string_view piece)>;

// What the callbacks of one exchange collect.
struct Exchange {
  CURL* easy = nullptr;
  std::size_t maxBodyBytes = 0;
  std::string body;
  // A 2xx body goes to the handler instead of body; streamedBytes counts it against the limit.
  const BodyPieceHandler* pieceHandler = nullptr;
  const YLPoolExchange* inFlight = nullptr;
  bool streaming = false;
  std::size_t streamedBytes = 0;
  YLParamList headers;
  std::size_t headerBytes = 0;
  // Any byte of a reply, its status line included: a request that timed out before that may be
  // sent again without losing anything of an answer.
  bool replyStarted = false;
  bool bodyStarted = false;
  bool tooLarge = false;

  // A reply that arrives with a coding is counted after decoding, so only an identity reply can
  // be judged by its Content-Length before the body is read.
  bool isIdentityCoded() const;
  // Runs once, at the first bytes of the final reply's body.
  bool acceptBodyStart();
  // Whether the final reply's body goes to the piece handler: there is one, and the status is 2xx.
  bool startsStream() const;
  bool handOn(std::string_view piece);
};

// curl's write and header callbacks; their user pointer is the Exchange.
std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user);
std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user);

// The result of a reply, from the server or a request hook's stand-in: a refused reply keeps its
// status and headers but not its body; otherwise every 2xx status is a success and any other
// status is its own code.
std::int32_t acceptReply(long status, YLParamList headers, std::string body, bool tooLarge,
                         YLRestResourceResponse& response);
// A request hook's reply, held to the limits of a real one; its header lines are counted as they
// would arrive.
// A 2xx stand-in body goes to the piece handler, when there is one, as a single piece.
Attempt acceptStandIn(YLStandInReply standIn, std::size_t maxBodyBytes,
                      const BodyPieceHandler* pieceHandler, YLRestResourceResponse& response);
// A response as a new one is: each attempt and each redirect hop starts from nothing, so that a
// failure never shows what an earlier one received.
void clearResponse(YLRestResourceResponse& response);

}  // namespace ylrest
