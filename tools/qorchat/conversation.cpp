// A conversation: the assistant, the structure in scope, asking, running the reply's SQL.
#include "conversation.h"

#include <unistd.h>

#include <ostream>
#include <string_view>
#include <utility>

#include "result_table.h"
#include "setup.h"
#include "terminal.h"
#include "text.h"

namespace qorchat {
namespace {

// What a dry run names the model as when none was given: no listing is fetched then.
constexpr const char* kModelPlaceholder = "MODEL";
// How much of a block or statement its one-line summary shows, in characters.
constexpr std::size_t kSummaryWidth = 64;
// The key of the system instruction that says what the structure leaves out.
constexpr const char* kScopeKey = "scope";

std::string replyText(const IQORMessage& reply) {
  std::string text;
  for (const IQORMessageSection* section : reply.obtainSections()) {
    if (!text.empty()) text += '\n';
    text += section->obtainText();
  }
  return text;
}

std::string summary(std::string_view statement) {
  return ResultTable::fitted(text::oneLine(statement), kSummaryWidth);
}

}  // namespace

Conversation::Conversation(const Options& options, const Service& service, Display& display)
    : options_(options),
      service_(service),
      display_(display),
      interactive_(isatty(STDIN_FILENO) != 0),
      model_(options.model),
      temperatureSet_(options.temperature.has_value()) {}

// The assistant goes first: it borrows the memory.
Conversation::~Conversation() {
  assistant_.reset();
}

Status Conversation::start(Parts parts) {
  database_ = std::move(parts.database);
  memory_ = std::move(parts.memory);
  auto* pool = new YLHTTPPoolCenter;
  assistant_.reset(
      QORCreateAssistant(service_.type, pool, parts.key, effectiveHost(), memory_.get()));
  if (!assistant_) {
    delete pool;  // refused assistants leave the pool with the caller
    return Status::invalidInput("the library could not create an assistant for " +
                                std::string(service_.name));
  }
  pool_ = pool;
  Result<Structure> structure = database_->describe();
  if (!structure) return structure.status();
  structure_ = std::move(*structure);
  scope_ = std::make_unique<SchemaScope>(structure_, options_.schemaBudget);
  assistant_->updateProperties([&](IQORProperties* properties) {
    if (scope_->fitsWhole()) {
      properties->setValue("db_structure", YLVariant(structureJson(structure_)));
      // A conversation taken up keeps no instruction of an earlier run, but say it plainly.
      properties->setValue("system_instructions", YLVariant(YLVariantMap{{kScopeKey, ""}}));
    }
    if (!options_.model.empty()) properties->setValue("model", YLVariant(options_.model));
    if (options_.temperature) properties->setValue("temperature", YLVariant(*options_.temperature));
  });
  // Past the budget, even /schema before the first question shows what the history names.
  applyScope("");
  return Status::ok();
}

std::string Conversation::effectiveHost() const {
  return options_.host.empty() ? std::string(service_.defaultHost) : options_.host;
}

bool Conversation::spinnerWanted() const {
  return interactive_ && isatty(STDERR_FILENO) != 0;
}

std::size_t Conversation::resumedEntryCount() const {
  return memory_->resumedEntryCount();
}

std::string Conversation::databaseName() const {
  return terminalSafe(database_->displayName());
}

void Conversation::applyScope(const std::string& question) {
  if (scope_->fitsWhole()) return;
  std::vector<std::string_view> texts{question};
  const std::vector<QORHistoryEntry> history = memory_->obtainHistory(kHistoryEntries);
  for (auto entry = history.rbegin(); entry != history.rend(); ++entry)
    texts.emplace_back(entry->text);
  SchemaScope::Choice choice = scope_->choose(texts);
  if (choice.chosen == appliedChoice_) return;
  scopeInstruction_ = choice.listed < choice.total
                          ? SchemaScope::instruction(choice.listed, choice.total)
                          : std::string();
  // Written once per question, and only when the choice changed.
  const std::string json = structureJson(structure_, &choice.chosen);
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("db_structure", YLVariant(json));
    properties->setValue("system_instructions",
                         YLVariant(YLVariantMap{{kScopeKey, YLVariant(scopeInstruction_)}}));
  });
  appliedChoice_ = std::move(choice.chosen);
}

