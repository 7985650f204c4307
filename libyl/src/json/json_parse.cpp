// Parsing: reads a JSON text into a document in place, on the stream that its buffer allows, and
// checks what follows the root.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_arena.h"
#include "json_handler.h"
#include "json_layout.h"
#include "json_reader.h"
#include "json_value.h"
#include "yl/yl_json.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// What SkipWhitespace_SIMD and the string scanners may load past the NUL after the text.
constexpr std::size_t kWideLoadSlack = 15;

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// RapidJSON's 16-byte string scanners stop at bytes up to 0x19 instead of 0x1F, so inside a string
// they let the raw bytes 0x1A to 0x1F through, which its byte-by-byte code rightly refuses. No
// JSON text holds such a byte anywhere, in a string or outside one, so a text with one is refused
// before it meets the wide scanners: both ways of parsing then agree on every text.
bool holdsByteThatWideScansMiss(const char* bytes, std::size_t size) {
  std::size_t i = 0;
#if defined(__SSE2__)
  const __m128i low = _mm_set1_epi8(0x1A);
  const __m128i high = _mm_set1_epi8(0x1F);
  for (; i + 16 <= size; i += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    // Unsigned low <= c <= high: max(c, low) == c and min(c, high) == c.
    const __m128i inRange = _mm_and_si128(_mm_cmpeq_epi8(_mm_max_epu8(chunk, low), chunk),
                                          _mm_cmpeq_epi8(_mm_min_epu8(chunk, high), chunk));
    if (_mm_movemask_epi8(inRange) != 0) return true;
  }
#endif
  for (; i < size; ++i) {
    if (static_cast<unsigned char>(bytes[i] - 0x1A) < 6) return true;
  }
  return false;
}

}  // namespace

namespace yljson {

template <typename Fill>
void ParseHandler::parseDocument(YLJson& document, Fill&& fill) {
  try {
    fill(document.arena_->text);
    document.valid_ = parse(document);
  } catch (const std::bad_alloc&) {
    document.valid_ = false;  // a text too large for the memory at hand is treated as a bad one
  }
  if (!document.valid_) {
    Layout::makeNull(document);
    document.arena_->release();
  }
}

bool ParseHandler::parse(YLJson& document) {
  std::string& text = document.arena_->text;
  const std::size_t size = text.size();
  if (size > kMaxTextSize) return false;
  // The wide loads are aligned, so they reach at most to the end of the 16-byte block that holds
  // the terminating NUL. When the buffer reaches that far, they are safe.
  const auto start = reinterpret_cast<std::uintptr_t>(text.data());
  const std::size_t lastLoaded = ((start + size) | kWideLoadSlack) - start;
  if (lastLoaded <= text.capacity()) {
    if (holdsByteThatWideScansMiss(text.data(), size)) return false;
    text.resize(lastLoaded);  // zeros within the capacity: no reallocation
    return parseWith<rapidjson::InsituStringStream>(document, size);
  }
  return parseWith<BytewiseInsituStream>(document, size);
}

template <typename Stream>
bool ParseHandler::parseWith(YLJson& document, std::size_t size) {
  Arena& arena = *document.arena_;
  char* buffer = arena.text.data();
  arena.parseSize = size;
  Stream stream(buffer);
  ParseHandler handler(document, buffer);
  DocumentReader reader;
  const bool failed = reader.Parse<kParseFlags>(stream, handler).IsError();
  arena.parseSize = 0;
  arena.parsePosition = 0;
  arena.parseWaiting = 0;
  if (failed) return false;

  // The parser takes a NUL byte for the end of the text; only white space may follow the root
  // up to the text's real end.
  for (std::size_t position = stream.Tell(); position < size; ++position) {
    if (!isJsonSpace(buffer[position])) return false;
  }
  return true;
}

}  // namespace yljson

// ---- YLJson ---------------------------------------------------------------------------------

YLJson::YLJson(std::string_view text) : YLJson() {
  yljson::ParseHandler::parseDocument(*this, [text](std::string& store) {
    // A new string reserves exactly what it is asked for: the text and room for the wide loads.
    store.reserve(text.size() + kWideLoadSlack);
    store.assign(text);
  });
}

YLJson::YLJson(const char* text)
    : YLJson(text != nullptr ? std::string_view(text) : std::string_view()) {}

YLJson::YLJson(std::string&& text) : YLJson() {
  yljson::ParseHandler::parseDocument(*this, [&text](std::string& store) {
    store = std::move(text);
    text.clear();
  });
}
