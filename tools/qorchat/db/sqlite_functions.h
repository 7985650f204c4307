#pragma once
// SQLite functions whose one call can outlast any time limit, replaced on the connection that runs
// the model's statements by ones that give the same results in bounded time.

#include "db/sqlite_stop.h"

struct sqlite3;

namespace qorchat::sqlite {

// Puts instr(X, Y), replace(X, Y, Z), trim(X, Y), ltrim(X, Y) and rtrim(X, Y) in place of
// SQLite's, which compare every place of X with all of Y and take hours over two long values,
// deaf to Ctrl-C: these take time in proportion to their input. LIKE and GLOB, which cannot be
// made so, are replaced by ones that stop when the signal says so. The signal must outlive the
// connection. printf and format give at once the NULL that a %c repeated past the length limit
// gives in the end. False when SQLite refuses a function.
bool replaceSlowFunctions(sqlite3* db, StopSignal& signal);

}  // namespace qorchat::sqlite
