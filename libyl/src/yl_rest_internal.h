#pragma once
// Parts of the REST client that its source files share; not installed.

#include <curl/curl.h>

#include <chrono>

#include "yl/yl_rest.h"

// Initialises libcurl once per process and tells whether that worked. Safe from any thread: the
// first caller does the work and the others wait for it. Every path that makes a curl handle calls
// it first. libcurl is never cleaned up: other code of the host may be using it until exit.
bool ylEnsureCurlGlobalInit();

// What YLHTTPPoolCenter::exchangeState_ holds. A cancel moves kRunning to kCancelRequested and
// nothing else, so that one arriving while no exchange runs changes nothing.
inline constexpr int kPoolIdle = 0;
inline constexpr int kPoolRunning = 1;
inline constexpr int kPoolCancelRequested = 2;

// One exchange's claim on a pool, so that YLHTTPPoolCenter::cancel() reaches this exchange and
// no other, and so that the exchange may use the pool's curl handles. Without a YLHTTPPoolCenter
// the exchange cannot be cancelled, has no handles lent and every query says no.
class YLPoolExchange {
 public:
  // Empties the pool's wake-up pipe, in case a cancel that came as the last exchange ended left a
  // byte in it, marks the pool running, and makes the pool's handles if it has none yet.
  explicit YLPoolExchange(IYLHTTPPoolCenter* pool) noexcept;
  ~YLPoolExchange() { (void)finish(YLErrorCode::kClientSetupFailed); }
  YLPoolExchange(const YLPoolExchange&) = delete;
  YLPoolExchange& operator=(const YLPoolExchange&) = delete;

  bool cancellable() const noexcept { return pool_ != nullptr; }
  // The pool's easy handle, attached to the pool's share, and the multi handle to run it in: the
  // exchange's until finish(). Null when the exchange holds no pool or the handles could not be
  // made; the client then uses handles of its own.
  CURL* easy() const noexcept;
  CURLM* multi() const noexcept;
  bool cancelRequested() const noexcept;
  // The read end of the pool's wake-up pipe, to wait on beside the sockets; -1 if there is none.
  int wakeFd() const noexcept;
  // Reads whatever is in the wake-up pipe, so that a stale byte does not keep waking the wait.
  void drainWake() const noexcept;
  // Sleeps for the delay and tells true, or wakes as soon as a cancel reaches the exchange and
  // tells false. Without a pool it simply sleeps.
  bool sleepUnlessCancelled(std::chrono::milliseconds delay) const noexcept;
  // Marks the pool idle again and tells whether a cancel reached the exchange before that. Once
  // it has run, a cancel no longer concerns this exchange.
  // The pool keeps code, or kCancelled when a cancel came, for lastExchangeCode().
  bool finish(std::int32_t code) noexcept;

 private:
  YLHTTPPoolCenter* pool_ = nullptr;
};

class YLRestClientFactory final : public IYLRestClientFactory {
 public:
  IYLRestClient* createRestClient(IYLAppFactory* appFactory, const YLRestGlobalSettings* settings,
                                  YLRestSession* session) override;
};

class YLErrorCatalogue final : public IYLErrorCatalogue {
 public:
  YLErrorRecord obtainErrorRecord(std::int32_t code) const override;
};

class YLErrorService final : public IYLErrorService {
 public:
  IYLErrorCatalogue* obtainErrorCatalogue() override { return &catalogue_; }

 private:
  YLErrorCatalogue catalogue_;
};
