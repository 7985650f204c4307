// The digest's fast paths: identifiers copied by their length, and each object's members read in
// one pass, which must find what a lookup of each key finds.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "qor_database_digest.h"
#include "qor_test_util.h"

namespace {

std::string digestOf(const std::string& structure) {
  return QORDatabaseDigest::buildText(structure);
}

// The pattern with every '@' replaced by id and every '#' by other.
std::string fill(std::string_view pattern, const std::string& id, const std::string& other) {
  std::string text;
  for (const char c : pattern) {
    if (c == '@') {
      text += id;
    } else if (c == '#') {
      text += other;
    } else {
      text += c;
    }
  }
  return text;
}

TEST(DigestSpeed, IdentifiersOfEveryLengthArriveWhole) {
  const char* const structure =
      R"~([{"catalog_name":"@","schemas":[{"schema_name":"#","tables":[{"name":"@",)~"
      R"~("fields":[{"name":"#","type":"@"},{"name":"@","type":"#"}],"pkeys":["@"],)~"
      R"~("fkeys":[{"fields":["#"],"ref_schema":"@","ref_table":"#","ref_fields":["@"]},)~"
      R"~({"fields":["@"],"ref_table":"@","ref_fields":["#"]}]}]}]}])~";
  const char* const digest =
      "USE CATALOG `@`\nCREATE TABLE `#`.`@` (`#` @, `@` #, PRIMARY KEY(`@`), FOREIGN KEY(`#`) "
      "REFERENCES `@`.`#`(`@`), FOREIGN KEY(`@`) REFERENCES `@`(`#`))\n";
  // Each length copies another way; distinct bytes show a byte misplaced or left out.
  for (std::size_t length = 1; length <= 40; ++length) {
    std::string id;
    for (std::size_t i = 0; i < length; ++i)
      id += static_cast<char>('a' + i % 26);
    const std::string other = "Z" + id.substr(1);
    EXPECT_EQ(digestOf(fill(structure, id, other)), fill(digest, id, other)) << "length " << length;
  }
}

TEST(DigestSpeed, TheLastOfDuplicateKeysDecidesAtEveryLevel) {
  qortest::AssertionRecorder assertions;
  // Every key given twice, the first value wrong or stale: only the second shows.
  EXPECT_EQ(digestOf(R"~([{"catalog_name": 1, "schemas": {}, "catalog_name": "c",
      "schemas": [{"schema_name": "old", "tables": [{"name": "gone", "fields": []}],
        "schema_name": "s", "tables": [{"name": 2, "fields": [], "pkeys": {},
          "fields": [{"name": "a", "type": null, "type": "int", "name": "b"}],
          "pkeys": ["b"], "name": "t",
          "fkeys": [{"fields": [], "ref_table": "r", "ref_fields": ["x"], "fields": ["b"],
                     "ref_table": "q", "ref_schema": 3, "ref_schema": "p"}]}]}]}])~"),
            "USE CATALOG `c`\nCREATE TABLE `s`.`t` (`b` int, PRIMARY KEY(`b`), FOREIGN "
            "KEY(`b`) REFERENCES `p`.`q`(`x`))\n");
  EXPECT_TRUE(assertions.take().empty());

  // A right value overwritten by a wrong one rejects, as a lookup would.
  EXPECT_EQ(digestOf(R"~([{"schemas": [{"tables": [{"name": "t", "fields": [], "name": null},
      {"name": "u", "fields": [{"name": "a", "type": "int", "type": 5}]},
      {"name": "v", "fields": []}]}], "catalog_name": "c", "catalog_name": []}])~"),
            "");
  EXPECT_EQ(digestOf(R"~([{"schemas": [{"tables": [{"name": "t", "fields": [], "name": null},
      {"name": "u", "fields": [{"name": "a", "type": "int", "type": 5}]},
      {"name": "v", "fields": []}]}]}])~"),
            "\n\nCREATE TABLE `v` ()\n");
  if (qortest::kAssertionsReported) {
    EXPECT_EQ(assertions.take().size(), 3u);
  }
}

}  // namespace
