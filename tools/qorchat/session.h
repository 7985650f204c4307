#pragma once
// One run of qorchat: the database, the conversation store and the assistant, and what the user
// asked the run to do (a conversation, one question, a dry run, the model list), with the SQL of
// the last reply ready to run read-only.

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "database.h"
#include "memory_store.h"
#include "qor.h"
#include "schema_scope.h"
#include "services.h"
#include "sql_blocks.h"

class YLHTTPPoolCenter;

namespace qorchat {

// Exit statuses: a failed exchange, and a usage or configuration error.
inline constexpr int kExchangeFailed = 1;
inline constexpr int kConfigurationError = 2;

class Session {
 public:
  Session(Options options, std::ostream& out, std::ostream& err);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Does what the options ask and returns the exit status.
  int run();

 private:
  struct FreeObject {
    void operator()(IQORObject* object) const { QORFreeObject(object); }
  };

  int setUp();
  bool readKey();
  bool openDatabase();
  void openMemory();
  void applySettings();
  bool createAssistant();
  bool chooseModel();
  // The service's models, or nothing after the failure was reported.
  std::optional<std::vector<std::string>> fetchModels();
  bool spinnerWanted() const;

  int converse();
  int ask();
  int printRequest();
  int listModels();

  // Sends one question and shows the reply or what failed; true when a reply came. In a
  // conversation, the reply's SQL blocks are listed after it, numbered for /run.
  bool exchange(const std::string& question);
  // Hands the library the structure chosen for this question and the history, with the "scope"
  // instruction that says what was left out.
  void applyScope(const std::string& question);
  // Runs SQL block index (from 0) of the last reply and shows its rows or the database's error;
  // true when every statement succeeded.
  bool runBlock(std::size_t index);
  void runCommand(const std::string& argument);
  void explainError();
  // Runs a /command; false when it asks to quit.
  bool command(const std::string& line);
  void showModels();
  void showSchema();
  void setTemperature(const std::string& value);
  void setModel(const std::string& name);
  void reportWriteFailure();
  // A failure of the service or the transport, with hints when nothing answered.
  void reportFailure(const std::string& what, const std::string& failure);
  // The key, wherever it might appear, replaced by asterisks.
  std::string masked(std::string text) const;
  std::string effectiveHost() const;

  Options options_;
  std::ostream& out_;
  std::ostream& err_;
  const Service* service_ = nullptr;
  bool interactive_ = false;
  std::string key_;
  std::unique_ptr<Database> database_;
  std::unique_ptr<MemoryStore> memory_;  // outlives the assistant, which only borrows it
  YLHTTPPoolCenter* pool_ = nullptr;     // owned by the assistant
  std::unique_ptr<IQORAssistant, FreeObject> assistant_;
  std::string model_;
  std::string inputHistoryFile_;

  // The structure the model sees: whole while it fits the budget, otherwise chosen per question.
  std::unique_ptr<SchemaScope> scope_;
  std::string appliedStructure_;
  std::string scopeInstruction_;  // empty while the whole structure goes
  SqlBlocks blocks_;              // of the last reply
  struct FailedStatement {
    std::string statement;
    std::string error;
  };
  std::optional<FailedStatement> failure_;  // of the last /run
};

}  // namespace qorchat
