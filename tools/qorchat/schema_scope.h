#pragma once
// Keeps the structure the model sees within a budget of structure-text bytes. While the whole
// structure fits, it goes untouched. Past the budget, each question ranks the tables and views:
// those it and the recent history name (exactly, or by the words of the name in any form: plural,
// CamelCase, behind an application's prefix, split over adjacent words), those whose columns it
// names, then their neighbours by foreign key or by a column such as host_id, then what is near
// them (same schema, same name prefix). The budget takes them in that order, then the rest.
//
// The sizes are the library's own: the structure is handed once to a scratch assistant, and the
// line of each catalog and object is read back from the tree of lines it makes. Nothing here
// knows how the library writes a line, so a chosen structure never yields more than the budget.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "db/structure.h"

namespace qorchat {

// What the library's structure text costs, line by line, each with its line break.
struct DigestSizes {
  std::vector<std::size_t> catalogLines;   // by catalog; 0 for one that gives no line
  std::vector<std::size_t> relationLines;  // by relation, in the order of relationPlaces
  std::size_t total = 0;                   // the whole text
};

// Measures the structure as the library writes it.
DigestSizes measureDigest(const Structure& structure);

class SchemaScope {
 public:
  struct Choice {
    std::vector<bool> chosen;     // by relation, in the order of relationPlaces
    std::size_t listed = 0;       // tables and views chosen
    std::size_t total = 0;        // tables and views the database has
    std::size_t digestBytes = 0;  // the size of the text the library makes of the choice
    // Every relation, nearest the texts first: what a list of names within a bound gives first.
    std::vector<std::uint32_t> ranking;
  };

  // The structure must outlive the scope. A budget of 0 means no limit.
  SchemaScope(const Structure& structure, std::size_t budget);

  // True when the whole structure fits the budget: it goes whole and nothing is chosen.
  bool fitsWhole() const { return fitsWhole_; }
  std::size_t wholeDigestBytes() const { return sizes_.total; }
  std::size_t relationCount() const { return places_.size(); }

  // The choice for a question. texts name what is wanted, most wanted first: the question, then
  // the history, newest first. The forced relations (ids from relationsNamed) come before all
  // else, and their neighbours rise with them as with a name the question gives.
  Choice choose(const std::vector<std::string_view>& texts,
                const std::vector<std::uint32_t>& forced = {}) const;

  // The relations a name written by the model means: "orders", "sales.orders" or
  // "shop.sales.orders", any case, each part bare or quoted ("..." or `...`). Empty when the
  // database has none, or while the whole structure fits (nothing is indexed then).
  std::vector<std::uint32_t> relationsNamed(std::string_view name) const;

  // What the model is told when the structure was reduced: "The database has 2,315 tables and
  // views; the structure lists 140 of them. Ask for others by name."
  static std::string instruction(std::size_t listed, std::size_t total);

 private:
  // A hash of a name without case, and the relation so named. Kept sorted, so that a lookup is a
  // binary search; a match is confirmed on the names.
  struct NameKey {
    std::uint64_t hash;
    std::uint32_t relation;
    bool operator<(const NameKey& other) const {
      return hash != other.hash ? hash < other.hash : relation < other.relation;
    }
  };

  void indexNames();
  void indexWords();
  void indexWordsOfRelations();
  void linkForeignKeys();
  // Adds the links a column such as host_id or hostid makes to a table host or hosts.
  void linkByColumnNames(std::vector<std::pair<std::uint32_t, std::uint32_t>>& links) const;
  // Each relation's score for the texts: what they name, then neighbours and what is near.
  std::vector<double> score(const std::vector<std::string_view>& texts,
                            const std::vector<std::uint32_t>& forced) const;
  // Adds worth to every relation the text names exactly.
  void addNamed(std::string_view text, double worth, std::vector<double>& scores) const;
  void scoreText(std::string_view text, double weight, std::vector<double>& scores) const;
  const Relation& relation(std::uint32_t id) const { return relationAt(structure_, places_[id]); }
  const Schema& schemaOf(std::uint32_t id) const;
  // Calls found(relation) for every relation the text names, in the order of the text.
  // Raises the relations within two links of two or more found ones: a many-to-many table, the
  // chain between two tables the question names.
  void addBridges(const std::vector<double>& own, std::vector<double>& scores) const;
  template <typename Found>
  void findNames(std::string_view text, Found&& found) const;

  const Structure& structure_;
  std::size_t budget_;
  std::vector<RelationPlace> places_;
  DigestSizes sizes_;
  bool fitsWhole_ = true;
  std::size_t smallestLine_ = 0;
  // "name", and "schema.name" or "catalog.name", to the relations so named.
  std::vector<NameKey> byName_;
  std::vector<NameKey> byQualifiedName_;
  // Foreign-key neighbours of relation i, both directions: neighbours_[neighbourStart_[i] ...
  // neighbourStart_[i + 1]).
  std::vector<std::uint32_t> neighbourStart_;
  std::vector<std::uint32_t> neighbours_;
  // By relation: the stems of its name run together, without and with an application's prefix
  // ("icinga_hosts": "host", "icingahost"); its schema, counted over the whole structure; and the
  // first word of its name.
  std::vector<std::string> coreKeys_;
  std::vector<std::string> fullKeys_;
  std::vector<std::uint32_t> schemaIndex_;
  std::vector<std::string> firstWords_;
  // Name keys (core and full) and column keys to the relations that have them; schema names and
  // application prefixes to their relations.
  std::unordered_map<std::string, std::vector<std::uint32_t>> byKey_;
  std::unordered_map<std::string, std::vector<std::uint32_t>> byColumnKey_;
  std::unordered_map<std::string, std::vector<std::uint32_t>> byGroupWord_;
  // The beginnings and ends of core keys, three bytes or longer, hashed: a question's phrase finds
  // the names it starts or ends without a look at every name.
  std::vector<NameKey> byKeyPart_;
};

}  // namespace qorchat
