// How SchemaScope ranks relations for a question: the words of names and columns in one form,
// neighbours by column names where no foreign keys are declared, and the scores.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "schema_scope.h"
#include "text.h"
#include "word_forms.h"

namespace qorchat {
namespace {

// What a match is worth. A name named exactly outranks every word match; a name's own words
// outrank its columns; neighbours and what is near come after what was named.
constexpr double kExactName = 300;
// A relation the model asked for comes first; its neighbours rise with it, yet stay below what the
// question names exactly, which the model's request must not push out.
constexpr double kForced = 2 * kExactName;
constexpr double kNameKey = 100;
constexpr double kNameKeyPerWord = 10;
constexpr double kNamePart = 70;
constexpr double kColumn = 30;
constexpr double kColumnsAtMost = 60;
constexpr double kGroupWord = 5;
constexpr double kFound = 50;  // from here a relation counts as found: its neighbours rise too
constexpr double kNeighbour = 0.4;
constexpr double kSecondNeighbour = 0.05;
constexpr double kBridge = 25;  // within two links of two found relations: what joins them
constexpr double kSameSchema = 0.5;
constexpr double kSamePrefix = 1;
constexpr std::size_t kLongestPhrase = 3;  // adjacent question words joined: "order items"

// Generic prefixes that say nothing of what a table holds.
bool isGenericPrefix(std::string_view word) {
  return word == "app" || word == "tbl" || word == "tb";
}

bool holdsNumbers(std::string_view type) {
  std::string lower(type);
  for (char& c : lower)
    c = text::lowerAscii(c);
  return lower.find("int") != std::string::npos || lower.find("serial") != std::string::npos;
}

// The first word most of the items share, when they are enough to say so: "icinga" of
// icinga_hosts, icinga_services..., "rev" of rev_id, rev_page...
template <typename Items, typename NameOf>
std::string sharedFirstWord(const Items& items, NameOf&& nameOf, double share) {
  std::unordered_map<std::string, std::size_t> counts;
  for (const auto& item : items) {
    const std::vector<std::string> words = words::splitName(nameOf(item));
    if (words.size() > 1) ++counts[words.front()];
  }
  for (const auto& [word, count] : counts) {
    if (count >= 2 && static_cast<double>(count) >= share * static_cast<double>(items.size()))
      return word;
  }
  return {};
}

// The words of a name without its prefix, if it has one and more words.
std::size_t wordsFrom(const std::vector<std::string>& words, std::string_view prefix) {
  return words.size() > 1 && (words.front() == prefix || isGenericPrefix(words.front())) ? 1 : 0;
}

std::uint64_t partHash(std::string_view part) {
  return std::hash<std::string_view>()(part);
}

void addOnce(std::vector<std::uint32_t>& ids, std::uint32_t id) {
  if (ids.empty() || ids.back() != id) ids.push_back(id);
}

std::string schemaPrefix(const Schema& schema) {
  std::vector<std::string_view> names;
  for (const auto& kind : schema.relations)
    for (const Relation& each : kind)
      names.push_back(each.name);
  return sharedFirstWord(
      names, [](std::string_view name) { return name; }, 0.5);
}

std::string columnPrefixOf(const Relation& relation) {
  return sharedFirstWord(
      relation.columns, [](const Column& column) { return column.name; }, 0.6);
}

// Each column's key, with and without the prefix its table's columns share.
void indexColumns(const Relation& relation, std::uint32_t id,
                  std::unordered_map<std::string, std::vector<std::uint32_t>>& byColumnKey) {
  const std::string columnPrefix = columnPrefixOf(relation);
  for (const Column& column : relation.columns) {
    const std::vector<std::string> columnWords = words::splitName(column.name);
    addOnce(byColumnKey[words::nameKey(columnWords)], id);
    const std::size_t from = wordsFrom(columnWords, columnPrefix);
    if (from > 0) addOnce(byColumnKey[words::nameKey(columnWords, from)], id);
  }
}

// The words of the table a column refers to by its name, or none: host_id, hostid; or a number
// column named as a table, as rev_page and queue are.
std::vector<std::string> referenceWords(const Column& column, const std::string& columnPrefix) {
  std::vector<std::string> columnWords = words::splitName(column.name);
  if (columnWords.empty()) return {};
  std::string& last = columnWords.back();
  const bool endsInId = last.size() >= 2 && last.compare(last.size() - 2, 2, "id") == 0;
  if (!endsInId && !holdsNumbers(column.type)) return {};
  if (endsInId) last.resize(last.size() - 2);
  if (last.empty()) columnWords.pop_back();
  const std::size_t from = wordsFrom(columnWords, columnPrefix);
  if (columnWords.size() <= from) return {};
  return {columnWords.begin() + static_cast<std::ptrdiff_t>(from), columnWords.end()};
}

// The phrases of a text: each content word's stem, and up to kLongestPhrase adjacent ones run
// together, with how many words each holds.
struct Phrase {
  std::string key;
  std::size_t words;
};

std::vector<Phrase> phrasesOf(std::string_view text) {
  std::vector<std::vector<std::string>> runs(1);
  std::string word;
  const auto close = [&] {
    for (std::string& part : words::splitName(word)) {
      if (words::isStopWord(part)) {
        if (!runs.back().empty()) runs.emplace_back();
        continue;
      }
      runs.back().push_back(words::stem(part));
    }
    word.clear();
  };
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '_' || byte >= 0x80) {
      word += c;
      continue;
    }
    close();
    // Punctuation other than a blank ends a phrase.
    if (c != ' ' && !runs.back().empty()) runs.emplace_back();
  }
  close();
  std::vector<Phrase> phrases;
  for (const auto& run : runs) {
    for (std::size_t from = 0; from < run.size(); ++from) {
      std::string key;
      for (std::size_t count = 1; count <= kLongestPhrase && from + count <= run.size(); ++count) {
        key += run[from + count - 1];
        phrases.push_back(Phrase{key, count});
      }
    }
  }
  return phrases;
}

}  // namespace

