// Tests, without a server, where the guard in front of PostgreSQL cuts a block and what it
// rejects as invalid; what it refuses is tried in safe_run_postgres_test.cpp.
#include "db/postgres_statements.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qorchat::postgres::classifyStatements;
using qorchat::postgres::Statement;
using Verdict = Statement::Verdict;
using Texts = std::vector<std::string_view>;

struct Split {
  const char* sql;
  Texts expected;
};

const Split kSplits[] = {
    {"SELECT 1; SELECT 2", {"SELECT 1;", "SELECT 2"}},
    {"  -- nothing here ;\n ; /* ; */ ", {}},
    // Literals, quoted names (a doubled quote inside), dollar quotes with and without a tag, an
    // escape string and comments, nested ones too, hold semicolons that end nothing. A statement
    // is the text the parser judged, its comments with it; only white space is trimmed.
    {"/* a; /* b; */ c; */ SELECT 'a;b' AS \"x\"\";y\", $$c;d$$, $t$e;$$;$t$, E'\\';' -- f;g\n;"
     "-- next\n  SELECT 2 ;  ",
     {"/* a; /* b; */ c; */ SELECT 'a;b' AS \"x\"\";y\", $$c;d$$, $t$e;$$;$t$, E'\\';' -- f;g\n;",
      "-- next\n  SELECT 2 ;"}},
    // Literals are standard, as the session that runs them has them: a backslash is text.
    {"SELECT 'a\\'; SELECT 2", {"SELECT 'a\\';", "SELECT 2"}},
};

TEST(PostgresStatements, CutsWhereTheGrammarEndsAStatement) {
  for (const Split& split : kSplits) {
    Texts texts;
    for (const Statement& statement : classifyStatements(split.sql)) {
      texts.push_back(statement.text);
      EXPECT_EQ(statement.verdict, Verdict::kReads) << split.sql << ": " << statement.reason;
    }
    EXPECT_EQ(texts, split.expected) << split.sql;
  }
}

TEST(PostgresStatements, ABlockTheGrammarRejectsIsThePartThatHoldsTheError) {
  const std::pair<const char*, Statement> rejected[] = {
      {"SELECT 1; SELECT 'a' FROM; SELECT 3",
       {"SELECT 'a' FROM;", Verdict::kInvalid, "syntax error at or near \";\""}},
      // The parser counts characters, not bytes.
      {"SELECT 'é'; SELECT 'ü' FROM",
       {"SELECT 'ü' FROM", Verdict::kInvalid, "syntax error at end of input"}},
      {"SELECT 'open; COMMIT",
       {"SELECT 'open; COMMIT", Verdict::kInvalid,
        "unterminated quoted string at or near \"'open; COMMIT\""}},
  };
  for (const auto& [sql, expected] : rejected)
    EXPECT_EQ(classifyStatements(sql), std::vector<Statement>{expected}) << sql;
  // A zero byte would end the text the parser reads, leaving the rest unjudged.
  const std::string withZero("SELECT 1; \0 COMMIT", 18);
  EXPECT_EQ(classifyStatements(withZero).at(0).verdict, Verdict::kInvalid);
}

}  // namespace
