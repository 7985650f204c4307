// A qorchat run: sets up the assistant for the chosen service and database, then converses,
// answers one question, prints a request without sending it, or lists the models; runs the SQL of
// a reply read-only when asked.
#include "session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "result_table.h"
#include "terminal.h"
#include "yl/yl.h"

namespace qorchat {
namespace {

namespace fs = std::filesystem;

// What a dry run names the model as when none was given: no listing is fetched then.
constexpr const char* kModelPlaceholder = "MODEL";
// A failure text longer than this is cut for display; a service may answer with a whole page.
constexpr std::size_t kShownFailureBytes = 400;
// The history entries the library sends along with a question; they name tables too.
constexpr std::int32_t kHistoryEntries = 20;
// How much of a block or statement its one-line summary shows, in characters.
constexpr std::size_t kSummaryWidth = 64;
// The key of the system instruction that says what the structure leaves out.
constexpr const char* kScopeKey = "scope";

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// The first line of a failure, cut to a length a terminal shows.
std::string forDisplay(const std::string& failure) {
  std::string text = failure.substr(0, std::min(failure.find_first_of("\r\n"), kShownFailureBytes));
  if (text.empty()) return "the service gave no reason";
  if (text.size() < failure.size()) {
    // Not inside a UTF-8 sequence.
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80)
      text.pop_back();
    if (!text.empty() && static_cast<unsigned char>(text.back()) >= 0xC0) text.pop_back();
    text += " ...";
  }
  return text;
}

std::string transportText(std::int32_t curlCode) {
  return YL::obtainAppFactory()
      ->obtainErrorService()
      ->obtainErrorCatalogue()
      ->obtainErrorRecord(YLErrorCode::kCurlCodeBase + curlCode)
      .text;
}

// The failures that mean nothing answered at that address: no name, no connection, no reply.
bool isUnreachable(const std::string& failure) {
  // CURLE_COULDNT_RESOLVE_PROXY, _HOST, _CONNECT, OPERATION_TIMEDOUT, GOT_NOTHING, SSL_CONNECT.
  for (const int code : {5, 6, 7, 28, 52, 35}) {
    if (failure == transportText(code)) return true;
  }
  return false;
}

std::string stateFolder() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && state[0] == '/')
    return std::string(state) + "/qorchat";
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0')
    return std::string(home) + "/.local/state/qorchat";
  return {};
}

// The sample shop: beside the program in the build tree, under share/ once installed.
std::string samplePath() {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (error) return {};
  const fs::path folder = program.parent_path();
  for (const fs::path& candidate :
       {folder / "shop.db", folder / ".." / "share" / "qorchat" / "shop.db"}) {
    if (fs::is_regular_file(candidate, error)) return fs::weakly_canonical(candidate).string();
  }
  return {};
}

// The digest text the model sees, put together from the tree the properties hand out: each
// catalog's lines, then its schemas' lines, one statement a line.
std::string digestText(IQORAssistant& assistant) {
  std::unique_ptr<IQORProperties, void (*)(IQORProperties*)> properties(
      assistant.obtainProperties(), [](IQORProperties* p) { QORFreeObject(p); });
  std::string text;
  const auto appendLines = [&text](const YLVariant& lines) {
    if (const YLVariantList* list = lines.listPtr()) {
      for (const YLVariant& line : *list)
        text += line.stringValue() + "\n";
    }
  };
  const YLVariant tree = properties->obtainValue("db_structure");
  if (const YLVariantList* catalogs = tree.listPtr()) {
    for (const YLVariant& catalog : *catalogs) {
      const YLVariantMap* map = catalog.mapPtr();
      if (map == nullptr) continue;
      if (auto it = map->find("instructions"); it != map->end()) appendLines(it->second);
      auto schemas = map->find("schemas");
      if (schemas == map->end() || schemas->second.listPtr() == nullptr) continue;
      for (const YLVariant& schema : *schemas->second.listPtr()) {
        if (const YLVariantMap* schemaMap = schema.mapPtr()) {
          if (auto it = schemaMap->find("instructions"); it != schemaMap->end())
            appendLines(it->second);
        }
      }
    }
  }
  return text;
}

