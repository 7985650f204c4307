// The JSON document. For any bytes:
// - parsing a copy and parsing in place, from buffers with and without room after the text, give
//   the same verdict and the same document;
// - what a valid document writes parses back to a document that writes the same text;
// - every member of an object is found again by its key;
// - a number, alone or as an item of an array of numbers, reads as std::strtod reads its text: a
//   finite value exactly (an integer by value, any other number bit for bit, the sign of a zero
//   included), and a text beyond the double range makes the document invalid.

#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "yl/yl_json.h"

namespace {

using qorfuzz::check;

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isJsonSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isJsonSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// RFC 8259's number: -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?. Sets integral when
// there is neither a fraction nor an exponent.
bool isJsonNumber(std::string_view text, bool& integral) {
  std::size_t i = 0;
  const auto at = [&](std::size_t k) { return k < text.size() ? text[k] : '\0'; };
  if (at(i) == '-') ++i;
  if (at(i) == '0') {
    ++i;
  } else if (at(i) >= '1' && at(i) <= '9') {
    while (isDigit(at(i)))
      ++i;
  } else {
    return false;
  }
  integral = true;
  if (at(i) == '.') {
    ++i;
    if (!isDigit(at(i))) return false;
    while (isDigit(at(i)))
      ++i;
    integral = false;
  }
  if (at(i) == 'e' || at(i) == 'E') {
    ++i;
    if (at(i) == '+' || at(i) == '-') ++i;
    if (!isDigit(at(i))) return false;
    while (isDigit(at(i)))
      ++i;
    integral = false;
  }
  return i == text.size();
}

// Checks one number of a valid document against strtod on its text.
void checkNumber(const YLJsonValue& value, std::string_view text) {
  bool integral = false;
  check(isJsonNumber(text, integral), "a number item has a number's text", text);
  check(value.obtainType() == YLJsonValueType::Number, "a number's text gives a number", text);
  const std::string copy(text);
  const double expected = std::strtod(copy.c_str(), nullptr);
  check(std::isfinite(expected), "a number beyond the double range is refused", text);
  const double read = value.obtainDoubleValue();
  if (integral) {
    // An integer that fits 64 bits is kept exactly; its double is the rounded one, as strtod's.
    check(read == expected, "an integer reads as strtod reads it", text);
  } else {
    check(std::memcmp(&read, &expected, sizeof read) == 0, "a number reads as strtod reads it",
          text);
  }
}

// The numbers of the text against the document: a lone number, or an array of numbers only.
void checkNumbers(std::string_view text, const YLJson& document) {
  const std::string_view body = trimmed(text);
  bool integral = false;
  if (isJsonNumber(body, integral)) {
    const std::string copy(body);
    const double expected = std::strtod(copy.c_str(), nullptr);
    check(document.getIsValidJson() == std::isfinite(expected),
          "a lone number is valid exactly when it is within the double range", body);
    if (document.getIsValidJson()) checkNumber(document, body);
    return;
  }
  if (!document.getIsValidJson() || document.obtainType() != YLJsonValueType::Array ||
      document.obtainArraySize() == 0) {
    return;
  }
  const std::size_t count = document.obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    if (document.obtainArrayItem(i)->obtainType() != YLJsonValueType::Number) return;
  }
  // A valid array of numbers only: the items are the texts between the commas.
  std::string_view items = body.substr(1, body.size() - 2);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t comma = items.find(',');
    checkNumber(*document.obtainArrayItem(i), trimmed(items.substr(0, comma)));
    items = comma == std::string_view::npos ? std::string_view() : items.substr(comma + 1);
  }
}

// Every member of every object is found by its key; walks without recursion.
void checkLookups(const YLJsonValue& root) {
  std::vector<const YLJsonValue*> work{&root};
  while (!work.empty()) {
    const YLJsonValue* value = work.back();
    work.pop_back();
    if (value->obtainType() == YLJsonValueType::Object) {
      for (std::size_t i = 0; i < value->obtainMemberCount(); ++i) {
        check(value->obtainKeyValue(value->obtainMemberKey(i)) == value->obtainMemberValue(i),
              "a member is found by its key", value->obtainMemberKey(i));
        work.push_back(value->obtainMemberValue(i));
      }
    } else if (value->obtainType() == YLJsonValueType::Array) {
      for (std::size_t i = 0; i < value->obtainArraySize(); ++i)
        work.push_back(value->obtainArrayItem(i));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::setlocale(LC_ALL, "C");  // strtod's decimal point
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  // From a copy (room for the wide loads), and in place from buffers of the text's exact size
  // (byte by byte, unless the end happens to fall on the last byte of a 16-byte block) and with
  // room after it.
  const YLJson copied(text);
  std::string exact(text), roomy;
  roomy.reserve(size + 64);
  roomy.assign(text);
  const YLJson inExact(std::move(exact)), inRoomy(std::move(roomy));
  const std::string written = copied.obtainJsonString();
  for (const YLJson* other : {&inExact, &inRoomy}) {
    check(other->getIsValidJson() == copied.getIsValidJson(),
          "the same verdict from a copy and in place");
    check(other->obtainJsonString() == written, "the same document from a copy and in place");
  }

  checkNumbers(text, copied);
  if (!copied.getIsValidJson()) {
    check(written == "null", "an invalid document is null");
    return 0;
  }
  checkLookups(copied);

  const YLJson again(written);
  check(again.getIsValidJson(), "what a document writes parses", written);
  check(again.obtainJsonString() == written, "what a document writes parses back to it", written);
  return 0;
}
