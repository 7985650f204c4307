// The rounds that follow a reply: the queries the model asks for, run in sight and sent as the
// user allows; the tables it asks for, brought into the structure; the check of the answer's SQL
// with its one repair.
#include <algorithm>
#include <ostream>

#include "conversation.h"
#include "terminal.h"
#include "text.h"

namespace qorchat {
namespace {

std::string commaSeparated(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

// "block 2 failed the check (no such column: c.nme); asking the model to correct it"
std::string repairLine(const std::vector<FailedCheck>& failed) {
  std::string numbers;
  std::string errors;
  for (std::size_t i = 0; i < failed.size(); ++i) {
    numbers += (i == 0                   ? ""
                : i + 1 == failed.size() ? " and "
                                         : ", ") +
               std::to_string(failed[i].block);
    errors += (i == 0 ? "" : "; ") + text::oneLine(failed[i].error);
  }
  const bool one = failed.size() == 1;
  return (one ? "block " : "blocks ") + numbers + " failed the check (" + errors +
         "); asking the model to correct " + (one ? "it" : "them");
}

}  // namespace

Status Conversation::followReply(std::string reply) {
  bool repairAsked = false;
  for (std::size_t round = 1;;) {
    // The scope indexes names only for a cut structure; a whole one needs no tables round.
    const std::vector<std::string> tables =
        scope_->fitsWhole() ? std::vector<std::string>() : tableRequests(reply);
    const std::vector<std::string> requests =
        sharing_ == Sharing::Never ? std::vector<std::string>() : runRequests(reply);
    Result<std::string> turn = std::string();
    if (tables.empty() && requests.empty()) {
      // The answer in words: its SQL checked, and repaired once. The repair round is not counted
      // in --max-steps: it is one round at most, and even a model told to answer now may name a
      // column that is not there.
      turn = checkBlocks(!repairAsked);
      if (!turn || turn->empty()) return turn.status();
      repairAsked = true;
    } else if (round > options_.maxSteps) {
      display_.note("the model asks for more " +
                    std::string(tables.empty() ? "queries" : "tables") + " after " +
                    std::to_string(options_.maxSteps) +
                    " rounds (--max-steps): stopped here; its queries are numbered for /run");
      return Status::ok();
    } else {
      turn = tables.empty() ? queryRound(requests, round) : tablesRound(tables, round);
      ++round;
      // Declined: the reply stands as the answer, its queries offered for /run.
      if (!turn && turn.status().kind() == Status::Kind::kRefused) return Status::ok();
      if (!turn) return turn.status();
    }
    Result<std::string> next = exchange(*turn);
    if (!next) return next.status();
    reply = std::move(*next);
  }
}

Result<std::string> Conversation::checkBlocks(bool repairAllowed) {
  blockFailures_.assign(blocks_.size(), std::string());
  std::vector<FailedCheck> failed;
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    Result<std::string> checked = std::string();
    bool interrupted = false;
    {
      ExchangeWatch watch(
          nullptr, spinnerWanted(), [this] { database_->interrupt(); }, "checking the SQL");
      checked = database_->check(blocks_[i]);
      interrupted = watch.interrupted();
    }
    if (interrupted || checked.status().kind() == Status::Kind::kCancelled) {
      blockFailures_.assign(blocks_.size(), std::string());
      display_.note("the check was stopped (Ctrl-C): the SQL blocks are offered unchecked");
      return Status::cancelled("the check was stopped");
    }
    // Past the time limit, or without a connection, nothing is known: the run will tell. The
    // note of what could not be checked stays quiet.
    const Status::Kind kind = checked.status().kind();
    if (kind != Status::Kind::kDatabase && kind != Status::Kind::kRefused) continue;
    blockFailures_[i] = checked.status().message();
    failed.push_back(FailedCheck{i + 1, blocks_[i], checked.status().message()});
  }
  if (failed.empty() || !repairAllowed) return std::string();
  display_.out().flush();
  display_.note(repairLine(failed));
  return repairTurn(failed, engine_);
}

void Conversation::noteBlockFailures() {
  for (std::size_t i = 0; i < blockFailures_.size(); ++i) {
    if (!blockFailures_[i].empty())
      display_.note("block " + std::to_string(i + 1) + " fails the check: " + blockFailures_[i]);
  }
}

Result<std::string> Conversation::tablesRound(const std::vector<std::string>& names,
                                              std::size_t round) {
  TablesOutcome outcome;
  std::vector<std::uint32_t> asked;
  for (const std::string& name : names) {
    const std::vector<std::uint32_t> found = scope_->relationsNamed(name);
    if (found.empty()) outcome.unknown.push_back(name);
    for (const std::uint32_t id : found) {
      if (std::find(asked.begin(), asked.end(), id) != asked.end()) continue;
      asked.push_back(id);
      if (std::find(forced_.begin(), forced_.end(), id) == forced_.end()) forced_.push_back(id);
    }
  }
  display_.out().flush();
  display_.note("the model asked for: " + commaSeparated(names) +
                (outcome.unknown.empty()
                     ? std::string()
                     : " (not in the database: " + commaSeparated(outcome.unknown) + ")") +
                "; asking again with them");
  applyScope(question_);
  const std::vector<RelationPlace> places = relationPlaces(structure_);
  for (const std::uint32_t id : asked) {
    (appliedChoice_[id] ? outcome.added : outcome.leftOut)
        .push_back(qualifiedName(structure_, places[id]));
  }
  return tablesTurn(outcome, round == options_.maxSteps);
}

Result<std::string> Conversation::queryRound(const std::vector<std::string>& requests,
                                             std::size_t round) {
  std::ostream& where = replyOnStandardError ? display_.err() : display_.out();
  std::vector<StatementResult> results;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    display_.out().flush();
    display_.note("round " + std::to_string(round) + " of at most " +
                  std::to_string(options_.maxSteps) + ": query " + std::to_string(i + 1) + " of " +
                  std::to_string(requests.size()) + " for the model, read-only:");
    where << terminalSafe(display_.masked(requests[i])) << "\n";
    Result<std::vector<StatementResult>> ran = std::vector<StatementResult>();
    bool interrupted = false;
    {
      ExchangeWatch watch(
          nullptr, spinnerWanted(), [this] { database_->interrupt(); }, "running the query");
      // At least what goes to the model is kept, so that the user sees all that is sent.
      ran = database_->runReadOnly(requests[i], RunLimits{std::max(maxRows, kResultCaps.rows)});
      interrupted = watch.interrupted();
    }
    if (interrupted) {
      display_.note("stopped (Ctrl-C): nothing of this round was sent");
      return Status::cancelled("the query loop was stopped");
    }
    if (!ran) ran = std::vector<StatementResult>{{requests[i], {}, {}, 0, true, ran.status()}};
    if (ran->empty())
      ran->push_back({requests[i], {}, {}, 0, true, Status::invalidInput("it holds no statement")});
    for (StatementResult& result : *ran) {
      if (result.status) {
        where << formatted(result, false);
      } else {
        display_.fail("the query failed", result.status.message());
      }
      results.push_back(std::move(result));
    }
  }
  where.flush();
  ResultsTurn turn = resultsTurn(results, kResultCaps, round == options_.maxSteps);
  std::string what = std::to_string(turn.rows) + (turn.rows == 1 ? " row" : " rows");
  if (turn.errors > 0)
    what += " and " + std::to_string(turn.errors) + (turn.errors == 1 ? " error" : " errors");
  const Status consent =
      consentToSend(what + " (" + std::to_string(turn.text.size()) + " bytes) of results");
  if (consent.kind() == Status::Kind::kRefused)
    display_.note("not sent: the model's queries are numbered for /run (/share always sends)");
  if (!consent) return consent;
  return std::move(turn.text);
}

Status Conversation::consentToSend(const std::string& what) {
  if (sharing_ == Sharing::Always) return Status::ok();
  if (sharing_ == Sharing::Never) return Status::refused("never shared");
  if (!keyPrompt_) {
    display_.note("no terminal to ask whether to send " + what +
                  "; --share-results always sends without asking");
    return Status::refused("nobody to ask");
  }
  display_.out().flush();
  const std::optional<char> key =
      keyPrompt_("Send " + what + " to " + std::string(service_.name) + " at " +
                 terminalSafe(effectiveHost()) + "? [y/n/a=always]");
  if (!key) {
    display_.note("stopped (Ctrl-C): nothing was sent");
    return Status::cancelled("not asked to send");
  }
  if (*key == 'a') setSharing(Sharing::Always);
  return *key == 'n' ? Status::refused("the user declined") : Status::ok();
}

}  // namespace qorchat
