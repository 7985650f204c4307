#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "yl/yl_json.h"
#include "yl/yl_variant.h"

namespace {

using namespace std::string_literals;

// Parses the text and gives it back as compact JSON; "<invalid>" when the parse fails.
std::string reformat(std::string_view text) {
  YLJson document(text);
  return document.getIsValidJson() ? document.obtainJsonString() : "<invalid>";
}

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(Json, StringsAreBytesBothWays) {
  // Embedded NUL from an escape, invalid UTF-8 and valid UTF-8 survive the parse byte for byte.
  YLJson document("[\"a\\u0000b\", \"\xff\xfe(\xc3\", \"\xc3\xa9\\u00e9\", \"\\ud83d\\ude00\\/\"]");
  ASSERT_TRUE(document.getIsValidJson());
  EXPECT_EQ(document.obtainArrayItem(0)->obtainStringView(), "a\0b"s);
  EXPECT_EQ(document.obtainArrayItem(1)->obtainStringValue(), "\xff\xfe(\xc3");
  EXPECT_EQ(document.obtainArrayItem(2)->obtainStringView(), "\xc3\xa9\xc3\xa9");
  EXPECT_EQ(document.obtainArrayItem(3)->obtainStringView(), "\xf0\x9f\x98\x80/");
  EXPECT_EQ(document.obtainJsonString(),
            "[\"a\\u0000b\",\"\xff\xfe(\xc3\",\"\xc3\xa9\xc3\xa9\",\"\xf0\x9f\x98\x80/\"]");

  // Only the quote, the backslash and control bytes are escaped; DEL and high bytes are not.
  YLJson built;
  built.setStringValue("q\"b\\n\nr\rt\tb\bf\f\x01\x1f\x7f\x80 "s + '\0');
  EXPECT_EQ(built.obtainJsonString(),
            "\"q\\\"b\\\\n\\nr\\rt\\tb\\bf\\f\\u0001\\u001f\x7f\x80 \\u0000\"");
  EXPECT_EQ(YLJson(built.obtainJsonString()).obtainStringView(), built.obtainStringView());

  // Keys are strings too.
  EXPECT_EQ(reformat("{\"k\\u0000\xff\":1}"), "{\"k\\u0000\xff\":1}");
}

TEST(Json, SurrogateEscapes) {
  // A high surrogate must be followed by its low partner; a lone low surrogate is kept as its
  // three-byte form, like any other byte sequence that is not valid UTF-8.
  EXPECT_EQ(reformat(R"(["\ud800"])"), "<invalid>");
  EXPECT_EQ(reformat(R"(["\ud800x"])"), "<invalid>");
  EXPECT_EQ(reformat(R"(["\ud800\u0041"])"), "<invalid>");
  EXPECT_EQ(reformat(R"(["\udc00"])"), "[\"\xed\xb0\x80\"]");
}

TEST(Json, ObjectsKeepInsertionOrder) {
  EXPECT_EQ(reformat(R"( { "b" : 1 , "a" : [ true , false , null ] , "c" : {} } )"),
            R"({"b":1,"a":[true,false,null],"c":{}})");

  YLJson document;
  document.addKeyValue("z")->setIntValue(1);
  YLJsonValue* middle = document.addKeyValue("m");
  middle->addArrayItem()->setStringValue("x");
  document.addKeyValue("a")->setBoolValue(true);
  ASSERT_EQ(document.obtainMemberCount(), 3u);
  EXPECT_EQ(document.obtainMemberKey(1), "m");
  EXPECT_EQ(document.obtainMemberValue(2), document.obtainKeyValue("a"));
  EXPECT_EQ(document.obtainJsonString(), R"({"z":1,"m":["x"],"a":true})");

  // Adding a key that is there resets its member to Null in place.
  EXPECT_EQ(document.addKeyValue("m"), middle);
  EXPECT_EQ(document.obtainJsonString(), R"({"z":1,"m":null,"a":true})");
}

TEST(Json, DuplicateKeysLastValueWinsFirstPositionKept) {
  EXPECT_EQ(reformat(R"({"a":1,"b":2,"a":{"x":[3]}})"), R"({"a":{"x":[3]},"b":2})");
  EXPECT_EQ(reformat(R"({"":1,"":2})"), R"({"":2})");

  // The same with enough members for the hash index.
  std::string text = "{";
  std::string expected = "{";
  for (int i = 0; i < 40; ++i) {
    text += "\"key" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    expected += "\"key" + std::to_string(i) + "\":" + (i == 5 ? "-1" : std::to_string(i));
    expected += i == 39 ? "}" : ",";
  }
  text += R"("key5":-1})";
  YLJson document(text);
  EXPECT_EQ(document.obtainJsonString(), expected);
  EXPECT_EQ(document.obtainMemberCount(), 40u);
  EXPECT_EQ(document.obtainKeyValue("key5")->obtainIntValue(), -1);
  EXPECT_EQ(document.obtainKeyValue("key39")->obtainIntValue(), 39);
  EXPECT_EQ(document.obtainKeyValue("key40"), nullptr);
}

TEST(Json, ValuesNeverMove) {
  YLJson document;
  YLJsonValue* first = document.addKeyValue("first");
  first->setStringValue("kept");
  YLJsonValue* list = document.addKeyValue("list");
  YLJsonValue* item = list->addArrayItem();
  item->setIntValue(7);
  for (int i = 0; i < 10000; ++i) {
    document.addKeyValue("k" + std::to_string(i))->setIntValue(i);
    list->addArrayItem();
  }
  EXPECT_EQ(first->obtainStringView(), "kept");
  EXPECT_EQ(document.obtainKeyValue("first"), first);
  EXPECT_EQ(item->obtainIntValue(), 7);
  EXPECT_EQ(list->obtainArrayItem(0), item);
  EXPECT_EQ(list->obtainArraySize(), 10001u);
  for (int i = 0; i < 10000; i += 997) {
    EXPECT_EQ(document.obtainKeyValue("k" + std::to_string(i))->obtainIntValue(), i);
  }

  // Parsed containers grow the same way, small ones and indexed ones.
  YLJson parsed(R"({"small":{"a":1},"big":{"0":0,"1":1,"2":2,"3":3,"4":4,"5":5,"6":6,"7":7,)"
                R"("8":8,"9":9,"10":10,"11":11,"12":12,"13":13,"14":14,"15":15,"16":16}})");
  for (const char* name : {"small", "big"}) {
    YLJsonValue* object = parsed.obtainKeyValue(name);
    YLJsonValue* member = object->obtainMemberValue(0);
    const std::string key(object->obtainMemberKey(0));
    for (int i = 0; i < 1000; ++i)
      object->addKeyValue("n" + std::to_string(i))->setIntValue(i);
    EXPECT_EQ(object->obtainKeyValue(key), member) << name;
    EXPECT_EQ(object->obtainMemberValue(0), member) << name;
    EXPECT_EQ(object->obtainKeyValue("n999")->obtainIntValue(), 999) << name;
    EXPECT_EQ(object->obtainMemberCount(), 1000u + (object->obtainKeyValue("16") ? 17u : 1u));
  }
}

TEST(Json, NestingLimit) {
  EXPECT_TRUE(YLJson(nested(YLJson::kMaxDepth)).getIsValidJson());
  for (std::size_t depth : {YLJson::kMaxDepth + 1, std::size_t{100000}, std::size_t{1000000}}) {
    YLJson document(nested(depth));
    EXPECT_FALSE(document.getIsValidJson()) << depth;
    EXPECT_EQ(document.obtainType(), YLJsonValueType::Null) << depth;
  }
  std::string objects;
  for (std::size_t i = 0; i <= YLJson::kMaxDepth; ++i)
    objects += "{\"a\":";
  objects += '1';
  objects.append(YLJson::kMaxDepth + 1, '}');
  EXPECT_FALSE(YLJson(objects).getIsValidJson());

  // A built document may be deeper than parsing accepts; writing it must not recurse.
  YLJson deep;
  YLJsonValue* level = &deep;
  for (int i = 0; i < 100000; ++i)
    level = level->addArrayItem();
  EXPECT_EQ(deep.obtainJsonString(), std::string(100000, '[') + "null" + std::string(100000, ']'));
}

TEST(Json, IntegersExactDoublesShortest) {
  EXPECT_EQ(reformat("[-9223372036854775808,9223372036854775807,18446744073709551615,-0,0]"),
            "[-9223372036854775808,9223372036854775807,18446744073709551615,0,0]");
  EXPECT_EQ(reformat("[18446744073709551616,0.1,1.0,1E2,1e300,2.5e-5,-0.0,0.30000000000000004]"),
            "[18446744073709551616.0,0.1,1.0,100.0,1e+300,2.5e-05,-0.0,0.30000000000000004]");
  EXPECT_EQ(reformat("[1.7976931348623157e308,5e-324]"), "[1.7976931348623157e+308,5e-324]");

  YLJson document;
  document.addArrayItem()->setDoubleValue(std::numeric_limits<double>::quiet_NaN());
  document.addArrayItem()->setDoubleValue(-std::numeric_limits<double>::infinity());
  document.addArrayItem()->setDoubleValue(123456789.0);
  document.addArrayItem()->setIntValue(std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(document.obtainJsonString(), "[null,null,123456789.0,-9223372036854775808]");
}

TEST(Json, IntValueTruncatesAndSaturates) {
  YLJson document(
      R"([3.9,-3.9,1e10,-1e10,5000000000,-5000000000,18446744073709551615,2147483647,"5",true])");
  const std::int32_t expected[] = {3,         -3,        INT32_MAX, INT32_MIN, INT32_MAX,
                                   INT32_MIN, INT32_MAX, INT32_MAX, 0,         0};
  ASSERT_EQ(document.obtainArraySize(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(document.obtainArrayItem(i)->obtainIntValue(), expected[i]) << i;
  }
  YLJson nan;
  nan.setDoubleValue(std::nan(""));
  EXPECT_EQ(nan.obtainIntValue(), 0);
  EXPECT_DOUBLE_EQ(document.obtainArrayItem(4)->obtainDoubleValue(), 5e9);
}

TEST(Json, NumbersIgnoreTheCLocale) {
  const std::string previous = std::setlocale(LC_ALL, nullptr);
  if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
    GTEST_SKIP() << "the de_DE.UTF-8 locale is not installed";
  }
  const std::string written = reformat("[0.5,1e-7,1234.25]");
  const double parsed = YLJson("2.75").obtainDoubleValue();
  std::setlocale(LC_ALL, previous.c_str());
  EXPECT_EQ(written, "[0.5,1e-07,1234.25]");
  EXPECT_EQ(parsed, 2.75);
}

TEST(Json, InvalidTextsGiveNullRoot) {
  for (std::string text :
       {""s,      " \n"s,       "{"s,       "[1,]"s,      R"({"a":1,})"s, "1 2"s,
        "[] x"s,  "nul"s,       "NaN"s,     "-Infinity"s, "'a'"s,         R"({"a"})"s,
        "\"abc"s, "\"a\x01\""s, "01"s,      "/* c */ 1"s, "[1] // c"s,    "[1]\0"s,
        "\0[1]"s, "[\"\0\"]"s,  "\"\\x\""s, "{1:2}"s}) {
    YLJson document(text);
    EXPECT_FALSE(document.getIsValidJson()) << text;
    EXPECT_EQ(document.obtainType(), YLJsonValueType::Null) << text;
    EXPECT_EQ(document.obtainJsonString(), "null") << text;
  }
  EXPECT_EQ(reformat(" \t\r\n[1] \n"), "[1]");
  EXPECT_EQ(reformat("\"x\""), "\"x\"");
  EXPECT_EQ(reformat("null"), "null");
  // Parsing does not rely on a NUL after the text.
  const std::string padded = "[12]345";
  EXPECT_EQ(reformat(std::string_view(padded).substr(0, 4)), "[12]");
}

TEST(Json, ChangingTypes) {
  YLJson document(R"({"a":[1,2],"s":"text"})");
  YLJsonValue* a = document.obtainKeyValue("a");
  EXPECT_EQ(a->obtainKeyValue("x"), nullptr);
  EXPECT_EQ(a->obtainArrayItem(2), nullptr);
  EXPECT_EQ(a->obtainStringValue(), "");
  EXPECT_EQ(a->obtainMemberKey(0), "");
  EXPECT_EQ(document.obtainKeyValue("s")->obtainArraySize(), 0u);

  a->addKeyValue("k")->setStringValue("v");  // the array becomes an object
  document.obtainKeyValue("s")->addArrayItem()->setBoolValue(false);
  EXPECT_EQ(document.obtainJsonString(), R"({"a":{"k":"v"},"s":[false]})");
  a->setArrayType();
  document.obtainKeyValue("s")->setDoubleValue(0.25);
  EXPECT_EQ(document.obtainJsonString(), R"({"a":[],"s":0.25})");
  // The new text may be a view of the old one.
  YLJsonValue* s = document.obtainKeyValue("s");
  s->setStringValue("abc");
  s->setStringValue(s->obtainStringView().substr(1));
  EXPECT_EQ(s->obtainStringView(), "bc");
}

TEST(Json, ParsingInPlaceTakesTheStringAndGivesTheSameDocument) {
  // Texts of every length up to past a few 16-byte blocks, with long white space runs, escapes
  // that move string bytes and strings that end at the text's end: once in a buffer without room
  // after the text, once with room, once copied. All three must agree.
  std::vector<std::string> texts = {"\"\"", "[]", " {} ", "\"" + std::string(40, 'x') + "\""};
  for (std::size_t length = 0; length < 48; ++length) {
    texts.push_back("[" + std::string(length, ' ') + "\"" + std::string(length, 'a') +
                    "\\n\\u00e9" + std::string(length % 17, 'b') + "\"," + std::to_string(length) +
                    "]");
    texts.push_back("{\"" + std::string(length, 'k') + "\":\"" + std::string(length, 'v') + "\"}" +
                    std::string(length % 5, '\n'));
    texts.push_back("[" + std::string(length, '[') + std::string(length, ']') + "]");
    texts.push_back("\"" + std::string(length, 'z'));  // unterminated
  }
  for (const std::string& text : texts) {
    const std::string expected = reformat(text);
    std::string exact(text.data(), text.size());
    YLJson inExact(std::move(exact));
    EXPECT_TRUE(exact.empty());
    std::string roomy;
    roomy.reserve(text.size() + 64);
    roomy = text;
    YLJson inRoomy(std::move(roomy));
    for (const YLJson* document : {&inExact, &inRoomy}) {
      EXPECT_EQ(document->getIsValidJson() ? document->obtainJsonString() : "<invalid>", expected)
          << text;
    }
  }

  // A string that is still needed is copied, never taken; a C string is parsed too.
  const std::string kept = R"({"a":"b"})";
  std::string named = kept;
  const YLJson fromNamed(named);
  EXPECT_EQ(named, kept);
  EXPECT_EQ(fromNamed.obtainKeyValue("a")->obtainStringView(), "b");
  const char* characters = "[true]";
  EXPECT_TRUE(YLJson(characters).obtainArrayItem(0)->obtainBoolValue());
  EXPECT_FALSE(YLJson(static_cast<const char*>(nullptr)).getIsValidJson());
}

TEST(Json, KeysAreFoundExactly) {
  // Parsed keys are kept where they were decoded; a key that holds a NUL, a prefix of a key, a
  // longer key and one that runs past the end of the text must not be confused.
  YLJson document("{\"ab\":1,\"a\\u0000b\":2,\"\":3,\"abc\":4}");
  EXPECT_EQ(document.obtainKeyValue("ab")->obtainIntValue(), 1);
  EXPECT_EQ(document.obtainKeyValue("a\0b"s)->obtainIntValue(), 2);
  EXPECT_EQ(document.obtainKeyValue("")->obtainIntValue(), 3);
  EXPECT_EQ(document.obtainKeyValue("abc")->obtainIntValue(), 4);
  EXPECT_EQ(document.obtainKeyValue("a"), nullptr);
  EXPECT_EQ(document.obtainKeyValue("ab\0"s), nullptr);
  EXPECT_EQ(document.obtainMemberKey(1), "a\0b"s);

  YLJson plain(R"({"name":1,"type":2})");
  EXPECT_EQ(plain.obtainKeyValue("nam"), nullptr);
  EXPECT_EQ(plain.obtainKeyValue("type" + std::string(1000, 'x')), nullptr);
  EXPECT_EQ(plain.obtainKeyValue("type\0"s), nullptr);
  EXPECT_EQ(plain.obtainKeyValue("\0"s), nullptr);
  EXPECT_EQ(plain.obtainMemberKey(1), "type");

  // Many duplicates shrink an indexed object below the size its index was made for.
  std::string text = "{";
  for (int i = 0; i < 70; ++i)
    text += "\"k" + std::to_string(i % 20) + "\":" + std::to_string(i) + ",";
  text += "\"last\":true}";
  YLJson merged(text);
  ASSERT_EQ(merged.obtainMemberCount(), 21u);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(merged.obtainMemberKey(i), "k" + std::to_string(i));
    EXPECT_EQ(merged.obtainKeyValue("k" + std::to_string(i))->obtainIntValue(),
              (i < 10 ? 60 : 40) + i);
  }
  EXPECT_TRUE(merged.obtainKeyValue("last")->obtainBoolValue());
}

TEST(Json, LargeContainersAndStrings) {
  // Counts and sizes beyond what a value keeps in itself, parsed and built.
  constexpr int kCount = 70000;
  std::string items = "[";
  std::string members = "{";
  for (int i = 0; i < kCount; ++i) {
    items += std::to_string(i) + ",";
    members += "\"m" + std::to_string(i) + "\":" + std::to_string(i) + ",";
  }
  const std::string longText(kCount, 'L');
  items += "\"" + longText + "\"]";
  members += "\"m\\u0000\":-1}";

  YLJson array(std::string{items});
  ASSERT_EQ(array.obtainArraySize(), kCount + 1u);
  YLJsonValue* first = array.obtainArrayItem(0);
  for (int i = 0; i < kCount; i += 251)
    EXPECT_EQ(array.obtainArrayItem(i)->obtainIntValue(), i);
  EXPECT_EQ(array.obtainArrayItem(kCount)->obtainStringView(), longText);
  EXPECT_EQ(array.obtainJsonString(), items);
  array.addArrayItem()->setStringValue(longText + "!");
  EXPECT_EQ(array.obtainArrayItem(0), first);
  EXPECT_EQ(array.obtainArrayItem(kCount + 1)->obtainStringView(), longText + "!");

  YLJson object(members);
  ASSERT_EQ(object.obtainMemberCount(), kCount + 1u);
  EXPECT_EQ(object.obtainKeyValue("m0")->obtainIntValue(), 0);
  EXPECT_EQ(object.obtainKeyValue("m69999")->obtainIntValue(), 69999);
  EXPECT_EQ(object.obtainKeyValue("m\0"s)->obtainIntValue(), -1);
  EXPECT_EQ(object.obtainKeyValue("m70000"), nullptr);
  EXPECT_EQ(object.obtainJsonString(), members);
}

TEST(Json, ParsedDocumentStaysCompact) {
  // Strings and keys stay in the parsed text; beyond it a value takes 16 bytes, a member's key 4
  // more, and an object 4: a budget that copied strings or wider entries would break.
  std::string text = "[";
  for (int t = 0; t < 3000; ++t) {
    text += R"({"name":"table_)" + std::to_string(t) + R"(","fields":[{"name":"id","type":"int"},)";
    text += R"({"name":"created_at","type":"timestamp"}],"keys":["id"]},)";
  }
  text.back() = ']';
  text.shrink_to_fit();
  const std::size_t size = text.size();
  const std::size_t values = 3000 * 11 + 1;
  const std::size_t objects = 3000 * 3;
  const std::size_t members = 3000 * 7;
  YLJson document(std::move(text));
  ASSERT_TRUE(document.getIsValidJson());
  EXPECT_LT(document.obtainStorageSize(),
            size + 16 * values + 4 * (members + objects) + (size + 16 * values) / 16 + 32768);

  // Every value still finds its document.
  YLJsonValue* field = document.obtainArrayItem(2999)->obtainKeyValue("fields");
  EXPECT_TRUE(field->obtainArrayItem(1)->getIsValidJson());
  EXPECT_EQ(field->obtainArrayItem(1)->obtainKeyValue("type")->obtainStringView(), "timestamp");
  EXPECT_TRUE(field->addArrayItem()->getIsValidJson());
}

TEST(Json, FromVariant) {
  YLVariantMap inner{{"b", YLVariant(2.0)}, {"a", YLVariant(YLVariantList{})}};
  YLVariantMap root{{"list", YLVariant(YLVariantList{YLVariant(1), YLVariant("s"), YLVariant(),
                                                     YLVariant(YLVariantMap{})})},
                    {"inner", YLVariant(inner)},
                    {"Z", YLVariant(-0.5)}};
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant(root))->obtainJsonString(),
            R"({"Z":-0.5,"inner":{"a":[],"b":2.0},"list":[1,"s",null,{}]})");
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant())->obtainJsonString(), "null");
  EXPECT_EQ(ylCreateYLJsonFromYLVariant(YLVariant("x\n"))->obtainJsonString(), "\"x\\n\"");
}

}  // namespace
