#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "yl/yl_json.h"
#include "yl/yl_variant.h"

namespace {

using namespace std::string_literals;

// The text parsed from a copy, in place with and without room after it, and space-padded to an
// exact heap size not 15 mod 16 (read bytewise), as compact JSON; "<invalid>" (null root) if bad.
std::string reformat(std::string_view text) {
  std::string exact(text), roomy;
  roomy.reserve(text.size() + 64);
  roomy = text;
  std::size_t paddedSize = std::max<std::size_t>(text.size(), 16);
  if (paddedSize % 16 == 15) ++paddedSize;
  std::string padded(paddedSize, ' ');
  padded.replace(0, text.size(), text);
  const YLJson copied(text), inExact(std::move(exact)), inRoomy(std::move(roomy)),
      inPadded(std::move(padded));
  EXPECT_TRUE(exact.empty() && roomy.empty()) << "parsing in place takes the string";
  const std::string written = copied.obtainJsonString();
  for (const YLJson* inPlace : {&inExact, &inRoomy, &inPadded}) {
    EXPECT_EQ(inPlace->getIsValidJson(), copied.getIsValidJson()) << text;
    EXPECT_EQ(inPlace->obtainJsonString(), written) << text;
  }
  if (copied.getIsValidJson()) return written;
  EXPECT_EQ(written, "null") << text;
  return "<invalid>";
}

TEST(Json, TextsParseAndWriteBackCompactlyInAnyLocale) {
  // Strings are bytes (NUL, bad UTF-8, lone low surrogates); only ", \ and controls are escaped.
  // Members keep their order, a duplicate key's last value the first's place. Integers are exact.
  const std::pair<const char*, const char*> cases[] = {
      {"[\"a\\u0000b\",\"\xff\xfe(\xc3\",\"\xc3\xa9\\u00e9\",\"\\ud83d\\ude00\\/\",\"\\udc00\"]",
       "[\"a\\u0000b\",\"\xff\xfe(\xc3\",\"\xc3\xa9\xc3\xa9\",\"\xf0\x9f\x98\x80/"
       "\",\"\xed\xb0\x80\"]"},
      {R"( [{ "b" : 1 , "a" : [ true , false , null ] , "c" : {} },{"a":1,"b":2,"a":{"x":[3]}}] )",
       R"([{"b":1,"a":[true,false,null],"c":{}},{"a":{"x":[3]},"b":2}])"},
      {" \t\r\n[1] \n", "[1]"},
      {"[-9223372036854775808,9223372036854775807,18446744073709551615,-0,0]",
       "[-9223372036854775808,9223372036854775807,18446744073709551615,0,0]"},
      {"[18446744073709551616,0.1,1.0,1E2,1e300,2.5e-5,-0.0,0.30000000000000004,1234.25]",
       "[18446744073709551616.0,0.1,1.0,100.0,1e+300,2.5e-05,-0.0,0.30000000000000004,1234.25]"},
      {"[1.7976931348623157e308,5e-324]", "[1.7976931348623157e+308,5e-324]"},
      // Where integers change their encoding, and one past the 64-bit range.
      {"[2147483647,2147483648,-2147483648,-2147483649,-9223372036854775809]",
       "[2147483647,2147483648,-2147483648,-2147483649,-9223372036854775808.0]"},
      // \u escapes at the edges of the one-, two-, three- and four-byte forms, either case.
      {R"(["\u007f\u0080\u07FF\u0800\uFFFF\uD800\uDC00\udbff\udfff\udc00\udc00"])",
       "[\"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"
       "\xed\xb0\x80\xed\xb0\x80\"]"},
      // Duplicates: a container replaced by a scalar, and in the wide form (a key with a NUL).
      {R"({"a":[1,{"x":2}],"b":0,"a":2})", R"({"a":2,"b":0})"},
      {R"({"a\u0000":1,"b":2,"a\u0000":{"c":3}})", R"({"a\u0000":{"c":3},"b":2})"}};
  const char* same[] = {"\"q\\\"b\\\\n\\nr\\rt\\tb\\bf\\f\\u0001\\u001f\x7f\x80 \\u0000\"",
                        "{\"k\\u0000\xff\":1}", "\"x\"", "null"};
  const std::string invalid[] = {
      R"(["\ud800"])"s, R"(["\ud800x"])"s, R"(["\ud800\u0041"])"s, R"(["\ud83d\ud83d"])"s, ""s,
      " \n"s, "{"s, "[1,]"s, R"({"a":1,})"s, "1 2"s, "[] x"s, "nul"s, "NaN"s, "-Infinity"s, "'a'"s,
      R"({"a"})"s, "\"abc"s, "\"a\x01\""s, "01"s, "/* c */ 1"s, "[1] // c"s, "[1]\0"s, "\0[1]"s,
      "[\"\0\"]"s, "\"\\x\""s, "{1:2}"s,
      // Structure: containers left unfinished or joined wrong.
      "[1 2]"s, R"({"a" 1})"s, R"({"a":1 "b":2})"s, "[1}"s, R"({"a":1])"s, "["s, "[[]"s,
      R"({"a":})"s, "]"s, "}"s, ","s, R"({"a":1,"b"})"s, "[true false]"s, "[tru]"s, "[nulll]"s,
      "[,1]"s, R"({,"a":1})"s, R"({"a",1})"s, "[1,,2]"s, R"({"a"::1})"s,
      // Numbers outside the grammar.
      "-"s, "1."s, ".5"s, "1e"s, "1e+"s, "-e1"s, "+1"s, "0x10"s, "1.e5"s, "--1"s, "00"s, "01.5"s,
      "1ee5"s, "[1.5.5]"s, "[-]"s, "[1e-]"s, "Infinity"s, "[-0x]"s};
  YLJson built;
  built.addArrayItem()->setDoubleValue(std::numeric_limits<double>::quiet_NaN());
  built.addArrayItem()->setDoubleValue(-std::numeric_limits<double>::infinity());
  built.addArrayItem()->setIntValue(std::numeric_limits<std::int64_t>::min());
  // obtainIntValue truncates, saturates, and gives 0 for NaN and what is not a number.
  YLJson ints(R"([3.9,-3.9,1e10,-1e10,5000000000,-5000000000,18446744073709551615,"5",true,0])");
  const std::int32_t saturated[] = {3,         -3,        INT32_MAX, INT32_MIN, INT32_MAX,
                                    INT32_MIN, INT32_MAX, 0,         0,         0};
  ASSERT_EQ(ints.obtainArraySize(), std::size(saturated));
  ints.obtainArrayItem(9)->setDoubleValue(std::numeric_limits<double>::quiet_NaN());

  const std::string previous = std::setlocale(LC_ALL, nullptr);
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (std::setlocale(LC_ALL, locale) == nullptr) GTEST_SKIP() << locale << " is not installed";
    for (const auto& [text, expected] : cases)
      EXPECT_EQ(reformat(text), expected) << locale << ": " << text;
    for (const char* text : same)
      EXPECT_EQ(reformat(text), text) << locale << ": " << text;
    for (const std::string& text : invalid)
      EXPECT_EQ(reformat(text), "<invalid>") << locale << ": " << text;
    EXPECT_EQ(built.obtainJsonString(), "[null,null,-9223372036854775808]") << locale;
    for (std::size_t i = 0; i < std::size(saturated); ++i)
      EXPECT_EQ(ints.obtainArrayItem(i)->obtainIntValue(), saturated[i]) << locale << i;
  }
  std::setlocale(LC_ALL, previous.c_str());
  EXPECT_EQ(ints.obtainArrayItem(4)->obtainDoubleValue(), 5e9);
  EXPECT_EQ(reformat(std::string_view("[12]345").substr(0, 4)), "[12]") << "no NUL after the text";
}

