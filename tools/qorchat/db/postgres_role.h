#pragma once
// Whether the role qorchat logs in as may run the model's SQL at all: a role that may run
// programs or reach files on the server, stop other sessions, write everywhere or make roles is
// refused, however read-only its transaction, because those rights reach past a transaction.

#include <string>
#include <string_view>
#include <vector>

namespace qorchat::postgres {

// Lists what makes the session's login role unfit, one row each: the role itself when it is a
// superuser or has CREATEROLE, and every role it is a member of, directly or through others, that
// is either or is one of the predefined roles that reach beyond reading. Its columns: the role's
// name, rolsuper, rolcreaterole ("t" or "f"), and whether it is the login role itself. No row:
// the role is fit.
extern const char* const kRoleReachQuery;

struct RoleReach {
  std::string role;
  bool superuser = false;
  bool createRole = false;
  bool own = false;  // the login role itself
};

// Why the login role may not run statements, on one line, with the statements that make a role
// fit for it; empty when it reaches nothing.
std::string roleRefusal(std::string_view loginRole, const std::vector<RoleReach>& reaches);

}  // namespace qorchat::postgres
