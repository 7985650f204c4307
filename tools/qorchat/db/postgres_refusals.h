#pragma once
// Why a node of a PostgreSQL parse tree must not run: the statements other than those that read,
// and the functions that change the session or the server, reach outside the database's data or
// run SQL text of their own, each said in words for the user.

#include <string>
#include <string_view>

class YLJsonValue;

namespace qorchat::postgres {

// The refusal of a statement node of the parse tree (its type, such as "TransactionStmt", and its
// fields), or empty for one that only reads: SELECT, VALUES and TABLE without INTO or a row lock,
// EXPLAIN (whose statement is judged as a node of its own) and SHOW. inWith says it is the
// statement of a WITH query.
std::string statementRefusal(std::string_view type, const YLJsonValue& node, bool inWith);

// The refusal of a call of a function of this name, whatever its schema and the case of its
// letters, or empty for a function that may be called.
std::string functionRefusal(std::string_view name);

}  // namespace qorchat::postgres