void SchemaScope::indexWords() {
  indexWordsOfRelations();
  std::sort(byKeyPart_.begin(), byKeyPart_.end());
  byKeyPart_.erase(std::unique(byKeyPart_.begin(), byKeyPart_.end(),
                               [](const NameKey& a, const NameKey& b) {
                                 return a.hash == b.hash && a.relation == b.relation;
                               }),
                   byKeyPart_.end());
}

void SchemaScope::indexWordsOfRelations() {
  const std::size_t count = places_.size();
  coreKeys_.resize(count);
  fullKeys_.resize(count);
  firstWords_.resize(count);
  schemaIndex_.resize(count);
  std::string prefix;
  for (std::uint32_t id = 0; id < count; ++id) {
    const bool newSchema = id == 0 || places_[id].catalog != places_[id - 1].catalog ||
                           places_[id].schema != places_[id - 1].schema;
    const Schema& schema = schemaOf(id);
    if (newSchema) {
      prefix = schemaPrefix(schema);
      if (!prefix.empty()) byGroupWord_[words::stem(prefix)];
      if (!schema.name.empty()) byGroupWord_[words::nameKey(words::splitName(schema.name))];
    }
    schemaIndex_[id] = id == 0 ? 0 : schemaIndex_[id - 1] + (newSchema ? 1 : 0);
    const Relation& named = relation(id);
    const std::vector<std::string> nameWords = words::splitName(named.name);
    if (nameWords.empty()) continue;
    firstWords_[id] = nameWords.front();
    coreKeys_[id] = words::nameKey(nameWords, wordsFrom(nameWords, prefix));
    fullKeys_[id] = words::nameKey(nameWords);
    addOnce(byKey_[coreKeys_[id]], id);
    const std::string_view core = coreKeys_[id];
    for (std::size_t length = 3; length < core.size(); ++length) {
      byKeyPart_.push_back(NameKey{partHash(core.substr(0, length)), id});
      byKeyPart_.push_back(NameKey{partHash(core.substr(core.size() - length)), id});
    }
    if (fullKeys_[id] != coreKeys_[id]) addOnce(byKey_[fullKeys_[id]], id);
    for (const std::string& group :
         {words::stem(prefix), words::nameKey(words::splitName(schema.name))}) {
      const auto found = byGroupWord_.find(group);
      if (!group.empty() && found != byGroupWord_.end()) addOnce(found->second, id);
    }
    indexColumns(named, id, byColumnKey_);
  }
}

void SchemaScope::linkByColumnNames(
    std::vector<std::pair<std::uint32_t, std::uint32_t>>& links) const {
  const auto link = [&](std::uint32_t from, const std::string& key) {
    if (key.size() < 3) return;
    const auto found = byKey_.find(key);
    if (found == byKey_.end()) return;
    for (const std::uint32_t to : found->second)
      if (to != from && schemaIndex_[to] == schemaIndex_[from]) links.emplace_back(from, to);
  };
  for (std::uint32_t id = 0; id < places_.size(); ++id) {
    const Relation& named = relation(id);
    const std::string columnPrefix = columnPrefixOf(named);
    for (const Column& column : named.columns) {
      const std::vector<std::string> reference = referenceWords(column, columnPrefix);
      if (reference.empty()) continue;
      link(id, words::nameKey(reference));
      if (reference.size() > 1) link(id, words::stem(reference.back()));
    }
  }
}

