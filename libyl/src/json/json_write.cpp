// Writing: a value as compact JSON text.

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "json_arena.h"
#include "json_layout.h"
#include "json_value.h"
#include "yl/yl_json.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

using namespace yljson;

namespace {

constexpr std::array<char, 256> makeEscapeTable() {
  // 0: written as is; 'u': written as \u00XX; any other: written as a backslash and that letter.
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c)
    table[c] = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}

constexpr std::array<char, 256> kEscapes = makeEscapeTable();

#if defined(__SSE2__)
// All ones in each of the 16 bytes at bytes that must be escaped: a quote, a backslash or a
// control byte.
__m128i escapesIn16(const char* bytes) {
  const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  // Unsigned c <= 0x1F: min(c, 0x1F) == c.
  const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(chunk, _mm_set1_epi8(0x1F)), chunk);
  const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(chunk, _mm_set1_epi8('"')),
                                       _mm_cmpeq_epi8(chunk, _mm_set1_epi8('\\')));
  return _mm_or_si128(control, special);
}

// Whether any of the 64 bytes at bytes must be escaped: one test for four blocks keeps the loop
// over long runs short.
bool escapeIn64(const char* bytes) {
  const __m128i any = _mm_or_si128(_mm_or_si128(escapesIn16(bytes), escapesIn16(bytes + 16)),
                                   _mm_or_si128(escapesIn16(bytes + 32), escapesIn16(bytes + 48)));
  return _mm_movemask_epi8(any) != 0;
}
#endif

// The bytes as a JSON string: the output grows once for the string and its quotes, and runs that
// need no escape are copied whole. Where escapes are dense the next one is near, and bytes looked
// at one by one find it soonest; a run that goes on longer, the usual case, is scanned 64 bytes
// at a time.
void appendQuoted(std::string& out, const char* bytes, std::size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  constexpr std::size_t kNear = 32;
  out.reserve(out.size() + size + 2);
  out.push_back('"');
  std::size_t runStart = 0;
  for (std::size_t i = 0;; ++i) {
    const std::size_t near = std::min(size, i + kNear);
    while (i < near && kEscapes[static_cast<unsigned char>(bytes[i])] == 0)
      ++i;
    if (i == near && i < size) {
      int mask = 0;
#if defined(__SSE2__)
      while (i + 64 <= size && !escapeIn64(bytes + i))
        i += 64;
      while (i + 16 <= size && (mask = _mm_movemask_epi8(escapesIn16(bytes + i))) == 0)
        i += 16;
#endif
      if (mask != 0) {
        i += static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(mask)));
      } else {
        while (i < size && kEscapes[static_cast<unsigned char>(bytes[i])] == 0)
          ++i;
      }
    }
    if (i == size) break;
    out.append(bytes + runStart, i - runStart);
    runStart = i + 1;
    const auto c = static_cast<unsigned char>(bytes[i]);
    const char escape = kEscapes[c];
    if (escape == 'u') {
      const char sequence[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(sequence, sizeof sequence);
    } else {
      const char sequence[2] = {'\\', escape};
      out.append(sequence, sizeof sequence);
    }
  }
  out.append(bytes + runStart, size - runStart);
  out.push_back('"');
}

void appendDouble(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  out += text;
  // Keep the value a double when read back: "1" would come back as an integer.
  if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

template <typename Integer>
void appendInteger(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
}

}  // namespace

std::string YLJsonValue::obtainJsonString() const {
  std::string out;
  appendJsonString(out);
  return out;
}

void YLJsonValue::appendJsonString(std::string& out) const {
  const Arena& arena = Layout::arenaOf(*this);
  // An explicit stack: a built document can be nested far deeper than the call stack allows.
  struct Frame {
    const YLJsonValue* container;
    std::size_t next;
    std::size_t count;
    bool object;
  };
  std::vector<Frame> open;
  const YLJsonValue* value = this;
  while (value != nullptr) {
    switch (Layout::kindOf(*value)) {
      case kNull:
        out += "null";
        break;
      case kBool:
        out += value->payload_ != 0 ? "true" : "false";
        break;
      case kInt32:
        appendInteger(out, static_cast<std::int32_t>(value->payload_));
        break;
      case kInt64:
        appendInteger(out, Layout::numberAt<std::int64_t>(arena, value->payload_));
        break;
      case kUint64:
        appendInteger(out, Layout::numberAt<std::uint64_t>(arena, value->payload_));
        break;
      case kDouble:
        appendDouble(out, Layout::numberAt<double>(arena, value->payload_));
        break;
      case kTextString:
      case kDataString:
      case kLongString: {
        const std::string_view text = Layout::stringOf(arena, *value);
        appendQuoted(out, text.data(), text.size());
        break;
      }
      case kRunArray:
      case kLongRunArray:
      case kTableArray:
        out += '[';
        open.push_back(Frame{value, 0, Layout::itemCount(arena, *value), false});
        break;
      case kRunObject:
      case kWideObject:
      case kTableObject:
        out += '{';
        open.push_back(Frame{value, 0, Layout::memberCount(arena, *value), true});
        break;
    }

    // Go on with the next child of the innermost open container, closing finished ones.
    value = nullptr;
    while (!open.empty()) {
      Frame& frame = open.back();
      if (frame.next < frame.count) {
        if (frame.next != 0) out += ',';
        if (frame.object) {
          const std::string_view key = Layout::keyAt(arena, *frame.container, frame.next);
          appendQuoted(out, key.data(), key.size());
          out += ':';
          value = Layout::memberAt(arena, *frame.container, frame.next);
        } else {
          value = Layout::itemAt(arena, *frame.container, frame.next);
        }
        ++frame.next;
        break;
      }
      out += frame.object ? '}' : ']';
      open.pop_back();
    }
  }
}
