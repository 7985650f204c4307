#pragma once
// LIKE and GLOB for the connection that runs the model's statements: they match exactly as
// SQLite's own do, and give up when the statement must stop.

#include "db/sqlite_stop.h"

struct sqlite3;

namespace qorchat::sqlite {

// Puts like(P, S), like(P, S, E) and glob(P, S) in place of SQLite's on this connection. SQLite's
// matcher cannot be stopped inside one comparison, and a pattern of many wildcards over a long
// value keeps it there for minutes. The signal must outlive the connection. False when SQLite
// refuses a function.
bool replacePatternFunctions(sqlite3* db, StopSignal& signal);

}  // namespace qorchat::sqlite
