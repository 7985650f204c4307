#include <curl/curl.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "yl/yl_util.h"
#include "yl_rest_internal.h"

namespace {

// Headers of one reply larger than this fail the exchange like an oversized body: a server that
// never stops sending headers must not make the client grow without bound either.
constexpr std::size_t kMaxHeaderBytes = 1024u * 1024u;

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

// The header's value as a request hook may see it: a credential is masked, and an authorization
// keeps its scheme word so that the log still tells Bearer from Basic.
std::string maskedHeaderValue(std::string_view name, std::string_view value) {
  if (equalsIgnoringCase(name, "Authorization")) {
    const std::size_t space = value.find(' ');
    if (space == std::string_view::npos) return std::string(kMask);
    return std::string(value.substr(0, space + 1)) + std::string(kMask);
  }
  for (std::string_view secret : {"x-api-key", "x-goog-api-key", "api-key"}) {
    if (equalsIgnoringCase(name, secret)) return std::string(kMask);
  }
  return std::string(value);
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
    if (equals != std::string_view::npos && equalsIgnoringCase(item.substr(0, equals), "key")) {
      masked.append(item.substr(0, equals + 1));
      masked.append(kMask);
    } else {
      masked.append(item);
    }
    if (amp == std::string_view::npos) return masked;
    query.remove_prefix(amp + 1);
  }
}

// What the callbacks of one exchange collect.
struct Exchange {
  CURL* easy = nullptr;
  std::size_t maxBodyBytes = 0;
  std::string body;
  YLParamList headers;
  std::size_t headerBytes = 0;
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

