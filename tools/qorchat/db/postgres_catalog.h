#pragma once
// The structure of a PostgreSQL database as its role sees it, read with a fixed handful of
// catalog queries whatever the number of tables.

#include <functional>
#include <string>

#include "db/postgres_result.h"
#include "db/structure.h"
#include "status.h"

namespace qorchat::postgres {

// Runs one catalog query: its rows, or why it failed.
using CatalogQuery = std::function<Result<PgResult>(const std::string& sql)>;

// One catalog named catalogName, with a schema for each the role may use (empty ones included),
// their tables (a partitioned one once), views and materialized views by name, the columns the
// role may read and the keys over them; foreign keys name the referenced schema. The caller runs
// the queries in one snapshot, so that a concurrent change cannot mix two structures.
Result<Structure> readStructure(const std::string& catalogName, const CatalogQuery& runQuery);

}  // namespace qorchat::postgres
