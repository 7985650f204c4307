// Chooses, for each question, the tables and views of a large structure that fit the budget.
#include "schema_scope.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <utility>

#include "qor.h"
#include "structure_text.h"
#include "text.h"
#include "word_forms.h"

namespace qorchat {
namespace {

using text::equalsIgnoringCase;
constexpr auto sameName = equalsIgnoringCase;

// The bytes of a list of lines, each with the line break the text gives it.
std::size_t linesBytes(const YLVariantList& lines) {
  std::size_t bytes = 0;
  for (const YLVariant& line : lines)
    bytes += line.stringValue().size() + 1;
  return bytes;
}

const YLVariantList* listAt(const YLVariantMap& map, const char* key) {
  const auto found = map.find(key);
  return found == map.end() ? nullptr : found->second.listPtr();
}

std::string stringAt(const YLVariantMap& map, const char* key) {
  const auto found = map.find(key);
  return found == map.end() ? std::string() : found->second.stringValue();
}

// "c3" and "3.1", the ids structureJson gives catalogs and schemas, back to their places.
std::size_t numberAfter(std::string_view text, std::size_t from) {
  std::size_t number = 0;
  for (std::size_t i = from; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
    number = number * 10 + static_cast<std::size_t>(text[i] - '0');
  return number;
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
    value_ ^= static_cast<unsigned char>(text::lowerAscii(c));
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

}  // namespace

namespace {

// The first relation of each schema, by catalog, in the order of relationPlaces; and the count.
std::vector<std::vector<std::size_t>> firstRelations(const Structure& structure,
                                                     std::size_t& count) {
  std::vector<std::vector<std::size_t>> first(structure.catalogs.size());
  count = 0;
  for (std::size_t c = 0; c < structure.catalogs.size(); ++c) {
    for (const Schema& schema : structure.catalogs[c].schemas) {
      first[c].push_back(count);
      for (const auto& kind : schema.relations)
        count += kind.size();
    }
  }
  return first;
}

}  // namespace

DigestSizes measureDigest(const Structure& structure) {
  DigestSizes sizes;
  sizes.catalogLines.assign(structure.catalogs.size(), 0);
  std::size_t relations = 0;
  const std::vector<std::vector<std::size_t>> first = firstRelations(structure, relations);
  sizes.relationLines.assign(relations, 0);

  // One schema's lines: one per object, tables, views and materialized views, in the order of
  // relationPlaces.
  const auto measureSchema = [&](std::size_t c, const YLVariantMap& schema) {
    const YLVariantList* lines = listAt(schema, "instructions");
    const std::string id = stringAt(schema, "schema_id");
    const std::size_t s = numberAfter(id, id.find('.') + 1);
    if (lines == nullptr || s >= first[c].size()) return;
    for (std::size_t k = 0; k < lines->size() && first[c][s] + k < relations; ++k) {
      const std::size_t bytes = (*lines)[k].stringValue().size() + 1;
      sizes.relationLines[first[c][s] + k] = bytes;
      sizes.total += bytes;
    }
  };

  const YLVariant tree = libraryTree(structure);
  if (tree.listPtr() == nullptr) return sizes;
  for (const YLVariant& item : *tree.listPtr()) {
    const YLVariantMap* catalog = item.mapPtr();
    if (catalog == nullptr) continue;
    const std::size_t c = numberAfter(stringAt(*catalog, "catalog_id"), 1);
    if (c >= structure.catalogs.size()) continue;
    if (const YLVariantList* lines = listAt(*catalog, "instructions")) {
      sizes.catalogLines[c] = linesBytes(*lines);
      sizes.total += sizes.catalogLines[c];
    }
    if (const YLVariantList* schemas = listAt(*catalog, "schemas")) {
      for (const YLVariant& schema : *schemas) {
        if (const YLVariantMap* map = schema.mapPtr()) measureSchema(c, *map);
      }
    }
  }
  return sizes;
}

SchemaScope::SchemaScope(const Structure& structure, std::size_t budget)
    : structure_(structure), budget_(budget), places_(relationPlaces(structure)) {
  if (budget_ == 0) return;
  sizes_ = measureDigest(structure_);
  fitsWhole_ = sizes_.total <= budget_;
  if (fitsWhole_) return;
  indexNames();
  indexWords();
  linkForeignKeys();
}

const Schema& SchemaScope::schemaOf(std::uint32_t id) const {
  return structure_.catalogs[places_[id].catalog].schemas[places_[id].schema];
}

void SchemaScope::indexNames() {
  smallestLine_ = std::numeric_limits<std::size_t>::max();
  byName_.reserve(places_.size());
  byQualifiedName_.reserve(2 * places_.size());
  for (std::uint32_t id = 0; id < places_.size(); ++id) {
    smallestLine_ = std::min(smallestLine_, sizes_.relationLines[id]);
    const std::string& name = relation(id).name;
    byName_.push_back(NameKey{NameHash().add(name).value(), id});
    for (const std::string_view qualifier :
         {std::string_view(schemaOf(id).name),
          std::string_view(structure_.catalogs[places_[id].catalog].name)}) {
      if (qualifier.empty()) continue;
      byQualifiedName_.push_back(NameKey{NameHash().add(qualifier).add('.').add(name).value(), id});
    }
  }
  std::sort(byName_.begin(), byName_.end());
  std::sort(byQualifiedName_.begin(), byQualifiedName_.end());
}

void SchemaScope::linkForeignKeys() {
  // Relations by catalog, schema and name, without case: SQLite matches a reference that way.
  const auto placeHash = [](std::size_t catalog, std::string_view schema, std::string_view name) {
    return NameHash()
        .add(std::to_string(catalog))
        .add('\x1f')
        .add(schema)
        .add('\x1f')
        .add(name)
        .value();
  };
  std::vector<NameKey> byPlace;
  byPlace.reserve(places_.size());
  for (std::uint32_t id = 0; id < places_.size(); ++id)
    byPlace.push_back(
        NameKey{placeHash(places_[id].catalog, schemaOf(id).name, relation(id).name), id});
  std::sort(byPlace.begin(), byPlace.end());

  std::vector<std::pair<std::uint32_t, std::uint32_t>> links;
  for (std::uint32_t id = 0; id < places_.size(); ++id) {
    const std::size_t catalog = places_[id].catalog;
    for (const ForeignKey& key : relation(id).foreignKeys) {
      const std::string_view refSchema = key.refSchema ? *key.refSchema : schemaOf(id).name;
      const std::uint64_t hash = placeHash(catalog, refSchema, key.refTable);
      for (auto at = std::lower_bound(byPlace.begin(), byPlace.end(), NameKey{hash, 0});
           at != byPlace.end() && at->hash == hash; ++at) {
        if (places_[at->relation].catalog != catalog ||
            !sameName(schemaOf(at->relation).name, refSchema) ||
            !sameName(relation(at->relation).name, key.refTable)) {
          continue;
        }
        if (at->relation != id) links.emplace_back(id, at->relation);
        break;
      }
    }
  }

  linkByColumnNames(links);
  std::sort(links.begin(), links.end());
  links.erase(std::unique(links.begin(), links.end()), links.end());
  neighbourStart_.assign(places_.size() + 1, 0);
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
      if (!check(at->relation)) continue;
      found(at->relation);
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
        const bool matched = report(byQualifiedName_, hash, [&](std::uint32_t id) {
          const Schema& schema = schemaOf(id);
          const std::string& catalog = structure_.catalogs[places_[id].catalog].name;
          return sameName(relation(id).name, name) &&
                 ((!schema.name.empty() && sameName(schema.name, token.text)) ||
                  (!catalog.empty() && sameName(catalog, token.text)));
        });
        if (matched) qualified[t] = qualified[next] = 1;
        break;
      }
    }
    if (qualified[t]) continue;
    // A plain word ("hosts") that happens to be a whole name is no sign that the user means that
    // table rather than another application's icinga_hosts: only a name typed as an identifier
    // (with an underscore, a digit or a qualifier) is taken as naming the table itself.
    const bool plainWord = std::all_of(token.text.begin(), token.text.end(), [](char c) {
      return std::isalpha(static_cast<unsigned char>(c)) != 0;
    });
    if (plainWord) continue;
    report(byName_, NameHash().add(token.text).value(),
           [&](std::uint32_t id) { return sameName(relation(id).name, token.text); });
  }
}

