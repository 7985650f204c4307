// Tests where PostgreSQL statements are cut: at the semicolons the server's lexer ends them at,
// never at one inside a literal, a quoted name, a dollar quote or a comment.
#include "db/postgres_statements.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Statements = std::vector<std::string_view>;

struct Split {
  const char* sql;
  bool backslashEscapes;
  Statements expected;
};

const Split kSplits[] = {
    {"SELECT 1; SELECT 2", false, {"SELECT 1;", "SELECT 2"}},
    {"  -- nothing here ;\n ; /* ; */ ", false, {}},
    // Literals, quoted names (a doubled quote inside), dollar quotes with and without a tag, an
    // escape string, and a line comment within the statement.
    {"SELECT 'a;b' AS \"x\"\";y\", $$c;d$$, $t$e;$$;$t$, E'\\';' -- f;g\n;SELECT 2",
     false,
     {"SELECT 'a;b' AS \"x\"\";y\", $$c;d$$, $t$e;$$;$t$, E'\\';' -- f;g\n;", "SELECT 2"}},
    {"/* h; /* i; */ j; */ SELECT 1;  -- end;\n", false, {"/* h; /* i; */ j; */ SELECT 1;"}},
    // A backslash ends a standard literal's text, but escapes the quote when strings are not
    // standard; e'' escapes whatever the setting.
    {"SELECT 'a\\'; SELECT 2", false, {"SELECT 'a\\';", "SELECT 2"}},
    {"SELECT 'a\\'; SELECT 2", true, {"SELECT 'a\\'; SELECT 2"}},
    {"SELECT e'\\';'; SELECT 2", false, {"SELECT e'\\';';", "SELECT 2"}},
    // $1 is a parameter and a $ inside a word opens nothing.
    {"SELECT $1; SELECT a$b$; SELECT 2", false, {"SELECT $1;", "SELECT a$b$;", "SELECT 2"}},
    // What is never closed runs to the end, for the server to report.
    {"SELECT 'open; SELECT 2", false, {"SELECT 'open; SELECT 2"}},
    {"SELECT $q$open; SELECT 2", false, {"SELECT $q$open; SELECT 2"}},
    {"SELECT 1 /* open; SELECT 2", false, {"SELECT 1 /* open; SELECT 2"}},
};

TEST(PostgresStatements, CutsOnlyWhereTheServerWould) {
  for (const Split& split : kSplits) {
    EXPECT_EQ(qorchat::postgres::splitStatements(split.sql, split.backslashEscapes), split.expected)
        << split.sql << (split.backslashEscapes ? " (backslash escapes)" : "");
  }
}

}  // namespace
