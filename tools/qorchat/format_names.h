#pragma once
// The names of the output formats, as --format, /format and the config file write them.

#include <optional>
#include <string_view>

#include "command_line.h"

namespace qorchat {

std::optional<OutputFormat> parseOutputFormat(std::string_view name);
std::string_view outputFormatName(OutputFormat format);

}  // namespace qorchat
