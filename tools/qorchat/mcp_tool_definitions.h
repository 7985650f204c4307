#pragma once
// What tools/list tells a client of qorchat's five tools: names, titles, descriptions a model can
// choose by, the JSON Schema of their input (and of query's output), and their annotations.

#include <cstdint>
#include <string_view>

namespace qorchat::mcp {

// Bounds of the tools' arguments, which the schemas state and the tools enforce.
inline constexpr std::int64_t kDefaultMaxRows = 100;
inline constexpr std::int64_t kMaxRowsLimit = 1000;
inline constexpr std::int64_t kDefaultSchemaBudget = 20000;
inline constexpr std::int64_t kMinSchemaBudget = 1000;
inline constexpr std::int64_t kMaxSchemaBudget = 1000000;
inline constexpr std::size_t kMaxDescribed = 50;

// The tools as a JSON array, the value of tools/list's "tools".
std::string_view toolDefinitions();

}  // namespace qorchat::mcp
