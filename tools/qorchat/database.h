#pragma once
// What qorchat needs of the user's database, whatever its engine: its structure in the form the
// assistant reads (the db_structure JSON text), and names to show and to key the conversation by.

#include <memory>
#include <stdexcept>
#include <string>

namespace qorchat {

// A database that cannot be opened or read. The message is one line that names the database.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Database {
 public:
  virtual ~Database() = default;

  // The structure as db_structure JSON: catalogs, schemas, tables, views. Throws DatabaseError.
  virtual std::string describeStructure() = 0;
  // Stays the same for the same database across runs; the conversation is stored under it.
  virtual std::string identity() const = 0;
  // A short name for people, such as the file name.
  virtual std::string displayName() const = 0;
};

}  // namespace qorchat
