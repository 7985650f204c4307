#pragma once
// One run of qorchat: sets up in order (the key, the database, the conversation store, HTTP, the
// conversation), then does what the options ask: a conversation, one question, a dry run or the
// model list; or, with --mcp, serves the database alone to an MCP client.

#include <iosfwd>
#include <memory>
#include <string>

#include "command_line.h"
#include "conversation.h"
#include "display.h"
#include "services.h"

namespace qorchat {

// Exit statuses: a failed exchange, and a usage or configuration error.
inline constexpr int kExchangeFailed = 1;
inline constexpr int kConfigurationError = 2;

class App {
 public:
  App(Options options, std::ostream& out, std::ostream& err);

  // Does what the options ask and returns the exit status.
  int run();

 private:
  Status setUp();
  // The database --db names (the sample shop by default), under --statement-timeout.
  Result<std::unique_ptr<Database>> openTarget();
  // The conversation store: a file in the state folder for a conversation, memory otherwise or
  // when the file cannot be had (with a warning).
  std::unique_ptr<MemoryStore> openMemory(const Database& database);

  // On a terminal, the conversation may ask a one-key question (whether to send results).
  void offerKeyPrompt();
  int converse();
  static std::string psqlHabit(const std::string& line);
  int ask();
  int printRequest();
  int listModels();
  // Needs the database only: no service, no key, no conversation store.
  int serveMcp();

  Options options_;
  Display display_;
  const Service* service_ = nullptr;
  std::unique_ptr<Conversation> conversation_;
  std::string inputHistoryFile_;
};

}  // namespace qorchat