  // A status line starts a reply: an interim 1xx, a redirect that is followed, or the final one.
  // Only the last reply's headers and body are kept.
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

CURLcode applySettings(CURL* easy, const YLRestGlobalSettings& settings) {
  CurlOptions options(easy);
  // Only the web: a redirect or a caller's URL can never reach file://, ftp:// and the like.
  options.set(CURLOPT_PROTOCOLS_STR, "http,https")
      .set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https")
      // Time-outs must not be carried out with signals: the host may run other threads.
      .set(CURLOPT_NOSIGNAL, 1L)
      .set(CURLOPT_CONNECTTIMEOUT_MS, settings.connectTimeoutMs)
      .set(CURLOPT_TIMEOUT_MS, settings.totalTimeoutMs)
      .set(CURLOPT_TCP_KEEPALIVE, 1L);
  const bool lowSpeedCheck = settings.lowSpeedLimitBytes > 0 && settings.lowSpeedTimeSeconds > 0;
  options.set(CURLOPT_LOW_SPEED_LIMIT, lowSpeedCheck ? settings.lowSpeedLimitBytes : 0L)
      .set(CURLOPT_LOW_SPEED_TIME, lowSpeedCheck ? settings.lowSpeedTimeSeconds : 0L)
      // Set even when empty: an unset proxy makes curl read http_proxy, all_proxy and no_proxy
      // from the environment, and the settings are meant to be the only word on proxies.
      .set(CURLOPT_PROXY, settings.proxy)
      .set(CURLOPT_NOPROXY, settings.noProxy)
      .set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
      .set(CURLOPT_SSL_VERIFYPEER, settings.verifyPeer ? 1L : 0L)
      .set(CURLOPT_SSL_VERIFYHOST, settings.verifyHost ? 2L : 0L)
      // "" offers every coding this libcurl can decode and has it decode the reply.
      .set(CURLOPT_ACCEPT_ENCODING, "")
      .set(CURLOPT_FOLLOWLOCATION, settings.followRedirects ? 1L : 0L)
      .set(CURLOPT_MAXREDIRS, settings.maxRedirects);
  if (!settings.caFile.empty() || !settings.caPath.empty()) {
    // Given certificates replace the system's: the default bundle and folder are switched off.
    options.set(CURLOPT_CAINFO, settings.caFile.empty() ? nullptr : settings.caFile.c_str())
        .set(CURLOPT_CAPATH, settings.caPath.empty() ? nullptr : settings.caPath.c_str());
  }
  if (!settings.userAgent.empty()) options.set(CURLOPT_USERAGENT, settings.userAgent);
  return options.result();
}

class YLCurlRestClient final : public IYLRestClient {
 public:
  YLCurlRestClient(const YLRestGlobalSettings* settings, YLRestSession* session)
      : settings_(settings), session_(session) {
    if (settings_ == nullptr) {
      ownSettings_ = std::make_unique<YLRestGlobalSettings>();
      settings_ = ownSettings_.get();
    }
    if (!ylEnsureCurlGlobalInit()) return;
    // The multi handle keeps the connections of a client without a pool, as curl_easy_perform's
    // hidden one would; with a pool, the pool's share keeps them.
    multi_ = curl_multi_init();
    if (multi_ != nullptr) easy_ = curl_easy_init();
  }
  ~YLCurlRestClient() override {
    // Closes the connections the client kept for itself; pooled ones stay with the pool.
    if (easy_ != nullptr) curl_easy_cleanup(easy_);
    if (multi_ != nullptr) curl_multi_cleanup(multi_);
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
  std::int32_t perform(const YLRestRequest& request, const YLRestPostRequest* post,
                       YLRestResourceResponse& response);
  CURLcode transfer(const YLPoolExchange& inFlight);
  CURLSH* sessionShare() const;
  IYLHTTPPoolCenter* sessionPool() const {
    return session_ == nullptr ? nullptr : session_->connectionPool;
  }

  const YLRestGlobalSettings* settings_;
  std::unique_ptr<YLRestGlobalSettings> ownSettings_;
  YLRestSession* session_;
  CURLM* multi_ = nullptr;
  CURL* easy_ = nullptr;
};

std::int32_t YLCurlRestClient::execute(const YLRestRequest* request, const YLRestPostRequest* post,
                                       YLRestResourceResponse** response) {
  if (response == nullptr) return YLErrorCode::kClientSetupFailed;
  auto* fresh = new YLRestResourceResponse;
  *response = fresh;
  if (request == nullptr || easy_ == nullptr) return YLErrorCode::kClientSetupFailed;
  return perform(*request, post, *fresh);
}

CURLSH* YLCurlRestClient::sessionShare() const {
  if (session_ == nullptr) return nullptr;
  const auto* pool = dynamic_cast<const YLHTTPPoolCenter*>(session_->connectionPool);
  return pool == nullptr ? nullptr : static_cast<CURLSH*>(pool->nativeShare());
}

std::int32_t YLCurlRestClient::perform(const YLRestRequest& request, const YLRestPostRequest* post,
                                       YLRestResourceResponse& response) {
  // A reset handle keeps its own connection and DNS caches, so a client without a pool still
  // reuses its connections; every option of the previous exchange is gone, though.
  curl_easy_reset(easy_);
  CURLcode setup = applySettings(easy_, *settings_);
  if (setup != CURLE_OK) return YLErrorCode::kCurlCodeBase + setup;

  const std::optional<std::string> url = buildUrl(easy_, request);
  if (!url) return YLErrorCode::kClientSetupFailed;

  // Without a hook nothing is copied for it.
  const bool hooked = static_cast<bool>(settings_->requestHook);
  YLParamList shownHeaders;
  CurlList headers(nullptr, curl_slist_free_all);
  const auto addHeader = [&](std::string_view name, std::string_view value) {
    if (!appendHeader(headers, name, value)) return false;
    if (hooked) shownHeaders.emplace_back(std::string(name), maskedHeaderValue(name, value));
    return true;
  };
  if (session_ != nullptr) {
    if (!session_->authorizationHeaderValue().empty() &&
        !addHeader("Authorization", session_->authorizationHeaderValue())) {
      return YLErrorCode::kClientSetupFailed;
    }
    for (const auto& [name, value] : session_->headerParams()) {
      if (!addHeader(name, value)) return YLErrorCode::kClientSetupFailed;
    }
  }
  for (const auto& [name, value] : request.headerParams()) {
    if (!addHeader(name, value)) return YLErrorCode::kClientSetupFailed;
  }
  if (post != nullptr) {
    const bool typeGiven =
        hasHeader(request.headerParams(), "Content-Type") ||
        (session_ != nullptr && hasHeader(session_->headerParams(), "Content-Type"));
    if (!typeGiven && !addHeader("Content-Type", "application/json")) {
      return YLErrorCode::kClientSetupFailed;
    }
    // "Expect:" with nothing after it removes the header: waiting for 100 Continue would only add
    // a round trip, or a whole second against servers that never send it.
    curl_slist* grown = curl_slist_append(headers.get(), "Expect:");
    if (grown == nullptr) return YLErrorCode::kClientSetupFailed;
    (void)headers.release();
    headers.reset(grown);
  }

  Exchange exchange;
  exchange.easy = easy_;
  exchange.maxBodyBytes = settings_->maxResponseBytes;
  // From here until finish() a cancel on the session's pool stops this exchange.
  YLPoolExchange inFlight(sessionPool());

  CurlOptions options(easy_);
  options.set(CURLOPT_URL, *url)
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
  } else {
    options.set(CURLOPT_HTTPGET, 1L);
  }
  if (inFlight.cancellable()) {
    options.set(CURLOPT_XFERINFOFUNCTION, &onProgress)
        .set(CURLOPT_XFERINFODATA, static_cast<void*>(&inFlight))
        .set(CURLOPT_NOPROGRESS, 0L);
  }
  if (options.result() != CURLE_OK) return YLErrorCode::kCurlCodeBase + options.result();

