// Reads what the login role can do beyond reading, and says so to the user.
#include "db/postgres_role.h"

namespace qorchat::postgres {

// pg_has_role(..., 'MEMBER') follows memberships through other roles, with or without INHERIT:
// SET ROLE reaches every one of them. A superuser is a member of every role; its own row comes
// first and is the one that counts.
const char* const kRoleReachQuery =
    "SELECT r.rolname, r.rolsuper, r.rolcreaterole, r.rolname = session_user "
    "FROM pg_catalog.pg_roles r "
    "WHERE pg_catalog.pg_has_role(session_user, r.oid, 'MEMBER') AND (r.rolsuper OR "
    "r.rolcreaterole OR r.rolname IN ('pg_execute_server_program', 'pg_write_server_files', "
    "'pg_read_server_files', 'pg_signal_backend', 'pg_write_all_data')) "
    "ORDER BY r.rolname = session_user DESC, r.rolname";

std::string roleRefusal(std::string_view loginRole, const std::vector<RoleReach>& reaches) {
  std::string why;
  for (const RoleReach& reach : reaches) {
    std::string reason;
    if (reach.own && reach.superuser) {
      why = "is a superuser";
      break;
    }
    if (reach.own) {
      reason = "has CREATEROLE";
    } else if (reach.superuser) {
      reason = "is a member of the superuser role " + reach.role;
    } else if (reach.createRole) {
      reason = "is a member of " + reach.role + ", which has CREATEROLE";
    } else {
      reason = "is a member of " + reach.role;
    }
    why += (why.empty() ? "" : " and ") + reason;
  }
  if (why.empty()) return {};
  return "refused: role '" + std::string(loginRole) + "' " + why +
         ", rights that reach past a read-only transaction; qorchat runs no statement as it. A "
         "role fit for it: CREATE ROLE chat LOGIN; GRANT pg_read_all_data TO chat;";
}

}  // namespace qorchat::postgres
