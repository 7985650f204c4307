// The five tools as a client sees them. The bounds in the schemas are those of
// mcp_tool_definitions.h; the tool tests read them back through the official client.
#include "mcp_tool_definitions.h"

namespace qorchat::mcp {

std::string_view toolDefinitions() {
  // Every tool only reads: the statements go through the same read-only runner as /run.
  static constexpr std::string_view kTools = R"json([
{"name": "list_tables", "title": "List tables and views",
 "description": "Lists the database's tables, views and materialized views: the name to write in SQL, the schema, the kind, and the estimated row count where the database keeps one. Start here to see what the database holds.",
 "inputSchema": {"type": "object", "additionalProperties": false,
   "properties": {"schema": {"type": "string", "description": "Only the objects of this schema (PostgreSQL); leave out for all"}}},
 "annotations": {"title": "List tables and views", "readOnlyHint": true, "destructiveHint": false, "idempotentHint": true, "openWorldHint": false}},
{"name": "describe", "title": "Describe tables",
 "description": "Gives the CREATE statement of each named table or view (columns, types, NOT NULL, keys) and names the tables it references and that reference it by foreign key. Names may be written with their schema (sales.orders); unknown names are told back.",
 "inputSchema": {"type": "object", "additionalProperties": false, "required": ["names"],
   "properties": {"names": {"type": "array", "minItems": 1, "maxItems": 50, "items": {"type": "string"}, "description": "Tables or views to describe"}}},
 "annotations": {"title": "Describe tables", "readOnlyHint": true, "destructiveHint": false, "idempotentHint": true, "openWorldHint": false}},
{"name": "schema", "title": "Schema for a question",
 "description": "Gives the database's structure as CREATE statements within a byte budget: the whole structure when it fits, else the tables and views nearest the question (those it names, their foreign-key neighbours, what is near them) with the names of the rest.",
 "inputSchema": {"type": "object", "additionalProperties": false, "required": ["question"],
   "properties": {"question": {"type": "string", "description": "The question the structure should serve"},
                  "budget": {"type": "integer", "minimum": 1000, "maximum": 1000000, "default": 20000, "description": "Bytes of structure text at most"}}},
 "annotations": {"title": "Schema for a question", "readOnlyHint": true, "destructiveHint": false, "idempotentHint": true, "openWorldHint": false}},
{"name": "query", "title": "Run a read-only query",
 "description": "Runs one read-only SQL query and returns its columns and first rows, with the true row count where it is known. Writes, transaction control and role or setting changes are refused. Values are text; NULL is null.",
 "inputSchema": {"type": "object", "additionalProperties": false, "required": ["sql"],
   "properties": {"sql": {"type": "string", "description": "One SELECT, WITH or VALUES query in the database's dialect"},
                  "max_rows": {"type": "integer", "minimum": 1, "maximum": 1000, "default": 100, "description": "Rows to return at most"}}},
 "outputSchema": {"type": "object", "additionalProperties": false, "required": ["columns", "rows", "row_count", "truncated"],
   "properties": {"columns": {"type": "array", "items": {"type": "string"}},
                  "rows": {"type": "array", "items": {"type": "array", "items": {"type": ["string", "null"]}}},
                  "row_count": {"type": "integer", "minimum": 0, "description": "Rows the query gave, returned or not; a lower bound when the count was stopped"},
                  "truncated": {"type": "boolean", "description": "True when rows, values or the count were cut"}}},
 "annotations": {"title": "Run a read-only query", "readOnlyHint": true, "destructiveHint": false, "idempotentHint": true, "openWorldHint": false}},
{"name": "explain", "title": "Explain a query",
 "description": "Gives the database's plan for a query without running it (SQLite's EXPLAIN QUERY PLAN, PostgreSQL's EXPLAIN without ANALYZE). Also a cheap check that a query would run.",
 "inputSchema": {"type": "object", "additionalProperties": false, "required": ["sql"],
   "properties": {"sql": {"type": "string", "description": "The query to plan"}}},
 "annotations": {"title": "Explain a query", "readOnlyHint": true, "destructiveHint": false, "idempotentHint": true, "openWorldHint": false}}
])json";
  return kTools;
}

}  // namespace qorchat::mcp
