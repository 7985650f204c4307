#pragma once
// What Tab completes at the cursor: a command name at the start of a /command line, otherwise a
// name of the database (table, column) ending where the cursor stands, matched without regard to
// ASCII case; and the listing of several candidates in columns.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "db/structure.h"

namespace qorchat {

// The names of a structure Tab should offer: all of them (schemas, tables, views and their
// columns) after most words, the tables and views alone where a command takes one.
struct CompletionWords {
  std::vector<std::string> all;
  std::vector<std::string> relations;
};
CompletionWords completionWords(const Structure& structure);

struct Completion {
  std::size_t from = 0;              // byte offset where the text being completed begins
  std::vector<std::string> matches;  // sorted, without duplicates; empty when nothing matches
};

// The candidates for the text before the cursor. A name may hold blanks or punctuation: the
// longest tail of the text, begun at a word boundary, that starts some name is what is completed.
Completion completeAt(std::string_view beforeCursor, const std::vector<std::string>& commands,
                      const std::vector<std::string>& names);

// The longest start all matches share, ASCII case aside, as the first match spells it; cut at a
// character boundary.
std::string commonStart(const std::vector<std::string>& matches);

// The matches in columns that fit the width, read down each column as shells list them; each
// made safe for the terminal; one line feed after each row.
std::string listInColumns(const std::vector<std::string>& matches, std::size_t width);

}  // namespace qorchat
