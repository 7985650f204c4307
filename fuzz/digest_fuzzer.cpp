// The database digest. For any bytes taken as a stored structure:
// - nothing crashes, and the text is the same whatever buffer the structure arrives in (a copy,
//   a buffer of its exact size, one with room after it);
// - the text is the tree's lines, catalog by catalog, as the properties define it;
// - the text is bounded: twice the structure, plus the schema name that qualifies each statement
//   (the one part of the text that the JSON does not hold once per use);
// - the heap the digest takes at its peak is a bounded multiple of the structure and the text.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "qor_database_digest.h"
#include "yl/yl.h"

namespace {

using qorfuzz::check;

void ignoreAssertion(const char*, const char*) {}

// The text by its definition: each catalog's lines, then each of its schemas' lines.
std::string textOfTree(const YLVariantList& tree) {
  std::string text;
  const auto appendLines = [&text](const YLVariant& lines) {
    if (const YLVariantList* list = lines.listPtr()) {
      for (const YLVariant& line : *list) {
        if (const std::string* line_text = line.stringPtr()) text += *line_text;
        text += '\n';
      }
    }
  };
  for (const YLVariant& catalog : tree) {
    const YLVariantMap* map = catalog.mapPtr();
    if (map == nullptr) continue;
    if (const auto lines = map->find("instructions"); lines != map->end())
      appendLines(lines->second);
    const auto schemas = map->find("schemas");
    if (schemas == map->end() || schemas->second.listPtr() == nullptr) continue;
    for (const YLVariant& schema : *schemas->second.listPtr()) {
      const YLVariantMap* schemaMap = schema.mapPtr();
      if (schemaMap == nullptr) continue;
      if (const auto lines = schemaMap->find("instructions"); lines != schemaMap->end())
        appendLines(lines->second);
    }
  }
  return text;
}

// An upper bound of what schema names add to the text: for every schema object under a catalog
// object, its name's size and the quotes and dot around it, once per item of its object lists.
std::size_t schemaNameAllowance(const std::string& structure) {
  const YLJson document(structure);
  if (!document.getIsValidJson() || document.obtainType() != YLJsonValueType::Array) return 0;
  std::size_t allowance = 0;
  for (std::size_t c = 0; c < document.obtainArraySize(); ++c) {
    const YLJsonValue* schemas = document.obtainArrayItem(c)->obtainKeyValue("schemas");
    if (schemas == nullptr) continue;
    for (std::size_t s = 0; s < schemas->obtainArraySize(); ++s) {
      const YLJsonValue* schema = schemas->obtainArrayItem(s);
      const YLJsonValue* name = schema->obtainKeyValue("schema_name");
      const std::size_t qualifier = (name != nullptr ? name->obtainStringView().size() : 0) + 3;
      for (const char* kind : {"tables", "views", "mviews"}) {
        if (const YLJsonValue* objects = schema->obtainKeyValue(kind))
          allowance += qualifier * objects->obtainArraySize();
      }
    }
  }
  return allowance;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Bad structures raise debug assertions by design; they are reports, not findings.
  ylSetAssertionHandler(&ignoreAssertion);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string structure(reinterpret_cast<const char*>(data), size);

  std::string text;
  std::size_t peak = 0;
  {
    std::string exact(structure);  // a buffer of the text's exact size
    const qorfuzz::HeapPeak heap;
    text = QORDatabaseDigest::buildText(std::move(exact));
    peak = heap.bytes();
  }
  std::string roomy;
  roomy.reserve(size + 64);
  roomy.assign(structure);
  check(QORDatabaseDigest::buildText(std::move(roomy)) == text,
        "the same text from a buffer with room after the structure");
  check(QORDatabaseDigest::buildText(structure) == text, "the same text from a copy");
  check(textOfTree(QORDatabaseDigest::buildTree(structure)) == text,
        "the text is the tree's lines");

  check(text.size() <= 2 * size + schemaNameAllowance(structure), "the text is bounded", text);
  // The parsed document (the text, 16 bytes a value, the parser's stacks and their growth) and
  // the text with its growth; a fixed part for the smallest structures.
  check(peak <= 48 * size + 2 * text.size() + 64 * 1024, "the digest's heap is bounded",
        std::to_string(peak) + " bytes at the peak for " + std::to_string(size) + " bytes");
  return 0;
}
