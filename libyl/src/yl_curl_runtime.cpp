#include <curl/curl.h>

#include "yl_rest_internal.h"

bool ylEnsureCurlGlobalInit() {
  // A function-local static is initialised exactly once even when several threads arrive at the
  // same time, which curl_global_init itself does not promise on every build of libcurl.
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return initialised;
}
