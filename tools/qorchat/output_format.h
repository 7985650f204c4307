#pragma once
// Prints what a statement returned in the format the user chose: an aligned table for people, or
// CSV, JSON or Markdown for other programs, with the values whole.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "command_line.h"
#include "db/database.h"

namespace qorchat {

struct OutputSettings {
  OutputFormat format = OutputFormat::Table;
  std::string nullText = "<null>";  // how a table shows NULL
  // The width of the terminal standard output is, for fitting the table; 0: standard output is
  // not a terminal, so nothing is cut or fitted and CSV, JSON and Markdown are byte-exact.
  std::size_t terminalColumns = 0;
  bool color = false;  // NULL dimmed in a table
};

// The result in the chosen format, each line ending in a line break. A table ends in its
// rowCountFooter; Markdown in the footer after a blank line; CSV and JSON have none (their
// count belongs on standard error).
std::string formatResult(const StatementResult& result, const OutputSettings& settings);

// "(3 rows)", "(1 row)", "(first 100 of 2500 rows)", "(first 100 of at least 180 rows; the count
// was stopped)", or "(done)" for a statement without columns, without a line break.
std::string rowCountFooter(const StatementResult& result);

// True for a JSON number: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
bool looksNumeric(std::string_view value);
// For each column, whether it has values and every one that is not NULL looks numeric: such a
// column is right-aligned in a table and written as numbers in JSON.
std::vector<bool> numericColumns(const StatementResult& result);

}  // namespace qorchat
