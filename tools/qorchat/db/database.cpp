// Chooses the engine for what --db names.
#include "db/database.h"

#include <utility>

#include "db/postgres.h"
#include "db/postgres_connection.h"
#include "db/sqlite.h"

namespace qorchat {
namespace {

template <typename Engine>
Result<std::unique_ptr<Database>> asDatabase(Result<std::unique_ptr<Engine>> opened) {
  if (!opened) return opened.status();
  return std::unique_ptr<Database>(std::move(opened.value()));
}

}  // namespace

Result<std::unique_ptr<Database>> openDatabase(const std::string& target,
                                               const DatabaseSettings& settings) {
  if (postgres::accepts(target)) return asDatabase(PostgresDatabase::connect(target, settings));
  return asDatabase(SqliteDatabase::open(target, settings));
}

}  // namespace qorchat
