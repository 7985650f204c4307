#pragma once
// One conversation about one database with one service: the assistant and its memory, the part of
// the structure the model sees, the SQL blocks of the last reply and the statement that last
// failed. Asks, runs, lists and switches models; tells what happened through the display.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "command_line.h"
#include "db/database.h"
#include "display.h"
#include "markdown.h"
#include "memory_store.h"
#include "qor.h"
#include "query_loop.h"
#include "schema_scope.h"
#include "services.h"
#include "sql_blocks.h"
#include "status.h"

namespace qorchat {

struct AttemptCounter;

class Conversation {
 public:
  // Everything a conversation is made of, opened by the caller.
  struct Parts {
    std::unique_ptr<Database> database;
    std::unique_ptr<MemoryStore> memory;
    std::string key;  // empty for a service that needs none
  };

  Conversation(const Options& options, const Service& service, Display& display);
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  // Creates the assistant and hands it the database's structure, within the budget.
  Status start(Parts parts);

  // Asks the user a yes-or-no question; qorchat takes no for an answer where nobody can be asked.
  using Confirm = std::function<bool(const std::string& question)>;
  void setConfirm(Confirm confirm) { confirm_ = std::move(confirm); }
  // Asks the user a question answered by one key (y, n or a); nothing on Ctrl-C. Without it,
  // nothing is sent that needs asking.
  using KeyPrompt = std::function<std::optional<char>(const std::string& question)>;
  void setKeyPrompt(KeyPrompt prompt) { keyPrompt_ = std::move(prompt); }

  // Sends one question and shows the reply, or what failed. Unless nothing is shared, the model
  // may first ask for read-only queries (sql-run blocks): each round runs them in sight, sends
  // their results as the next turn (with consent, when asked for) and shows the reply, until it
  // answers in words or --max-steps rounds have run. When the structure was cut to the budget,
  // a round may also be the model's tables block: the structure is chosen again with them in.
  // The answer's SQL blocks are checked against the database; those that fail go back once for
  // the model to correct. With listBlocks, the SQL blocks of the last reply are listed after it,
  // numbered for /run, a block that still fails with its error beside it.
  Status ask(const std::string& question, bool listBlocks);
  // Runs SQL block index (from 0) of the last reply read-only and shows its rows or the
  // database's error. A block of a reply cut off at the length limit runs only when confirmed.
  Status runBlock(std::size_t index);
  // Runs the user's own SQL through the same read-only runner.
  Status runSql(const std::string& sql);
  // Asks the model to fix the statement that last failed; its quoted values stay here unless
  // sharing allows them.
  Status explainError();
  // Prints the request a question would send, sending nothing.
  Status printRequest(const std::string& question);
  // Starts an empty conversation; the old one stays stored.
  void reset();
  // Deletes the current conversation's entries for good and starts it empty.
  Status forget();
  // The conversations of the store, newest first, each text as it was stored.
  Result<std::vector<StoredConversation>> storedConversations() const;

  // The service's models, or the failure already reported.
  Result<std::vector<std::string>> models();
  // The model given, else the one chosen last time for this service, else the newest chat model
  // the service lists; a failure is reported.
  Status chooseModel();
  // Called by the HTTP settings' request hook before every request, retries included.
  std::function<void()> requestObserver() const;
  // Switches to a model the service lists; a name it doesn't list is refused with the near ones.
  Status switchModel(const std::string& name);
  void setModel(const std::string& name);
  const std::string& model() const { return model_; }
  // The temperature as the assistant holds it; empty while the service's default applies.
  std::optional<double> temperature();
  Status setTemperature(double temperature);

  // The structure text the model sees, and what it leaves out.
  std::string schemaText();
  // One table or view as the model sees it, found by name.
  Status describe(std::string_view name);
  // Shows the last exchange of a conversation taken up, and numbers its SQL blocks again.
  void showResumed();
  const Structure& structure() const { return structure_; }
  // Moves each time the structure is read again with a change the model would see.
  std::uint64_t structureGeneration() const { return structureGeneration_; }

  // How results are shown: the format, the rows kept, how NULL looks, the time of each run.
  OutputFormat format = OutputFormat::Table;
  std::size_t maxRows = 100;
  std::string nullText;
  bool timing = false;
  // The reply and its blocks go to standard error: --ask --run whose rows are CSV or JSON.
  bool replyOnStandardError = false;
  const std::string& scopeInstruction() const { return scopeInstruction_; }
  // The unique keys the model is told of, for the relations it sees.
  std::string uniqueKeysText() const {
    return uniqueKeysInstruction(structure_, appliedChoice_.empty() ? nullptr : &appliedChoice_);
  }

  // What of the data may go to the service; the model is offered queries unless it is never.
  Sharing sharing() const { return sharing_; }
  void setSharing(Sharing sharing);

  // Opens the notes file in the user's editor and gives the model what it then holds.
  Status editNotes();
  // The notes file in use: --notes FILE or the database's own; empty when there is none.
  const std::string& notesFile() const { return notesFile_; }

  // The tokens the service counted since the start: "1210 tokens in, 380 out over 3 replies".
  std::string usageText() const;

  const SqlBlocks& blocks() const { return blocks_; }
  const Options& options() const { return options_; }
  std::size_t resumedEntryCount() const;
  std::string databaseName() const;

 private:
  struct FreeObject {
    void operator()(IQORObject* object) const { QORFreeObject(object); }
  };
  struct TokenTotals {
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    std::size_t replies = 0;
    std::size_t reported = 0;  // replies with at least one count
  };
  struct FailedStatement {
    std::string statement;
    std::string error;
  };