std::string replyText(const IQORMessage& reply) {
  std::string text;
  for (const IQORMessageSection* section : reply.obtainSections()) {
    if (!text.empty()) text += '\n';
    text += section->obtainText();
  }
  return text;
}

constexpr const char* kCommandHelp =
    "Commands:\n"
    "  /help               this list\n"
    "  /models             the service's models\n"
    "  /model NAME         use another model (/model alone shows the current one)\n"
    "  /temperature X      set the temperature (/temperature alone shows it)\n"
    "  /run [N]            run SQL block N of the last reply (the first by default), read-only\n"
    "  /explain-error      ask the model to fix the statement that just failed\n"
    "  /schema             the database text the model sees, with its size\n"
    "  /reset              start a new conversation\n"
    "  /quit               leave (Ctrl-D too)\n"
    "Anything else is a question for the model. Ctrl-C cancels a question in flight.\n";

}  // namespace

Session::Session(Options options, std::ostream& out, std::ostream& err)
    : options_(std::move(options)), out_(out), err_(err) {
  service_ = findService(options_.service);
  interactive_ = isatty(STDIN_FILENO) != 0;
}

// The assistant goes first: it borrows the memory.
Session::~Session() {
  assistant_.reset();
}

int Session::run() {
  if (const int status = setUp(); status != 0) return status;
  switch (options_.mode) {
    case Mode::Ask:
      return ask();
    case Mode::PrintRequest:
      return printRequest();
    case Mode::ListModels:
      return listModels();
    case Mode::Converse:
      break;
  }
  return converse();
}

int Session::setUp() {
  if (service_ == nullptr) {
    err_ << "qorchat: unknown service '" << options_.service << "'\n";
    return kConfigurationError;
  }
  if (!readKey() || !openDatabase()) return kConfigurationError;
  openMemory();
  applySettings();
  return createAssistant() ? 0 : kConfigurationError;
}

bool Session::readKey() {
  if (service_->keyVariable.empty()) return true;
  if (!options_.apiKeyFile.empty()) {
    std::ifstream file(options_.apiKeyFile);
    if (!file) {
      err_ << "qorchat: cannot read the key file '" << options_.apiKeyFile
           << "': " << std::strerror(errno) << "\n";
      return false;
    }
    std::stringstream content;
    content << file.rdbuf();
    key_ = trimmed(content.str());
    if (key_.empty() || key_.find_first_of("\r\n") != std::string::npos) {
      err_ << "qorchat: the key file '" << options_.apiKeyFile
           << "' must hold the key alone on one line\n";
      return false;
    }
    return true;
  }
  const std::string variable(service_->keyVariable);
  if (const char* value = std::getenv(variable.c_str()); value != nullptr) key_ = trimmed(value);
  if (!key_.empty()) return true;
  // A dry run sends nothing, so it needs no key; what it prints masks the key anyway.
  if (options_.mode == Mode::PrintRequest) {
    key_ = "no-key-set";
    return true;
  }
  err_ << "qorchat: no key for " << service_->name << ": set " << variable
       << " or pass --api-key-file FILE\n";
  return false;
}

bool Session::openDatabase() {
  std::string target = options_.database;
  if (target.empty()) {
    target = samplePath();
    if (target.empty()) {
      err_ << "qorchat: the sample database is not installed beside qorchat; pass --db FILE\n";
      return false;
    }
  }
  try {
    DatabaseSettings settings;
    settings.statementTimeout = std::chrono::seconds(options_.statementTimeoutSeconds);
    database_ = qorchat::openDatabase(target, settings);
  } catch (const DatabaseError& error) {
    err_ << "qorchat: " << error.what() << "\n";
    return false;
  }
  return true;
}

