#pragma once
// Cuts a block of SQL into the statements PostgreSQL would see, so that each can be sent on its
// own: the extended protocol takes one statement at a time.

#include <string_view>
#include <vector>

namespace qorchat::postgres {

// The statements of a block, each trimmed and with its semicolon, as PostgreSQL's own lexer
// separates them: semicolons inside literals, quoted names, dollar quotes and comments (nested
// ones included) end nothing. Pieces of only white space and comments are no statements. With
// backslashEscapes (standard_conforming_strings off), a backslash escapes in every literal.
std::vector<std::string_view> splitStatements(std::string_view sql, bool backslashEscapes);

}  // namespace qorchat::postgres
