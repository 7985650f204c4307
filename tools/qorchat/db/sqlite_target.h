#pragma once
// How the SQLite file that --db names is opened so that nothing is written beside it, and how long
// a value in it can be.

#include <cstdint>
#include <optional>
#include <string>

#include "status.h"

struct sqlite3;

namespace qorchat::sqlite {

// What a file was like when it was opened immutable: should any of it change (a writer came and
// made a -wal file, or wrote the file itself), SQLite's promise no longer holds.
struct FileMark {
  std::int64_t size = 0;
  std::int64_t modifiedNs = 0;
  bool operator==(const FileMark&) const = default;
};

struct OpenChoice {
  std::string name;                // for sqlite3_open_v2
  std::optional<FileMark> marked;  // set when opened immutable
  std::string realPath;
};

// How to open a path. Only a regular file (a symbolic link to one is fine) is opened: a FIFO
// would hang the open, a device read as an empty database. A file in WAL mode with no -wal file
// beside it is being written by no one; it is opened through a file: URI as immutable, for
// otherwise SQLite makes -wal and -shm files beside it (and leaves them), and cannot open it at
// all in a folder it may not write. The failure names the path.
Result<OpenChoice> chooseOpen(const std::string& path);

// Whether the file opened immutable is still as it was: no -wal file beside it, the same size and
// time.
bool stillAsMarked(const std::string& realPath, const FileMark& mark);

// The longest value the main database of the connection can hold: no longer than its file and
// its -wal file together. 0 for a database without a file.
std::int64_t storedValueBound(sqlite3* db);

}  // namespace qorchat::sqlite
