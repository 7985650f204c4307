// Chooses, for each question, the tables and views of a large structure that fit the budget.
#include "schema_scope.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "yl/yl_json.h"

namespace qorchat {
namespace {

constexpr std::size_t kInvalid = std::numeric_limits<std::size_t>::max();
constexpr const char* kObjectKeys[3] = {"tables", "views", "mviews"};
constexpr std::string_view kObjectKinds[3] = {"TABLE", "VIEW", "MATERIALIZED VIEW"};

// The library's digest, measured rather than written. Every rule here mirrors how it turns an
// object into a line: a description it rejects leaves an empty line, a key it does not read
// costs nothing.
bool hasType(const YLJsonValue* value, YLJsonValueType type) {
  return value != nullptr && value->obtainType() == type;
}

bool absentOr(const YLJsonValue* value, YLJsonValueType type) {
  return value == nullptr || value->obtainType() == type;
}

std::size_t quotedBytes(const YLJsonValue* value) {
  return value->obtainStringView().size() + 2;  // `name`
}

// "`a`, `b`"; kInvalid when an item is not a string.
std::size_t columnListBytes(const YLJsonValue* columns) {
  std::size_t bytes = 0;
  const std::size_t count = columns->obtainArraySize();
  for (std::size_t i = 0; i < count; ++i) {
    const YLJsonValue* column = columns->obtainArrayItem(i);
    if (!hasType(column, YLJsonValueType::String)) return kInvalid;
    bytes += (i > 0 ? 2 : 0) + quotedBytes(column);
  }
  return bytes;
}

// ", FOREIGN KEY(...) REFERENCES `s`.`t`(...)"; 0 for a key without columns.
std::size_t foreignKeyBytes(const YLJsonValue* key) {
  if (!hasType(key, YLJsonValueType::Object)) return kInvalid;
  const YLJsonValue* fields = key->obtainKeyValue("fields");
  const YLJsonValue* refSchema = key->obtainKeyValue("ref_schema");
  const YLJsonValue* refTable = key->obtainKeyValue("ref_table");
  const YLJsonValue* refFields = key->obtainKeyValue("ref_fields");
  if (!hasType(fields, YLJsonValueType::Array) || !absentOr(refSchema, YLJsonValueType::String) ||
      !hasType(refTable, YLJsonValueType::String) || !hasType(refFields, YLJsonValueType::Array)) {
    return kInvalid;
  }
  if (fields->obtainArraySize() == 0 || refFields->obtainArraySize() == 0) return 0;
  const std::size_t from = columnListBytes(fields);
  if (from == kInvalid) return kInvalid;
  const std::size_t to = columnListBytes(refFields);
  if (to == kInvalid) return kInvalid;
  return std::string_view(", FOREIGN KEY(").size() + from +
         std::string_view(") REFERENCES ").size() + (refSchema ? quotedBytes(refSchema) + 1 : 0) +
         quotedBytes(refTable) + 1 + to + 1;
}

// "CREATE TABLE `schema`.`name` (`col` type, ..., PRIMARY KEY(...), FOREIGN KEY(...) ...)";
// kInvalid for a description the library rejects.
std::size_t statementBytes(std::string_view schemaName, std::string_view kind,
                           const YLJsonValue* description) {
  if (!hasType(description, YLJsonValueType::Object)) return kInvalid;
  const YLJsonValue* name = description->obtainKeyValue("name");
  const YLJsonValue* fields = description->obtainKeyValue("fields");
  const YLJsonValue* primaryKeys = description->obtainKeyValue("pkeys");
  const YLJsonValue* foreignKeys = description->obtainKeyValue("fkeys");
  if (!hasType(name, YLJsonValueType::String) || !hasType(fields, YLJsonValueType::Array) ||
      !absentOr(primaryKeys, YLJsonValueType::Array) ||
      !absentOr(foreignKeys, YLJsonValueType::Array)) {
    return kInvalid;
  }
  std::size_t bytes = std::string_view("CREATE ").size() + kind.size() + 1 +
                      (schemaName.empty() ? 0 : schemaName.size() + 3) + quotedBytes(name) + 2;
  const std::size_t fieldCount = fields->obtainArraySize();
  if (fieldCount == 0) return bytes + 1;
  for (std::size_t i = 0; i < fieldCount; ++i) {
    const YLJsonValue* field = fields->obtainArrayItem(i);
    if (!hasType(field, YLJsonValueType::Object)) return kInvalid;
    const YLJsonValue* fieldName = field->obtainKeyValue("name");
    const YLJsonValue* fieldType = field->obtainKeyValue("type");
    if (!hasType(fieldName, YLJsonValueType::String) ||
        !hasType(fieldType, YLJsonValueType::String)) {
      return kInvalid;
    }
    bytes += (i > 0 ? 2 : 0) + quotedBytes(fieldName) + 1 + fieldType->obtainStringView().size();
  }
  if (primaryKeys != nullptr && primaryKeys->obtainArraySize() > 0) {
    const std::size_t keys = columnListBytes(primaryKeys);
    if (keys == kInvalid) return kInvalid;
    bytes += std::string_view(", PRIMARY KEY(").size() + keys + 1;
  }
  if (foreignKeys != nullptr) {
    const std::size_t count = foreignKeys->obtainArraySize();
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t key = foreignKeyBytes(foreignKeys->obtainArrayItem(i));
      if (key == kInvalid) return kInvalid;
      bytes += key;
    }
  }
  return bytes + 1;
}

std::string_view stringOf(const YLJsonValue* value) {
  return value != nullptr ? value->obtainStringView() : std::string_view();
}

// Names match without regard to the case of ASCII letters, as SQL identifiers do.
char lowerAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return lowerAscii(x) == lowerAscii(y);
         });
}

