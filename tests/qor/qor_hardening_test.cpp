// Faults a review found outside the network: the Anthropic listing's 32-bit date key, and the one
// verdict that a structure text must get wherever it is parsed.

#include <string>
#include <vector>

#include "qor_database_digest.h"
#include "qor_test_util.h"

namespace {

using namespace qortest;

using AnthropicListing = AdapterTest<QORAssistantType::ANTHROPIC>;

TEST_F(AnthropicListing, DatesPast2038WrapToNegativeKeysAndSortLast) {
  // The 64-bit timestamp is cut down to its low 32 bits as a signed integer: 2039-01-01 is
  // 2177452800 and becomes -2117514496, 2100-01-01 is 4102444800 and becomes -192522496. Newest
  // first by that key puts the one model from before 2038 in front, then 2100, then 2039.
  server.answer("GET", "/v1/models", {.body = R"~({"data":[
      {"type":"model","id":"from-2039","created_at":"2039-01-01T00:00:00Z"},
      {"type":"model","id":"from-2024","created_at":"2024-01-01T00:00:00Z"},
      {"type":"model","id":"from-2100","created_at":"2100-01-01T00:00:00Z"}]})~"});
  AssistantPtr assistant = make();
  EXPECT_EQ(assistant->obtainAvailableModels(),
            Listing({"from-2024", "from-2100", "from-2039"}, ""));
}

// A structure of one table whose name ends in `tail`, padded so that the text's length takes each
// of 16 values: where the wide scanners start inside the name differs between them.
std::string paddedStructure(std::size_t pad, const std::string& tail) {
  return R"~([{"schemas":[{"tables":[{"name":")~" + std::string(20 + pad, 't') + tail +
         R"~(","fields":[]}]}]}])~";
}

bool setStructure(IQORAssistant& assistant, const std::string& text) {
  bool stored = false;
  assistant.updateProperties(
      [&](IQORProperties* p) { stored = p->setValue("db_structure", YLVariant(text)); });
  return stored;
}

// The digest of the text parsed from a copy, and in place from buffers without and with room.
std::vector<std::string> digestsInEveryBuffer(const std::string& text) {
  std::string exact = text, roomy;
  roomy.reserve(text.size() + 64);
  roomy = text;
  return {QORDatabaseDigest::buildText(text), QORDatabaseDigest::buildText(std::move(exact)),
          QORDatabaseDigest::buildText(std::move(roomy))};
}

TEST(StructureText, OneVerdictWhereverTheTextIsParsed) {
  // A raw control byte is not JSON: setValue refuses the text, and the digest of a memory that
  // holds it anyway (a host's store may) is empty, for every length and every buffer. Escaped, the
  // same byte is accepted by both.
  AssistantPtr assistant = create(QORAssistantType::OPENAI_v1, offlineHost());
  AssertionRecorder assertions;
  for (std::size_t pad = 0; pad < 16; ++pad) {
    SCOPED_TRACE(pad);
    const std::string raw = paddedStructure(pad, "\x1f");
    EXPECT_FALSE(setStructure(*assistant, raw));
    EXPECT_EQ(assertions.take().size(), kAssertionsReported ? 1u : 0u) << "refused and reported";
    EXPECT_EQ(digestsInEveryBuffer(raw), std::vector<std::string>(3, ""));

    const std::string escaped = paddedStructure(pad, "\\u001f");
    EXPECT_TRUE(setStructure(*assistant, escaped));
    const std::string statement = "CREATE TABLE `" + std::string(20 + pad, 't') + "\x1f` ()\n";
    EXPECT_EQ(digestsInEveryBuffer(escaped), std::vector<std::string>(3, statement));
  }
}

}  // namespace
