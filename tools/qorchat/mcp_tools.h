#pragma once
// The five tools of qorchat's MCP server over one database: list_tables, describe, schema, query
// and explain. Each reads only: the structure is read again when the database says it changed,
// and statements go through the database's read-only runner. A tool's failure is its result, marked
// isError, with a one-line text.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "db/database.h"
#include "mcp_json.h"
#include "schema_scope.h"

namespace qorchat::mcp {

class Tools {
 public:
  // The database must outlive the tools. The stamp is the database's, read before the structure.
  Tools(Database& database, Structure structure, std::string stamp);

  static bool has(std::string_view name);
  // Writes the CallToolResult of the named tool (has(name) must hold) into result, an empty
  // object. One call at a time.
  void call(std::string_view name, const YLJsonValue* arguments, YLJsonValue& result);
  // Ends the statement a call is running; called from another thread.
  void interrupt() { database_.interrupt(); }

 private:
  // Reads the structure again when its stamp changed: a server outlives migrations. When either
  // read fails, the structure read last stays.
  void refreshStructure();
  void listTables(Arguments& arguments, YLJsonValue& result);
  void describe(Arguments& arguments, YLJsonValue& result);
  void schema(Arguments& arguments, YLJsonValue& result);
  void query(Arguments& arguments, YLJsonValue& result);
  void explain(Arguments& arguments, YLJsonValue& result);
  // The tables and views that the relation references and that reference it, as queries name
  // them: "References: customers. Referenced by: order_items."
  std::string neighbours(std::size_t relation) const;
  // The names of the relations a choice leaves out, within maxBytes, the rest counted.
  std::string namesLeftOut(const SchemaScope::Choice& choice, std::size_t maxBytes) const;

  Database& database_;
  Structure structure_;
  std::string stamp_;
  std::vector<RelationPlace> places_;
  // The scope of the last budget asked for: indexing a large structure is not done per call.
  std::unique_ptr<SchemaScope> scope_;
  std::size_t scopeBudget_ = 0;
};

}  // namespace qorchat::mcp
