// The connection pool of the REST client and the way a cancel reaches the exchange running on it.

#include <curl/curl.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

#include "yl/yl_assert.h"
#include "yl_rest_internal.h"

// cancel() may run in a signal handler, where only lock-free atomics are safe to touch.
static_assert(std::atomic<int>::is_always_lock_free, "cancel() needs a lock-free atomic int");

namespace {

void drainPipe(int fd) noexcept {
  if (fd < 0) return;
  char bytes[64];
  while (::read(fd, bytes, sizeof bytes) > 0) {
  }
}

}  // namespace

// The share holds the connection cache, the DNS cache and the TLS session cache, so that every
// client of one session reuses connections and resumes TLS sessions. No lock callbacks are
// installed: the pool is documented to serve one thread at a time, and libcurl does not support
// sharing the connection cache between concurrent threads anyway.
YLHTTPPoolCenter::YLHTTPPoolCenter() {
  // Non-blocking, so that neither cancel() nor draining can ever block; close-on-exec, so that a
  // program the host starts does not inherit it. Without a pipe a cancel is still seen, only later:
  // by the progress callback, which a silent transfer runs about once a second.
  int fds[2] = {-1, -1};
  if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
    wakeRead_ = fds[0];
    wakeWrite_ = fds[1];
  }

  if (!ylEnsureCurlGlobalInit()) return;
  CURLSH* share = curl_share_init();
  if (share == nullptr) return;
  for (curl_lock_data data :
       {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_DNS, CURL_LOCK_DATA_SSL_SESSION}) {
    if (curl_share_setopt(share, CURLSHOPT_SHARE, data) != CURLSHE_OK) {
      // A pool that shares less than promised would make reuse silently unreliable; clients of a
      // pool without a share still work, each with its own connections.
      curl_share_cleanup(share);
      return;
    }
  }
  share_ = share;
}

YLHTTPPoolCenter::~YLHTTPPoolCenter() {
  if (wakeRead_ >= 0) ::close(wakeRead_);
  if (wakeWrite_ >= 0) ::close(wakeWrite_);
  // The easy handle first: it leaves the share as it goes. It is in the multi handle only while
  // an exchange runs, which the one-thread rule excludes here.
  if (easy_ != nullptr) curl_easy_cleanup(static_cast<CURL*>(easy_));
  if (multi_ != nullptr) curl_multi_cleanup(static_cast<CURLM*>(multi_));
  if (share_ == nullptr) return;
  // Other clients attach the share only for the length of an exchange, so it is free here unless
  // the pool is destroyed while one of its exchanges runs, which the one-thread rule excludes.
  const CURLSHcode result = curl_share_cleanup(static_cast<CURLSH*>(share_));
  YL_ASSERT(result == CURLSHE_OK, "YLHTTPPoolCenter::~YLHTTPPoolCenter");
  (void)result;
}

void YLHTTPPoolCenter::cancel() noexcept {
  // Only a running exchange can be cancelled. If it ends between this and the write, the byte
  // stays in the pipe until the next exchange drains it before it starts.
  int expected = kPoolRunning;
  if (!exchangeState_.compare_exchange_strong(expected, kPoolCancelRequested)) return;
  if (wakeWrite_ < 0) return;
  // A signal handler must leave errno as it found it. A full pipe already holds a wake-up.
  const int savedErrno = errno;
  const char byte = 1;
  const ssize_t written = ::write(wakeWrite_, &byte, 1);
  (void)written;
  errno = savedErrno;
}

YLPoolExchange::YLPoolExchange(IYLHTTPPoolCenter* pool) noexcept {
  auto* center = dynamic_cast<YLHTTPPoolCenter*>(pool);
  if (center == nullptr) return;
  drainPipe(center->wakeRead_);
  int expected = kPoolIdle;
  const bool claimed = center->exchangeState_.compare_exchange_strong(expected, kPoolRunning);
  // Another exchange runs on the pool at the same time, which the one-thread rule excludes; this
  // one goes on without cancel rather than taking the other's.
  YL_ASSERT(claimed, "YLPoolExchange::YLPoolExchange");
  if (!claimed) return;
  pool_ = center;
  if (center->easy_ != nullptr || !ylEnsureCurlGlobalInit()) return;
  // Made once, at the first exchange: a pool that never sends anything costs no handles. Without
  // them, or without the share, the exchange still runs on handles of the client's own.
  CURLM* multi = curl_multi_init();
  CURL* easy = multi != nullptr ? curl_easy_init() : nullptr;
  // The share stays attached across curl_easy_reset, so it is set once, here.
  if (easy == nullptr || (center->share_ != nullptr &&
                          curl_easy_setopt(easy, CURLOPT_SHARE, center->share_) != CURLE_OK)) {
    if (easy != nullptr) curl_easy_cleanup(easy);
    if (multi != nullptr) curl_multi_cleanup(multi);
    return;
  }
  center->easy_ = easy;
  center->multi_ = multi;
}

CURL* YLPoolExchange::easy() const noexcept {
  return pool_ == nullptr ? nullptr : static_cast<CURL*>(pool_->easy_);
}

CURLM* YLPoolExchange::multi() const noexcept {
  return pool_ == nullptr ? nullptr : static_cast<CURLM*>(pool_->multi_);
}

bool YLPoolExchange::cancelRequested() const noexcept {
  return pool_ != nullptr && pool_->exchangeState_.load() == kPoolCancelRequested;
}

int YLPoolExchange::wakeFd() const noexcept {
  return pool_ == nullptr ? -1 : pool_->wakeRead_;
}

void YLPoolExchange::drainWake() const noexcept {
  if (pool_ != nullptr) drainPipe(pool_->wakeRead_);
}

bool YLPoolExchange::finish(std::int32_t code) noexcept {
  if (pool_ == nullptr) return false;
  const bool cancelled = pool_->exchangeState_.exchange(kPoolIdle) == kPoolCancelRequested;
  pool_->lastExchangeCode_.store(cancelled ? YLErrorCode::kCancelled : code);
  pool_->exchangesEnded_.fetch_add(1);
  pool_ = nullptr;
  return cancelled;
}

bool YLPoolExchange::sleepUnlessCancelled(std::chrono::milliseconds delay) const noexcept {
  using Clock = std::chrono::steady_clock;
  // Without a pipe a cancel is only seen by looking; a short slice keeps that prompt enough.
  constexpr std::chrono::milliseconds kSliceWithoutPipe{50};
  const Clock::time_point deadline = Clock::now() + delay;
  const int fd = wakeFd();
  for (;;) {
    if (cancelRequested()) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return true;
    auto timeout = std::min<decltype(left)>(left, 60L * 60 * 1000);
    if (fd < 0 && pool_ != nullptr)
      timeout = std::min<decltype(left)>(timeout, kSliceWithoutPipe.count());
    pollfd wake{fd, POLLIN, 0};
    // A signal interrupts the wait with EINTR, perhaps the one whose handler cancelled: the loop
    // looks again either way.
    const int ready = ::poll(fd >= 0 ? &wake : nullptr, fd >= 0 ? 1 : 0, static_cast<int>(timeout));
    // A stale byte, from a cancel that came too late for an earlier exchange, must not make the
    // loop spin; a fresh one has set the state that the next round sees.
    if (ready > 0) drainWake();
  }
}
