// The REST client: one call of executeGet or executePost, its retries and redirects, on libcurl.

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "yl/yl_util.h"
#include "yl_rest_internal.h"

namespace {

// Headers of one reply larger than this fail the exchange like an oversized body: a server that
// never stops sending headers must not make the client grow without bound either.
constexpr std::size_t kMaxHeaderBytes = std::size_t{1024} * 1024;

char asciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (asciiLower(a[i]) != asciiLower(b[i])) return false;
  }
  return true;
}

bool hasHeader(const YLParamList& headers, std::string_view name) {
  for (const auto& header : headers) {
    if (equalsIgnoringCase(header.first, name)) return true;
  }
  return false;
}

// What a request hook sees in place of a credential.
constexpr std::string_view kMask = "****";

// Headers that carry a key: masked for a request hook, and never sent to another origin.
bool isCredentialHeader(std::string_view name) {
  for (std::string_view secret : {"Authorization", "x-api-key", "x-goog-api-key", "api-key"}) {
    if (equalsIgnoringCase(name, secret)) return true;
  }
  return false;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = asciiLower(c);
  return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// Whether a raw query item's name is "key", as a server reads it: percent-decoded, any case.
bool isKeyParameter(std::string_view item) {
  const std::string_view name = item.substr(0, item.find('='));
  std::string decoded;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '%' && i + 2 < name.size() && hexValue(name[i + 1]) >= 0 &&
        hexValue(name[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(name[i + 1]) * 16 + hexValue(name[i + 2]));
      i += 2;
    } else {
      decoded += name[i];
    }
  }
  return equalsIgnoringCase(decoded, "key");
}

// The header's value as a request hook may see it: a credential is masked, and an authorization
// keeps its scheme word so that the log still tells Bearer from Basic.
std::string maskedHeaderValue(std::string_view name, std::string_view value) {
  if (!isCredentialHeader(name)) return std::string(value);
  if (equalsIgnoringCase(name, "Authorization")) {
    const std::size_t space = value.find(' ');
    if (space != std::string_view::npos) {
      return std::string(value.substr(0, space + 1)) + std::string(kMask);
    }
  }
  return std::string(kMask);
}

// The URL as curl sends it, without a fragment, and with the value of every query parameter named
// key masked, wherever it came from: the caller's URL or the request's parameters.
std::string maskedUrl(std::string_view url) {
  url = url.substr(0, url.find('#'));
  const std::size_t mark = url.find('?');
  if (mark == std::string_view::npos) return std::string(url);
  std::string masked(url.substr(0, mark + 1));
  std::string_view query = url.substr(mark + 1);
  for (bool first = true;; first = false) {
    const std::size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    if (!first) masked += '&';
    const std::size_t equals = item.find('=');
    if (equals != std::string_view::npos && isKeyParameter(item)) {
      masked.append(item.substr(0, equals + 1));
      masked.append(kMask);
    } else {
      masked.append(item);
    }
    if (amp == std::string_view::npos) return masked;
    query.remove_prefix(amp + 1);
  }
}

// The first value of the header, or empty; a reply's Location and Retry-After are read with it.
std::string_view headerValue(const YLParamList& headers, std::string_view name) {
  for (const auto& header : headers) {
    if (equalsIgnoringCase(header.first, name)) return header.second;
  }
  return {};
}

// What the callbacks of one exchange collect.
struct Exchange {
  CURL* easy = nullptr;
  std::size_t maxBodyBytes = 0;
  std::string body;
  YLParamList headers;
  std::size_t headerBytes = 0;
  // Any byte of a reply, its status line included: a request that timed out before that may be
  // sent again without losing anything of an answer.
  bool replyStarted = false;
  bool bodyStarted = false;
  bool tooLarge = false;

  // A reply that arrives with a coding is counted after decoding, so only an identity reply can
  // be judged by its Content-Length before the body is read.
  bool isIdentityCoded() const {
    for (const auto& header : headers) {
      if (equalsIgnoringCase(header.first, "Content-Encoding") &&
          !equalsIgnoringCase(header.second, "identity") && !header.second.empty()) {
        return false;
      }
    }
    return true;
  }

