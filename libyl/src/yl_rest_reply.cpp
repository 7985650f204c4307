// The reply as curl delivers it: headers and body within their limits, and what it comes to.

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "yl/yl_util.h"
#include "yl_rest_client_internal.h"
#include "yl_rest_internal.h"

namespace ylrest {
namespace {

// Headers of one reply larger than this fail the exchange like an oversized body: a server that
// never stops sending headers must not make the client grow without bound either.
constexpr std::size_t kMaxHeaderBytes = std::size_t{1024} * 1024;

}  // namespace

bool Exchange::isIdentityCoded() const {
  for (const auto& header : headers) {
    if (equalsIgnoringCase(header.first, "Content-Encoding") &&
        !equalsIgnoringCase(header.second, "identity") && !header.second.empty()) {
      return false;
    }
  }
  return true;
}

bool Exchange::acceptBodyStart() {
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

bool Exchange::startsStream() const {
  if (pieceHandler == nullptr || !*pieceHandler) return false;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  return status >= 200 && status <= 299;
}

// A piece of a streamed body, handed on within the limit; false ends the transfer.
bool Exchange::handOn(std::string_view piece) {
  // A cancel stops the pieces at once rather than at the transfer's next turn.
  if (inFlight != nullptr && inFlight->cancelRequested()) return false;
  if (piece.size() > maxBodyBytes - streamedBytes) {
    tooLarge = true;
    return false;
  }
  streamedBytes += piece.size();
  try {
    (*pieceHandler)(piece);
  } catch (...) {
    // An exception must not unwind through curl.
    return false;
  }
  return true;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* exchange = static_cast<Exchange*>(user);
  const std::size_t bytes = size * count;
  if (!exchange->bodyStarted) {
    exchange->bodyStarted = true;
    if (!exchange->acceptBodyStart()) {
      exchange->tooLarge = true;
      return 0;
    }
    exchange->streaming = exchange->startsStream();
  }
  if (exchange->streaming) return exchange->handOn(std::string_view(data, bytes)) ? bytes : 0;
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

  exchange->replyStarted = true;
  // A status line starts a reply: an interim 1xx or the final one. Only the last reply's headers
  // and body are kept.
  if (line.starts_with("HTTP/")) {
    exchange->headers.clear();
    exchange->headerBytes = 0;
    exchange->body.clear();
    exchange->bodyStarted = false;
    exchange->streaming = false;
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

Attempt acceptStandIn(YLStandInReply standIn, std::size_t maxBodyBytes,
                      const BodyPieceHandler* pieceHandler, YLRestResourceResponse& response) {
  std::size_t headerBytes = 0;
  for (const auto& [name, value] : standIn.headers)
    headerBytes += name.size() + value.size() + 4;
  const bool tooLarge = headerBytes > kMaxHeaderBytes || standIn.body.size() > maxBodyBytes;
  const bool success = standIn.statusCode >= 200 && standIn.statusCode <= 299;
  if (!tooLarge && success && pieceHandler != nullptr && *pieceHandler) {
    try {
      if (!standIn.body.empty()) (*pieceHandler)(standIn.body);
    } catch (...) {
      clearResponse(response);
      return {YLErrorCode::kCurlCodeBase + CURLE_WRITE_ERROR};
    }
    standIn.body.clear();
  }
  return replyAttempt(acceptReply(standIn.statusCode, std::move(standIn.headers),
                                  std::move(standIn.body), tooLarge, response),
                      response);
}

void clearResponse(YLRestResourceResponse& response) {
  response.statusCode = 0;
  response.headers.clear();
  response.setBody({});
}

}  // namespace ylrest
