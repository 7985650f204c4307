// Redirects the client follows itself: where a hop leads, and the origin credentials stay with.

#include <curl/curl.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "yl_rest_client_internal.h"

namespace ylrest {
namespace {

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

}  // namespace

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

}  // namespace ylrest