TEST(Json, StringsReadBackAtEveryLengthAndRawControlBytesAreRefused) {
  // Every byte at every offset of early 16-byte blocks of a string or key, and after longer runs,
  // reads back once written and writes the same; a raw control byte is never JSON, anywhere.
  const auto roundTrip = [](const std::string& key, const std::string& value) {
    YLJson document;
    document.addKeyValue(key)->setStringValue(value);
    const std::string written = document.obtainJsonString();
    const YLJson read(written);
    return read.obtainMemberCount() == 1 && read.obtainMemberKey(0) == key &&
           read.obtainMemberValue(0)->obtainStringView() == value && reformat(written) == written;
  };
  std::vector<std::size_t> offsets(48);
  std::iota(offsets.begin(), offsets.end(), 0);
  offsets.insert(offsets.end(), {64, 100});
  for (const std::size_t before : offsets) {
    const std::string a(before, 'a');
    if (before < 48) {
      // Texts of every length past a few 16-byte blocks, with long white space and strings that
      // end the text; runs of every length between escapes, so that bytes moved back over what an
      // escape saved move 16 at a time, in part and one by one, in keys too.
      const std::size_t n = before;
      const std::string b(n % 17, 'b'), c(47 - n, 'c'), k(n, 'k');
      const std::string number = std::to_string(n);
      EXPECT_EQ(
          reformat("[" + std::string(n, ' ') + "\"" + a + "\\n\\u00e9" + b + "\"," + number + "]"),
          "[\"" + a + "\\n\xc3\xa9" + b + "\"," + number + "]");
      EXPECT_EQ(reformat("{\"" + k + "\":\"" + a + "\"}" + std::string(n % 5, '\n')),
                "{\"" + k + "\":\"" + a + "\"}");
      const std::string nested = "[" + std::string(n, '[') + std::string(n, ']') + "]";
      EXPECT_EQ(reformat(nested), nested);
      EXPECT_EQ(reformat("\"" + a), "<invalid>");

      const std::string text =
          a + "\\/" + b + "\\u00e9" + c + "\\ud83d\\ude00" + b + "\\\\" + a + "\\u0041";
      const std::string decoded =
          a + "/" + b + "\xc3\xa9" + c + "\xf0\x9f\x98\x80" + b + "\\\\" + a + "A";
      EXPECT_EQ(reformat("[\"" + text + "\",\"" + a + "\"]"),
                "[\"" + decoded + "\",\"" + a + "\"]");
      EXPECT_EQ(reformat("{\"" + text + "\":\"" + c + "\"}"),
                "{\"" + decoded + "\":\"" + c + "\"}");
      // Escapes unknown, or cut short by the end of the text or by a quote.
      for (const char* tail : {"\\", "\\u", "\\u00", "\\ud83d", "\\ud83d\\", "\\ud83d\\u",
                               "\\ud83d\\ude", "\\x", "\\u00g0"}) {
        EXPECT_EQ(reformat("\"" + a + tail), "<invalid>") << n << tail;
        EXPECT_EQ(reformat("[\"" + a + tail + "\"]"), "<invalid>") << n << tail;
      }
    }
    for (int byte = 0; byte < 256; ++byte) {
      const std::string raw(1, static_cast<char>(byte));
      const std::string bytes = a + raw + std::string(before % 19, '\xc3');
      ASSERT_TRUE(roundTrip(bytes, bytes + bytes)) << byte << " after " << before;
      if (byte == 0 || byte >= 0x20) continue;
      EXPECT_EQ(reformat("[\"" + a + raw + "\"]"), "<invalid>") << byte << " after " << before;
      EXPECT_EQ(reformat("{\"" + a + raw + "\":1}"), "<invalid>") << byte << " after " << before;
      if (before == 0 && byte != '\t' && byte != '\n' && byte != '\r') {
        EXPECT_EQ(reformat("[1," + raw + "2]"), "<invalid>") << byte;
        EXPECT_EQ(reformat("[1]" + raw), "<invalid>") << byte;
      }
    }
  }
  // Long strings where escapes are rare, dense, and at the ends of the string.
  std::string mixed;
  for (int i = 0; i < 5000; ++i)
    mixed += static_cast<char>(i % 7 == 0 ? (i * 37) % 256 : 'a' + i % 26);
  for (const std::string& bytes :
       {mixed, std::string(300, '\n'), "\"" + std::string(70000, 'x') + "\\"})
    EXPECT_TRUE(roundTrip("k", bytes)) << bytes.size();
  std::string named = R"({"a":"b"})";
  EXPECT_EQ(YLJson(named).obtainJsonString(), R"({"a":"b"})");
  EXPECT_EQ(named, R"({"a":"b"})") << "a string that is still needed is copied, never taken";
  EXPECT_TRUE(YLJson("[true]").obtainArrayItem(0)->obtainBoolValue());
  EXPECT_FALSE(YLJson(static_cast<const char*>(nullptr)).getIsValidJson());
}