void SchemaScope::addNamed(std::string_view text, double worth, std::vector<double>& scores) const {
  findNames(text, [&](std::uint32_t id) { scores[id] += worth; });
}

SchemaScope::Choice SchemaScope::choose(const std::vector<std::string_view>& texts,
                                        const std::vector<std::uint32_t>& forced) const {
  Choice choice;
  choice.total = places_.size();
  if (fitsWhole_) {
    choice.chosen.assign(places_.size(), true);
    choice.listed = places_.size();
    choice.digestBytes = sizes_.total;
    return choice;
  }

  // The relations by score, best first; among equals, in their order.
  const std::vector<double> scores = score(texts, forced);
  std::vector<std::uint32_t> order(places_.size());
  for (std::uint32_t id = 0; id < order.size(); ++id)
    order[id] = id;
  std::stable_sort(order.begin(), order.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return scores[a] > scores[b]; });

  // What fits, in that order. A relation too large for what is left makes way for smaller ones
  // after it.
  choice.chosen.assign(places_.size(), false);
  std::vector<char> catalogListed(structure_.catalogs.size(), 0);
  std::size_t used = 0;
  const auto offer = [&](std::uint32_t id) {
    const std::size_t catalog = places_[id].catalog;
    const std::size_t cost =
        sizes_.relationLines[id] + (catalogListed[catalog] != 0 ? 0 : sizes_.catalogLines[catalog]);
    if (cost > budget_ - used) return;
    choice.chosen[id] = true;
    catalogListed[catalog] = 1;
    used += cost;
    ++choice.listed;
  };
  for (const std::uint32_t id : order) {
    if (budget_ - used < smallestLine_) break;
    offer(id);
  }
  choice.digestBytes = used;
  choice.ranking = std::move(order);
  return choice;
}