  // Runs once, at the first bytes of the final reply's body.
  bool acceptBodyStart() {
    curl_off_t length = -1;
    if (curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK ||
        length < 0 || !isIdentityCoded()) {
      return true;
    }
    const auto announced = static_cast<std::uint64_t>(length);
    if (announced > maxBodyBytes) return false;
    body.reserve(static_cast<std::size_t>(announced));
    return true;
  }
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* exchange = static_cast<Exchange*>(user);
  const std::size_t bytes = size * count;
  if (!exchange->bodyStarted) {
    exchange->bodyStarted = true;
    if (!exchange->acceptBodyStart()) {
      exchange->tooLarge = true;
      return 0;
    }
  }
  // The bytes are decoded already; the body never grows past the limit, so this cannot underflow.
  if (bytes > exchange->maxBodyBytes - exchange->body.size()) {
    exchange->tooLarge = true;
    return 0;  // anything but bytes makes curl abort with CURLE_WRITE_ERROR
  }
  exchange->body.append(data, bytes);
  return bytes;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* exchange = static_cast<Exchange*>(user);
  const std::size_t bytes = size * count;
  std::string_view line(data, bytes);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
    line.remove_suffix(1);

  exchange->replyStarted = true;
  // A status line starts a reply: an interim 1xx or the final one. Only the last reply's headers
  // and body are kept.
  if (line.starts_with("HTTP/")) {
    exchange->headers.clear();
    exchange->headerBytes = 0;
    exchange->body.clear();
    exchange->bodyStarted = false;
    return bytes;
  }
  if (line.empty()) return bytes;

  exchange->headerBytes += bytes;
  if (exchange->headerBytes > kMaxHeaderBytes) {
    exchange->tooLarge = true;
    return 0;
  }
  if (line.front() == ' ' || line.front() == '\t') {
    // An obsolete folded line continues the previous header's value.
    if (!exchange->headers.empty()) {
      std::string& value = exchange->headers.back().second;
      value += ' ';
      value += ylTrimAsString(line);
    }
    return bytes;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return bytes;
  exchange->headers.emplace_back(std::string(line.substr(0, colon)),
                                 ylTrimAsString(line.substr(colon + 1)));
  return bytes;
}

// The wake-up pipe ends the wait for the network at once; this also catches a cancel while data
// keeps flowing and the wait is never long.
int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const YLPoolExchange*>(user)->cancelRequested() ? 1 : 0;
}

// The CURLcode of a failed multi call, as curl_easy_perform gives it.
CURLcode multiFailure(CURLMcode code) {
  switch (code) {
    case CURLM_OUT_OF_MEMORY:
      return CURLE_OUT_OF_MEMORY;
    case CURLM_UNRECOVERABLE_POLL:
      return CURLE_UNRECOVERABLE_POLL;
    default:
      return CURLE_BAD_FUNCTION_ARGUMENT;
  }
}

// The result of a reply, from the server or a request hook's stand-in: a refused reply keeps its
// status and headers but not its body; otherwise every 2xx status is a success and any other
// status is its own code.
std::int32_t acceptReply(long status, YLParamList headers, std::string body, bool tooLarge,
                         YLRestResourceResponse& response) {
  response.statusCode = status;
  response.headers = std::move(headers);
  if (tooLarge) return YLErrorCode::kResponseTooLarge;
  response.setBody(std::move(body));
  if (status >= 200 && status <= 299) return YLErrorCode::kSuccess;
  if (status >= 100 && status <= 599) return static_cast<std::int32_t>(status);
  return YLErrorCode::kCurlCodeBase + CURLE_WEIRD_SERVER_REPLY;
}

using CurlList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

