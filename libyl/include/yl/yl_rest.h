#pragma once
// A blocking REST client on libcurl, its settings, connection pools and error catalogue.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "yl/yl_datetime.h"
#include "yl/yl_export.h"
#include "yl/yl_json.h"

// A list of name and value pairs, name first, in the order given.
using YLParamList = std::vector<std::pair<std::string, std::string>>;

// A request as the client is about to send it, shown to a request hook. Credentials are masked:
// the values of the headers x-api-key, x-goog-api-key and api-key and of a query parameter named
// key read "****", and Authorization keeps only its scheme word ("Bearer ****"). The request that
// goes out is not masked.
struct YL_EXPORT YLPreparedRequest {
  // "GET" or "POST".
  std::string method;
  // The whole URL with its query, percent-encoded as sent.
  std::string url;
  // In the order they are sent: the session's authorization, the session's headers, the
  // request's headers, then Content-Type when the client adds it. Headers curl adds by itself
  // (Host, User-Agent, Accept-Encoding, Content-Length) are not listed.
  YLParamList headers;
  // The body of a POST, empty for a GET; valid only during the hook's call.
  std::string_view body;
};

// A reply a request hook gives instead of sending the request. The client treats it exactly as a
// reply from the server: the same size limit, the same status handling, the body parsed into
// responseJson.
struct YL_EXPORT YLStandInReply {
  long statusCode = 200;
  YLParamList headers;
  // The body as received after decoding; no Content-Encoding is applied to it.
  std::string body;
};

// The user agent a YLRestGlobalSettings starts with: "libqor/" and the version of the library
// that runs, such as "libqor/0.1.0".
YL_EXPORT std::string ylDefaultUserAgent();

// Settings of every exchange. The client reads them at the start of an exchange; nothing here
// reads environment variables (curl's proxy variables are not honoured either).
struct YL_EXPORT YLRestGlobalSettings {
  // Time to establish the connection, TLS included, in milliseconds: 30 s by default; 0 means
  // curl's own default of 300 s.
  long connectTimeoutMs = 30000;
  // Time for one whole request, connection and reply included, in milliseconds: 600 s (ten
  // minutes) by default; 0 means no limit. By default this alone bounds a request: model replies
  // can be slow. Every retry has the whole time again.
  long totalTimeoutMs = 600000;
  // A stall check, off by default (lowSpeedLimitBytes is 0): a model may stay silent for minutes
  // before the first byte of its answer. A host that sets a limit makes a request fail once fewer
  // than lowSpeedLimitBytes per second have arrived for lowSpeedTimeSeconds (120 s unless set); 0
  // in either switches the check off.
  long lowSpeedLimitBytes = 0;
  long lowSpeedTimeSeconds = 120;
  // Proxy URL ("http://proxy:3128", "socks5h://..."); empty (the default) means none.
  std::string proxy;
  // Comma-separated hosts that bypass the proxy; "*" for all.
  std::string noProxy;
  // A PEM file or a folder of certificates to trust instead of the system's; empty (the default)
  // for the system's.
  std::string caFile;
  std::string caPath;
  bool verifyPeer = true;
  bool verifyHost = true;
  // Sent as User-Agent; empty sends none. By default ylDefaultUserAgent().
  std::string userAgent = ylDefaultUserAgent();
  // The largest response body accepted, in bytes, after decoding: 64 MiB by default. A larger
  // reply fails.
  std::size_t maxResponseBytes = std::size_t{64} * 1024 * 1024;
  // Off by default: a redirect is then the reply. When on, 301, 302, 303, 307 and 308 replies with
  // a Location are followed, up to maxRedirects of them (5 by default, -1 for no limit), over
  // http and https only; 303, and 301 and 302 after a POST, continue as a GET without a body.
  // Credentials (Authorization, x-api-key, x-goog-api-key, api-key, and a query parameter named
  // key) go only to the scheme, host and port of the request's own URL: a hop to another origin
  // is sent without them.
  bool followRedirects = false;
  long maxRedirects = 5;
  // How many times a failed request is sent again: 0 by default, so that one call is one request
  // unless the host asks for more. Sent again are requests that could not connect (including a
  // failed name or proxy lookup), that timed out or lost the connection before any byte of the
  // reply arrived, and replies 408, 429, 500, 502, 503 and 504; never another status, a reply
  // that is too large, or a cancelled exchange. The last attempt's result is the call's result.
  int maxRetries = 0;
  // The wait before retry n (from 0) is between half and all of retryBaseDelayMs * 2^n, drawn at
  // random so that clients that failed together do not come back together, and never more than
  // retryMaxDelayMs. A Retry-After of the reply (seconds or an HTTP date) replaces the drawn wait,
  // also held to retryMaxDelayMs. Defaults: 500 ms and 30 s. A cancel ends the wait at once.
  long retryBaseDelayMs = 500;
  long retryMaxDelayMs = 30000;
  // Called with every request just before it would be sent, on the thread of the exchange: each
  // retry and each redirect hop is shown again. A host logs what leaves the machine with it, or
  // makes a dry run. An empty optional lets the request go out as usual; a stand-in reply is
  // taken as the server's answer (retried and followed like one) and nothing at all is sent. A
  // hook that throws fails the exchange with kClientSetupFailed, nothing sent. Empty (the default)
  // means no hook.
  std::function<std::optional<YLStandInReply>(const YLPreparedRequest&)> requestHook;
};

