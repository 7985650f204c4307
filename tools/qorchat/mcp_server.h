#pragma once
// qorchat --mcp: an MCP server on a file descriptor (standard input) and a stream (standard
// output), one JSON-RPC message a line, over one database and without any model. Protocol
// messages only go to out; diagnostics go to err, one line each.

#include <cstddef>
#include <iosfwd>

#include "db/database.h"

namespace qorchat::mcp {

// The longest line read; a longer one is answered with an error and skipped unread.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{1024} * 1024;

// Serves until the input ends (in the middle of a message too), then lets the running and
// waiting tool calls finish, and returns the exit status: 0, or 1 when the database cannot be
// described.
int serve(Database& database, int input, std::ostream& out, std::ostream& err);

}  // namespace qorchat::mcp
