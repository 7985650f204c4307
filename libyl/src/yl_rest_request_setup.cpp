// Building the curl request: header lines, the URL and its query, options, the hook's masked copy.

#include <curl/curl.h>

#include <climits>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "yl_rest_client_internal.h"

namespace ylrest {
namespace {

// What a request hook sees in place of a credential.
constexpr std::string_view kMask = "****";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = asciiLower(c);
  return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

std::optional<std::string> escape(CURL* easy, const std::string& text) {
  if (text.size() > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
  char* escaped = curl_easy_escape(easy, text.data(), static_cast<int>(text.size()));
  if (escaped == nullptr) return std::nullopt;
  std::string result(escaped);
  curl_free(escaped);
  return result;
}

}  // namespace

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

std::string_view headerValue(const YLParamList& headers, std::string_view name) {
  for (const auto& header : headers) {
    if (equalsIgnoringCase(header.first, name)) return header.second;
  }
  return {};
}

bool isCredentialHeader(std::string_view name) {
  for (std::string_view secret : {"Authorization", "x-api-key", "x-goog-api-key", "api-key"}) {
    if (equalsIgnoringCase(name, secret)) return true;
  }
  return false;
}

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

}  // namespace ylrest
