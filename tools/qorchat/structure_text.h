#pragma once
// The structure text as the library writes it, read back from the tree of lines its properties
// hand out: the whole text the model sees, and one relation's text for /describe.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/structure.h"
#include "yl/yl.h"

namespace qorchat {

// The tree of lines the library makes of the structure (the chosen relations only, with chosen),
// from a scratch assistant with a memory of its own: no conversation is touched, nothing is sent.
YLVariant libraryTree(const Structure& structure, const std::vector<bool>* chosen = nullptr);

// The lines of a db_structure tree: each catalog's, then its schemas', one statement a line.
std::string treeText(const YLVariant& tree);

// The relation a user names, as "name" or "schema.name", ignoring case when nothing matches
// exactly; its index in the order of relationPlaces.
std::optional<std::size_t> findRelation(const Structure& structure, std::string_view name);

// The library's text of one relation, with its catalog's and schema's lines.
std::string relationText(const Structure& structure, std::size_t relation);

}  // namespace qorchat
