#pragma once
// RapidJSON's reader as the parser uses it: its SIMD choice, the two stream types, its stack and
// the members of the reader that the parser replaces. Only the parser includes it.

#include <cstddef>

#include "yl/yl_json.h"

// RapidJSON's SIMD path scans white space 16 bytes at a time, with aligned loads that may reach up
// to 15 bytes past the terminating NUL. SSE2 is part of every x86-64. RapidJSON is header-only: any
// other file of the library that includes it must make the same choice, or the two would disagree
// on the same inline functions; it includes this header.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

namespace yljson {

// RapidJSON picks its 16-byte white space scanner by the exact type of the stream; this type gets
// the byte-by-byte code, which reads nothing past the terminating NUL. It parses a text in place
// when its buffer has no room after the NUL for the wide loads, instead of copying the text.
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
// decoded inside the buffer and handed over there, never as copies. Strings and numbers are read
// by handString and handNumber (json_structure.cpp), never by the reader's own members.
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