void Session::openMemory() {
  const std::string key = std::string(service_->name) + "\n" + database_->identity();
  // One question, a dry run or a listing stands alone: none of them reads or grows the
  // conversation of the interactive runs.
  const bool persistent = options_.mode == Mode::Converse && !options_.noHistory;
  if (persistent) {
    const std::string folder = stateFolder();
    std::error_code error;
    if (folder.empty()) {
      err_ << "qorchat: warning: neither XDG_STATE_HOME nor HOME is set; the conversation is "
              "kept in memory only\n";
    } else if (fs::create_directories(folder, error); error) {
      err_ << "qorchat: warning: cannot create '" << folder << "' (" << error.message()
           << "); the conversation is kept in memory only\n";
    } else {
      try {
        memory_ = std::make_unique<MemoryStore>(folder + "/conversations.sqlite3", key);
        inputHistoryFile_ = folder + "/input_history";
      } catch (const std::exception& failure) {
        err_ << "qorchat: warning: " << failure.what()
             << "; the conversation is kept in memory only\n";
      }
    }
  }
  if (!memory_) memory_ = std::make_unique<MemoryStore>(":memory:", key);
}

void Session::applySettings() {
  YLRestGlobalSettings settings;
  settings.totalTimeoutMs = options_.timeoutSeconds * 1000;
  // A dropped connection, a 429 or a 503 is usually gone a moment later; the library waits with
  // backoff and honours Retry-After. Ctrl-C ends a wait at once.
  settings.maxRetries = 2;
  settings.proxy = options_.proxy;
  settings.caFile = options_.caFile;
  settings.userAgent = std::string("qorchat/") + QORCHAT_VERSION;
  QORSetHTTPSettings(settings);
}

std::string Session::effectiveHost() const {
  return options_.host.empty() ? std::string(service_->defaultHost) : options_.host;
}

bool Session::createAssistant() {
  auto* pool = new YLHTTPPoolCenter;
  assistant_.reset(QORCreateAssistant(service_->type, pool, key_, effectiveHost(), memory_.get()));
  if (!assistant_) {
    delete pool;  // refused assistants leave the pool with the caller
    err_ << "qorchat: the library could not create an assistant for " << service_->name << "\n";
    return false;
  }
  pool_ = pool;
  std::string structure;
  try {
    structure = database_->describeStructure();
  } catch (const DatabaseError& error) {
    err_ << "qorchat: " << error.what() << "\n";
    return false;
  }
  scope_ = std::make_unique<SchemaScope>(std::move(structure), options_.schemaBudget);
  assistant_->updateProperties([&](IQORProperties* properties) {
    if (scope_->fitsWhole()) {
      properties->setValue("db_structure", YLVariant(scope_->wholeStructure()));
      // A conversation taken up keeps no instruction of an earlier run, but say it plainly.
      properties->setValue("system_instructions", YLVariant(YLVariantMap{{kScopeKey, ""}}));
    }
    if (!options_.model.empty()) properties->setValue("model", YLVariant(options_.model));
    if (options_.temperature) properties->setValue("temperature", YLVariant(*options_.temperature));
  });
  // Past the budget, even /schema before the first question shows what the history names.
  applyScope("");
  model_ = options_.model;
  return true;
}

bool Session::chooseModel() {
  if (!model_.empty()) return true;
  const std::optional<std::vector<std::string>> models = fetchModels();
  if (!models) return false;
  if (models->empty()) {
    err_ << "qorchat: " << service_->name << " lists no models; pass --model NAME\n";
    return false;
  }
  setModel(models->front());
  err_ << "qorchat: using model " << model_ << " (the first " << service_->name
       << " lists; choose another with --model)\n";
  return true;
}

std::optional<std::vector<std::string>> Session::fetchModels() {
  std::pair<std::vector<std::string>, std::string> listing;
  {
    ExchangeWatch watch(pool_, spinnerWanted());
    listing = assistant_->obtainAvailableModels();
  }
  if (!listing.second.empty()) {
    reportFailure("cannot list the models of " + std::string(service_->name), listing.second);
    return std::nullopt;
  }
  return std::move(listing.first);
}

bool Session::spinnerWanted() const {
  return interactive_ && isatty(STDERR_FILENO) != 0;
}

void Session::setModel(const std::string& name) {
  model_ = name;
  assistant_->updateProperties(
      [&](IQORProperties* properties) { properties->setValue("model", YLVariant(name)); });
}