// A connection pool: what exchanges of one session share so that they reuse connections.
class YL_EXPORT IYLHTTPPoolCenter {
 public:
  virtual ~IYLHTTPPoolCenter() = default;
};

class YLPoolExchange;

// The pool that hosts construct with new: a curl share of connections, DNS cache and TLS sessions,
// and the curl handles its exchanges take turns on, made at the first exchange and reset before
// each next one rather than made again. Not synchronised: one pool serves one thread at a time;
// cancel() is the exception.
class YL_EXPORT YLHTTPPoolCenter final : public IYLHTTPPoolCenter {
 public:
  YLHTTPPoolCenter();
  ~YLHTTPPoolCenter() override;
  YLHTTPPoolCenter(const YLHTTPPoolCenter&) = delete;
  YLHTTPPoolCenter& operator=(const YLHTTPPoolCenter&) = delete;

  // The curl share handle (CURLSH*), for the client.
  void* nativeShare() const { return share_; }

  // Makes the exchange running on this pool at this moment fail at once with
  // YLErrorCode::kCancelled, whose error record text is "Cancelled"; its connection is closed.
  // An exchange waiting to retry counts as running: the wait ends and nothing more is sent.
  // With no exchange running it does nothing, so it never affects a later exchange. Callable
  // from any thread and from a signal handler (async-signal-safe: it only touches a lock-free
  // atomic and writes one byte to a pipe); the pool must outlive the call. Exchanges of a
  // session without a YLHTTPPoolCenter cannot be cancelled.
  void cancel() noexcept;

  // The result code of the latest exchange that ended on this pool (YLErrorCode: kSuccess, an
  // HTTP status, kCurlCodeBase plus a CURLcode, kCancelled...); kSuccess before the first. A host
  // that holds only a failure text tells a transport failure from a service's answer by it, and
  // by the count of exchanges ended whether a call sent anything at all. Read them on the
  // pool's own thread, between exchanges.
  std::int32_t lastExchangeCode() const noexcept { return lastExchangeCode_.load(); }
  std::uint64_t exchangesEnded() const noexcept { return exchangesEnded_.load(); }

 private:
  friend class YLPoolExchange;  // the client's side of cancel()

  void* share_ = nullptr;
  // The curl easy handle (CURL*), attached to the share for good, and the multi handle (CURLM*)
  // it runs in: lent to one exchange at a time, for as long as that exchange holds the pool.
  void* easy_ = nullptr;
  void* multi_ = nullptr;
  // Idle, running an exchange, or running one that is to be cancelled.
  std::atomic<int> exchangeState_{0};
  std::atomic<std::int32_t> lastExchangeCode_{0};
  std::atomic<std::uint64_t> exchangesEnded_{0};
  // A non-blocking pipe: cancel() writes a byte to wake the exchange's wait at once.
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
};

// What all requests of one conversation carry: the pool and the session headers.
class YL_EXPORT YLRestSession {
 public:
  YLRestSession() = default;
  virtual ~YLRestSession() = default;

  // Not owned: the session never deletes or touches the pool.
  IYLHTTPPoolCenter* connectionPool = nullptr;

  // The whole value of the Authorization header; empty sends none.
  void setAuthorizationHeaderValue(std::string value) { authorization_ = std::move(value); }
  // A header sent on every request of the session, after the authorization.
  void addHeaderParam(std::string name, std::string value) {
    headers_.emplace_back(std::move(name), std::move(value));
  }

  const std::string& authorizationHeaderValue() const { return authorization_; }
  const YLParamList& headerParams() const { return headers_; }

 private:
  std::string authorization_;
  YLParamList headers_;
};

class YL_EXPORT YLRestRequest {
 public:
  virtual ~YLRestRequest() = default;

  // A caller's mark for the request; the client does not read it.
  std::uint64_t requestTag = 0;

  void setURL(std::string url) { url_ = std::move(url); }
  // Appended to the URL's query, each name and value percent-encoded.
  virtual void addQueryParams(const YLParamList& params);
  // Sent after the session's headers.
  virtual void addHeaderParams(const YLParamList& params);