// FNV-1a over the lower-case bytes.
class NameHash {
 public:
  NameHash& add(std::string_view text) {
    for (const char c : text)
      add(c);
    return *this;
  }
  NameHash& add(char c) {
    value_ ^= static_cast<unsigned char>(lowerAscii(c));
    value_ *= 1099511628211ULL;
    return *this;
  }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 14695981039346656037ULL;
};

// Identifiers as people and models write them: letters, digits, _ and $, and any byte of a
// UTF-8 sequence, so that names in other scripts match too.
bool isIdentifierByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '_' || byte == '$' || byte >= 0x80;
}

struct Token {
  std::string_view text;
  std::size_t start;  // where it begins in the scanned text, its opening quote included
  std::size_t end;    // just past it, its closing quote included
};

void scanBare(std::string_view text, std::size_t offset, std::vector<Token>& tokens) {
  std::size_t at = 0;
  while (at < text.size()) {
    if (!isIdentifierByte(text[at])) {
      ++at;
      continue;
    }
    const std::size_t start = at;
    while (at < text.size() && isIdentifierByte(text[at]))
      ++at;
    tokens.push_back(Token{text.substr(start, at - start), offset + start, offset + at});
  }
}

// Bare identifiers, and quoted ones ("..." or `...`) whole, blanks and all. The words inside a
// quoted text that is not one identifier are tokens too: a quote may be prose, not a name.
std::vector<Token> scan(std::string_view text) {
  std::vector<Token> tokens;
  std::size_t at = 0;
  while (at < text.size()) {
    const char c = text[at];
    if (isIdentifierByte(c)) {
      const std::size_t start = at;
      while (at < text.size() && isIdentifierByte(text[at]))
        ++at;
      tokens.push_back(Token{text.substr(start, at - start), start, at});
      continue;
    }
    if (c != '"' && c != '`') {
      ++at;
      continue;
    }
    const std::size_t close = text.find(c, at + 1);
    if (close == std::string_view::npos) {
      ++at;
      continue;
    }
    const std::string_view content = text.substr(at + 1, close - at - 1);
    if (!content.empty()) {
      tokens.push_back(Token{content, at, close + 1});
      if (!std::all_of(content.begin(), content.end(), isIdentifierByte))
        scanBare(content, at + 1, tokens);
    }
    at = close + 1;
  }
  return tokens;
}

std::string withSeparators(std::size_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3)
    digits.insert(at - 3, ",");
  return digits;
}

// Copies a member as it was given: "key":value,
void appendMember(std::string& out, const YLJsonValue* object, std::string_view key) {
  const YLJsonValue* value = object->obtainKeyValue(key);
  if (value == nullptr) return;
  out += '"';
  out += key;
  out += "\":";
  value->appendJsonString(out);
  out += ',';
}

}  // namespace

SchemaScope::SchemaScope(std::string structure, std::size_t budget)
    : whole_(std::move(structure)), budget_(budget) {
  if (budget_ > 0) index();
}

SchemaScope::~SchemaScope() = default;

