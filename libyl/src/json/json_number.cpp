// The number reader: the text of a JSON number to the integer or double that it stands for.

#include "json_number.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace yljson {

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

NumberRead refused(NumberRead::Verdict verdict, std::size_t offset) {
  NumberRead read;
  read.verdict = verdict;
  read.errorOffset = offset;
  return read;
}

// A number's text as the grammar reads it, and its order of magnitude, should the conversion find
// it out of range: the digits of the integer part without a lone zero, else the zeros that start
// the fraction, and the exponent.
struct Shape {
  const char* end = nullptr;  // past the number; null when the text is not one
  NumberRead refusal;         // why not
  bool minus = false;
  bool integral = true;
  std::int64_t integerDigits = 0;
  std::int64_t fractionZeros = 0;
  std::int64_t exponent = 0;
};

// Reads the digits of an exponent, at least one, and gives the byte after them, or null.
const char* scanExponent(const char* p, std::int64_t& exponent) {
  const bool negative = *p == '-';
  if (*p == '+' || *p == '-') ++p;
  if (!isDigit(*p)) return nullptr;
  // Far beyond any double's range, and far from overflowing the order of magnitude readNumber sums.
  constexpr std::int64_t kExponentCap = std::int64_t{1} << 40;
  for (; isDigit(*p); ++p) {
    if (exponent < kExponentCap) exponent = exponent * 10 + (*p - '0');
  }
  if (negative) exponent = -exponent;
  return p;
}

Shape scanNumber(const char* text) {
  using Verdict = NumberRead::Verdict;
  Shape shape;
  const char* p = text;
  const auto refuse = [&shape, text](Verdict verdict, const char* at) {
    shape.refusal = refused(verdict, static_cast<std::size_t>(at - text));
    return shape;
  };
  shape.minus = *p == '-';
  if (shape.minus) ++p;
  if (*p == '0') {
    ++p;
  } else if (*p >= '1' && *p <= '9') {
    const char* first = p;
    while (isDigit(*p))
      ++p;
    shape.integerDigits = p - first;
  } else {
    return refuse(Verdict::Invalid, p);
  }
  if (*p == '.') {
    ++p;
    if (!isDigit(*p)) return refuse(Verdict::MissingFraction, p);
    const char* first = p;
    while (*p == '0')
      ++p;
    shape.fractionZeros = p - first;
    while (isDigit(*p))
      ++p;
    shape.integral = false;
  }
  if (*p == 'e' || *p == 'E') {
    const char* end = scanExponent(p + 1, shape.exponent);
    if (end == nullptr) {
      const char* sign = p + 1;
      return refuse(Verdict::MissingExponent, *sign == '+' || *sign == '-' ? sign + 1 : sign);
    }
    p = end;
    shape.integral = false;
  }
  shape.end = p;
  return shape;
}

}  // namespace

NumberRead readNumber(const char* text) {
  using Verdict = NumberRead::Verdict;
  const Shape shape = scanNumber(text);
  if (shape.end == nullptr) return shape.refusal;
  const char* const end = shape.end;
  NumberRead read;
  read.size = static_cast<std::size_t>(end - text);
  if (shape.integral) {
    const auto asSigned = std::from_chars(text, end, read.signedValue);
    if (asSigned.ec == std::errc() && asSigned.ptr == end) {
      read.verdict = Verdict::Integer;
      return read;
    }
    const auto asUnsigned = std::from_chars(text, end, read.unsignedValue);
    if (asUnsigned.ec == std::errc() && asUnsigned.ptr == end) {
      read.verdict = Verdict::UnsignedInteger;
      return read;
    }
  }
  const auto asDouble = std::from_chars(text, end, read.doubleValue);
  if (asDouble.ptr != end) return refused(Verdict::Invalid, 0);
  if (asDouble.ec == std::errc::result_out_of_range) {
    // The power of ten of the first significant digit; the digits are not all zeros, or the
    // number would be in range.
    const std::int64_t magnitude =
        (shape.integerDigits > 0 ? shape.integerDigits - 1 : -(shape.fractionZeros + 1)) +
        shape.exponent;
    if (magnitude >= 0) return refused(Verdict::TooBig, 0);
    read.doubleValue = shape.minus ? -0.0 : 0.0;
  } else if (asDouble.ec != std::errc()) {
    return refused(Verdict::Invalid, 0);
  }
  read.verdict = Verdict::Double;
  return read;
}

}  // namespace yljson
