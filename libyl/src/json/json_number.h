#pragma once
// The number reader: the text of a JSON number to the integer or double that it stands for.

#include <cstddef>
#include <cstdint>

namespace yljson {

struct NumberRead {
  enum class Verdict {
    Integer,          // fits int64: signedValue
    UnsignedInteger,  // above int64, fits uint64: unsignedValue
    Double,           // doubleValue
    Invalid,          // not a number where one must be, at errorOffset
    MissingFraction,  // a point without digits after it, at errorOffset
    MissingExponent,  // an 'e' without digits after it, at errorOffset
    TooBig,           // beyond the range of a double, at errorOffset
  };
  Verdict verdict = Verdict::Invalid;
  std::size_t size = 0;         // bytes of the number's text, when it is one
  std::size_t errorOffset = 0;  // from the start, when it is not
  std::int64_t signedValue = 0;
  std::uint64_t unsignedValue = 0;
  double doubleValue = 0.0;
};

// Reads the JSON number that starts at text, which ends before a byte that cannot continue a
// number (the NUL after a text will do). An integer without a fraction or an exponent that fits 64
// bits, signed or else unsigned, stays an integer; any other number is the double that std::strtod
// gives for its text (correctly rounded, independent of the locale). A number too large for a
// double is refused; one too small for it becomes a zero of its sign.
NumberRead readNumber(const char* text);

}  // namespace yljson
