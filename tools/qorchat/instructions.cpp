// The database instruction: the engine, its dialect and quoting, and the form of SQL replies.
#include "instructions.h"

#include "text.h"

namespace qorchat {

std::string_view engineName(std::string_view engine) {
  return engine.substr(0, engine.find(' '));
}

std::string databaseInstruction(std::string_view engine) {
  std::string text = "The database is " + std::string(engine) + ". ";
  if (text::startsWith(engine, "PostgreSQL")) {
    text +=
        "Write SQL for PostgreSQL: quote an identifier with double quotes (\"Order\") when it is "
        "mixed-case, a reserved word or holds special characters, and qualify tables with their "
        "schema when it is not public. ";
  } else {
    text +=
        "Write SQL for SQLite: quote an identifier with double quotes (\"order\") when it is a "
        "reserved word or holds special characters; use SQLite's functions (strftime, date, "
        "julianday, ifnull, group_concat) and no others' (no NOW(), INTERVAL or ILIKE). ";
  }
  text +=
      "The backticks in the database structure below are only how it is listed, not quoting to "
      "copy. The SQL runs read-only. Put each statement you propose in a fenced ```sql block.";
  return text;
}

}  // namespace qorchat