std::string Session::masked(std::string text) const {
  if (key_.size() < 4) return text;
  for (std::size_t at = text.find(key_); at != std::string::npos; at = text.find(key_, at))
    text.replace(at, key_.size(), "****");
  return text;
}

void Session::reportFailure(const std::string& what, const std::string& failure) {
  err_ << "qorchat: " << what << ": " << masked(forDisplay(failure)) << "\n";
  if (!isUnreachable(failure)) return;
  const std::string host = effectiveHost().empty() ? "its public host" : effectiveHost();
  err_ << "  Nothing answered at " << host << ". To chat, either:\n";
  if (service_->type == QORAssistantType::OLLAMA) {
    err_ << "  - start a local Ollama server and pull a model (ollama serve; ollama pull "
            "llama3.2), or pass --host URL of a running one, or\n";
  } else {
    err_ << "  - check the network, --host and --proxy, or\n";
  }
  err_ << "  - use a hosted service with its key, e.g. OPENAI_API_KEY=... qorchat --service "
          "openai (qorchat --help lists the key variables).\n"
       << "  To see what qorchat would send, without any network: qorchat --print-request "
          "\"QUESTION\"\n";
}

void Session::reportWriteFailure() {
  const std::string failure = memory_->takeWriteFailure();
  if (!failure.empty())
    err_ << "qorchat: warning: " << failure << "; the conversation goes on in memory only\n";
}

void Session::applyScope(const std::string& question) {
  if (scope_->fitsWhole()) return;
  std::vector<std::string_view> texts{question};
  const std::vector<QORHistoryEntry> history = memory_->obtainHistory(kHistoryEntries);
  for (auto entry = history.rbegin(); entry != history.rend(); ++entry)
    texts.emplace_back(entry->text);
  SchemaScope::Choice choice = scope_->choose(texts);
  if (choice.structure == appliedStructure_) return;
  scopeInstruction_ = choice.listed < choice.total
                          ? SchemaScope::instruction(choice.listed, choice.total)
                          : std::string();
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("db_structure", YLVariant(choice.structure));
    properties->setValue("system_instructions",
                         YLVariant(YLVariantMap{{kScopeKey, YLVariant(scopeInstruction_)}}));
  });
  appliedStructure_ = std::move(choice.structure);
}

bool Session::exchange(const std::string& question) {
  applyScope(question);
  std::pair<IQORMessage*, std::string> result;
  bool interrupted = false;
  {
    ExchangeWatch watch(pool_, spinnerWanted());
    result = assistant_->addMessage(question);
    interrupted = watch.interrupted();
  }
  std::unique_ptr<IQORMessage, FreeObject> reply(result.first);
  reportWriteFailure();
  if (!reply) {
    if (interrupted) {
      err_ << "qorchat: cancelled; the conversation is as it was\n";
    } else {
      reportFailure(std::string(service_->name) + " failed", result.second);
    }
    return false;
  }
  const std::string text = replyText(*reply);
  if (trimmed(text).empty()) {
    out_ << "(" << kNoTextReply << ")\n";
  } else {
    out_ << masked(text) << "\n";
  }
  blocks_ = SqlBlocks(text);
  if (options_.mode == Mode::Converse) {
    for (std::size_t i = 0; i < blocks_.size(); ++i) {
      const std::string number = std::to_string(i + 1);
      out_ << "[" << number << "] "
           << ResultTable::fitted(SqlBlocks::oneLine(masked(blocks_[i])), kSummaryWidth)
           << "  (/run " << number << ")\n";
    }
  }
  out_.flush();
  return true;
}

