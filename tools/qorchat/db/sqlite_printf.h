#pragma once
// printf() and format() for the connection that runs the model's statements: SQLite's own, but
// one that would only waste seconds before giving NULL gives it at once.

struct sqlite3;

namespace qorchat::sqlite {

// Puts printf(...) and format(...) in place of SQLite's on this connection. SQLite's "%.*c"
// writes its character as many times as the precision says, up to two thousand million, still
// looping long after the text outgrew the length limit; such a call gives NULL, as SQLite's does
// in the end, without the loop. Every other call is handed to SQLite's own printf on a private
// in-memory connection, so the text is exactly SQLite's. False when SQLite refuses a function.
bool replacePrintf(sqlite3* db);

}  // namespace qorchat::sqlite