TEST(Json, MembersKeepTheirOrderAndAreFoundExactlyAndTypesChange) {
  YLJson document;
  document.addKeyValue("z")->setIntValue(1);
  YLJsonValue* middle = document.addKeyValue("m");
  middle->addArrayItem()->setStringValue("x");
  document.addKeyValue("a")->setBoolValue(true);
  EXPECT_EQ(document.obtainJsonString(), R"({"z":1,"m":["x"],"a":true})");
  EXPECT_EQ(document.addKeyValue("m"), middle) << "an existing key is reset to Null in place";
  EXPECT_EQ(document.obtainJsonString(), R"({"z":1,"m":null,"a":true})");

  // Parsed keys with a NUL, prefixes and longer keys (also past the text's end) are told apart.
  YLJson parsed("{\"ab\":1,\"a\\u0000b\":2,\"\":3,\"abc\":4}");
  const std::string keys[] = {"ab"s, "a\0b"s, ""s, "abc"s};
  for (std::size_t i = 0; i < std::size(keys); ++i)
    EXPECT_TRUE(parsed.obtainMemberKey(i) == keys[i] &&
                parsed.obtainKeyValue(keys[i]) == parsed.obtainMemberValue(i))
        << i;
  for (const std::string& key : {"a"s, "ab\0"s, "\0"s, "abcd"s, "abc" + std::string(1000, 'x')})
    EXPECT_EQ(parsed.obtainKeyValue(key), nullptr) << key;

  // Keys around the largest size kept before a key, plain and escaped, scanned and indexed (+20).
  for (const int extra : {0, 20}) {
    std::vector<std::string> keys;
    std::string json;
    for (const std::size_t size : {1, 253, 254, 255, 256, 1000})
      for (const bool escaped : {false, true}) {
        const std::size_t n = keys.size();
        const std::string& key = keys.emplace_back(size, static_cast<char>('a' + n % 9));
        const std::string raw =
            escaped ? "\\u006" + std::to_string(1 + n % 9) + key.substr(1) : key;
        json += ",\"" + raw + "\":" + std::to_string(n);
      }
    for (int i = 0; i < extra; ++i) {
      json += ",\"x" + std::to_string(i) + "\":" + std::to_string(keys.size());
      keys.push_back("x" + std::to_string(i));
    }
    YLJson sized("{" + json.substr(1) + "}");
    std::vector<YLJsonMember> members(keys.size());
    ASSERT_EQ(sized.obtainMemberCount(), keys.size());
    ASSERT_EQ(sized.obtainMembers(members.data(), members.size()), keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i)
      EXPECT_TRUE(members[i].key == keys[i] && sized.obtainMemberKey(i) == keys[i] &&
                  sized.obtainKeyValue(keys[i]) == sized.obtainMemberValue(i) &&
                  sized.obtainMemberValue(i)->obtainIntValue() == static_cast<int>(i) &&
                  !sized.obtainKeyValue(keys[i].substr(1)) && !sized.obtainKeyValue(keys[i] + "#"))
          << keys[i].size();
  }

  // Duplicates in an object with a hash index, enough to shrink it below the size it was made for.
  std::string text = "{", expected = "{";
  for (int i = 0; i < 70; ++i) {
    text += "\"k" + std::to_string(i % 20) + "\":" + std::to_string(i) + ",";
    if (i < 20)
      expected += "\"k" + std::to_string(i) + "\":" + std::to_string(i + (i < 10 ? 60 : 40)) + ",";
  }
  YLJson merged(text + "\"last\":true}");
  EXPECT_EQ(merged.obtainJsonString(), expected + "\"last\":true}");
  for (std::size_t i = 0; i < merged.obtainMemberCount(); ++i)
    EXPECT_EQ(merged.obtainKeyValue(merged.obtainMemberKey(i)), merged.obtainMemberValue(i)) << i;
  EXPECT_EQ(merged.obtainKeyValue("k20"), nullptr);

  // A taken string reads as one copied and empties its source; the document keeps a large one.
  for (const std::size_t size : {std::size_t{3}, std::size_t{20000}}) {
    std::string large(size, 'x');
    large.front() = '"';
    YLJson taken, copied;
    copied.addArrayItem()->setStringValue(large);
    YLJsonValue* item = taken.addArrayItem();
    item->takeStringValue(std::move(large));
    EXPECT_TRUE(large.empty());
    EXPECT_EQ(taken.obtainJsonString(), copied.obtainJsonString()) << size;
    const std::string_view view = item->obtainStringView();
    taken.addArrayItem()->takeStringValue(std::string(size, 'y'));
    item->setIntValue(1);
    EXPECT_EQ(view.substr(1), std::string(size - 1, 'x'));
  }

  YLJson changing(R"({"a":[1,2],"s":"text"})");
  YLJsonValue *a = changing.obtainKeyValue("a"), *s = changing.obtainKeyValue("s");
  EXPECT_TRUE(!a->obtainKeyValue("x") && !a->obtainArrayItem(2) && a->obtainStringValue().empty() &&
              a->obtainMemberKey(0).empty() && s->obtainArraySize() == 0);
  a->addKeyValue("k")->setStringValue("v");
  s->addArrayItem()->setBoolValue(false);
  EXPECT_EQ(changing.obtainJsonString(), R"({"a":{"k":"v"},"s":[false]})");
  a->setArrayType();
  s->setDoubleValue(0.25);
  EXPECT_EQ(changing.obtainJsonString(), R"({"a":[],"s":0.25})");
  s->setStringValue("abc");
  s->setStringValue(s->obtainStringView().substr(1));  // a view of the old text
  EXPECT_EQ(s->obtainStringView(), "bc");
}