bool Session::runBlock(std::size_t index) {
  failure_.reset();
  std::vector<StatementResult> results;
  try {
    ExchangeWatch watch(
        nullptr, spinnerWanted(), [this] { database_->interrupt(); }, "running the statement");
    results = database_->runReadOnly(blocks_[index], ResultTable::kMaxRows);
  } catch (const DatabaseError& error) {
    // The connection itself failed, not a statement: there is nothing for the model to fix.
    err_ << "qorchat: " << error.what() << "\n";
    return false;
  }
  if (results.empty()) {
    err_ << "qorchat: block " << index + 1 << " holds no statement\n";
    return false;
  }
  for (std::size_t i = 0; i < results.size(); ++i) {
    const StatementResult& result = results[i];
    const std::string summary =
        ResultTable::fitted(SqlBlocks::oneLine(result.statement), kSummaryWidth);
    if (!result.error.empty()) {
      out_.flush();
      err_ << "qorchat: the statement failed: " << result.error << "\n"
           << "  in: " << summary << "\n";
      if (options_.mode == Mode::Converse) err_ << "  /explain-error asks the model to fix it\n";
      failure_ = FailedStatement{result.statement, result.error};
      return false;
    }
    // Several statements: each result says which statement it belongs to.
    if (results.size() > 1) out_ << "-- " << summary << "\n";
    out_ << ResultTable(result).render();
  }
  out_.flush();
  return true;
}

void Session::runCommand(const std::string& argument) {
  std::size_t number = 1;
  if (!argument.empty()) {
    const auto [end, error] =
        std::from_chars(argument.data(), argument.data() + argument.size(), number);
    if (error != std::errc() || end != argument.data() + argument.size() || number == 0) {
      err_ << "qorchat: '" << argument << "' is not a block number: write e.g. /run 2\n";
      return;
    }
  }
  if (blocks_.empty()) {
    err_ << "qorchat: the last reply holds no SQL block to run\n";
  } else if (number > blocks_.size()) {
    err_ << "qorchat: there is no block " << number << ": the last reply has "
         << (blocks_.size() == 1 ? std::string("one (/run 1)")
                                 : std::to_string(blocks_.size()) + " (/run 1 to /run " +
                                       std::to_string(blocks_.size()) + ")")
         << "\n";
  } else {
    runBlock(number - 1);
  }
}

void Session::explainError() {
  if (!failure_) {
    err_ << "qorchat: no statement has failed: /explain-error follows a /run whose statement "
            "the database refused\n";
    return;
  }
  // The database's own words and the statement, as the user would have typed them.
  const FailedStatement failed = *failure_;
  exchange("This statement failed on the database:\n\n```sql\n" + failed.statement +
           "\n```\n\nThe database's error: " + failed.error +
           "\n\nExplain the error briefly and give a corrected statement.");
}

int Session::ask() {
  if (!chooseModel()) return kExchangeFailed;
  if (!exchange(options_.question)) return kExchangeFailed;
  if (!options_.runFirstBlock) return 0;
  if (blocks_.empty()) {
    err_ << "qorchat: the reply holds no SQL block to run\n";
    return kExchangeFailed;
  }
  return runBlock(0) ? 0 : kExchangeFailed;
}

int Session::printRequest() {
  struct Captured {
    std::string method, url, body;
    bool seen = false;
  };
  auto captured = std::make_shared<Captured>();
  YLRestGlobalSettings settings;
  settings.requestHook =
      [captured](const YLPreparedRequest& request) -> std::optional<YLStandInReply> {
    if (!captured->seen) {
      captured->seen = true;
      captured->method = request.method;
      captured->url = request.url;
      captured->body = std::string(request.body);
    }
    // Answers in the service's place: nothing leaves the machine.
    return YLStandInReply{200, {}, "{}"};
  };
  QORSetHTTPSettings(settings);
  if (model_.empty()) {
    setModel(kModelPlaceholder);
    err_ << "qorchat: no --model given; the request names the model " << kModelPlaceholder
         << " (a real run takes the first model the service lists)\n";
  }
  applyScope(options_.question);
  const auto result = assistant_->addMessage(options_.question);
  QORFreeObject(result.first);
  if (!captured->seen) {
    err_ << "qorchat: the assistant prepared no request: " << forDisplay(result.second) << "\n";
    return kExchangeFailed;
  }
  out_ << captured->method << " " << masked(captured->url) << "\n"
       << masked(captured->body) << "\n";
  return 0;
}