void SchemaScope::index() {
  document_ = std::make_unique<YLJson>(std::string_view(whole_));
  if (!document_->getIsValidJson() || document_->obtainType() != YLJsonValueType::Array) {
    document_.reset();
    return;
  }

  // The walk of the library's digest: catalogs and schemas it passes over cost nothing, objects
  // it rejects an empty line.
  std::size_t total = 0;
  const std::size_t catalogCount = document_->obtainArraySize();
  for (std::size_t c = 0; c < catalogCount; ++c)
    total += indexCatalog(document_->obtainArrayItem(c));
  wholeDigestBytes_ = total;
  fitsWhole_ = total <= budget_;
  if (fitsWhole_) {
    catalogs_.clear();
    schemas_.clear();
    objects_.clear();
    document_.reset();
    return;
  }
  // The document holds its own copy; the text is not needed again.
  std::string().swap(whole_);
  indexNames();
  linkForeignKeys();
}

std::size_t SchemaScope::indexCatalog(const YLJsonValue* catalog) {
  if (!hasType(catalog, YLJsonValueType::Object)) return 0;
  const YLJsonValue* catalogName = catalog->obtainKeyValue("catalog_name");
  const YLJsonValue* schemas = catalog->obtainKeyValue("schemas");
  if (!absentOr(catalog->obtainKeyValue("catalog_id"), YLJsonValueType::String) ||
      !absentOr(catalogName, YLJsonValueType::String) ||
      !hasType(schemas, YLJsonValueType::Array)) {
    return 0;
  }
  const auto catalogIndex = static_cast<std::uint32_t>(catalogs_.size());
  const std::size_t lineBytes =
      catalogName != nullptr
          ? std::string_view("USE CATALOG ``\n").size() + stringOf(catalogName).size()
          : 0;
  catalogs_.push_back(Catalog{catalog, stringOf(catalogName), lineBytes});
  std::size_t total = lineBytes;
  const std::size_t schemaCount = schemas->obtainArraySize();
  for (std::size_t s = 0; s < schemaCount; ++s)
    total += indexSchema(schemas->obtainArrayItem(s), catalogIndex);
  return total;
}

std::size_t SchemaScope::indexSchema(const YLJsonValue* schema, std::uint32_t catalogIndex) {
  if (!hasType(schema, YLJsonValueType::Object)) return 0;
  const YLJsonValue* schemaName = schema->obtainKeyValue("schema_name");
  bool valid = absentOr(schema->obtainKeyValue("schema_id"), YLJsonValueType::String) &&
               absentOr(schemaName, YLJsonValueType::String);
  const YLJsonValue* lists[3];
  for (int kind = 0; kind < 3; ++kind) {
    lists[kind] = schema->obtainKeyValue(kObjectKeys[kind]);
    valid = valid && absentOr(lists[kind], YLJsonValueType::Array);
  }
  if (!valid) return 0;
  const auto schemaIndex = static_cast<std::uint32_t>(schemas_.size());
  schemas_.push_back(Schema{catalogIndex, schema, stringOf(schemaName)});

  std::size_t total = 0;
  for (std::uint32_t kind = 0; kind < 3; ++kind) {
    if (lists[kind] == nullptr) continue;
    const std::size_t count = lists[kind]->obtainArraySize();
    for (std::size_t o = 0; o < count; ++o) {
      const YLJsonValue* object = lists[kind]->obtainArrayItem(o);
      const std::size_t bytes = statementBytes(schemas_.back().name, kObjectKinds[kind], object);
      // A rejected description leaves its empty line, and nothing that could be listed.
      if (bytes == kInvalid) {
        total += 1;
        continue;
      }
      objects_.push_back(
          Object{schemaIndex, kind, object, stringOf(object->obtainKeyValue("name")), bytes + 1});
      total += bytes + 1;
    }
  }
  return total;
}

void SchemaScope::indexNames() {
  smallestLine_ = kInvalid;
  byName_.reserve(objects_.size());
  byQualifiedName_.reserve(2 * objects_.size());
  for (std::uint32_t id = 0; id < objects_.size(); ++id) {
    const Object& object = objects_[id];
    smallestLine_ = std::min(smallestLine_, object.lineBytes);
    byName_.push_back(NameKey{NameHash().add(object.name).value(), id});
    const Schema& schema = schemas_[object.schema];
    for (const std::string_view qualifier : {schema.name, catalogs_[schema.catalog].name}) {
      if (qualifier.empty()) continue;
      byQualifiedName_.push_back(
          NameKey{NameHash().add(qualifier).add('.').add(object.name).value(), id});
    }
  }
  std::sort(byName_.begin(), byName_.end());
  std::sort(byQualifiedName_.begin(), byQualifiedName_.end());
}