  // A reply read as it arrives: the body of a 2xx reply goes to this function piece by piece, on
  // the exchange's thread, and not into the response, whose body stays empty. The pieces count
  // against the settings' reply-size limit, the time limits still apply, and a cancel ends the
  // exchange between two pieces. Another status keeps its whole body as usual. A request that has
  // handed over a piece is never sent again. The function must not throw: an exception ends the
  // exchange with a write failure. Empty (the default) keeps the whole body.
  void setBodyPieceHandler(std::function<void(std::string_view piece)> handler) {
    bodyPieceHandler_ = std::move(handler);
  }

  const std::string& url() const { return url_; }
  const YLParamList& queryParams() const { return query_; }
  const YLParamList& headerParams() const { return headers_; }
  const std::function<void(std::string_view piece)>& bodyPieceHandler() const {
    return bodyPieceHandler_;
  }

 private:
  std::string url_;
  std::function<void(std::string_view piece)> bodyPieceHandler_;
  YLParamList query_;
  YLParamList headers_;
};

class YL_EXPORT YLRestGetRequest : public YLRestRequest {};

class YL_EXPORT YLRestPostRequest : public YLRestRequest {
 public:
  // The body becomes the JSON text of the value at this moment; later changes to the value do not
  // reach the request. Content-Type is application/json.
  void updateJson(const IYLJsonValue* json);
  const std::string& body() const { return body_; }

 private:
  std::string body_;
};

class YL_EXPORT YLRestResourceResponse {
 public:
  YLRestResourceResponse() = default;
  virtual ~YLRestResourceResponse();
  YLRestResourceResponse(const YLRestResourceResponse&) = delete;
  YLRestResourceResponse& operator=(const YLRestResourceResponse&) = delete;

  // The parsed body when it is valid JSON, else null. Owned by the response.
  YLJson* responseJson = nullptr;
  // The HTTP status, 0 when no reply arrived.
  long statusCode = 0;
  // The reply's headers in arrival order, names as sent.
  YLParamList headers;

  // The raw body, decoded from gzip, deflate or br; empty if there is none.
  const std::string& getBufferString() const { return body_; }
  // Stores the body and parses it into responseJson.
  void setBody(std::string body);

 private:
  std::string body_;
};

// Two texts and a code. text is a plain English sentence for people; symbol names the code.
struct YL_EXPORT YLErrorRecord {
  std::string symbol;
  std::string text;
  std::int32_t code = 0;
};

class YL_EXPORT IYLErrorCatalogue {
 public:
  virtual ~IYLErrorCatalogue() = default;
  virtual YLErrorRecord obtainErrorRecord(std::int32_t code) const = 0;
};

class YL_EXPORT IYLErrorService {
 public:
  virtual ~IYLErrorService() = default;
  virtual IYLErrorCatalogue* obtainErrorCatalogue() = 0;
};

class YL_EXPORT IYLDateTimeFactory {
 public:
  virtual ~IYLDateTimeFactory() = default;
  // A new converter, owned by the caller.
  virtual YLDateTimeConverter* createDateTimeConverter() = 0;
};

class YL_EXPORT IYLRestClient {
 public:
  virtual ~IYLRestClient() = default;
  // Both block until the exchange has ended and always leave a new response in *response, owned by
  // the caller. The result is 0 for a 2xx status, else a code whose error record tells what failed.
  virtual std::int32_t executeGet(YLRestGetRequest* request, YLRestResourceResponse** response) = 0;
  virtual std::int32_t executePost(YLRestPostRequest* request,
                                   YLRestResourceResponse** response) = 0;
};

class IYLAppFactory;

class YL_EXPORT IYLRestClientFactory {
 public:
  virtual ~IYLRestClientFactory() = default;
  // A new client, owned by the caller, for exchanges under the settings and the session. Both
  // must outlive the client.
  virtual IYLRestClient* createRestClient(IYLAppFactory* appFactory,
                                          const YLRestGlobalSettings* settings,
                                          YLRestSession* session) = 0;
};

class YL_EXPORT IYLAppFactory {
 public:
  virtual ~IYLAppFactory() = default;
  virtual IYLRestClientFactory* obtainRestClientFactory() = 0;
  virtual IYLErrorService* obtainErrorService() = 0;
  virtual IYLDateTimeFactory* obtainDateTimeFactory() = 0;
};

// Failure codes of the client. 100 to 599 are HTTP statuses other than 2xx; kCurlCodeBase plus a
// CURLcode is a transport failure; the others are the client's own.
namespace YLErrorCode {
inline constexpr std::int32_t kSuccess = 0;
inline constexpr std::int32_t kCurlCodeBase = 1000;
inline constexpr std::int32_t kResponseTooLarge = 2001;
inline constexpr std::int32_t kClientSetupFailed = 2002;
// YLHTTPPoolCenter::cancel() stopped the exchange.
inline constexpr std::int32_t kCancelled = 2003;
}  // namespace YLErrorCode

namespace YL {
// The process's application factory; never null, not owned.
YL_EXPORT IYLAppFactory* obtainAppFactory();
}  // namespace YL
