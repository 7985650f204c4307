#pragma once
// The system instructions qorchat writes under its own keys: which database the model talks
// about, how to write SQL for it, and how to hand the SQL back so that /run finds it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "db/structure.h"

namespace qorchat {

// The keys of qorchat's system instructions. The library orders the instructions by key.
inline constexpr const char* kDatabaseInstructionKey = "database";
inline constexpr const char* kScopeInstructionKey = "scope";
inline constexpr const char* kUniqueKeysInstructionKey = "unique_keys";
inline constexpr const char* kCommentsInstructionKey = "comments";
inline constexpr const char* kTableNamesInstructionKey = "table_names";

// The instruction that names the engine and version ("PostgreSQL 15.8", "SQLite 3.40.1"), the
// dialect and its quoting of identifiers, and asks for SQL in fenced sql blocks.
std::string databaseInstruction(std::string_view engine);

// The comments the database keeps on the relations (all, or those chosen, one flag per relation
// in the order of relationPlaces, as for structureJson) and on their columns, one line each:
// "orders.total: in cents, tax included". Each comment is made one line and cut to a few hundred
// bytes; what does not fit within maxBytes is left out whole and counted. Empty when none of
// them has a comment, or when not even the first fits.
std::string commentsInstruction(const Structure& structure, const std::vector<bool>* chosen,
                                std::size_t maxBytes);

// Every table and view by name, for a structure cut to its budget, and how the model asks for
// those it needs: a line per schema ("sales: customers, orders"), the names in the structure's
// order. ranking holds every relation (by its place in relationPlaces), nearest the question
// first: when the names (with their schemas) do not all fit within maxBytes, the nearest are
// given and the rest counted.
std::string tableNamesInstruction(const Structure& structure,
                                  const std::vector<std::uint32_t>& ranking, std::size_t maxBytes);

// "PostgreSQL" or "SQLite": the engine's name without its version, for sentences.
std::string_view engineName(std::string_view engine);

}  // namespace qorchat