void SchemaScope::linkForeignKeys() {
  // Objects by catalog, schema and name, without case: SQLite matches a reference that way.
  const auto placeHash = [](std::uint32_t catalog, std::string_view schema, std::string_view name) {
    return NameHash()
        .add(std::to_string(catalog))
        .add('\x1f')
        .add(schema)
        .add('\x1f')
        .add(name)
        .value();
  };
  std::vector<NameKey> byPlace;
  byPlace.reserve(objects_.size());
  for (std::uint32_t id = 0; id < objects_.size(); ++id) {
    const Schema& schema = schemas_[objects_[id].schema];
    byPlace.push_back(NameKey{placeHash(schema.catalog, schema.name, objects_[id].name), id});
  }
  std::sort(byPlace.begin(), byPlace.end());

  std::vector<std::pair<std::uint32_t, std::uint32_t>> links;
  for (std::uint32_t id = 0; id < objects_.size(); ++id) {
    const YLJsonValue* keys = objects_[id].json->obtainKeyValue("fkeys");
    if (keys == nullptr) continue;
    const Schema& schema = schemas_[objects_[id].schema];
    const std::size_t count = keys->obtainArraySize();
    for (std::size_t k = 0; k < count; ++k) {
      const YLJsonValue* key = keys->obtainArrayItem(k);
      const YLJsonValue* refSchemaValue = key->obtainKeyValue("ref_schema");
      const std::string_view refSchema =
          refSchemaValue != nullptr ? stringOf(refSchemaValue) : schema.name;
      const std::string_view refTable = stringOf(key->obtainKeyValue("ref_table"));
      const std::uint64_t hash = placeHash(schema.catalog, refSchema, refTable);
      for (auto at = std::lower_bound(byPlace.begin(), byPlace.end(), NameKey{hash, 0});
           at != byPlace.end() && at->hash == hash; ++at) {
        const Object& target = objects_[at->object];
        if (schemas_[target.schema].catalog != schema.catalog ||
            !sameName(schemas_[target.schema].name, refSchema) ||
            !sameName(target.name, refTable)) {
          continue;
        }
        if (at->object != id) links.emplace_back(id, at->object);
        break;
      }
    }
  }

  neighbourStart_.assign(objects_.size() + 1, 0);
  for (const auto& [from, to] : links) {
    ++neighbourStart_[from + 1];
    ++neighbourStart_[to + 1];
  }
  for (std::size_t i = 1; i < neighbourStart_.size(); ++i)
    neighbourStart_[i] += neighbourStart_[i - 1];
  neighbours_.resize(neighbourStart_.back());
  std::vector<std::uint32_t> fill(neighbourStart_.begin(), neighbourStart_.end() - 1);
  for (const auto& [from, to] : links) {
    neighbours_[fill[from]++] = to;
    neighbours_[fill[to]++] = from;
  }
}

template <typename Found>
void SchemaScope::findNames(std::string_view text, Found&& found) const {
  const std::vector<Token> tokens = scan(text);
  std::vector<char> qualified(tokens.size(), 0);
  // Reports the objects under the hash that pass the check; true when there was one.
  const auto report = [&](const std::vector<NameKey>& keys, std::uint64_t hash, auto&& check) {
    bool any = false;
    for (auto at = std::lower_bound(keys.begin(), keys.end(), NameKey{hash, 0});
         at != keys.end() && at->hash == hash; ++at) {
      if (!check(objects_[at->object])) continue;
      found(at->object);
      any = true;
    }
    return any;
  };
  for (std::size_t t = 0; t < tokens.size(); ++t) {
    const Token& token = tokens[t];
    // schema.name (or catalog.name): the part after the dot starts right behind it.
    if (token.end < text.size() && text[token.end] == '.') {
      for (std::size_t next = t + 1; next < tokens.size() && tokens[next].start <= token.end + 1;
           ++next) {
        if (tokens[next].start != token.end + 1) continue;
        const std::string_view name = tokens[next].text;
        const std::uint64_t hash = NameHash().add(token.text).add('.').add(name).value();
        const bool matched = report(byQualifiedName_, hash, [&](const Object& object) {
          const Schema& schema = schemas_[object.schema];
          const std::string_view catalog = catalogs_[schema.catalog].name;
          return sameName(object.name, name) &&
                 ((!schema.name.empty() && sameName(schema.name, token.text)) ||
                  (!catalog.empty() && sameName(catalog, token.text)));
        });
        if (matched) qualified[t] = qualified[next] = 1;
        break;
      }
    }
    if (qualified[t]) continue;
    report(byName_, NameHash().add(token.text).value(),
           [&](const Object& object) { return sameName(object.name, token.text); });
  }
}