  if (hooked) {
    const YLPreparedRequest prepared{
        post != nullptr ? "POST" : "GET", maskedUrl(*url), std::move(shownHeaders),
        post != nullptr ? std::string_view(post->body()) : std::string_view()};
    std::optional<YLStandInReply> standIn;
    try {
      standIn = settings_->requestHook(prepared);
    } catch (...) {
      // The host's exception must not unwind through its caller's exchange; nothing is sent.
      return YLErrorCode::kClientSetupFailed;
    }
    if (standIn) {
      if (inFlight.finish()) return YLErrorCode::kCancelled;
      // Held to the limits of a real reply; its header lines are counted as they would arrive.
      std::size_t headerBytes = 0;
      for (const auto& [name, value] : standIn->headers)
        headerBytes += name.size() + value.size() + 4;
      const bool tooLarge =
          headerBytes > kMaxHeaderBytes || standIn->body.size() > settings_->maxResponseBytes;
      return acceptReply(standIn->statusCode, std::move(standIn->headers), std::move(standIn->body),
                         tooLarge, response);
    }
  }

  // The pool is attached only while the exchange runs, so that it can be destroyed between
  // exchanges without waiting for its clients; curl_easy_reset would not detach it.
  CURLSH* share = sessionShare();
  if (share != nullptr) {
    setup = curl_easy_setopt(easy_, CURLOPT_SHARE, share);
    if (setup != CURLE_OK) return YLErrorCode::kCurlCodeBase + setup;
  }
  const YLDefer detach([this, share] {
    if (share != nullptr) curl_easy_setopt(easy_, CURLOPT_SHARE, nullptr);
  });

  const CURLcode result = transfer(inFlight);
  // A cancel that lands before the exchange is over wins over whatever the transfer came to.
  if (inFlight.finish()) return YLErrorCode::kCancelled;
  long status = 0;
  if (result == CURLE_OK || exchange.tooLarge) {
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  }

  if (exchange.tooLarge) {
    // The reply arrived but was refused: its status and headers tell what it was, the body is not
    // kept.
    return acceptReply(status, std::move(exchange.headers), {}, true, response);
  }
  if (result != CURLE_OK) return YLErrorCode::kCurlCodeBase + result;
  return acceptReply(status, std::move(exchange.headers), std::move(exchange.body), false,
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

IYLRestClient* YLRestClientFactory::createRestClient(IYLAppFactory* /*appFactory*/,
                                                     const YLRestGlobalSettings* settings,
                                                     YLRestSession* session) {
  return new YLCurlRestClient(settings, session);
}
