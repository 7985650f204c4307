#pragma once
// RapidJSON's reader as the parser uses it: its SIMD choice, the two stream types, its stack and
// the members of the reader that the parser replaces. Only the parser includes it.

#include <array>
#include <cstddef>

#include "yl/yl_json.h"

// RapidJSON's SIMD paths scan white space and unescaped string runs 16 bytes at a time, with
// aligned loads that may reach up to 15 bytes past the terminating NUL. SSE2 is part of every
// x86-64. RapidJSON is header-only: any other file of the library that includes it must make the
// same choice, or the two would disagree on the same inline functions; it includes this header.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

namespace yljson {

// RapidJSON picks its 16-byte scanners by the exact type of the stream; this type gets the
// byte-by-byte code, which reads nothing past the terminating NUL. It parses a text in place when
// its buffer has no room after the NUL for the wide loads, instead of copying the text.
struct BytewiseInsituStream : rapidjson::InsituStringStream {
  using rapidjson::InsituStringStream::InsituStringStream;
};

// The reader's stack allocator, a type of its own so that the reader below is a type that only
// the parser uses: the members it replaces (see further down) change nothing for any other user
// of RapidJSON in the process.
struct ReaderStackAllocator : rapidjson::CrtAllocator {};
using DocumentReader =
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ReaderStackAllocator>;

// Iterative: the parser keeps its own stack, so deep nesting cannot exhaust the call stack.
// Standard JSON only: no comments, trailing commas, NaN or Infinity. In situ, strings and keys are
// decoded inside the buffer and handed over there, never as copies. Numbers are read by
// handNumber (json_structure.cpp), whatever the flags say about them.
inline constexpr unsigned kParseFlags = rapidjson::kParseInsituFlag |
                                        rapidjson::kParseIterativeFlag |
                                        rapidjson::kParseStopWhenDoneFlag;

}  // namespace yljson

namespace rapidjson {
template <>
struct StreamTraits<yljson::BytewiseInsituStream> {
  enum { copyOptimization = 1 };
};

// RapidJSON 1.1 reads some valid numbers wrong: a zero with a large exponent ("0e+300") comes out
// as garbage, a zero with an exponent above 308 ("0e309") or an integer part of more than 308
// digits is refused, and its own conversion is not always correctly rounded. Its number reader is
// replaced, for this reader and its two streams only, by readNumber (json_number.cpp).
template <>
template <>
void yljson::DocumentReader::ParseNumber<yljson::kParseFlags, InsituStringStream,
                                         yljson::ParseHandler>(InsituStringStream& is,
                                                               yljson::ParseHandler& handler);
template <>
template <>
void yljson::DocumentReader::ParseNumber<yljson::kParseFlags, yljson::BytewiseInsituStream,
                                         yljson::ParseHandler>(yljson::BytewiseInsituStream& is,
                                                               yljson::ParseHandler& handler);

// The byte-by-byte string reader moves every byte through a few tests and a store. This is its hook
// for runs of bytes that stand for themselves, taken here for the stream without wide loads: the
// run is skipped over in one loop, and stays where it is while nothing before it in the string
// was escaped. It stops where the reader has to look: at a quote, a backslash or a byte below 0x20,
// the NUL after the text included.
template <>
template <>
inline void yljson::DocumentReader::ScanCopyUnescapedString<
    yljson::BytewiseInsituStream, yljson::BytewiseInsituStream>(yljson::BytewiseInsituStream& is,
                                                                yljson::BytewiseInsituStream& os) {
  static constexpr auto kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t c = 0x20; c < plain.size(); ++c)
      plain[c] = c != '"' && c != '\\';
    return plain;
  }();
  char* from = is.src_;
  char* to = os.dst_;
  if (from == to) {
    while (kPlain[static_cast<unsigned char>(*from)])
      ++from;
    to = from;
  } else {
    while (kPlain[static_cast<unsigned char>(*from)])
      *to++ = *from++;
  }
  is.src_ = from;
  os.dst_ = to;
}

// The reader's driver, a table-driven state machine that pays an indirect jump for every token,
// is replaced for both streams by one with plain branches (json_structure.cpp).
template <>
template <>
ParseResult yljson::DocumentReader::IterativeParse<
    yljson::kParseFlags, InsituStringStream, yljson::ParseHandler>(InsituStringStream& is,
                                                                   yljson::ParseHandler& handler);
template <>
template <>
ParseResult yljson::DocumentReader::IterativeParse<
    yljson::kParseFlags, yljson::BytewiseInsituStream, yljson::ParseHandler>(
    yljson::BytewiseInsituStream& is, yljson::ParseHandler& handler);

namespace internal {
// The reader's stack starts without memory, and its first push computes "null + size" to compare
// with its end: undefined behaviour, which UndefinedBehaviorSanitizer reports at the first array or
// object of every parse. The iterative parser pushes nothing but SizeType; this version compares
// sizes instead and never offsets a null pointer.
template <>
template <>
inline void Stack<yljson::ReaderStackAllocator>::Reserve<SizeType>(size_t count) {
  const size_t wanted = sizeof(SizeType) * count;
  if (stack_ == nullptr || static_cast<size_t>(stackEnd_ - stackTop_) < wanted)
    Expand<SizeType>(count);
}
}  // namespace internal
}  // namespace rapidjson
