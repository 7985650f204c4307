#pragma once
// The query loop's text rules, free of any network: the instruction that lets the model ask for
// read-only queries, the sql-run blocks of a reply that ask for them, the results written back
// for the model within their caps, the tables blocks that ask for more of the structure, the turn
// that asks for blocks which failed the check to be corrected, and quoted values taken out of a
// text that must carry no row data. Conversation drives the loop with these.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"

namespace qorchat {

// The key of the instruction, next to those of instructions.h; empty while nothing is shared.
inline constexpr const char* kDataAccessInstructionKey = "data_access";

// How much of a round's results goes to the model: rows of each result, bytes of the whole turn,
// characters of one value. The model is told the caps and each result's true row count.
struct ResultCaps {
  std::size_t rows = 50;
  std::size_t bytes = std::size_t{8} * 1024;
  std::size_t valueCharacters = 200;
};
// The caps qorchat sends results under.
inline constexpr ResultCaps kResultCaps{};

// The instruction that offers the model queries: ```sql-run blocks run by qorchat, the results
// as the next turn within the caps, the final answer in words with its SQL in ```sql blocks.
std::string dataAccessInstruction(const ResultCaps& caps = {});

// The SQL of the reply's ```sql-run (or ~~~sql-run) blocks, in order; blank blocks left out.
std::vector<std::string> runRequests(std::string_view reply);

// The reply with its sql-run fences labelled sql, so that every block is numbered for /run.
std::string runBlocksAsSql(std::string_view reply);

// One round's results as the model's next turn, and what it carries.
struct ResultsTurn {
  std::string text;
  std::size_t rows = 0;    // rows written, all results together
  std::size_t errors = 0;  // failed statements, whose texts may quote values
};

// Each result headed by its query: a compact table ("a|b" lines, NULL as NULL) with its row
// count, or the database's error. lastRound tells the model to answer now.
ResultsTurn resultsTurn(const std::vector<StatementResult>& results, const ResultCaps& caps,
                        bool lastRound);

// The names of the reply's ```tables blocks in order, each once: one a line (or apart by commas),
// a list mark or a closing semicolon left out.
std::vector<std::string> tableRequests(std::string_view reply);

// What a tables round did with the names the model asked for.
struct TablesOutcome {
  std::vector<std::string> added;    // in the structure now, as a query names them
  std::vector<std::string> leftOut;  // found, but past what the structure's budget holds
  std::vector<std::string> unknown;  // names the database does not have, as the model wrote them
};

// The turn after a tables round: what the structure holds now, the names not found; lastRound
// tells the model to answer now.
std::string tablesTurn(const TablesOutcome& outcome, bool lastRound);

// An SQL block of an answer that the database's check refused, numbered from 1 as for /run.
struct FailedCheck {
  std::size_t block;
  std::string sql;
  std::string error;  // the database's one line: planning errors carry no row data
};

// The turn that asks the model, once, for its answer again with the failed blocks corrected.
std::string repairTurn(const std::vector<FailedCheck>& failed, std::string_view engine);

// The text with every quoted value replaced by a placeholder: '...' and "..." literals, and the
// values of PostgreSQL's "Key (email)=(a@b.c)" and "Failing row contains (...)".
std::string withoutQuotedValues(std::string_view text);

}  // namespace qorchat
