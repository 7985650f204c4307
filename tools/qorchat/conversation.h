#pragma once
// One conversation about one database with one service: the assistant and its memory, the part of
// the structure the model sees, the SQL blocks of the last reply and the statement that last
// failed. Asks, runs, lists and switches models; tells what happened through the display.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "db/database.h"
#include "display.h"
#include "memory_store.h"
#include "qor.h"
#include "schema_scope.h"
#include "services.h"
#include "sql_blocks.h"
#include "status.h"

namespace qorchat {

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

  // Sends one question and shows the reply, or what failed. With listBlocks, the reply's SQL
  // blocks are listed after it, numbered for /run.
  Status ask(const std::string& question, bool listBlocks);
  // Runs SQL block index (from 0) of the last reply read-only and shows its rows or the
  // database's error.
  Status runBlock(std::size_t index);
  // Asks the model to fix the statement that last failed.
  Status explainError();
  // Prints the request a question would send, sending nothing.
  Status printRequest(const std::string& question);
  // Starts an empty conversation; the old one stays stored.
  void reset();

  // The service's models, or the failure already reported.
  Result<std::vector<std::string>> models();
  // The model given, or else the first the service lists; a failure is reported.
  Status chooseModel();
  void setModel(const std::string& name);
  const std::string& model() const { return model_; }
  // The temperature as the assistant holds it; empty while the service's default applies.
  std::optional<double> temperature();
  Status setTemperature(double temperature);

  // The structure text the model sees, and what it leaves out.
  std::string schemaText();
  const std::string& scopeInstruction() const { return scopeInstruction_; }

  const SqlBlocks& blocks() const { return blocks_; }
  const Options& options() const { return options_; }
  std::size_t resumedEntryCount() const;
  std::string databaseName() const;

 private:
  struct FreeObject {
    void operator()(IQORObject* object) const { QORFreeObject(object); }
  };
  struct FailedStatement {
    std::string statement;
    std::string error;
  };

  // Hands the library the structure chosen for this question and the history, with the "scope"
  // instruction that says what was left out.
  void applyScope(const std::string& question);
  // The outcome of an exchange that gave no reply, told apart by what the pool saw.
  Status failureOf(const std::string& failure, std::uint64_t exchangesBefore,
                   bool interrupted) const;
  void reportWriteFailure();
  // A statement that failed, was refused or stopped; kept for /explain-error unless stopped.
  void reportStatementFailure(const StatementResult& result);
  bool spinnerWanted() const;
  std::string effectiveHost() const;

  const Options& options_;
  const Service& service_;
  Display& display_;
  bool interactive_;
  std::unique_ptr<Database> database_;
  std::unique_ptr<MemoryStore> memory_;  // outlives the assistant, which only borrows it
  YLHTTPPoolCenter* pool_ = nullptr;     // owned by the assistant
  std::unique_ptr<IQORAssistant, FreeObject> assistant_;
  std::string model_;
  bool temperatureSet_ = false;

  // The structure the model sees: whole while it fits the budget, otherwise chosen per question.
  Structure structure_;
  std::unique_ptr<SchemaScope> scope_;
  std::vector<bool> appliedChoice_;
  std::string scopeInstruction_;            // empty while the whole structure goes
  SqlBlocks blocks_;                        // of the last reply
  std::optional<FailedStatement> failure_;  // of the last run
};

}  // namespace qorchat
