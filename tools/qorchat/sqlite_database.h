#pragma once
// An SQLite database opened read-only, described as db_structure JSON: one catalog per database of
// the connection (main and attached), one unnamed schema each, tables and views in SQLite's order.

#include <string>

#include "database.h"

struct sqlite3;

namespace qorchat {

class SqliteDatabase final : public Database {
 public:
  // Opens a path or a "file:" URI, always read-only: nothing is ever created or written. Throws
  // DatabaseError naming the target when it is missing or not an SQLite database.
  explicit SqliteDatabase(const std::string& target, const DatabaseSettings& settings = {});
  ~SqliteDatabase() override;
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  std::string describeStructure() override;
  std::string identity() const override;
  std::string displayName() const override;
  std::vector<StatementResult> runReadOnly(const std::string& sql, std::size_t maxRows) override;
  void interrupt() override;

  // The open connection, for callers that run statements of their own (tests attach databases).
  sqlite3* handle() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
  std::string target_;
  std::string identity_;
  DatabaseSettings settings_;
};

}  // namespace qorchat