Status Conversation::failureOf(const std::string& failure, std::uint64_t exchangesBefore,
                               bool interrupted) const {
  // The library refused before sending anything (no model, say): its sentence says why.
  if (pool_->exchangesEnded() == exchangesBefore) return Status::service(failure);
  const std::int32_t code = pool_->lastExchangeCode();
  if (code == YLErrorCode::kCancelled || interrupted) return Status::cancelled(failure);
  if (code > YLErrorCode::kCurlCodeBase && code < YLErrorCode::kResponseTooLarge) {
    switch (code - YLErrorCode::kCurlCodeBase) {
      case 28:  // CURLE_OPERATION_TIMEDOUT
        return Status::timedOut(failure);
      case 5:   // CURLE_COULDNT_RESOLVE_PROXY
      case 6:   // CURLE_COULDNT_RESOLVE_HOST
      case 7:   // CURLE_COULDNT_CONNECT
      case 35:  // CURLE_SSL_CONNECT_ERROR
      case 52:  // CURLE_GOT_NOTHING
        return Status::unreachable(failure);
      default:
        break;
    }
  }
  if (code == YLErrorCode::kResponseTooLarge) {
    return Status::service("the reply was larger than the " +
                           std::to_string(kMaxReplyBytes / (std::size_t{1024} * 1024)) +
                           " MiB qorchat accepts: " + failure);
  }
  return Status::service(failure);
}

void Conversation::reportWriteFailure() {
  const Status failure = memory_->takeWriteFailure();
  if (!failure) display_.warn(failure.message() + "; the conversation goes on in memory only");
}

Status Conversation::ask(const std::string& typed, bool listBlocks) {
  // A request body is JSON, which holds only valid UTF-8: a stray byte of a paste becomes U+FFFD.
  const std::string question = text::validUtf8(typed);
  applyScope(question);
  std::pair<IQORMessage*, std::string> result;
  const std::uint64_t before = pool_->exchangesEnded();
  bool interrupted = false;
  {
    ExchangeWatch watch(pool_, spinnerWanted());
    result = assistant_->addMessage(question);
    interrupted = watch.interrupted();
  }
  const std::unique_ptr<IQORMessage, FreeObject> reply(result.first);
  reportWriteFailure();
  if (!reply) {
    Status status = failureOf(result.second, before, interrupted);
    if (status.kind() == Status::Kind::kCancelled) {
      display_.note("cancelled; the conversation is as it was");
    } else {
      reportExchangeFailure(display_, std::string(service_.name) + " failed", status, service_,
                            effectiveHost());
    }
    return status;
  }
  const std::string text = replyText(*reply);
  if (text::trimmed(text).empty()) {
    display_.out() << "(" << kNoTextReply << ")\n";
  } else {
    display_.showOutside(text);
    display_.out() << "\n";
  }
  blocks_ = SqlBlocks(text);
  if (listBlocks) {
    for (std::size_t i = 0; i < blocks_.size(); ++i) {
      const std::string number = std::to_string(i + 1);
      display_.out() << "[" << number << "] " << summary(display_.masked(blocks_[i])) << "  (/run "
                     << number << ")\n";
    }
  }
  display_.out().flush();
  return Status::ok();
}

Status Conversation::runBlock(std::size_t index) {
  failure_.reset();
  Result<std::vector<StatementResult>> results = std::vector<StatementResult>();
  {
    ExchangeWatch watch(
        nullptr, spinnerWanted(), [this] { database_->interrupt(); }, "running the statement");
    results = database_->runReadOnly(blocks_[index], RunLimits{ResultTable::kMaxRows});
  }
  if (!results) {
    // A run refused whole (the role may not run it) or a connection that failed: nothing in the
    // statement for the model to fix.
    if (results.status().kind() == Status::Kind::kRefused) {
      display_.note(results.status().message());
    } else {
      display_.fail("the database failed", results.status().message());
    }
    return results.status();
  }
  if (results->empty()) {
    display_.note("block " + std::to_string(index + 1) + " holds no statement");
    return Status::invalidInput("no statement");
  }
  for (const StatementResult& result : *results) {
    if (!result.status) {
      reportStatementFailure(result);
      return result.status;
    }
    // Several statements: each result says which statement it belongs to.
    if (results->size() > 1) display_.out() << "-- " << summary(result.statement) << "\n";
    display_.out() << ResultTable(result).render();
  }
  display_.out().flush();
  return Status::ok();
}

void Conversation::reportStatementFailure(const StatementResult& result) {
  const Status& status = result.status;
  if (status.kind() == Status::Kind::kCancelled) {
    display_.note("the statement was stopped (Ctrl-C)");
    return;
  }
  if (status.kind() == Status::Kind::kRefused) {
    display_.note(status.message());
  } else {
    display_.fail("the statement failed", status.message());
  }
  display_.err() << "  in: " << summary(result.statement) << "\n";
  if (options_.mode == Mode::Converse)
    display_.err() << "  /explain-error asks the model to fix it\n";
  failure_ = FailedStatement{result.statement, status.message()};
}