  // Hands the library the structure chosen for this question and the history, with the "scope"
  // instruction that says what was left out.
  void applyScope(const std::string& question);
  // Reads the structure again when its stamp moved (a migration in another window), says so, and
  // hands the library the new one. When either read fails, the structure read last stays.
  void refreshStructure();
  // Indexes the structure anew within what the budget leaves it, and hands the library the
  // structure and instructions the next question would get.
  void rebuildScope();
  // The outcome of an exchange that gave no reply, told apart by what the pool saw.
  Status failureOf(const std::string& failure, std::uint64_t exchangesBefore,
                   bool interrupted) const;
  void reportWriteFailure();
  // A statement that failed, was refused or stopped; kept for /explain-error unless stopped.
  void reportStatementFailure(const StatementResult& result);
  bool spinnerWanted() const;
  std::string effectiveHost() const;
  // The host, and the proxy when one stands between.
  std::string reachedThrough() const;
  // The whole listing, undated models included; a failure is reported.
  Result<std::vector<QORModelEntry>> catalogue();
  // Keeps the model for this service's next run.
  void remember();
  // Reads the notes file; what the notes take of the schema budget, the structure cannot.
  Status readNotes();
  // The schema budget left to the structure by the notes and the tables' comments.
  std::size_t structureBudget() const;
  // Hands the library the instructions again after a setting that changes them.
  void applyInstructions();
  // qorchat's system instructions for the relations chosen (all when null).
  YLVariantMap systemInstructions(const std::vector<bool>* chosen) const;
  // Sends one turn and shows the reply as it arrives; the reply's text, or the failure reported.
  Result<std::string> exchange(const std::string& turn);
  // The rounds the reply asks for (tables whatever the sharing, queries unless nothing is
  // shared), each answered by the model's next reply; then the answer's check and one repair.
  Status followReply(std::string reply);
  // Checks each kept block without running it; the failures are kept for the listing. With
  // repairAllowed, the turn that asks for the failed blocks corrected, after a line that says so;
  // empty when every block passed (or could not be checked). Ctrl-C stops it, as cancelled.
  Result<std::string> checkBlocks(bool repairAllowed);
  // A note for each kept block that failed the check, where the blocks are not listed.
  void noteBlockFailures();
  // Chooses the structure again with the tables the model named forced in; the turn that says
  // which are in it now and which the database does not have.
  Result<std::string> tablesRound(const std::vector<std::string>& names, std::size_t round);
  // A remark beside the answer on standard error: dim on a colour terminal.
  void showDim(const std::string& line);
  // Runs one round's queries in sight and gives the results turn, once the user consents.
  Result<std::string> queryRound(const std::vector<std::string>& requests, std::size_t round);
  // Whether what ("3 rows (412 bytes) of results") may go to the service: ok, refused, or
  // cancelled by Ctrl-C.
  Status consentToSend(const std::string& what);
  // Shows a reply and keeps its SQL blocks; with listBlocks, lists them numbered for /run.
  void showReply(const std::string& text, bool listBlocks);
  // Keeps a reply's SQL blocks, its sql-run ones included.
  void keepBlocks(const std::string& text);
  // Lists the kept blocks numbered for /run.
  void listKeptBlocks();
  // The Markdown layout for a reply on a colour terminal; none for plain safe text.
  std::optional<MarkdownStyle> replyLayout() const;
  // The reply's token counts, dim on standard error, and added to the totals.
  void noteUsage(const IQORMessage& reply);
  // Tells the user when the reply did not end as a complete answer.
  void noteReplyEnd(const IQORMessage& reply);
  Status runStatements(const std::string& sql, std::string_view what);
  // A result in the chosen format, for standard output; a count goes to standard error.
  std::string formatted(const StatementResult& result, bool labelled) const;
  std::chrono::milliseconds questionDeadline() const;
  // Colour unless --no-color or NO_COLOR says otherwise; the caller checks for a terminal.
  bool colorWanted() const;

  const Options& options_;
  const Service& service_;
  Display& display_;
  bool interactive_;
  std::shared_ptr<AttemptCounter> attempts_;
  std::unique_ptr<Database> database_;
  std::unique_ptr<MemoryStore> memory_;  // outlives the assistant, which only borrows it
  YLHTTPPoolCenter* pool_ = nullptr;     // owned by the assistant
  std::unique_ptr<IQORAssistant, FreeObject> assistant_;
  std::string key_;  // masked by the display; a streamed fragment holds back its start
  std::string model_;
  bool temperatureSet_ = false;
  std::string engine_;  // "PostgreSQL 15.8", "SQLite 3.40.1"
  Confirm confirm_;
  KeyPrompt keyPrompt_;
  Sharing sharing_;
  bool lastReplyCut_ = false;
  TokenTotals usage_;

  // The structure the model sees: whole while it fits the budget, otherwise chosen per question.
  Structure structure_;
  std::string structureStamp_;  // the database's stamp, read just before the structure
  std::uint64_t structureGeneration_ = 0;
  std::unique_ptr<SchemaScope> scope_;
  std::vector<bool> appliedChoice_;
  std::string scopeInstruction_;       // empty while the whole structure goes
  std::string tableNamesInstruction_;  // every table's name; empty while the whole goes
  std::string question_;               // the question the rounds follow, for the scope
  std::vector<std::uint32_t> forced_;  // relations the model asked for in this question
  std::string notesFile_;
  std::string notesInstruction_;            // empty without notes
  SqlBlocks blocks_;                        // of the last reply
  std::vector<std::string> blockFailures_;  // by block: the check's error, empty when none
  std::optional<FailedStatement> failure_;  // of the last run
};

}  // namespace qorchat