// Every member and item, walked in batches, as the calls per index find them.
void expectBulkWalksMatch(const YLJsonValue* object, const YLJsonValue* array) {
  std::vector<YLJsonMember> members(7);
  std::size_t seen = 0;
  while (const std::size_t got = object->obtainMembers(members.data(), members.size(), seen)) {
    for (std::size_t i = 0; i < got; ++i, ++seen)
      ASSERT_TRUE(members[i].key == object->obtainMemberKey(seen) &&
                  members[i].value == object->obtainMemberValue(seen))
          << seen;
  }
  EXPECT_EQ(seen, object->obtainMemberCount());
  std::vector<YLJsonValue*> items(7);
  seen = 0;
  while (const std::size_t got = array->obtainArrayItems(items.data(), items.size(), seen)) {
    for (std::size_t i = 0; i < got; ++i, ++seen)
      ASSERT_EQ(items[i], array->obtainArrayItem(seen)) << seen;
  }
  EXPECT_EQ(seen, array->obtainArraySize());
  // Neither walk finds anything in a container of the other kind.
  EXPECT_EQ(array->obtainMembers(members.data(), members.size()) +
                object->obtainArrayItems(items.data(), items.size()),
            0u);
}

TEST(Json, ValuesNeverMoveContainersGrowLargeAndWalksInBulkFindThem) {
  constexpr int kCount = 70000;  // more than a value counts in itself
  YLJson document;
  document.addKeyValue("first")->setStringValue(std::string(kCount, 'L'));
  document.addKeyValue("list")->addArrayItem()->setIntValue(7);
  YLJson small(R"({"first":"f","list":[7]})");
  // Parsed runs long enough to go on into further segments, and the tables of built containers.
  std::string members = "{", items = "\"list\":[0";
  for (int i = 1; i < 600; ++i) {
    members += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    items += "," + std::to_string(i);
  }
  YLJson runs(members + items + "]}");
  for (YLJson* grown : {&document, &small}) {
    YLJsonValue* member = grown->obtainMemberValue(0);
    YLJsonValue* list = grown->obtainKeyValue("list");
    YLJsonValue* head = list->obtainArrayItem(0);
    for (int i = 0; i < kCount; ++i) {
      grown->addKeyValue("k" + std::to_string(i))->setIntValue(i);
      list->addArrayItem()->setIntValue(i);
    }
    EXPECT_TRUE(grown->obtainKeyValue("first") == member && grown->obtainMemberValue(0) == member &&
                list->obtainArrayItem(0) == head);
    EXPECT_EQ(grown->obtainKeyValue("k69999")->obtainIntValue(), 69999);
  }

  // As large when parsed, and an indexed parsed object grows the same way.
  const std::string written = document.obtainJsonString();
  YLJson parsed(written);
  EXPECT_EQ(parsed.obtainJsonString(), written);
  EXPECT_EQ(parsed.obtainKeyValue("k69999")->obtainIntValue(), 69999);
  for (YLJson* walked : {&document, &small, &parsed, &runs})
    expectBulkWalksMatch(walked, walked->obtainKeyValue("list"));
  YLJsonValue* first = parsed.obtainMemberValue(0);
  for (int i = 0; i < 1000; ++i)
    parsed.addKeyValue("n" + std::to_string(i));
  EXPECT_EQ(parsed.obtainKeyValue("first"), first);
}