void SchemaScope::scoreText(std::string_view text, double weight,
                            std::vector<double>& scores) const {
  addNamed(text, kExactName * weight, scores);
  std::vector<Phrase> phrases = phrasesOf(text);
  std::sort(phrases.begin(), phrases.end(),
            [](const Phrase& a, const Phrase& b) { return a.key < b.key; });
  phrases.erase(std::unique(phrases.begin(), phrases.end(),
                            [](const Phrase& a, const Phrase& b) { return a.key == b.key; }),
                phrases.end());

  std::vector<double> columns(scores.size(), 0);
  std::vector<double> nameKeys(scores.size(), 0);
  for (const Phrase& phrase : phrases) {
    if (const auto found = byKey_.find(phrase.key); found != byKey_.end()) {
      for (const std::uint32_t id : found->second)
        nameKeys[id] = std::max(nameKeys[id],
                                kNameKey + kNameKeyPerWord * static_cast<double>(phrase.words - 1));
    }
    if (const auto found = byColumnKey_.find(phrase.key); found != byColumnKey_.end()) {
      const double worth = kColumn / (1 + std::log2(static_cast<double>(found->second.size())));
      for (const std::uint32_t id : found->second)
        columns[id] += worth;
    }
    if (const auto found = byGroupWord_.find(phrase.key); found != byGroupWord_.end()) {
      for (const std::uint32_t id : found->second)
        scores[id] += kGroupWord * weight;
    }
  }

  // Parts of names: a phrase that begins or ends a name's key. A part that many names share
  // counts less.
  std::vector<std::uint32_t> partial;
  for (const Phrase& phrase : phrases) {
    if (phrase.key.size() < 3) continue;
    partial.clear();
    const std::uint64_t hash = partHash(phrase.key);
    for (auto at = std::lower_bound(byKeyPart_.begin(), byKeyPart_.end(), NameKey{hash, 0});
         at != byKeyPart_.end() && at->hash == hash; ++at) {
      const std::string_view key = coreKeys_[at->relation];
      if (key.size() > phrase.key.size() &&
          (key.substr(0, phrase.key.size()) == phrase.key ||
           key.substr(key.size() - phrase.key.size()) == phrase.key))
        partial.push_back(at->relation);
    }
    const double share = std::sqrt(std::max(1.0, static_cast<double>(partial.size()) / 4));
    for (const std::uint32_t id : partial)
      scores[id] += weight * kNamePart * static_cast<double>(phrase.key.size()) /
                    static_cast<double>(coreKeys_[id].size()) / share;
  }
  for (std::uint32_t id = 0; id < scores.size(); ++id)
    scores[id] += weight * (nameKeys[id] + std::min(columns[id], kColumnsAtMost));
}

void SchemaScope::addBridges(const std::vector<double>& own, std::vector<double>& scores) const {
  constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
  std::vector<std::uint32_t> lastFrom(own.size(), kNone);
  std::vector<std::uint8_t> from(own.size(), 0);
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (own[id] < kFound) continue;
    const auto mark = [&](std::uint32_t n) {
      if (n == id || lastFrom[n] == id) return;
      lastFrom[n] = id;
      if (from[n] < 2) ++from[n];
    };
    for (std::uint32_t a = neighbourStart_[id]; a < neighbourStart_[id + 1]; ++a) {
      const std::uint32_t near = neighbours_[a];
      mark(near);
      for (std::uint32_t b = neighbourStart_[near]; b < neighbourStart_[near + 1]; ++b)
        mark(neighbours_[b]);
    }
  }
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (from[id] >= 2 && own[id] < kFound) scores[id] += kBridge;
  }
}

std::vector<double> SchemaScope::score(const std::vector<std::string_view>& texts,
                                       const std::vector<std::uint32_t>& forced) const {
  std::vector<double> own(places_.size(), 0);
  for (std::size_t t = 0; t < texts.size(); ++t)
    scoreText(texts[t], 1.0 / static_cast<double>(t + 1), own);
  for (const std::uint32_t id : forced)
    own[id] += kForced;

  // Neighbours of what was found, and theirs; then what shares a schema or a name prefix with it.
  std::vector<double> scores = own;
  std::vector<double> reached(places_.size(), 0);
  // The schema the question says most about is most likely the application it means: what is
  // found in a schema the question barely touches passes on less to its neighbours.
  std::unordered_map<std::uint32_t, double> evidence;
  double strongest = 0;
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (own[id] <= 0) continue;
    strongest = std::max(strongest, evidence[schemaIndex_[id]] += own[id]);
  }
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (own[id] < kFound) continue;
    const double likely = evidence[schemaIndex_[id]] / strongest;
    // A hub (a users or hosts table that dozens reference) says little about each of its
    // neighbours: what it passes on is shared out, so that it cannot flood the budget.
    const double degree = neighbourStart_[id + 1] - neighbourStart_[id];
    const double share = kNeighbour * own[id] * likely / std::max(1.0, std::log2(degree));
    for (std::uint32_t n = neighbourStart_[id]; n < neighbourStart_[id + 1]; ++n)
      reached[neighbours_[n]] += share;
  }
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    scores[id] += reached[id];
    if (reached[id] <= 0) continue;
    for (std::uint32_t n = neighbourStart_[id]; n < neighbourStart_[id + 1]; ++n)
      scores[neighbours_[n]] += kSecondNeighbour * reached[id];
  }
  addBridges(own, scores);
  std::unordered_set<std::uint32_t> schemas;
  std::unordered_set<std::string> prefixes;
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (own[id] < kFound) continue;
    schemas.insert(schemaIndex_[id]);
    prefixes.insert(firstWords_[id]);
  }
  for (std::uint32_t id = 0; id < own.size(); ++id) {
    if (schemas.count(schemaIndex_[id]) == 0) continue;
    scores[id] += kSameSchema + (prefixes.count(firstWords_[id]) != 0 ? kSamePrefix : 0);
  }
  return scores;
}

}  // namespace qorchat
