#include <curl/curl.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "yl_rest_internal.h"

namespace {

// The names of the CURLcode values, indexed by value, as libcurl 7.88 defines them. Codes of a
// newer libcurl fall back to their number.
constexpr std::array<std::string_view, 100> kCurlCodeNames = {
    "CURLE_OK",
    "CURLE_UNSUPPORTED_PROTOCOL",
    "CURLE_FAILED_INIT",
    "CURLE_URL_MALFORMAT",
    "CURLE_NOT_BUILT_IN",
    "CURLE_COULDNT_RESOLVE_PROXY",
    "CURLE_COULDNT_RESOLVE_HOST",
    "CURLE_COULDNT_CONNECT",
    "CURLE_WEIRD_SERVER_REPLY",
    "CURLE_REMOTE_ACCESS_DENIED",
    "CURLE_FTP_ACCEPT_FAILED",
    "CURLE_FTP_WEIRD_PASS_REPLY",
    "CURLE_FTP_ACCEPT_TIMEOUT",
    "CURLE_FTP_WEIRD_PASV_REPLY",
    "CURLE_FTP_WEIRD_227_FORMAT",
    "CURLE_FTP_CANT_GET_HOST",
    "CURLE_HTTP2",
    "CURLE_FTP_COULDNT_SET_TYPE",
    "CURLE_PARTIAL_FILE",
    "CURLE_FTP_COULDNT_RETR_FILE",
    "CURLE_OBSOLETE20",
    "CURLE_QUOTE_ERROR",
    "CURLE_HTTP_RETURNED_ERROR",
    "CURLE_WRITE_ERROR",
    "CURLE_OBSOLETE24",
    "CURLE_UPLOAD_FAILED",
    "CURLE_READ_ERROR",
    "CURLE_OUT_OF_MEMORY",
    "CURLE_OPERATION_TIMEDOUT",
    "CURLE_OBSOLETE29",
    "CURLE_FTP_PORT_FAILED",
    "CURLE_FTP_COULDNT_USE_REST",
    "CURLE_OBSOLETE32",
    "CURLE_RANGE_ERROR",
    "CURLE_HTTP_POST_ERROR",
    "CURLE_SSL_CONNECT_ERROR",
    "CURLE_BAD_DOWNLOAD_RESUME",
    "CURLE_FILE_COULDNT_READ_FILE",
    "CURLE_LDAP_CANNOT_BIND",
    "CURLE_LDAP_SEARCH_FAILED",
    "CURLE_OBSOLETE40",
    "CURLE_FUNCTION_NOT_FOUND",
    "CURLE_ABORTED_BY_CALLBACK",
    "CURLE_BAD_FUNCTION_ARGUMENT",
    "CURLE_OBSOLETE44",
    "CURLE_INTERFACE_FAILED",
    "CURLE_OBSOLETE46",
    "CURLE_TOO_MANY_REDIRECTS",
    "CURLE_UNKNOWN_OPTION",
    "CURLE_SETOPT_OPTION_SYNTAX",
    "CURLE_OBSOLETE50",
    "CURLE_OBSOLETE51",
    "CURLE_GOT_NOTHING",
    "CURLE_SSL_ENGINE_NOTFOUND",
    "CURLE_SSL_ENGINE_SETFAILED",
    "CURLE_SEND_ERROR",
    "CURLE_RECV_ERROR",
    "CURLE_OBSOLETE57",
    "CURLE_SSL_CERTPROBLEM",
    "CURLE_SSL_CIPHER",
    "CURLE_PEER_FAILED_VERIFICATION",
    "CURLE_BAD_CONTENT_ENCODING",
    "CURLE_OBSOLETE62",
    "CURLE_FILESIZE_EXCEEDED",
    "CURLE_USE_SSL_FAILED",
    "CURLE_SEND_FAIL_REWIND",
    "CURLE_SSL_ENGINE_INITFAILED",
    "CURLE_LOGIN_DENIED",
    "CURLE_TFTP_NOTFOUND",
    "CURLE_TFTP_PERM",
    "CURLE_REMOTE_DISK_FULL",
    "CURLE_TFTP_ILLEGAL",
    "CURLE_TFTP_UNKNOWNID",
    "CURLE_REMOTE_FILE_EXISTS",
    "CURLE_TFTP_NOSUCHUSER",
    "CURLE_OBSOLETE75",
    "CURLE_OBSOLETE76",
    "CURLE_SSL_CACERT_BADFILE",
    "CURLE_REMOTE_FILE_NOT_FOUND",
    "CURLE_SSH",
    "CURLE_SSL_SHUTDOWN_FAILED",
    "CURLE_AGAIN",
    "CURLE_SSL_CRL_BADFILE",
    "CURLE_SSL_ISSUER_ERROR",
    "CURLE_FTP_PRET_FAILED",
    "CURLE_RTSP_CSEQ_ERROR",
    "CURLE_RTSP_SESSION_ERROR",
    "CURLE_FTP_BAD_FILE_LIST",
    "CURLE_CHUNK_FAILED",
    "CURLE_NO_CONNECTION_AVAILABLE",
    "CURLE_SSL_PINNEDPUBKEYNOTMATCH",
    "CURLE_SSL_INVALIDCERTSTATUS",
    "CURLE_HTTP2_STREAM",
    "CURLE_RECURSIVE_API_CALL",
    "CURLE_AUTH_ERROR",
    "CURLE_HTTP3",
    "CURLE_QUIC_CONNECT_ERROR",
    "CURLE_PROXY",
    "CURLE_SSL_CLIENTCERT",
    "CURLE_UNRECOVERABLE_POLL",
};
static_assert(CURLE_COULDNT_CONNECT == 7 && CURLE_OPERATION_TIMEDOUT == 28 &&
                  CURLE_PEER_FAILED_VERIFICATION == 60 && CURLE_UNRECOVERABLE_POLL == 99,
              "the CURLcode name table is out of step with curl.h");

// Reason phrases of the registered statuses, in today's wording. A status that is not listed has
// no standard reason and is told by its number alone.
std::string_view reasonPhrase(std::int32_t status) {
  switch (status) {
    case 100:
      return "Continue";
    case 101:
      return "Switching Protocols";
    case 102:
      return "Processing";
    case 103:
      return "Early Hints";
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 202:
      return "Accepted";
    case 203:
      return "Non-Authoritative Information";
    case 204:
      return "No Content";
    case 205:
      return "Reset Content";
    case 206:
      return "Partial Content";
    case 207:
      return "Multi-Status";
    case 208:
      return "Already Reported";
    case 226:
      return "IM Used";
    case 300:
      return "Multiple Choices";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 304:
      return "Not Modified";
    case 305:
      return "Use Proxy";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Permanent Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 402:
      return "Payment Required";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 406:
      return "Not Acceptable";
    case 407:
      return "Proxy Authentication Required";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 410:
      return "Gone";
    case 411:
      return "Length Required";
    case 412:
      return "Precondition Failed";
    case 413:
      return "Content Too Large";
    case 414:
      return "URI Too Long";
    case 415:
      return "Unsupported Media Type";
    case 416:
      return "Range Not Satisfiable";
    case 417:
      return "Expectation Failed";
    case 421:
      return "Misdirected Request";
    case 422:
      return "Unprocessable Content";
    case 423:
      return "Locked";
    case 424:
      return "Failed Dependency";
    case 425:
      return "Too Early";
    case 426:
      return "Upgrade Required";
    case 428:
      return "Precondition Required";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 451:
      return "Unavailable For Legal Reasons";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    case 505:
      return "HTTP Version Not Supported";
    case 506:
      return "Variant Also Negotiates";
    case 507:
      return "Insufficient Storage";
    case 508:
      return "Loop Detected";
    case 510:
      return "Not Extended";
    case 511:
      return "Network Authentication Required";
    default:
      return {};
  }
}

YLErrorRecord httpStatusRecord(std::int32_t status) {
  std::string number = std::to_string(status);
  std::string text = "HTTP " + number;
  const std::string_view reason = reasonPhrase(status);
  if (!reason.empty()) {
    text += ' ';
    text += reason;
  }
  return {"HTTP_" + number, std::move(text), status};
}

YLErrorRecord curlRecord(std::int32_t code) {
  const auto curlCode = static_cast<CURLcode>(code - YLErrorCode::kCurlCodeBase);
  const auto index = static_cast<std::size_t>(curlCode);
  std::string symbol = index < kCurlCodeNames.size() ? std::string(kCurlCodeNames[index])
                                                     : "CURLE_" + std::to_string(index);
  return {std::move(symbol), curl_easy_strerror(curlCode), code};
}

}  // namespace

// Every text is fixed by the code alone and never carries a URL, a header or a reply: a key sent
// in a query or a header cannot leak into a message shown to people or written to a log.
YLErrorRecord YLErrorCatalogue::obtainErrorRecord(std::int32_t code) const {
  switch (code) {
    case YLErrorCode::kSuccess:
      return {"kSuccess", "The exchange succeeded", code};
    case YLErrorCode::kResponseTooLarge:
      return {"kResponseTooLarge", "Response body exceeds the accepted size", code};
    case YLErrorCode::kClientSetupFailed:
      return {"kClientSetupFailed", "The HTTP client could not prepare the request", code};
    case YLErrorCode::kCancelled:
      // Shown as it is: a host tells its user that the request was cancelled in these words.
      return {"kCancelled", "Cancelled", code};
    default:
      break;
  }
  if (code >= 100 && code <= 599) return httpStatusRecord(code);
  if (code > YLErrorCode::kCurlCodeBase && code < YLErrorCode::kCurlCodeBase + CURL_LAST) {
    return curlRecord(code);
  }
  return {"kUnknownError", "Unknown error code " + std::to_string(code), code};
}