SchemaScope::Choice SchemaScope::choose(const std::vector<std::string_view>& texts) const {
  Choice choice;
  choice.total = objects_.size();
  if (fitsWhole_) {
    choice.structure = whole_;
    choice.listed = objects_.size();
    choice.digestBytes = wholeDigestBytes_;
    return choice;
  }

  // The named objects in the order they were named, then their neighbours, breadth first.
  std::vector<char> queued(objects_.size(), 0);
  std::vector<std::uint32_t> order;
  for (const std::string_view text : texts) {
    findNames(text, [&](std::uint32_t id) {
      if (queued[id] != 0) return;
      queued[id] = 1;
      order.push_back(id);
    });
  }
  for (std::size_t head = 0; head < order.size(); ++head) {
    const std::uint32_t id = order[head];
    for (std::uint32_t n = neighbourStart_[id]; n < neighbourStart_[id + 1]; ++n) {
      const std::uint32_t neighbour = neighbours_[n];
      if (queued[neighbour] != 0) continue;
      queued[neighbour] = 1;
      order.push_back(neighbour);
    }
  }

  // What fits, in that order, then the rest in theirs. An object too large for what is left
  // makes way for smaller ones after it.
  std::vector<char> chosen(objects_.size(), 0);
  std::vector<char> catalogListed(catalogs_.size(), 0);
  std::size_t used = 0;
  const auto offer = [&](std::uint32_t id) {
    const Object& object = objects_[id];
    const std::uint32_t catalog = schemas_[object.schema].catalog;
    const std::size_t cost =
        object.lineBytes + (catalogListed[catalog] != 0 ? 0 : catalogs_[catalog].lineBytes);
    if (cost > budget_ - used) return;
    chosen[id] = 1;
    catalogListed[catalog] = 1;
    used += cost;
    ++choice.listed;
  };
  for (const std::uint32_t id : order) {
    if (budget_ - used < smallestLine_) break;
    offer(id);
  }
  for (std::uint32_t id = 0; id < objects_.size(); ++id) {
    if (budget_ - used < smallestLine_) break;
    if (queued[id] == 0) offer(id);
  }
  choice.digestBytes = used;
  choice.structure = reducedStructure(chosen);
  return choice;
}

std::string SchemaScope::reducedStructure(const std::vector<char>& chosen) const {
  // The chosen objects in their catalogs and schemas, each copied as it was given; catalogs and
  // schemas left without objects are left out.
  constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
  std::string out = "[";
  std::uint32_t catalog = kNone;
  std::uint32_t schema = kNone;
  std::uint32_t kind = kNone;
  for (std::uint32_t id = 0; id < objects_.size(); ++id) {
    if (chosen[id] == 0) continue;
    const Object& object = objects_[id];
    if (object.schema != schema) {
      if (schema != kNone) out += "]}";
      const Schema& next = schemas_[object.schema];
      if (next.catalog != catalog) {
        if (catalog != kNone) out += "]},";
        catalog = next.catalog;
        out += '{';
        appendMember(out, catalogs_[catalog].json, "catalog_id");
        appendMember(out, catalogs_[catalog].json, "catalog_name");
        out += "\"schemas\":[";
      } else {
        out += ',';
      }
      schema = object.schema;
      kind = kNone;
      out += '{';
      appendMember(out, next.json, "schema_id");
      appendMember(out, next.json, "schema_name");
    }
    if (object.kind != kind) {
      if (kind != kNone) out += "],";
      kind = object.kind;
      out += '"';
      out += kObjectKeys[kind];
      out += "\":[";
    } else {
      out += ',';
    }
    object.json->appendJsonString(out);
  }
  if (schema != kNone) out += "]}]}";
  out += ']';
  return out;
}

std::string SchemaScope::instruction(std::size_t listed, std::size_t total) {
  return "The database has " + withSeparators(total) + " tables and views; the structure lists " +
         withSeparators(listed) + " of them. Ask for others by name.";
}

}  // namespace qorchat
