#pragma once
// The system instructions qorchat writes under its own keys: which database the model talks
// about, how to write SQL for it, and how to hand the SQL back so that /run finds it.

#include <string>
#include <string_view>

namespace qorchat {

// The keys of qorchat's system instructions. The library orders the instructions by key.
inline constexpr const char* kDatabaseInstructionKey = "database";
inline constexpr const char* kScopeInstructionKey = "scope";
inline constexpr const char* kUniqueKeysInstructionKey = "unique_keys";

// The instruction that names the engine and version ("PostgreSQL 15.8", "SQLite 3.40.1"), the
// dialect and its quoting of identifiers, and asks for SQL in fenced sql blocks.
std::string databaseInstruction(std::string_view engine);

// "PostgreSQL" or "SQLite": the engine's name without its version, for sentences.
std::string_view engineName(std::string_view engine);

}  // namespace qorchat
