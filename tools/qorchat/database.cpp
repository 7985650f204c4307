// Chooses the engine for what --db names.
#include "database.h"

#include "postgres_database.h"
#include "sqlite_database.h"

namespace qorchat {

std::unique_ptr<Database> openDatabase(const std::string& target,
                                       const DatabaseSettings& settings) {
  if (PostgresDatabase::accepts(target))
    return std::make_unique<PostgresDatabase>(target, settings);
  return std::make_unique<SqliteDatabase>(target, settings);
}

}  // namespace qorchat
