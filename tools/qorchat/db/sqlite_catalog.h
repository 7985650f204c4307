#pragma once
// The structure of an open SQLite connection: one catalog per database of the connection (main
// and attached, never temp), each with one schema without a name, its tables and views in the
// order they were made: not SQLite's own tables, nor the shadow tables of virtual tables.

#include "db/structure.h"
#include "status.h"

struct sqlite3;

namespace qorchat::sqlite {

// Reads the structure in one snapshot. Foreign keys name their table alone, as SQLite resolves
// it within the key's own database; a key that leaves out the parent's columns names the parent's
// primary key. A column declared without a type has the type ANY. The failure is SQLite's own
// text.
Result<Structure> readStructure(sqlite3* db);
// The schema version of each database of the connection, which SQLite raises with every change
// of its schema, and the row counts ANALYZE kept.
Result<std::string> readStructureStamp(sqlite3* db);

}  // namespace qorchat::sqlite