// Adds "name: value" to the list. A name or value that would break the header block (a line
// break, a NUL, a colon or blank in the name) refuses the whole request rather than sending
// something other than what the caller wrote.
bool appendHeader(CurlList& list, std::string_view name, std::string_view value) {
  if (name.empty()) return false;
  for (char c : name) {
    if (c == ':' || c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0') return false;
  }
  for (char c : value) {
    if (c == '\r' || c == '\n' || c == '\0') return false;
  }
  std::string line(name);
  // curl drops a header written "name:" with nothing after it; "name;" is its way to send one
  // with an empty value.
  if (value.empty()) {
    line += ';';
  } else {
    line += ": ";
    line += value;
  }
  curl_slist* grown = curl_slist_append(list.get(), line.c_str());
  if (grown == nullptr) return false;
  (void)list.release();
  list.reset(grown);
  return true;
}

std::optional<std::string> escape(CURL* easy, const std::string& text) {
  if (text.size() > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
  char* escaped = curl_easy_escape(easy, text.data(), static_cast<int>(text.size()));
  if (escaped == nullptr) return std::nullopt;
  std::string result(escaped);
  curl_free(escaped);
  return result;
}

// The request's URL with its query parameters appended, each name and value percent-encoded
// (everything but letters, digits and "-._~"). A fragment stays at the end, where curl drops it.
std::optional<std::string> buildUrl(CURL* easy, const YLRestRequest& request) {
  std::string url = request.url();
  if (request.queryParams().empty()) return url;
  std::string fragment;
  if (const std::size_t hash = url.find('#'); hash != std::string::npos) {
    fragment = url.substr(hash);
    url.resize(hash);
  }
  const bool hasQuery = url.find('?') != std::string::npos;
  const bool open = !url.empty() && (url.back() == '?' || url.back() == '&');
  char separator = hasQuery ? '&' : '?';
  bool first = true;
  for (const auto& [name, value] : request.queryParams()) {
    const auto escapedName = escape(easy, name);
    const auto escapedValue = escape(easy, value);
    if (!escapedName || !escapedValue) return std::nullopt;
    if (!(first && open)) url += separator;
    url += *escapedName;
    url += '=';
    url += *escapedValue;
    separator = '&';
    first = false;
  }
  return url + fragment;
}

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
CURLcode applySettings(CURL* easy, const YLRestGlobalSettings& settings) {
  CurlOptions options(easy);
  // Only the web: a caller's URL or a redirect hop can never reach file://, ftp:// and the like.
  options
      .set(CURLOPT_PROTOCOLS_STR, "http,https")
      // Time-outs must not be carried out with signals: the host may run other threads.
      .set(CURLOPT_NOSIGNAL, 1L)
      .set(CURLOPT_TCP_KEEPALIVE, 1L)
      // Set even when empty: an unset proxy makes curl read http_proxy, all_proxy and no_proxy
      // from the environment, and the settings are meant to be the only word on proxies.
      .set(CURLOPT_PROXY, settings.proxy)
      .set(CURLOPT_NOPROXY, settings.noProxy)
      // "" offers every coding this libcurl can decode and has it decode the reply.
      .set(CURLOPT_ACCEPT_ENCODING, "");
  // 0 is curl's own default for both.
  if (settings.connectTimeoutMs != 0)
    options.set(CURLOPT_CONNECTTIMEOUT_MS, settings.connectTimeoutMs);
  if (settings.totalTimeoutMs != 0) options.set(CURLOPT_TIMEOUT_MS, settings.totalTimeoutMs);
  if (settings.lowSpeedLimitBytes > 0 && settings.lowSpeedTimeSeconds > 0) {
    options.set(CURLOPT_LOW_SPEED_LIMIT, settings.lowSpeedLimitBytes)
        .set(CURLOPT_LOW_SPEED_TIME, settings.lowSpeedTimeSeconds);
  }
  // A proxy's own reply to CONNECT is no part of the server's.
  if (!settings.proxy.empty()) options.set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  if (!settings.verifyPeer) options.set(CURLOPT_SSL_VERIFYPEER, 0L);
  if (!settings.verifyHost) options.set(CURLOPT_SSL_VERIFYHOST, 0L);
  if (!settings.caFile.empty() || !settings.caPath.empty()) {
    // Given certificates replace the system's: the default bundle and folder are switched off.
    options.set(CURLOPT_CAINFO, settings.caFile.empty() ? nullptr : settings.caFile.c_str())
        .set(CURLOPT_CAPATH, settings.caPath.empty() ? nullptr : settings.caPath.c_str());
  }
  if (!settings.userAgent.empty()) options.set(CURLOPT_USERAGENT, settings.userAgent);
  return options.result();
}

using CurlUrl = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::optional<std::string> urlPart(CURLU* url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK || text == nullptr) return std::nullopt;
  std::string result(text);
  curl_free(text);
  return result;
}

std::string lowered(std::string text) {
  for (char& c : text)
    c = asciiLower(c);
  return text;
}

// What credentials are bound to: the scheme, the host and the port, a default port spelled out.
struct Origin {
  std::string scheme;
  std::string host;
  std::string port;
  bool operator==(const Origin&) const = default;
};

// The origin of a URL as curl reads it (a URL without a scheme is http), or nothing if curl cannot
// read the URL.
std::optional<Origin> originOf(const std::string& url) {
  const CurlUrl handle(curl_url(), &curl_url_cleanup);
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(),
                              CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  auto scheme = urlPart(handle.get(), CURLUPART_SCHEME);
  auto host = urlPart(handle.get(), CURLUPART_HOST);
  auto port = urlPart(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  if (!scheme || !host) return std::nullopt;
  return Origin{lowered(std::move(*scheme)), lowered(std::move(*host)), port.value_or("")};
}

// Where a redirect leads: its Location resolved against the URL that was asked, as curl resolves
// it when it follows by itself.
std::optional<std::string> redirectTarget(const std::string& from, std::string_view location) {
  const CurlUrl handle(curl_url(), &curl_url_cleanup);
  const std::string target(location);
  if (!handle ||
      curl_url_set(handle.get(), CURLUPART_URL, from.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
      curl_url_set(handle.get(), CURLUPART_URL, target.c_str(),
                   CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE | CURLU_ALLOW_SPACE) != CURLUE_OK) {
    return std::nullopt;
  }
  return urlPart(handle.get(), CURLUPART_URL);
}

// The URL without its query parameters named key, for a hop to another origin: a server that
// copies its own URL's query into the Location must not pass the key on.
std::string withoutKeyParameters(std::string_view url) {
  const std::size_t hash = url.find('#');
  const std::string_view fragment = hash == std::string_view::npos ? "" : url.substr(hash);
  url = url.substr(0, hash);
  const std::size_t mark = url.find('?');
  if (mark == std::string_view::npos) return std::string(url) + std::string(fragment);
  std::string kept;
  std::string_view query = url.substr(mark + 1);
  for (;;) {
    const std::size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    if (!isKeyParameter(item)) {
      if (!kept.empty()) kept += '&';
      kept.append(item);
    }
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  std::string result(url.substr(0, mark));
  if (!kept.empty()) result += '?' + kept;
  return result + std::string(fragment);
}

bool isFollowedRedirect(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// What one request came to, and whether sending it again may help.
struct Attempt {
  // Implicit, so that the many returns of a bare code stay short.
  Attempt(std::int32_t result, bool again = false) : code(result), retryable(again) {}

  std::int32_t code = YLErrorCode::kSuccess;
  bool retryable = false;
  // The reply's Retry-After, when it had one that reads as a wait.
  std::optional<std::chrono::milliseconds> retryAfter;
};

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

// Failures that left no reply: the connection never came about, or it ended before any byte of
// an answer, so asking again loses nothing the server said.
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

// A Retry-After value: a number of seconds or an HTTP date; nothing when it is neither.
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

// A reply's result with what a retry needs to know of it.
Attempt replyAttempt(std::int32_t code, const YLRestResourceResponse& response) {
  Attempt attempt{code};
  if (code == response.statusCode && isRetryableStatus(response.statusCode)) {
    attempt.retryable = true;
    attempt.retryAfter = parseRetryAfter(headerValue(response.headers, "Retry-After"));
  }
  return attempt;
}

// A response as a new one is: each attempt and each redirect hop starts from nothing, so that a
// failure never shows what an earlier one received.
void clearResponse(YLRestResourceResponse& response) {
  response.statusCode = 0;
  response.headers.clear();
  response.setBody({});
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

using CurlEasy = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using CurlMulti = std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)>;

class YLCurlRestClient final : public IYLRestClient {
 public:
  // Makes no curl handle: an exchange on a YLHTTPPoolCenter runs on the pool's, and hosts may
  // make a client for every exchange.
  YLCurlRestClient(const YLRestGlobalSettings* settings, YLRestSession* session)
      : settings_(settings), session_(session) {
    if (settings_ == nullptr) {
      ownSettings_ = std::make_unique<YLRestGlobalSettings>();
      settings_ = ownSettings_.get();
    }
  }
  YLCurlRestClient(const YLCurlRestClient&) = delete;
  YLCurlRestClient& operator=(const YLCurlRestClient&) = delete;

  std::int32_t executeGet(YLRestGetRequest* request, YLRestResourceResponse** response) override {
    return execute(request, nullptr, response);
  }
  std::int32_t executePost(YLRestPostRequest* request, YLRestResourceResponse** response) override {
    return execute(request, request, response);
  }

 private:
  std::int32_t execute(const YLRestRequest* request, const YLRestPostRequest* post,
                       YLRestResourceResponse** response);
  Attempt attempt(const YLRestRequest& request, const YLRestPostRequest* post,
                  YLRestResourceResponse& response, const YLPoolExchange& inFlight);
  // Sends one request to the URL, with or without the credential headers.
  Attempt send(const YLRestRequest& request, const std::string& url, const YLRestPostRequest* post,
               bool withCredentials, YLRestResourceResponse& response,
               const YLPoolExchange& inFlight);
  // The headers of the session and the request, in that order; false if one cannot be sent.
  // Shown, when given, receives them as a request hook may see them.
  bool buildHeaders(const YLRestRequest& request, bool isPost, bool withCredentials,
                    CurlList& headers, YLParamList* shown) const;
  // Runs the prepared transfer and takes its reply.
  Attempt receive(Exchange& exchange, YLRestResourceResponse& response,
                  const YLPoolExchange& inFlight);
  CURLcode transfer(const YLPoolExchange& inFlight);
  // Points easy_ and multi_ at the handles the exchange runs on: the pool's when it lends them,
  // else the client's own, made the first time they are needed. False if none can be made.
  bool takeHandles(const YLPoolExchange& inFlight);
  std::chrono::milliseconds retryDelay(int retry, std::optional<std::chrono::milliseconds> asked);
  CURLSH* sessionShare() const;
  IYLHTTPPoolCenter* sessionPool() const {
    return session_ == nullptr ? nullptr : session_->connectionPool;
  }

  const YLRestGlobalSettings* settings_;
  std::unique_ptr<YLRestGlobalSettings> ownSettings_;
  YLRestSession* session_;
  // The handles of the exchange in progress, and whether they are the pool's, whose easy handle
  // is attached to the pool's share for good.
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  bool pooledHandles_ = false;
  // The client's own handles, for exchanges without a pool's. The multi handle keeps the
  // connections of a client without a pool, as curl_easy_perform's hidden one would. Declared so
  // that the easy handle goes first.
  CurlMulti ownMulti_{nullptr, &curl_multi_cleanup};
  CurlEasy ownEasy_{nullptr, &curl_easy_cleanup};
  // Seeded at the first retry: drawing a seed is a system call, or worse, that an exchange without
  // a retry never needs.
  std::optional<std::minstd_rand> random_;
};

std::int32_t YLCurlRestClient::execute(const YLRestRequest* request, const YLRestPostRequest* post,
                                       YLRestResourceResponse** response) {
  if (response == nullptr) return YLErrorCode::kClientSetupFailed;
  auto* fresh = new YLRestResourceResponse;
  *response = fresh;
  if (request == nullptr) return YLErrorCode::kClientSetupFailed;

  // From here until finish() a cancel on the session's pool stops this exchange, and the waits
  // between its attempts are part of it; the pool's handles are the exchange's until then too.
  YLPoolExchange inFlight(sessionPool());
  // A request hook may run an exchange of its own on this client: the outer one gets its handles
  // back.
  const std::tuple saved(easy_, multi_, pooledHandles_);
  const YLDefer restore([this, &saved] { std::tie(easy_, multi_, pooledHandles_) = saved; });
  if (!takeHandles(inFlight)) return YLErrorCode::kClientSetupFailed;
  std::int32_t code = YLErrorCode::kSuccess;
  for (int retry = 0;; ++retry) {
    const Attempt outcome = attempt(*request, post, *fresh, inFlight);
    code = outcome.code;
    if (inFlight.cancelRequested() || !outcome.retryable || retry >= settings_->maxRetries) break;
    if (!inFlight.sleepUnlessCancelled(retryDelay(retry, outcome.retryAfter))) break;
  }
  // A cancel that lands before the exchange is over wins over whatever it came to.
  if (inFlight.finish()) {
    clearResponse(*fresh);
    return YLErrorCode::kCancelled;
  }
  return code;
}

bool YLCurlRestClient::takeHandles(const YLPoolExchange& inFlight) {
  if (inFlight.easy() != nullptr && inFlight.multi() != nullptr) {
    easy_ = inFlight.easy();
    multi_ = inFlight.multi();
    pooledHandles_ = true;
    return true;
  }
  if (!ownEasy_) {
    if (!ylEnsureCurlGlobalInit()) return false;
    CurlMulti multi(curl_multi_init(), &curl_multi_cleanup);
    CurlEasy easy(multi ? curl_easy_init() : nullptr, &curl_easy_cleanup);
    if (!easy) return false;
    ownMulti_ = std::move(multi);
    ownEasy_ = std::move(easy);
  }
  easy_ = ownEasy_.get();
  multi_ = ownMulti_.get();
  pooledHandles_ = false;
  return true;
}

std::chrono::milliseconds YLCurlRestClient::retryDelay(
    int retry, std::optional<std::chrono::milliseconds> asked) {
  using std::chrono::milliseconds;
  const long cap = std::max(0L, settings_->retryMaxDelayMs);
  if (asked) return std::min(*asked, milliseconds(cap));
  long delay = std::clamp(settings_->retryBaseDelayMs, 0L, cap);
  for (int i = 0; i < retry && delay < cap; ++i)
    delay = delay > cap / 2 ? cap : delay * 2;
  // Between half and all of the delay: clients that failed together spread out, and each still
  // waits at least half of what the backoff asks.
  std::uniform_int_distribution<long> draw(delay / 2, delay);
  if (!random_) random_.emplace(randomSeed());
  return milliseconds(draw(*random_));
}

// One request and the redirects it is sent along, when the settings follow them.
Attempt YLCurlRestClient::attempt(const YLRestRequest& request, const YLRestPostRequest* post,
                                  YLRestResourceResponse& response,
                                  const YLPoolExchange& inFlight) {
  std::optional<std::string> url = buildUrl(easy_, request);
  if (!url) {
    clearResponse(response);
    return {YLErrorCode::kClientSetupFailed};
  }
  // The credentials belong to the origin of the request's own URL; if that cannot be read, no
  // hop is taken to share it. Read at the first hop: most exchanges take none.
  std::optional<Origin> home;
  bool withCredentials = true;
  for (long redirects = 0;; ++redirects) {
    Attempt outcome = send(request, *url, post, withCredentials, response, inFlight);
    const long status = response.statusCode;
    if (!settings_->followRedirects || outcome.code != status || !isFollowedRedirect(status) ||
        inFlight.cancelRequested()) {
      return outcome;
    }
    const std::string_view location = headerValue(response.headers, "Location");
    // A redirect that leads nowhere is the reply.
    if (location.empty()) return outcome;
    // A hop that cannot be taken fails like curl's own following would.
    const auto fail = [&response](CURLcode code) {
      clearResponse(response);
      return Attempt{YLErrorCode::kCurlCodeBase + code};
    };
    if (settings_->maxRedirects >= 0 && redirects >= settings_->maxRedirects) {
      return fail(CURLE_TOO_MANY_REDIRECTS);
    }
    if (redirects == 0) home = originOf(*url);
    std::optional<std::string> target = redirectTarget(*url, location);
    if (!target) return fail(CURLE_URL_MALFORMAT);
    const std::optional<Origin> there = originOf(*target);
    if (!there || (there->scheme != "http" && there->scheme != "https")) {
      return fail(CURLE_UNSUPPORTED_PROTOCOL);
    }
    withCredentials = home && *there == *home;
    if (!withCredentials) *target = withoutKeyParameters(*target);
    // As curl and browsers do: after a 301, 302 or 303 the request goes on as a GET.
    if (status != 307 && status != 308) post = nullptr;
    url = std::move(target);
  }
}

CURLSH* YLCurlRestClient::sessionShare() const {
  if (session_ == nullptr) return nullptr;
  const auto* pool = dynamic_cast<const YLHTTPPoolCenter*>(session_->connectionPool);
  return pool == nullptr ? nullptr : static_cast<CURLSH*>(pool->nativeShare());
}

bool YLCurlRestClient::buildHeaders(const YLRestRequest& request, bool isPost, bool withCredentials,
                                    CurlList& headers, YLParamList* shown) const {
  const auto addHeader = [&](std::string_view name, std::string_view value) {
    if (!withCredentials && isCredentialHeader(name)) return true;
    if (!appendHeader(headers, name, value)) return false;
    if (shown != nullptr) shown->emplace_back(std::string(name), maskedHeaderValue(name, value));
    return true;
  };
  if (session_ != nullptr) {
    if (!session_->authorizationHeaderValue().empty() &&
        !addHeader("Authorization", session_->authorizationHeaderValue())) {
      return false;
    }
    for (const auto& [name, value] : session_->headerParams()) {
      if (!addHeader(name, value)) return false;
    }
  }
  for (const auto& [name, value] : request.headerParams()) {
    if (!addHeader(name, value)) return false;
  }
  if (!isPost) return true;
  const bool typeGiven =
      hasHeader(request.headerParams(), "Content-Type") ||
      (session_ != nullptr && hasHeader(session_->headerParams(), "Content-Type"));
  if (!typeGiven && !addHeader("Content-Type", "application/json")) return false;
  // "Expect:" with nothing after it removes the header: waiting for 100 Continue would only add
  // a round trip, or a whole second against servers that never send it.
  curl_slist* grown = curl_slist_append(headers.get(), "Expect:");
  if (grown == nullptr) return false;
  (void)headers.release();
  headers.reset(grown);
  return true;
}

// A request hook's reply, held to the limits of a real one; its header lines are counted as they
// would arrive.
Attempt acceptStandIn(YLStandInReply standIn, std::size_t maxBodyBytes,
                      YLRestResourceResponse& response) {
  std::size_t headerBytes = 0;
  for (const auto& [name, value] : standIn.headers)
    headerBytes += name.size() + value.size() + 4;
  const bool tooLarge = headerBytes > kMaxHeaderBytes || standIn.body.size() > maxBodyBytes;
  return replyAttempt(acceptReply(standIn.statusCode, std::move(standIn.headers),
                                  std::move(standIn.body), tooLarge, response),
                      response);
}

Attempt YLCurlRestClient::send(const YLRestRequest& request, const std::string& url,
                               const YLRestPostRequest* post, bool withCredentials,
                               YLRestResourceResponse& response, const YLPoolExchange& inFlight) {
  clearResponse(response);
  // A reset handle keeps its connection and DNS caches and its share, so connections are reused;
  // every option of the previous request, the previous exchange's included, is gone, so that
  // what follows sets only what differs from curl's defaults.
  curl_easy_reset(easy_);
  const CURLcode setup = applySettings(easy_, *settings_);
  if (setup != CURLE_OK) return {YLErrorCode::kCurlCodeBase + setup};

  // Without a hook nothing is copied for it.
  const bool hooked = static_cast<bool>(settings_->requestHook);
  YLParamList shownHeaders;
  CurlList headers(nullptr, curl_slist_free_all);
  if (!buildHeaders(request, post != nullptr, withCredentials, headers,
                    hooked ? &shownHeaders : nullptr)) {
    return {YLErrorCode::kClientSetupFailed};
  }

  Exchange exchange;
  exchange.easy = easy_;
  exchange.maxBodyBytes = settings_->maxResponseBytes;

  CurlOptions options(easy_);
  options.set(CURLOPT_URL, url)
      .set(CURLOPT_HTTPHEADER, headers.get())
      .set(CURLOPT_WRITEFUNCTION, &onBody)
      .set(CURLOPT_WRITEDATA, static_cast<void*>(&exchange))
      .set(CURLOPT_HEADERFUNCTION, &onHeader)
      .set(CURLOPT_HEADERDATA, static_cast<void*>(&exchange));
  if (post != nullptr) {
    // The size goes first and is explicit, so curl neither copies the body nor stops at a NUL.
    options.set(CURLOPT_POST, 1L)
        .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post->body().size()))
        .set(CURLOPT_POSTFIELDS, post->body().data());
  }
  // Otherwise the reset handle sends a GET without a body.
  if (inFlight.cancellable()) {
    options.set(CURLOPT_XFERINFOFUNCTION, &onProgress)
        .set(CURLOPT_XFERINFODATA, static_cast<const void*>(&inFlight))
        .set(CURLOPT_NOPROGRESS, 0L);
  }
  if (options.result() != CURLE_OK) return {YLErrorCode::kCurlCodeBase + options.result()};

  if (hooked) {
    const YLPreparedRequest prepared{
        post != nullptr ? "POST" : "GET", maskedUrl(url), std::move(shownHeaders),
        post != nullptr ? std::string_view(post->body()) : std::string_view()};
    std::optional<YLStandInReply> standIn;
    try {
      standIn = settings_->requestHook(prepared);
    } catch (...) {
      // The host's exception must not unwind through its caller's exchange; nothing is sent.
      return {YLErrorCode::kClientSetupFailed};
    }
    if (standIn) {
      if (inFlight.cancelRequested()) return {YLErrorCode::kCancelled};
      return acceptStandIn(std::move(*standIn), settings_->maxResponseBytes, response);
    }
  }
  return receive(exchange, response, inFlight);
}

Attempt YLCurlRestClient::receive(Exchange& exchange, YLRestResourceResponse& response,
                                  const YLPoolExchange& inFlight) {
  // The pool's own handle is attached to its share for good. The client's own is attached only
  // while the request runs, so that the pool can be destroyed between exchanges without waiting
  // for its clients; curl_easy_reset would not detach it.
  CURLSH* share = pooledHandles_ ? nullptr : sessionShare();
  if (share != nullptr) {
    const CURLcode setup = curl_easy_setopt(easy_, CURLOPT_SHARE, share);
    if (setup != CURLE_OK) return {YLErrorCode::kCurlCodeBase + setup};
  }
  const YLDefer detach([this, share] {
    if (share != nullptr) curl_easy_setopt(easy_, CURLOPT_SHARE, nullptr);
  });

  const CURLcode result = transfer(inFlight);
  if (inFlight.cancelRequested()) return {YLErrorCode::kCancelled};
  long status = 0;
  if (result == CURLE_OK || exchange.tooLarge) {
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  }

  if (exchange.tooLarge) {
    // The reply arrived but was refused: its status and headers tell what it was, the body is not
    // kept.
    return {acceptReply(status, std::move(exchange.headers), {}, true, response)};
  }
  if (result != CURLE_OK) {
    return {YLErrorCode::kCurlCodeBase + result,
            isRetryableTransport(result, exchange.replyStarted)};
  }
  return replyAttempt(
      acceptReply(status, std::move(exchange.headers), std::move(exchange.body), false, response),
      response);
}

// Runs the transfer on the client's multi handle, so that the wait for the network also waits for
// the pool's wake-up pipe: curl_easy_perform would notice a cancel only through the progress
// callback, which it runs about once a second while a connection is silent.
CURLcode YLCurlRestClient::transfer(const YLPoolExchange& inFlight) {
  const CURLMcode added = curl_multi_add_handle(multi_, easy_);
  if (added != CURLM_OK) return multiFailure(added);
  // Removing an unfinished transfer closes its connection, so a cancelled one is never reused.
  const YLDefer remove([this] { curl_multi_remove_handle(multi_, easy_); });

  curl_waitfd wake{};
  wake.fd = inFlight.wakeFd();
  wake.events = CURL_WAIT_POLLIN;
  const unsigned extraFds = wake.fd >= 0 ? 1u : 0u;
  for (;;) {
    if (inFlight.cancelRequested()) return CURLE_ABORTED_BY_CALLBACK;
    int running = 0;
    CURLMcode code = curl_multi_perform(multi_, &running);
    if (code != CURLM_OK) return multiFailure(code);
    if (running == 0) break;
    wake.revents = 0;
    // The time-out only bounds the wait; curl shortens it to its own next deadline.
    code = curl_multi_poll(multi_, extraFds != 0 ? &wake : nullptr, extraFds, 1000, nullptr);
    if (code != CURLM_OK) return multiFailure(code);
    // A byte may also be stale, from a cancel that came too late for the previous exchange.
    if (wake.revents != 0) inFlight.drainWake();
  }
  int queued = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == easy_) return message->data.result;
  }
  // A transfer that stopped running always leaves its done message; this is only a safe answer.
  return CURLE_FAILED_INIT;
}

}  // namespace

std::string ylDefaultUserAgent() {
  return "libqor/" YL_VERSION_STRING;
}

IYLRestClient* YLRestClientFactory::createRestClient(IYLAppFactory* /*appFactory*/,
                                                     const YLRestGlobalSettings* settings,
                                                     YLRestSession* session) {
  return new YLCurlRestClient(settings, session);
}
