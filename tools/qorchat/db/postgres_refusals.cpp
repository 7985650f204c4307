// Names what a statement or a function call would do beyond reading, from the node types and
// fields of PostgreSQL's parse tree and a list of the functions that act on the session, the
// server or its files, or run queries of their own.
#include "db/postgres_refusals.h"

#include <cctype>

#include "text.h"
#include "yl/yl_json.h"

namespace qorchat::postgres {
namespace {

constexpr std::string_view kChangesData = "changes data";
constexpr std::string_view kChangesDatabase = "changes the database";
constexpr std::string_view kSetting = "changes a setting of the session";
constexpr std::string_view kServer = "acts on the database server";
constexpr std::string_view kFiles = "reaches the server's files";
constexpr std::string_view kLargeObjects = "reads or writes large objects";
constexpr std::string_view kOwnQuery = "runs a query of its own";
constexpr std::string_view kLock = "takes or releases an advisory lock";
constexpr std::string_view kSessions = "stops other sessions";
constexpr std::string_view kSequence = "changes a sequence";

std::string refusal(std::string_view what, std::string_view why) {
  return "refused: " + std::string(what) + " " + std::string(why) +
         "; qorchat runs only statements that read";
}

std::string stringField(const YLJsonValue& node, std::string_view key) {
  const YLJsonValue* field = node.obtainKeyValue(key);
  return field != nullptr ? std::string(field->obtainStringView()) : std::string();
}

bool flag(const YLJsonValue& node, std::string_view key) {
  const YLJsonValue* field = node.obtainKeyValue(key);
  return field != nullptr && field->obtainBoolValue();
}

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// COMMIT AND CHAIN, ROLLBACK TO SAVEPOINT, PREPARE TRANSACTION...
std::string transactionName(const YLJsonValue& node) {
  static constexpr std::pair<std::string_view, std::string_view> kKinds[] = {
      {"TRANS_STMT_BEGIN", "BEGIN"},
      {"TRANS_STMT_START", "START TRANSACTION"},
      {"TRANS_STMT_COMMIT", "COMMIT"},
      {"TRANS_STMT_ROLLBACK", "ROLLBACK"},
      {"TRANS_STMT_SAVEPOINT", "SAVEPOINT"},
      {"TRANS_STMT_RELEASE", "RELEASE"},
      {"TRANS_STMT_ROLLBACK_TO", "ROLLBACK TO SAVEPOINT"},
      {"TRANS_STMT_PREPARE", "PREPARE TRANSACTION"},
      {"TRANS_STMT_COMMIT_PREPARED", "COMMIT PREPARED"},
      {"TRANS_STMT_ROLLBACK_PREPARED", "ROLLBACK PREPARED"},
  };
  const std::string kind = stringField(node, "kind");
  std::string name = "a transaction statement";
  for (const auto& [tag, words] : kKinds) {
    if (kind == tag) name = words;
  }
  return flag(node, "chain") ? name + " AND CHAIN" : name;
}

// SET statement_timeout, SET ROLE, SET TRANSACTION, RESET ALL...
std::string settingName(const YLJsonValue& node) {
  const std::string kind = stringField(node, "kind");
  std::string name = stringField(node, "name");
  if (name == "role") name = "ROLE";
  if (name == "session_authorization") name = "SESSION AUTHORIZATION";
  if (kind == "VAR_RESET_ALL") return "RESET ALL";
  if (kind == "VAR_RESET") return "RESET " + name;
  return (flag(node, "is_local") ? "SET LOCAL " : "SET ") + name;
}

// SELECT ... FOR UPDATE and its weaker forms.
std::string lockName(const YLJsonValue& clauses) {
  static constexpr std::pair<std::string_view, std::string_view> kStrengths[] = {
      {"LCS_FORKEYSHARE", "FOR KEY SHARE"},
      {"LCS_FORSHARE", "FOR SHARE"},
      {"LCS_FORNOKEYUPDATE", "FOR NO KEY UPDATE"},
      {"LCS_FORUPDATE", "FOR UPDATE"},
  };
  const YLJsonValue* first = clauses.obtainArrayItem(0);
  const YLJsonValue* clause = first != nullptr ? first->obtainKeyValue("LockingClause") : nullptr;
  const std::string strength = clause != nullptr ? stringField(*clause, "strength") : "";
  for (const auto& [tag, words] : kStrengths) {
    if (strength == tag) return "SELECT ... " + std::string(words);
  }
  return "SELECT ... FOR UPDATE";
}

struct StatementRule {
  std::string_view type;
  std::string_view name;
  std::string_view why;
};

// Statements named and explained by their type alone.
constexpr StatementRule kStatements[] = {
    {"DoStmt", "DO", "runs code on the server"},
    {"CallStmt", "CALL", "runs a procedure"},
    {"CopyStmt", "COPY", "moves data between tables and files, programs or the client"},
    {"LockStmt", "LOCK", "takes locks"},
    {"ListenStmt", "LISTEN", "waits for notifications"},
    {"UnlistenStmt", "UNLISTEN", "waits for notifications"},
    {"NotifyStmt", "NOTIFY", "sends a notification"},
    {"PrepareStmt", "PREPARE", "works with prepared statements"},
    {"ExecuteStmt", "EXECUTE", "works with prepared statements"},
    {"DeallocateStmt", "DEALLOCATE", "works with prepared statements"},
    {"DiscardStmt", "DISCARD", "changes the session"},
    {"DeclareCursorStmt", "DECLARE", "works with cursors"},
    {"ClosePortalStmt", "CLOSE", "works with cursors"},
    {"InsertStmt", "INSERT", kChangesData},
    {"UpdateStmt", "UPDATE", kChangesData},
    {"DeleteStmt", "DELETE", kChangesData},
    {"MergeStmt", "MERGE", kChangesData},
    {"LoadStmt", "LOAD", "loads a library into the server"},
    {"CheckPointStmt", "CHECKPOINT", kServer},
    {"AlterSystemStmt", "ALTER SYSTEM", "changes the server's configuration"},
    {"ConstraintsSetStmt", "SET CONSTRAINTS", kSetting},
    // Types whose names do not read as their statements.
    {"CreateStmt", "CREATE TABLE", kChangesDatabase},
    {"IndexStmt", "CREATE INDEX", kChangesDatabase},
    {"ViewStmt", "CREATE VIEW", kChangesDatabase},
    {"RuleStmt", "CREATE RULE", kChangesDatabase},
    {"DefineStmt", "CREATE", kChangesDatabase},
    {"CompositeTypeStmt", "CREATE TYPE", kChangesDatabase},
    {"CreateEnumStmt", "CREATE TYPE", kChangesDatabase},
    {"CreateRangeStmt", "CREATE TYPE", kChangesDatabase},
    {"CreateSeqStmt", "CREATE SEQUENCE", kChangesDatabase},
    {"AlterSeqStmt", "ALTER SEQUENCE", kChangesDatabase},
    {"CreatedbStmt", "CREATE DATABASE", kChangesDatabase},
    {"DropdbStmt", "DROP DATABASE", kChangesDatabase},
    {"CreateTrigStmt", "CREATE TRIGGER", kChangesDatabase},
    {"CreateEventTrigStmt", "CREATE EVENT TRIGGER", kChangesDatabase},
    {"CreatePLangStmt", "CREATE LANGUAGE", kChangesDatabase},
    {"CreateTableSpaceStmt", "CREATE TABLESPACE", kChangesDatabase},
    {"RenameStmt", "ALTER ... RENAME", kChangesDatabase},
    {"AlterOwnerStmt", "ALTER ... OWNER TO", kChangesDatabase},
    {"AlterObjectSchemaStmt", "ALTER ... SET SCHEMA", kChangesDatabase},
    {"SecLabelStmt", "SECURITY LABEL", kChangesDatabase},
    {"RefreshMatViewStmt", "REFRESH MATERIALIZED VIEW", kChangesDatabase},
    {"CreateForeignServerStmt", "CREATE SERVER", kChangesDatabase},
    {"CreateFdwStmt", "CREATE FOREIGN DATA WRAPPER", kChangesDatabase},
};

// "CreateFunctionStmt" as "CREATE FUNCTION": the words of a type named after its statement.
std::string wordsOfType(std::string_view type) {
  type.remove_suffix(std::string_view("Stmt").size());
  std::string words;
  for (std::size_t i = 0; i < type.size(); ++i) {
    const bool startsWord = i > 0 && std::isupper(static_cast<unsigned char>(type[i])) != 0 &&
                            std::islower(static_cast<unsigned char>(type[i - 1])) != 0;
    if (startsWord) words += ' ';
    words += type[i];
  }
  return upper(words);
}

struct FunctionRule {
  std::string_view name;
  bool prefix;  // every function whose name starts so
  std::string_view why;
};

constexpr FunctionRule kFunctions[] = {
    {"set_config", false, kSetting},
    {"pg_advisory_", true, kLock},
    {"pg_try_advisory_", true, kLock},
    {"pg_sleep", true, "waits without reading"},
    {"pg_terminate_backend", false, kSessions},
    {"pg_cancel_backend", false, kSessions},
    {"pg_notify", false, "sends a notification"},
    {"lo_", true, kLargeObjects},
    {"loread", false, kLargeObjects},
    {"lowrite", false, kLargeObjects},
    {"pg_read_file", false, kFiles},
    {"pg_read_binary_file", false, kFiles},
    {"pg_stat_file", false, kFiles},
    {"pg_ls_", true, kFiles},
    {"pg_file_", true, kFiles},
    {"pg_logdir_ls", false, kFiles},
    {"dblink", true, "connects to another database"},
    {"query_to_xml", true, kOwnQuery},
    {"cursor_to_xml", true, kOwnQuery},
    {"table_to_xml", true, kOwnQuery},
    {"schema_to_xml", true, kOwnQuery},
    {"database_to_xml", true, kOwnQuery},
    {"ts_stat", false, kOwnQuery},
    {"ts_rewrite", false, kOwnQuery},
    {"crosstab", true, kOwnQuery},
    {"connectby", false, kOwnQuery},
    {"nextval", false, kSequence},
    {"setval", false, kSequence},
    {"pg_reload_conf", false, kServer},
    {"pg_rotate_logfile", true, kServer},
    {"pg_switch_wal", false, kServer},
    {"pg_promote", false, kServer},
    {"pg_stat_reset", true, kServer},
    {"pg_stat_statements_reset", false, kServer},
    {"pg_log_backend_memory_contexts", false, kServer},
    {"pg_import_system_collations", false, kServer},
    {"pg_backup_", true, kServer},
    {"pg_start_backup", false, kServer},
    {"pg_stop_backup", false, kServer},
    {"pg_wal_replay_", true, kServer},
    // Restore points and replication slots, origins and messages: they outlive the session.
    {"pg_create_", true, kServer},
    {"pg_drop_replication_slot", false, kServer},
    {"pg_copy_", true, kServer},
    {"pg_replication_", true, kServer},
    {"pg_logical_", true, kServer},
    // They write index pages even in a read-only transaction.
    {"brin_summarize_", true, kChangesDatabase},
    {"brin_desummarize_range", false, kChangesDatabase},
    {"gin_clean_pending_list", false, kChangesDatabase},
    // A transaction id of its own, or a snapshot that others may take up.
    {"txid_current", false, kServer},
    {"pg_current_xact_id", false, kServer},
    {"pg_export_snapshot", false, kServer},
};

}  // namespace

std::string statementRefusal(std::string_view type, const YLJsonValue& node, bool inWith) {
  if (type == "SelectStmt") {
    if (node.obtainKeyValue("intoClause") != nullptr)
      return refusal("SELECT INTO", "creates a table");
    if (const YLJsonValue* locks = node.obtainKeyValue("lockingClause"))
      return refusal(lockName(*locks), "locks rows");
    return {};
  }
  if (type == "ExplainStmt" || type == "VariableShowStmt") return {};
  if (type == "TransactionStmt") return refusal(transactionName(node), "is transaction control");
  if (type == "VariableSetStmt") return refusal(settingName(node), kSetting);
  if (type == "FetchStmt")
    return refusal(flag(node, "ismove") ? "MOVE" : "FETCH", "works with cursors");
  if (type == "VacuumStmt")
    return refusal(flag(node, "is_vacuumcmd") ? "VACUUM" : "ANALYZE", kChangesDatabase);
  if (type == "CreateTableAsStmt" && stringField(node, "objtype") == "OBJECT_MATVIEW")
    return refusal("CREATE MATERIALIZED VIEW", kChangesDatabase);
  if (type == "GrantStmt" || type == "GrantRoleStmt")
    return refusal(flag(node, "is_grant") ? "GRANT" : "REVOKE", kChangesDatabase);
  for (const StatementRule& rule : kStatements) {
    if (type == rule.type)
      return refusal(inWith ? std::string(rule.name) + " in WITH" : rule.name, rule.why);
  }
  return refusal(wordsOfType(type), kChangesDatabase);
}

std::string functionRefusal(std::string_view name) {
  std::string lower(name);
  for (char& c : lower)
    c = text::lowerAscii(c);
  for (const FunctionRule& rule : kFunctions) {
    if (rule.prefix ? text::startsWith(lower, rule.name) : lower == rule.name)
      return refusal(lower + "()", rule.why);
  }
  return {};
}

}  // namespace qorchat::postgres