int Session::listModels() {
  const std::optional<std::vector<std::string>> models = fetchModels();
  if (!models) return kExchangeFailed;
  for (const std::string& name : *models)
    out_ << name << "\n";
  return 0;
}

void Session::showModels() {
  const std::optional<std::vector<std::string>> models = fetchModels();
  if (!models) return;
  for (const std::string& name : *models)
    out_ << (name == model_ ? "* " : "  ") << name << "\n";
}

void Session::showSchema() {
  const std::string text = digestText(*assistant_);
  out_ << text;
  // About four bytes a token for this kind of text; a model's own tokenizer decides.
  out_ << "-- " << text.size() << " bytes, about " << (text.size() + 3) / 4 << " tokens\n";
  if (!scopeInstruction_.empty()) {
    out_ << "-- " << scopeInstruction_ << " (--schema-budget " << options_.schemaBudget
         << " bytes; a question that names a table brings it in)\n";
  }
}

void Session::setTemperature(const std::string& value) {
  if (value.empty()) {
    std::unique_ptr<IQORProperties, FreeObject> properties(assistant_->obtainProperties());
    out_ << "temperature: "
         << (options_.temperature
                 ? std::to_string(properties->obtainValue("temperature").doubleValue())
                 : std::string("the service's default"))
         << "\n";
    return;
  }
  double temperature = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), temperature);
  if (error != std::errc() || end != value.data() + value.size()) {
    err_ << "qorchat: temperature '" << value << "' is not a number: write e.g. /temperature 0.2\n";
    return;
  }
  options_.temperature = temperature;
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("temperature", YLVariant(temperature));
  });
  std::unique_ptr<IQORProperties, FreeObject> properties(assistant_->obtainProperties());
  out_ << "temperature: " << properties->obtainValue("temperature").doubleValue() << "\n";
}

bool Session::command(const std::string& line) {
  const std::size_t blank = line.find_first_of(" \t");
  const std::string name = line.substr(0, blank);
  const std::string argument = blank == std::string::npos ? "" : trimmed(line.substr(blank));
  if (name == "/quit" || name == "/exit") return false;
  if (name == "/help") {
    out_ << kCommandHelp;
  } else if (name == "/models") {
    showModels();
  } else if (name == "/model") {
    if (argument.empty()) {
      out_ << "model: " << model_ << "\n";
    } else {
      setModel(argument);
      out_ << "model: " << model_ << "\n";
    }
  } else if (name == "/temperature") {
    setTemperature(argument);
  } else if (name == "/schema") {
    showSchema();
  } else if (name == "/run") {
    runCommand(argument);
  } else if (name == "/explain-error") {
    explainError();
  } else if (name == "/reset") {
    memory_->startNewConversation();
    blocks_ = SqlBlocks();
    failure_.reset();
    reportWriteFailure();
    applyScope("");
    out_ << "A new conversation begins.\n";
  } else {
    err_ << "qorchat: unknown command " << name << ": type /help for the list\n";
  }
  out_.flush();
  return true;
}

int Session::converse() {
  if (!chooseModel()) return kExchangeFailed;
  if (interactive_) {
    out_ << "qorchat " << QORCHAT_VERSION << ": " << database_->displayName() << " with "
         << service_->name << " (" << model_ << "). Ask a question; /help for commands, Ctrl-D "
         << "to leave.\n";
  }
  if (memory_->resumedEntryCount() > 0) {
    err_ << "qorchat: resuming the conversation about " << database_->displayName() << " ("
         << memory_->resumedEntryCount() << " earlier entries); /reset starts a new one\n";
  }
  LineReader reader(interactive_, inputHistoryFile_);
  while (true) {
    out_.flush();
    const std::optional<std::string> line = reader.readLine(interactive_ ? "qorchat> " : "");
    if (!line) break;
    const std::string text = trimmed(*line);
    if (text.empty()) continue;
    if (text.front() == '/') {
      if (!command(text)) break;
      continue;
    }
    exchange(text);
  }
  if (interactive_) out_ << "\n";
  return 0;
}

}  // namespace qorchat
