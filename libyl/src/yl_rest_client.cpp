// The REST client: one executeGet or executePost, its attempts and redirect hops, on libcurl.

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "yl/yl_util.h"
#include "yl_rest_client_internal.h"
#include "yl_rest_internal.h"

namespace ylrest {
namespace {

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
    const auto delay = retryDelay(*settings_, retry, outcome.retryAfter, random_);
    if (!inFlight.sleepUnlessCancelled(delay)) break;
  }
  // A cancel that lands before the exchange is over wins over whatever it came to.
  if (inFlight.finish(code)) {
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
  exchange.pieceHandler = &request.bodyPieceHandler();
  exchange.inFlight = &inFlight;

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
      return acceptStandIn(std::move(*standIn), settings_->maxResponseBytes,
                           &request.bodyPieceHandler(), response);
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
    // Pieces already handed on cannot be taken back: such a request is never sent again.
    return {YLErrorCode::kCurlCodeBase + result,
            exchange.streamedBytes == 0 && isRetryableTransport(result, exchange.replyStarted)};
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
}  // namespace ylrest

std::string ylDefaultUserAgent() {
  return "libqor/" YL_VERSION_STRING;
}

IYLRestClient* YLRestClientFactory::createRestClient(IYLAppFactory* /*appFactory*/,
                                                     const YLRestGlobalSettings* settings,
                                                     YLRestSession* session) {
  return new ylrest::YLCurlRestClient(settings, session);
}