std::vector<std::uint32_t> SchemaScope::relationsNamed(std::string_view written) const {
  // The parts apart by dots outside quotes, each without its quotes; the last is the name.
  std::vector<std::string> parts(1);
  char quote = 0;
  for (const char c : text::trimmed(written)) {
    if (quote != 0 && c == quote) {
      quote = 0;
    } else if (quote == 0 && (c == '"' || c == '`')) {
      quote = c;
    } else if (quote == 0 && c == '.') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  const std::string& name = parts.back();
  const std::string qualifier = parts.size() > 1 ? parts[parts.size() - 2] : std::string();
  std::vector<std::uint32_t> found;
  const std::vector<NameKey>& keys = qualifier.empty() ? byName_ : byQualifiedName_;
  const std::uint64_t hash = qualifier.empty()
                                 ? NameHash().add(name).value()
                                 : NameHash().add(qualifier).add('.').add(name).value();
  for (auto at = std::lower_bound(keys.begin(), keys.end(), NameKey{hash, 0});
       at != keys.end() && at->hash == hash; ++at) {
    const std::uint32_t id = at->relation;
    const bool qualifierMatches =
        qualifier.empty() || sameName(schemaOf(id).name, qualifier) ||
        sameName(structure_.catalogs[places_[id].catalog].name, qualifier);
    if (sameName(relation(id).name, name) && qualifierMatches &&
        std::find(found.begin(), found.end(), id) == found.end())
      found.push_back(id);
  }
  return found;
}

std::string SchemaScope::instruction(std::size_t listed, std::size_t total) {
  return "The database has " + text::withSeparators(total) +
         " tables and views; the structure lists " + text::withSeparators(listed) +
         " of them. Ask for others by name.";
}

}  // namespace qorchat
