#include <curl/curl.h>

#include "yl/yl_assert.h"
#include "yl_rest_internal.h"

// The share holds the connection cache, the DNS cache and the TLS session cache, so that every
// client of one session reuses connections and resumes TLS sessions. No lock callbacks are
// installed: the pool is documented to serve one thread at a time, and libcurl does not support
// sharing the connection cache between concurrent threads anyway.
YLHTTPPoolCenter::YLHTTPPoolCenter() {
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
  if (share_ == nullptr) return;
  // Clients attach the share only for the length of an exchange, so it is free here unless the
  // pool is destroyed while one of its exchanges runs, which the one-thread rule excludes.
  const CURLSHcode result = curl_share_cleanup(static_cast<CURLSH*>(share_));
  YL_ASSERT(result == CURLSHE_OK, "YLHTTPPoolCenter::~YLHTTPPoolCenter");
  (void)result;
}
