#pragma once
// The string reader of the parser: a JSON string decoded inside its own buffer. Only the parser
// includes it.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace yljson {

// A string read in place: its decoded bytes start right after the opening quote and end with a
// NUL written over what followed them. next is past the closing quote, or null when the text is
// refused.
struct StringRead {
  char* next;
  std::size_t size;
  bool holdsNul;  // a \u0000 was decoded: the bytes cannot be told apart by their NUL
};

namespace detail {

// Bytes that end a run needing no decoding: a quote, a backslash, anything below 0x20 (the NUL
// after the text among them).
inline bool endsRun(char c) {
  return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
}

#if defined(__SSE2__)
inline __m128i load16(const char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Where in these 16 bytes a run ends, as a bit mask.
inline unsigned runEnds(__m128i chunk) {
  const __m128i quote = _mm_cmpeq_epi8(chunk, _mm_set1_epi8('"'));
  const __m128i backslash = _mm_cmpeq_epi8(chunk, _mm_set1_epi8('\\'));
  // Unsigned c <= 0x1F: min(c, 0x1F) == c.
  const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(chunk, _mm_set1_epi8(0x1F)), chunk);
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(quote, backslash), control)));
}
#endif

// Four hex digits, read one at a time so that nothing past a NUL is read.
inline bool readHex4(const char* p, unsigned& value) {
  value = 0;
  for (int i = 0; i < 4; ++i) {
    const char c = p[i];
    unsigned digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      digit = static_cast<unsigned>(c - 'A' + 10);
    } else {
      return false;
    }
    value = value << 4 | digit;
  }
  return true;
}

inline char* putUtf8(char* to, unsigned codepoint) {
  if (codepoint < 0x80) {
    *to++ = static_cast<char>(codepoint);
  } else if (codepoint < 0x800) {
    *to++ = static_cast<char>(0xC0 | codepoint >> 6);
    *to++ = static_cast<char>(0x80 | (codepoint & 0x3F));
  } else if (codepoint < 0x10000) {
    *to++ = static_cast<char>(0xE0 | codepoint >> 12);
    *to++ = static_cast<char>(0x80 | (codepoint >> 6 & 0x3F));
    *to++ = static_cast<char>(0x80 | (codepoint & 0x3F));
  } else {
    *to++ = static_cast<char>(0xF0 | codepoint >> 18);
    *to++ = static_cast<char>(0x80 | (codepoint >> 12 & 0x3F));
    *to++ = static_cast<char>(0x80 | (codepoint >> 6 & 0x3F));
    *to++ = static_cast<char>(0x80 | (codepoint & 0x3F));
  }
  return to;
}

// The escape at from (a backslash), decoded to to. Gives the byte after the escape, or null. A
// high surrogate must be followed by the escape of its low partner; a low surrogate alone is
// kept as its three-byte form. Decoding never writes more bytes than it reads.
inline const char* decodeEscape(const char* from, char*& to) {
  char plain = 0;
  switch (from[1]) {
    case '"':
      plain = '"';
      break;
    case '\\':
      plain = '\\';
      break;
    case '/':
      plain = '/';
      break;
    case 'b':
      plain = '\b';
      break;
    case 'f':
      plain = '\f';
      break;
    case 'n':
      plain = '\n';
      break;
    case 'r':
      plain = '\r';
      break;
    case 't':
      plain = '\t';
      break;
    case 'u': {
      unsigned codepoint = 0;
      if (!readHex4(from + 2, codepoint)) return nullptr;
      from += 6;
      if (codepoint >= 0xD800 && codepoint <= 0xDBFF) {
        unsigned low = 0;
        if (from[0] != '\\' || from[1] != 'u' || !readHex4(from + 2, low)) return nullptr;
        if (low < 0xDC00 || low > 0xDFFF) return nullptr;
        codepoint = ((codepoint - 0xD800) << 10 | (low - 0xDC00)) + 0x10000;
        from += 6;
      }
      to = putUtf8(to, codepoint);
      return from;
    }
    default:
      return nullptr;
  }
  *to++ = plain;
  return from + 2;
}

// The rest of a string from its first escape at from: the bytes after it are moved back over what
// the escapes saved.
[[gnu::noinline]] inline StringRead readEscaped(char* begin, char* from, const char* limit) {
  char* to = from;
  bool holdsNul = false;
  for (;;) {
    const char c = *from;
    if (c == '"') {
      *to = '\0';
      return {from + 1, static_cast<std::size_t>(to - begin), holdsNul};
    }
    if (c != '\\') return {nullptr, 0, false};  // a raw byte below 0x20
    const char* const after = decodeEscape(from, to);
    if (after == nullptr) return {nullptr, 0, false};
    holdsNul |= to[-1] == '\0';
    from = begin + (after - begin);  // the same byte, writable
                                     // The run up to the next quote, backslash or control byte.
#if defined(__SSE2__)
    for (;;) {
      if (limit - from < 16) {
        while (!endsRun(*from))
          *to++ = *from++;
        break;
      }
      const __m128i chunk = load16(from);
      const unsigned ends = runEnds(chunk);
      if (ends == 0) {
        // to + 16 <= from + 16: only bytes already loaded are written over.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), chunk);
        to += 16;
        from += 16;
        continue;
      }
      const auto run = static_cast<std::size_t>(std::countr_zero(ends));
      std::memmove(to, from, run);
      to += run;
      from += run;
      break;
    }
#else
    while (!endsRun(*from))
      *to++ = *from++;
#endif
  }
}

}  // namespace detail

// Reads the string whose opening quote is at quote. Bytes of 0x20 and above stand for
// themselves, valid UTF-8 or not; raw bytes below 0x20 are refused. 16 bytes are loaded at once
// wherever they end at or before limit; the byte at limit - 1 or earlier must be a NUL, which
// ends every scan. A string without escapes stays where it is.
[[gnu::always_inline]] inline StringRead readString(char* quote, const char* limit) {
  char* const begin = quote + 1;
  char* from = begin;
#if defined(__SSE2__)
  // The closing quote is told from the other stops by the masks, not by reading the byte again.
  while (limit - from >= 16) {
    const __m128i chunk = detail::load16(from);
    const unsigned ends = detail::runEnds(chunk);
    if (ends != 0) {
      const auto quotes =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, _mm_set1_epi8('"'))));
      from += std::countr_zero(ends);
      if ((ends & (0u - ends) & quotes) == 0) return detail::readEscaped(begin, from, limit);
      *from = '\0';
      return {from + 1, static_cast<std::size_t>(from - begin), false};
    }
    from += 16;
  }
#endif
  while (!detail::endsRun(*from))
    ++from;
  if (*from != '"') return detail::readEscaped(begin, from, limit);
  *from = '\0';
  return {from + 1, static_cast<std::size_t>(from - begin), false};
}

}  // namespace yljson
