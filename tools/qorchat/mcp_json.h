#pragma once
// Small helpers over libyl's JSON documents for the MCP server: a value copied from one document
// into another, and a tool's arguments read against what the tool accepts.

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "yl/yl.h"

namespace qorchat::mcp {

// Makes `to` a copy of `from`: objects, arrays, strings, integers, doubles, booleans and null.
// The documents' interface has no way to make an empty object: one comes out as null, so the
// program's own texts hold none.
void copyJson(const YLJsonValue& from, YLJsonValue& to);

// A tool's arguments, read one by one. The first problem (an argument missing, of the wrong type,
// out of bounds, or not one the tool knows) is kept as a one-line text, and every later read
// gives nothing.
class Arguments {
 public:
  // arguments may be null (none given); known names every argument the tool takes.
  Arguments(const YLJsonValue* arguments, std::initializer_list<std::string_view> known);

  // Nothing when an optional one is absent.
  std::optional<std::string> text(std::string_view name, bool required = true);
  // Absent: fallback. Present: a whole number within [min, max].
  std::optional<std::int64_t> integer(std::string_view name, std::int64_t fallback,
                                      std::int64_t min, std::int64_t max);
  // A non-empty array of strings, at most maxItems of them.
  std::optional<std::vector<std::string>> texts(std::string_view name, std::size_t maxItems);

  bool ok() const { return problem_.empty(); }
  const std::string& problem() const { return problem_; }

 private:
  const YLJsonValue* member(std::string_view name, YLJsonValueType type, const char* what);
  void fail(std::string problem);

  const YLJsonValue* arguments_;
  std::string problem_;
};

}  // namespace qorchat::mcp