Status Conversation::explainError() {
  if (!failure_) {
    return Status::invalidInput(
        "no statement has failed: /explain-error follows a /run whose statement the database "
        "refused");
  }
  // The database's own words and the statement, as the user would have typed them.
  const FailedStatement failed = *failure_;
  return ask("This statement failed on the database:\n\n```sql\n" + failed.statement +
                 "\n```\n\nThe database's error: " + failed.error +
                 "\n\nExplain the error briefly and give a corrected statement.",
             true);
}

void Conversation::reset() {
  memory_->startNewConversation();
  blocks_ = SqlBlocks();
  failure_.reset();
  reportWriteFailure();
  applyScope("");
}

Result<std::vector<std::string>> Conversation::models() {
  std::pair<std::vector<std::string>, std::string> listing;
  const std::uint64_t before = pool_->exchangesEnded();
  bool interrupted = false;
  {
    ExchangeWatch watch(pool_, spinnerWanted());
    listing = assistant_->obtainAvailableModels();
    interrupted = watch.interrupted();
  }
  if (listing.second.empty()) return std::move(listing.first);
  const Status status = failureOf(listing.second, before, interrupted);
  reportExchangeFailure(display_, "cannot list the models of " + std::string(service_.name), status,
                        service_, effectiveHost());
  return status;
}

Status Conversation::chooseModel() {
  if (!model_.empty()) return Status::ok();
  Result<std::vector<std::string>> listed = models();
  if (!listed) return listed.status();
  if (listed->empty()) {
    Status none =
        Status::service(std::string(service_.name) + " lists no models; pass --model NAME");
    display_.note(none.message());
    return none;
  }
  setModel(listed->front());
  display_.note("using model " + model_ + " (the first " + std::string(service_.name) +
                " lists; choose another with --model)");
  return Status::ok();
}

void Conversation::setModel(const std::string& name) {
  model_ = name;
  assistant_->updateProperties(
      [&](IQORProperties* properties) { properties->setValue("model", YLVariant(name)); });
}

std::optional<double> Conversation::temperature() {
  if (!temperatureSet_) return std::nullopt;
  const std::unique_ptr<IQORProperties, FreeObject> properties(assistant_->obtainProperties());
  return properties->obtainValue("temperature").doubleValue();
}

Status Conversation::setTemperature(double temperature) {
  temperatureSet_ = true;
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("temperature", YLVariant(temperature));
  });
  return Status::ok();
}

std::string Conversation::schemaText() {
  // The text the model sees, put together from the tree the properties hand out: each catalog's
  // lines, then its schemas' lines, one statement a line.
  const std::unique_ptr<IQORProperties, FreeObject> properties(assistant_->obtainProperties());
  std::string text;
  const auto appendLines = [&text](const YLVariantMap& map) {
    const auto lines = map.find("instructions");
    if (lines == map.end() || lines->second.listPtr() == nullptr) return;
    for (const YLVariant& line : *lines->second.listPtr())
      text += line.stringValue() + "\n";
  };
  const YLVariant tree = properties->obtainValue("db_structure");
  if (const YLVariantList* catalogs = tree.listPtr()) {
    for (const YLVariant& catalog : *catalogs) {
      const YLVariantMap* map = catalog.mapPtr();
      if (map == nullptr) continue;
      appendLines(*map);
      const auto schemas = map->find("schemas");
      if (schemas == map->end() || schemas->second.listPtr() == nullptr) continue;
      for (const YLVariant& schema : *schemas->second.listPtr()) {
        if (const YLVariantMap* schemaMap = schema.mapPtr()) appendLines(*schemaMap);
      }
    }
  }
  return text;
}

Status Conversation::printRequest(const std::string& question) {
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
    display_.note(std::string("no --model given; the request names the model ") +
                  kModelPlaceholder + " (a real run takes the first model the service lists)");
  }
  applyScope(question);
  const auto result = assistant_->addMessage(question);
  QORFreeObject(result.first);
  if (!captured->seen) {
    display_.fail("the assistant prepared no request", result.second);
    return Status::service(result.second);
  }
  display_.showOutside(captured->method + " " + captured->url + "\n" + captured->body + "\n");
  return Status::ok();
}

}  // namespace qorchat