TEST(Json, NestingLimit) {
  for (std::size_t depth :
       {YLJson::kMaxDepth, YLJson::kMaxDepth + 1, std::size_t{100000}, std::size_t{1000000}}) {
    const std::string text = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(reformat(text), depth <= YLJson::kMaxDepth ? text : "<invalid>") << depth;
  }
  std::string objects;
  for (std::size_t depth = 1; depth <= YLJson::kMaxDepth + 1; ++depth) {
    objects += "{\"a\":";
    if (depth < YLJson::kMaxDepth) continue;
    const std::string text = objects + "1" + std::string(depth, '}');
    EXPECT_EQ(reformat(text), depth <= YLJson::kMaxDepth ? text : "<invalid>") << depth;
  }

  // A built document may be deeper than parsing accepts; writing it must not recurse.
  YLJson deep;
  YLJsonValue* level = &deep;
  for (int i = 0; i < 100000; ++i)
    level = level->addArrayItem();
  EXPECT_EQ(deep.obtainJsonString(), std::string(100000, '[') + "null" + std::string(100000, ']'));
}

TEST(Json, NumbersReadAsStrtodReadsTheirText) {
  // Zeros, the double range's ends, halfway cases, long mantissas and exponents read as strtod
  // reads them; beyond the largest double is refused, below the smallest is a signed zero.
  const std::string thousandDigits = "1" + std::string(999, '0');
  std::istringstream numbers(
      "0e+300 0.000e308 -0e-300 0e309 0E400 -0.0e99999999999999999999 0e-400 1e308 "
      "1.7976931348623157e308 1.7976931348623158e308 1.7976931348623159e308 "
      "-1.7976931348623159e308 1e309 0.1e310 1e99999999999999999999 2.2250738585072014e-308 "
      "2.2250738585072011e-308 4.9406564584124654e-324 2.4703282292062328e-324 "
      "2.4703282292062327e-324 1e-400 -1e-400 1e-99999999999999999999 9007199254740993.0 "
      "9007199254740993e0 0.30000000000000004 123456789012345678901234567890 "
      "-123456789012345678901234567890e-10 18446744073709551616 -9223372036854775809 "
      "1.00000000000000011102230246251565404236316680908203125 "
      "1.00000000000000011102230246251565404236316680908203124 " +
      thousandDigits + " " + thousandDigits + "e-999 " + thousandDigits + ".5e-1000 0." +
      std::string(400, '0') + "1e400 0." + thousandDigits + " 1" + std::string(400, '0') + "e-390");
  for (std::string number; numbers >> number;) {
    const double expected = std::strtod(number.c_str(), nullptr);
    const std::string written = reformat("[" + number + "]");
    if (!std::isfinite(expected)) {
      EXPECT_EQ(written, "<invalid>") << number;
      continue;
    }
    const YLJson document(number);
    ASSERT_TRUE(document.getIsValidJson()) << number;
    const double read = document.obtainDoubleValue();
    EXPECT_EQ(read, expected) << number;
    EXPECT_EQ(std::signbit(read), std::signbit(expected)) << number;
    EXPECT_EQ(YLJson(written).obtainArrayItem(0)->obtainDoubleValue(), read) << number;
  }
  EXPECT_EQ(reformat("[0e+300,0.000e308,-0e-300,-1e-400,0e309]"), "[0.0,0.0,-0.0,-0.0,0.0]");
}

TEST(Json, FromVariant) {
  const YLVariantMap inner{{"b", YLVariant(2.0)}, {"a", YLVariant(YLVariantList{})}};
  const YLVariantList list{YLVariant(1), YLVariant("s"), YLVariant(), YLVariant(YLVariantMap{})};
  const YLVariantMap root{
      {"list", YLVariant(list)}, {"inner", YLVariant(inner)}, {"Z", YLVariant(-0.5)}};
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant(root))->obtainJsonString(),
            R"({"Z":-0.5,"inner":{"a":[],"b":2.0},"list":[1,"s",null,{}]})");
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant())->obtainJsonString(), "null");
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant("x\n"))->obtainJsonString(), "\"x\\n\"");
}

}  // namespace
