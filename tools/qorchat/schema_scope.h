#pragma once
// Keeps the structure the model sees within a budget of digest bytes. While the whole structure
// fits, it goes untouched. Past the budget, each question gets a choice: the tables and views it
// and the recent history name, then their foreign-key neighbours (both directions, breadth first),
// then the rest in their order, as long as they fit.
//
// The digest is the text the library makes of the structure: a "USE CATALOG `x`" line for each
// catalog and a "CREATE TABLE `schema`.`name` (...)" line for each object. Its size is computed
// exactly from each object's JSON, so the chosen structure never yields more than the budget.
// The structure is parsed and indexed once; a choice only walks the index.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class YLJson;
class YLJsonValue;

namespace qorchat {

class SchemaScope {
 public:
  // What one question gets.
  struct Choice {
    std::string structure;        // db_structure JSON with the chosen objects, in their order
    std::size_t listed = 0;       // tables and views it lists
    std::size_t total = 0;        // tables and views the database has
    std::size_t digestBytes = 0;  // the size of the digest the library makes of it
  };

  // A budget of 0 means no limit. A text that is not a JSON array is passed on untouched.
  SchemaScope(std::string structure, std::size_t budget);
  ~SchemaScope();
  SchemaScope(const SchemaScope&) = delete;
  SchemaScope& operator=(const SchemaScope&) = delete;

  // True when the whole structure fits the budget: it goes as given and nothing is chosen.
  bool fitsWhole() const { return fitsWhole_; }
  // The structure as given; empty unless it fits whole.
  const std::string& wholeStructure() const { return whole_; }
  // The size of the whole structure's digest (0 when it fits and was not measured: no budget).
  std::size_t wholeDigestBytes() const { return wholeDigestBytes_; }
  // Tables, views and materialized views that can be listed; 0 when the whole structure fits,
  // since nothing is indexed then.
  std::size_t objectCount() const { return objects_.size(); }

  // The choice for a question. texts name what is wanted, most wanted first: the question, then
  // the history, newest first. Only for a structure that does not fit whole.
  Choice choose(const std::vector<std::string_view>& texts) const;

  // What the model is told when the structure was reduced: "The database has 2,315 tables and
  // views; the structure lists 140 of them. Ask for others by name."
  static std::string instruction(std::size_t listed, std::size_t total);

 private:
  // Names are views into the document.
  struct Catalog {
    const YLJsonValue* json;
    std::string_view name;
    std::size_t lineBytes;  // its USE CATALOG line; 0 when it has no name
  };
  struct Schema {
    std::uint32_t catalog;
    const YLJsonValue* json;
    std::string_view name;
  };
  struct Object {
    std::uint32_t schema;
    std::uint32_t kind;  // 0 tables, 1 views, 2 mviews
    const YLJsonValue* json;
    std::string_view name;
    std::size_t lineBytes;  // its CREATE line with the line break
  };
  // A hash of a name without case, and the object so named. Kept sorted, so that a lookup is a
  // binary search and the index costs no allocation per name; a match is confirmed on the names.
  struct NameKey {
    std::uint64_t hash;
    std::uint32_t object;
    bool operator<(const NameKey& other) const {
      return hash != other.hash ? hash < other.hash : object < other.object;
    }
  };

  void index();
  // Lists the catalog's schemas and objects; its digest's bytes, 0 for one the digest passes over.
  std::size_t indexCatalog(const YLJsonValue* catalog);
  std::size_t indexSchema(const YLJsonValue* schema, std::uint32_t catalogIndex);
  // The name keys of the objects listed, sorted.
  void indexNames();
  void linkForeignKeys();
  // Calls found(object) for every object the text names, in the order of the text.
  template <typename Found>
  void findNames(std::string_view text, Found&& found) const;
  std::string reducedStructure(const std::vector<char>& chosen) const;

  std::string whole_;
  std::unique_ptr<YLJson> document_;
  std::size_t budget_;
  bool fitsWhole_ = true;
  std::size_t wholeDigestBytes_ = 0;
  std::vector<Catalog> catalogs_;
  std::vector<Schema> schemas_;
  std::vector<Object> objects_;
  std::size_t smallestLine_ = 0;
  // "name", and "schema.name" or "catalog.name", to the objects so named.
  std::vector<NameKey> byName_;
  std::vector<NameKey> byQualifiedName_;
  // Foreign-key neighbours of object i, both directions: neighbours_[neighbourStart_[i] ...
  // neighbourStart_[i + 1]).
  std::vector<std::uint32_t> neighbourStart_;
  std::vector<std::uint32_t> neighbours_;
};

}  // namespace qorchat
