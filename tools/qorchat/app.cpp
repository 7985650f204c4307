// A qorchat run: set-up in order, then the mode the options ask for.
#include "app.h"

#include <unistd.h>

#include <optional>
#include <ostream>

#include "commands.h"
#include "completion.h"
#include "db/postgres_connection.h"
#include "mcp_server.h"
#include "setup.h"
#include "terminal.h"
#include "text.h"

namespace qorchat {

App::App(Options options, std::ostream& out, std::ostream& err)
    : options_(std::move(options)), display_(out, err), service_(findService(options_.service)) {}

int App::run() {
  // The database alone: no service, no key.
  if (options_.mode == Mode::Mcp) return serveMcp();
  if (const Status status = setUp(); !status) {
    display_.note(status.message());
    return kConfigurationError;
  }
  switch (options_.mode) {
    case Mode::Ask:
      return ask();
    case Mode::PrintRequest:
      return printRequest();
    case Mode::ListModels:
      return listModels();
    case Mode::Converse:
    case Mode::Mcp:
      break;
  }
  return converse();
}

Status App::setUp() {
  if (service_ == nullptr)
    return Status::invalidInput("unknown service '" + options_.service + "'");
  Result<std::string> key = readKey(options_, *service_);
  if (!key) return key.status();
  display_.addSecret(*key);
  Result<std::unique_ptr<Database>> database = openTarget();
  if (!database) return database.status();

  std::unique_ptr<MemoryStore> memory = openMemory(**database);
  conversation_ = std::make_unique<Conversation>(options_, *service_, display_);
  QORSetHTTPSettings(httpSettings(options_, conversation_->requestObserver()));
  return conversation_->start(
      Conversation::Parts{std::move(*database), std::move(memory), std::move(*key)});
}

Result<std::unique_ptr<Database>> App::openTarget() {
  std::string target = options_.database;
  if (target.empty()) {
    target = samplePath();
    if (target.empty()) {
      return Status::invalidInput(
          "the sample database is not installed beside qorchat; pass --db FILE");
    }
  }
  // Anyone on the machine can read a process's arguments.
  if (postgres::accepts(target) && postgres::masked(target) != target) {
    display_.warn(
        "the password in --db is visible to other users of this machine; PGPASSWORD, ~/.pgpass "
        "or a service file keeps it out of sight");
  }
  DatabaseSettings settings;
  settings.statementTimeout = std::chrono::seconds(options_.statementTimeoutSeconds);
  return openDatabase(target, settings);
}

int App::serveMcp() {
  Result<std::unique_ptr<Database>> database = openTarget();
  if (!database) {
    display_.note(database.status().message());
    return kConfigurationError;
  }
  return mcp::serve(**database, STDIN_FILENO, display_.out(), display_.err());
}

std::unique_ptr<MemoryStore> App::openMemory(const Database& database) {
  const ConversationKey key{std::string(service_->name), database.identity(),
                            database.displayName(), options_.conversationName};
  // One question, a dry run or a listing stands alone: none of them reads or grows the
  // conversation of the interactive runs.
  if (options_.mode == Mode::Converse && !options_.noHistory) {
    const Result<std::string> folder = stateFolder();
    Result<std::unique_ptr<MemoryStore>> stored =
        folder ? MemoryStore::open(*folder + "/conversations.sqlite3", key) : folder.status();
    if (stored) {
      inputHistoryFile_ = *folder + "/input_history";
      return std::move(*stored);
    }
    display_.warn(stored.status().message() + "; the conversation is kept in memory only");
  }
  Result<std::unique_ptr<MemoryStore>> inMemory = MemoryStore::open(":memory:", key);
  return inMemory ? std::move(*inMemory) : nullptr;
}

void App::offerKeyPrompt() {
  if (isatty(STDIN_FILENO) == 0) return;
  conversation_->setKeyPrompt([this](const std::string& question) {
    display_.out().flush();
    display_.err() << question << " " << std::flush;
    const std::optional<char> key = readKey("yna");
    display_.err() << (key ? std::string(1, *key) : std::string()) << "\n";
    return key;
  });
}

int App::ask() {
  if (!conversation_->chooseModel()) return kExchangeFailed;
  offerKeyPrompt();
  conversation_->replyOnStandardError =
      options_.runFirstBlock && options_.format != OutputFormat::Table;
  if (!conversation_->ask(options_.question, false)) return kExchangeFailed;
  if (!options_.runFirstBlock) return 0;
  if (conversation_->blocks().empty()) {
    display_.note("the reply holds no SQL block to run");
    return kExchangeFailed;
  }
  return conversation_->runBlock(0) ? 0 : kExchangeFailed;
}

int App::printRequest() {
  return conversation_->printRequest(options_.question) ? 0 : kExchangeFailed;
}

int App::listModels() {
  const Result<std::vector<std::string>> models = conversation_->models();
  if (!models) return kExchangeFailed;
  for (const std::string& name : *models)
    display_.out() << terminalSafe(name) << "\n";
  return 0;
}

// A psql user's backslash commands, as qorchat's own: \d NAME, \?, \timing, \x.
std::string App::psqlHabit(const std::string& line) {
  static const std::pair<std::string_view, std::string_view> kHabits[] = {
      {"\\d ", "/describe "}, {"\\?", "/help"}, {"\\timing", "/timing"}, {"\\h", "/help"}};
  for (const auto& [habit, command] : kHabits) {
    if (text::startsWith(line, habit)) return std::string(command) + line.substr(habit.size());
  }
  return line;
}

int App::converse() {
  if (!conversation_->chooseModel()) return kExchangeFailed;
  const bool interactive = isatty(STDIN_FILENO) != 0;
  if (interactive) {
    display_.out() << "qorchat " << QORCHAT_VERSION << ": " << conversation_->databaseName()
                   << " with " << service_->name << " (" << terminalSafe(conversation_->model())
                   << "). Ask a question; /help for commands, Ctrl-D to leave.\n";
  }
  if (const std::size_t resumed = conversation_->resumedEntryCount(); resumed > 0) {
    display_.note("resuming the conversation about " + conversation_->databaseName() + " (" +
                  std::to_string(resumed) + " earlier entries); /reset starts a new one");
    conversation_->showResumed();
  }
  offerKeyPrompt();
  LineReader reader(interactive, inputHistoryFile_);
  std::optional<std::uint64_t> completedGeneration;
  if (interactive) {
    conversation_->setConfirm([&reader](const std::string& question) {
      const std::optional<std::string> answer = reader.readAnswer(question + " [y/N] ");
      return answer && (text::trimmed(*answer) == "y" || text::trimmed(*answer) == "yes");
    });
  }
  while (true) {
    // A table made elsewhere completes as soon as the conversation has read it.
    if (completedGeneration != conversation_->structureGeneration()) {
      completedGeneration = conversation_->structureGeneration();
      reader.setCompletionWords(completionWords(conversation_->structure()));
    }
    display_.out().flush();
    const std::optional<std::string> asked = reader.readQuestion(interactive ? "qorchat> " : "");
    if (!asked) break;
    std::string question(text::trimmed(*asked));
    if (question.empty()) continue;
    if (question == "\\q" || question == "exit" || question == "quit") break;
    question = psqlHabit(question);
    if (question.front() == '/') {
      if (!runCommand(*conversation_, display_, question)) break;
      continue;
    }
    (void)conversation_->ask(question, true);
  }
  if (interactive) display_.out() << "\n";
  return 0;
}

}  // namespace qorchat
