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

namespace {

// What SkipWhitespace_SIMD may load past the NUL after the text.
constexpr std::size_t kWideLoadSlack = 15;

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
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
  // std::string keeps a NUL after its last byte.
  ParseHandler handler(document, buffer, buffer + arena.text.size() + 1);
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
