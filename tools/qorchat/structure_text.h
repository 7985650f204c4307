#pragma once
// The structure text as the library writes it, read back from the tree of lines its properties
// hand out: the whole text the model sees, one relation's text for /describe, and the names a
// user may complete.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/structure.h"
#include "yl/yl.h"

namespace qorchat {

// The lines of a db_structure tree: each catalog's, then its schemas', one statement a line.
std::string treeText(const YLVariant& tree);

// The relation a user names, as "name" or "schema.name", ignoring case when nothing matches
// exactly; its index in the order of relationPlaces.
std::optional<std::size_t> findRelation(const Structure& structure, std::string_view name);

// The library's text of one relation, with its catalog's and schema's lines.
std::string relationText(const Structure& structure, std::size_t relation);

// The names of every table, view and column, each once, for completion.
std::vector<std::string> completionNames(const Structure& structure);

}  // namespace qorchat
