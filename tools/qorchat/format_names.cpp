// Output format names, one table both ways.
#include "format_names.h"

#include <array>
#include <utility>

namespace qorchat {
namespace {

constexpr std::array<std::pair<std::string_view, OutputFormat>, 4> kFormats{{
    {"table", OutputFormat::Table},
    {"csv", OutputFormat::Csv},
    {"json", OutputFormat::Json},
    {"markdown", OutputFormat::Markdown},
}};

}  // namespace

std::optional<OutputFormat> parseOutputFormat(std::string_view name) {
  for (const auto& [text, format] : kFormats) {
    if (text == name) return format;
  }
  return std::nullopt;
}

std::string_view outputFormatName(OutputFormat format) {
  for (const auto& [text, known] : kFormats) {
    if (known == format) return text;
  }
  return "table";
}

}  // namespace qorchat
