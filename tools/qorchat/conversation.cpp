// A conversation: the assistant, the structure in scope, asking, running the reply's SQL.
#include "conversation.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <string_view>
#include <utility>

#include "instructions.h"
#include "markdown.h"
#include "model_choice.h"
#include "notes.h"
#include "output_format.h"
#include "pager.h"
#include "reply_stream.h"
#include "result_table.h"
#include "setup.h"
#include "structure_text.h"
#include "terminal.h"
#include "text.h"

namespace qorchat {
namespace {

// What a dry run names the model as when none was given: no listing is fetched then.
constexpr const char* kModelPlaceholder = "MODEL";
// How much of a block or statement its one-line summary shows, in characters.
constexpr std::size_t kSummaryWidth = 64;
// How many requests one question may make: the first and the retries of the HTTP settings.
constexpr int kAttempts = kHttpRetries + 1;
// The share of the schema budget the tables' comments may take, and their most without a budget.
constexpr std::size_t kCommentsShare = 10;
constexpr std::size_t kMostCommentBytes = 4096;

std::size_t commentsBytes(std::size_t schemaBudget) {
  return schemaBudget == 0 ? kMostCommentBytes
                           : std::min(kMostCommentBytes, schemaBudget / kCommentsShare);
}

// The longest value a result in CSV, JSON or Markdown carries: what a statement may make at all.
constexpr std::size_t kWholeValueBytes = std::size_t{16} * 1024 * 1024;
// How much of a question taken up again is shown.
constexpr std::size_t kResumedQuestionWidth = 200;
// The names of every table, for a structure cut to the budget, take at most this share of it.
constexpr std::size_t kTableNamesShare = 10;

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

// "412 tokens in, 96 out", or the half the service reported; empty when it reported neither.
std::string tokenCounts(std::int64_t in, std::int64_t out) {
  if (in >= 0 && out >= 0)
    return std::to_string(in) + " tokens in, " + std::to_string(out) + " out";
  if (in >= 0) return std::to_string(in) + " tokens in";
  if (out >= 0) return std::to_string(out) + " tokens out";
  return {};
}

}  // namespace

// Counts the requests of the exchange being watched, so that a retry shows on its spinner. The
// library's request hook calls it on the exchange's own thread.
struct AttemptCounter {
  int requests = 0;
  ExchangeWatch* watch = nullptr;
};

namespace {

// Points the counter at a watch for the length of one exchange.
class AttemptLabel {
 public:
  AttemptLabel(const std::shared_ptr<AttemptCounter>& counter, ExchangeWatch& watch)
      : counter_(counter) {
    counter_->requests = 0;
    counter_->watch = &watch;
  }
  ~AttemptLabel() { counter_->watch = nullptr; }
  AttemptLabel(const AttemptLabel&) = delete;
  AttemptLabel& operator=(const AttemptLabel&) = delete;

 private:
  std::shared_ptr<AttemptCounter> counter_;
};

}  // namespace

std::function<void()> Conversation::requestObserver() const {
  return [counter = attempts_] {
    const int request = ++counter->requests;
    if (request > 1 && counter->watch != nullptr) {
      counter->watch->setLabel("retrying: attempt " + std::to_string(request) + " of " +
                               std::to_string(kAttempts));
    }
  };
}

Conversation::Conversation(const Options& options, const Service& service, Display& display)
    : options_(options),
      service_(service),
      display_(display),
      interactive_(isatty(STDIN_FILENO) != 0),
      attempts_(std::make_shared<AttemptCounter>()),
      model_(options.model),
      temperatureSet_(options.temperature.has_value()),
      // Where nobody can be asked, nothing goes unless the user said so.
      sharing_(options.shareResults.value_or(interactive_ ? Sharing::Ask : Sharing::Never)) {
  format = options.format;
  maxRows = options.maxRows;
  nullText = options.nullText;
  timing = options.timing;
}

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
  key_ = std::move(parts.key);
  // Without a stamp, the first question reads the structure again.
  if (Result<std::string> stamp = database_->structureStamp()) structureStamp_ = std::move(*stamp);
  Result<Structure> structure = database_->describe();
  if (!structure) return structure.status();
  structure_ = std::move(*structure);
  engine_ = database_->engineDescription();
  if (Status notes = readNotes(); !notes) return notes;
  scope_ = std::make_unique<SchemaScope>(structure_, structureBudget());
  assistant_->updateProperties([&](IQORProperties* properties) {
    if (scope_->fitsWhole()) {
      properties->setValue("db_structure", YLVariant(structureJson(structure_)));
      properties->setValue("system_instructions", YLVariant(systemInstructions(nullptr)));
    }
    if (!options_.model.empty()) properties->setValue("model", YLVariant(options_.model));
    if (options_.temperature) properties->setValue("temperature", YLVariant(*options_.temperature));
    // Only Anthropic's record has the key; its default of 1024 cuts a long answer with SQL.
    if (service_.type == QORAssistantType::ANTHROPIC) {
      properties->setValue("max_tokens",
                           YLVariant(static_cast<std::int32_t>(std::min<long>(
                               options_.maxTokens, std::numeric_limits<std::int32_t>::max()))));
    }
  });
  // Past the budget, even /schema before the first question shows what the history names.
  applyScope("");
  return Status::ok();
}

std::string Conversation::effectiveHost() const {
  return options_.host.empty() ? std::string(service_.defaultHost) : options_.host;
}

YLVariantMap Conversation::systemInstructions(const std::vector<bool>* chosen) const {
  // Every key always, empty when it has nothing to say: a conversation taken up keeps no
  // instruction of an earlier run, but say it plainly.
  return YLVariantMap{
      {kDatabaseInstructionKey, YLVariant(databaseInstruction(engine_))},
      {kScopeInstructionKey, YLVariant(scopeInstruction_)},
      {kUniqueKeysInstructionKey, YLVariant(uniqueKeysInstruction(structure_, chosen))},
      {kNotesInstructionKey, YLVariant(notesInstruction_)},
      {kCommentsInstructionKey,
       YLVariant(commentsInstruction(structure_, chosen, commentsBytes(options_.schemaBudget)))},
      {kDataAccessInstructionKey,
       YLVariant(sharing_ == Sharing::Never ? std::string() : dataAccessInstruction(kResultCaps))},
      {kTableNamesInstructionKey, YLVariant(tableNamesInstruction_)},
  };
}

void Conversation::setSharing(Sharing sharing) {
  sharing_ = sharing;
  applyInstructions();
}

void Conversation::applyInstructions() {
  const std::vector<bool>* chosen = appliedChoice_.empty() ? nullptr : &appliedChoice_;
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("system_instructions", YLVariant(systemInstructions(chosen)));
  });
}

std::string Conversation::reachedThrough() const {
  // With a proxy, the proxy may be what did not answer. Its user and password are never shown.
  if (options_.proxy.empty()) return effectiveHost();
  std::string proxy = options_.proxy;
  const std::size_t scheme = proxy.find("://");
  const std::size_t hostStart = scheme == std::string::npos ? 0 : scheme + 3;
  const std::size_t at = proxy.find('@', hostStart);
  if (at != std::string::npos && at < proxy.find('/', hostStart))
    proxy.replace(hostStart, at - hostStart, "****");
  return effectiveHost() + " (through the proxy " + proxy + ")";
}

bool Conversation::colorWanted() const {
  const char* noColor = std::getenv("NO_COLOR");
  return options_.color && (noColor == nullptr || *noColor == '\0');
}

std::chrono::milliseconds Conversation::questionDeadline() const {
  return std::chrono::seconds(options_.timeoutSeconds);
}

bool Conversation::spinnerWanted() const {
  return interactive_ && isatty(STDERR_FILENO) != 0;
}

std::size_t Conversation::resumedEntryCount() const {
  return memory_->resumedEntryCount();
}

Status Conversation::readNotes() {
  notesFile_ = options_.notesFile;
  if (notesFile_.empty()) {
    // Without a state folder there is no notes file of the database's own, and nothing fails.
    const Result<std::string> folder = stateFolder();
    if (folder) notesFile_ = notesPath(*folder, database_->identity());
  }
  if (notesFile_.empty()) return Status::ok();
  const Result<Notes> notes = qorchat::readNotes(notesFile_, !options_.notesFile.empty());
  if (!notes) return notes.status();
  if (!notes->notice.empty()) display_.note(notes->notice);
  notesInstruction_ = notesInstruction(*notes);
  return Status::ok();
}

std::size_t Conversation::structureBudget() const {
  // The notes and the comments go with every question; what they take, the structure cannot,
  // though it keeps at least half the budget.
  const std::size_t budget = options_.schemaBudget;
  if (budget == 0) return 0;
  const std::size_t comments =
      commentsInstruction(structure_, nullptr, commentsBytes(budget)).size();
  return budget - std::min(budget / 2, notesInstruction_.size() + comments);
}

Status Conversation::editNotes() {
  if (notesFile_.empty()) {
    return Status::invalidInput("there is no notes file: give one with --notes FILE");
  }
  if (Status edited = qorchat::editNotes(notesFile_, databaseName()); !edited) return edited;
  if (Status read = readNotes(); !read) return read;
  // What the notes take of the budget, the structure cannot.
  rebuildScope();
  display_.out() << (notesInstruction_.empty() ? "the notes are empty; the model gets none\n"
                                               : "the model gets the notes from now on\n");
  return Status::ok();
}

std::string Conversation::databaseName() const {
  return terminalSafe(database_->displayName());
}

void Conversation::refreshStructure() {
  Result<std::string> stamp = database_->structureStamp();
  if (!stamp || *stamp == structureStamp_) return;
  Result<Structure> structure = database_->describe();
  if (!structure) return;
  structureStamp_ = std::move(*stamp);
  // Another session's temporary tables, or a new ANALYZE on SQLite, move the stamp too: only a
  // change the model would see is worth telling.
  if (sameForTheModel(structure_, *structure)) return;
  structure_ = std::move(*structure);
  ++structureGeneration_;
  display_.note("the structure of " + databaseName() + " changed; the model gets it as it is now");
  rebuildScope();
}

void Conversation::rebuildScope() {
  forced_.clear();  // places in the structure the old scope indexed
  scope_ = std::make_unique<SchemaScope>(structure_, structureBudget());
  appliedChoice_.clear();
  scopeInstruction_.clear();
  tableNamesInstruction_.clear();
  if (scope_->fitsWhole()) {
    assistant_->updateProperties([&](IQORProperties* properties) {
      properties->setValue("db_structure", YLVariant(structureJson(structure_)));
      properties->setValue("system_instructions", YLVariant(systemInstructions(nullptr)));
    });
    return;
  }
  applyScope(question_);
}

void Conversation::applyScope(const std::string& question) {
  if (scope_->fitsWhole()) return;
  std::vector<std::string_view> texts{question};
  const std::vector<QORHistoryEntry> history = memory_->obtainHistory(kHistoryEntries);
  for (auto entry = history.rbegin(); entry != history.rend(); ++entry)
    texts.emplace_back(entry->text);
  SchemaScope::Choice choice = scope_->choose(texts, forced_);
  if (choice.chosen == appliedChoice_) return;
  scopeInstruction_ = choice.listed < choice.total
                          ? SchemaScope::instruction(choice.listed, choice.total)
                          : std::string();
  // Names are structure, not rows: they go whatever the sharing, so that the model can ask for
  // the tables the cut structure leaves out.
  tableNamesInstruction_ = scopeInstruction_.empty()
                               ? std::string()
                               : tableNamesInstruction(structure_, choice.ranking,
                                                       options_.schemaBudget / kTableNamesShare);
  // Written once per question, and only when the choice changed.
  const std::string json = structureJson(structure_, &choice.chosen);
  assistant_->updateProperties([&](IQORProperties* properties) {
    properties->setValue("db_structure", YLVariant(json));
    properties->setValue("system_instructions", YLVariant(systemInstructions(&choice.chosen)));
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
  // The service's own words come first; its status says what kind of refusal it was.
  if (code >= 100 && code < 600)
    return Status::service("HTTP " + std::to_string(code) + ": " + failure);
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
  question_ = question;
  forced_.clear();
  refreshStructure();
  applyScope(question);
  Result<std::string> reply = exchange(question);
  if (!reply) return reply.status();
  Status followed = followReply(std::move(*reply));
  if (listBlocks) {
    listKeptBlocks();
  } else {
    noteBlockFailures();
  }
  display_.out().flush();
  return followed;
}

Result<std::string> Conversation::exchange(const std::string& turn) {
  // The reply is written as it arrives, unless it goes to standard error before rows for another
  // program: then it is shown whole, as it always was.
  auto* streaming = options_.stream && !replyOnStandardError
                        ? dynamic_cast<IQORStreamingAssistant*>(assistant_.get())
                        : nullptr;
  std::optional<ReplyStream> stream;
  std::pair<IQORMessage*, std::string> result;
  const std::uint64_t before = pool_->exchangesEnded();
  bool interrupted = false;
  bool timedOut = false;
  // The first text shown stops the spinner; text first shown once the watch has ended (a reply
  // held back until it is whole) finds the spinner gone with it.
  ExchangeWatch* spinner = nullptr;
  {
    ExchangeWatch watch(pool_, spinnerWanted(), {}, "waiting for the model", questionDeadline());
    const AttemptLabel label(attempts_, watch);
    if (streaming != nullptr) {
      spinner = &watch;
      stream.emplace(display_.out(), display_, key_, replyLayout(), [&spinner] {
        if (spinner != nullptr) spinner->stopSpinner();
      });
      result = streaming->addMessageStreaming(
          turn, [&stream](std::string_view fragment) { stream->add(fragment); });
    } else {
      result = assistant_->addMessage(turn);
    }
    interrupted = watch.interrupted();
    timedOut = watch.timedOut();
    spinner = nullptr;
  }
  const std::unique_ptr<IQORMessage, FreeObject> reply(result.first);
  reportWriteFailure();
  if (!reply) {
    if (stream) stream->abandon();  // what was shown stays; the history never took the question
    Status status =
        timedOut ? Status::timedOut("no reply within " + std::to_string(options_.timeoutSeconds) +
                                    " s (--timeout), retries included")
                 : failureOf(result.second, before, interrupted);
    if (status.kind() == Status::Kind::kCancelled) {
      display_.note("cancelled; the conversation is as it was");
    } else {
      reportExchangeFailure(display_, std::string(service_.name) + " failed", status, service_,
                            reachedThrough());
    }
    return status;
  }
  std::string text = replyText(*reply);
  if (stream) {
    stream->finish();
    keepBlocks(text);
  } else {
    showReply(text, false);
  }
  noteReplyEnd(*reply);
  noteUsage(*reply);
  display_.out().flush();
  return text;
}

std::optional<MarkdownStyle> Conversation::replyLayout() const {
  // On a terminal the reply's Markdown is laid out for it; the renderer makes every piece of the
  // text safe and adds only its own styling.
  if (const std::optional<TerminalSize> terminal = terminalSizeOf(STDOUT_FILENO);
      terminal && !replyOnStandardError && colorWanted()) {
    return MarkdownStyle{terminal->columns, true};
  }
  return std::nullopt;
}

void Conversation::showReply(const std::string& text, bool listBlocks) {
  // When the rows that follow are for another program, the reply goes to the person instead.
  std::ostream& where = replyOnStandardError ? display_.err() : display_.out();
  if (text::trimmed(text).empty()) {
    where << "(" << kNoTextReply << ")\n";
  } else if (const std::optional<MarkdownStyle> layout = replyLayout()) {
    where << renderMarkdown(display_.masked(text), *layout);
  } else {
    where << terminalSafe(display_.masked(text)) << "\n";
  }
  keepBlocks(text);
  if (listBlocks) listKeptBlocks();
}

void Conversation::keepBlocks(const std::string& text) {
  // Queries the model asked to run, and did not get, are the user's to run.
  blocks_ = SqlBlocks(runBlocksAsSql(text));
  blockFailures_.clear();
  lastReplyCut_ = false;
}

void Conversation::listKeptBlocks() {
  std::ostream& where = replyOnStandardError ? display_.err() : display_.out();
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    const std::string number = std::to_string(i + 1);
    where << "[" << number << "] " << summary(display_.masked(blocks_[i])) << "  (/run " << number
          << ")\n";
    // Offered all the same: the user may know better, and /run shows the database's own error.
    if (i < blockFailures_.size() && !blockFailures_[i].empty()) {
      where.flush();
      showDim("    (fails: " + display_.failureLine(blockFailures_[i]) + ")");
    }
  }
}

void Conversation::showDim(const std::string& line) {
  display_.out().flush();
  // Dim, so that it reads as a remark beside the answer; plain without colour.
  if (colorWanted() && isatty(STDERR_FILENO) != 0) {
    display_.err() << "\033[2m" << line << "\033[0m\n";
  } else {
    display_.err() << line << "\n";
  }
}

void Conversation::noteReplyEnd(const IQORMessage& reply) {
  const auto* details = dynamic_cast<const IQORReplyDetails*>(&reply);
  if (details == nullptr) return;
  switch (details->obtainReplyEnd()) {
    case QORReplyEnd::LengthLimit:
      lastReplyCut_ = true;
      display_.warn(std::string("the reply was cut at the service's length limit") +
                    (service_.type == QORAssistantType::ANTHROPIC ? "; --max-tokens raises it"
                                                                  : "; ask for a shorter answer") +
                    (blocks_.empty() ? ""
                     : options_.mode == Mode::Converse
                         ? ". Its SQL may be incomplete: /run asks first"
                         : ". Its SQL may be incomplete and is not run"));
      break;
    case QORReplyEnd::Filtered:
      display_.warn("the service's content filter stopped the reply (" +
                    details->obtainReplyEndText() + ")");
      break;
    case QORReplyEnd::Complete:
    case QORReplyEnd::Unknown:
      break;
  }
}

void Conversation::noteUsage(const IQORMessage& reply) {
  const auto* details = dynamic_cast<const IQORReplyDetails*>(&reply);
  const QORTokenUsage usage = details != nullptr ? details->obtainUsage() : QORTokenUsage{};
  ++usage_.replies;
  if (usage.inputTokens < 0 && usage.outputTokens < 0) return;
  ++usage_.reported;
  usage_.inputTokens += std::max<std::int64_t>(usage.inputTokens, 0);
  usage_.outputTokens += std::max<std::int64_t>(usage.outputTokens, 0);
  showDim("(" + tokenCounts(usage.inputTokens, usage.outputTokens) + ")");
}

std::string Conversation::usageText() const {
  if (usage_.replies == 0) return "no reply yet";
  const auto replies = [](std::size_t count) {
    return std::to_string(count) + (count == 1 ? " reply" : " replies");
  };
  if (usage_.reported == 0)
    return "the service reported no token counts for the " + replies(usage_.replies);
  std::string text =
      tokenCounts(usage_.inputTokens, usage_.outputTokens) + " over " + replies(usage_.replies);
  if (usage_.reported < usage_.replies)
    text += " (" + replies(usage_.replies - usage_.reported) + " without counts)";
  return text;
}

Status Conversation::runBlock(std::size_t index) {
  if (lastReplyCut_) {
    const std::string question = "The reply was cut off at the length limit, so block " +
                                 std::to_string(index + 1) + " may be incomplete. Run it anyway?";
    if (!confirm_ || !confirm_(question)) {
      display_.note("not run: the reply was cut off" +
                    std::string(confirm_ ? "" : "; ask again, or raise --max-tokens"));
      return Status::refused("the reply was cut off");
    }
  }
  return runStatements(blocks_[index], "block " + std::to_string(index + 1));
}

Status Conversation::runSql(const std::string& sql) {
  return runStatements(sql, "the statement");
}

Status Conversation::runStatements(const std::string& sql, std::string_view what) {
  failure_.reset();
  Result<std::vector<StatementResult>> results = std::vector<StatementResult>();
  const auto began = std::chrono::steady_clock::now();
  bool interrupted = false;
  {
    ExchangeWatch watch(
        nullptr, spinnerWanted(), [this] { database_->interrupt(); }, "running the statement");
    // A table cuts long values to the screen anyway; the other formats are for programs, which
    // get values whole (up to what a statement may make at all).
    const std::size_t valueBytes =
        format == OutputFormat::Table ? RunLimits().maxValueBytes : kWholeValueBytes;
    results = database_->runReadOnly(sql, RunLimits{maxRows, valueBytes});
    interrupted = watch.interrupted();
  }
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - began;
  if (!results) {
    // A run refused whole (the role may not run it) or a connection that failed: nothing in the
    // statement for the model to fix.
    if (results.status().kind() == Status::Kind::kRefused) {
      display_.note(results.status().message());
    } else if (interrupted) {
      display_.note("the statement was stopped (Ctrl-C)");
    } else {
      display_.fail("the database failed", results.status().message());
    }
    return results.status();
  }
  if (results->empty()) {
    display_.note(std::string(what) + " holds no statement");
    return Status::invalidInput("no statement");
  }
  std::string shown;
  std::string counts;  // after the rows, so that they never come out above them
  for (StatementResult& result : *results) {
    // The database may report Ctrl-C as its own error ("canceling statement due to user
    // request"): it is still the user's stop, with nothing to fix.
    if (!result.status && interrupted) result.status = Status::cancelled(result.status.message());
    if (!result.status) {
      showPaged(shown, pagerSettingsForStandardOutput(options_.pager), display_.out(),
                display_.err());
      reportStatementFailure(result);
      return result.status;
    }
    shown += formatted(result, results->size() > 1);
    if (format == OutputFormat::Csv || format == OutputFormat::Json)
      counts += rowCountFooter(result) + "\n";
  }
  showPaged(shown, pagerSettingsForStandardOutput(options_.pager), display_.out(), display_.err());
  display_.out().flush();
  display_.err() << counts;
  if (timing) display_.err() << "Time: " << text::milliseconds(took.count()) << "\n";
  display_.out().flush();
  return Status::ok();
}

std::string Conversation::formatted(const StatementResult& result, bool labelled) const {
  const std::optional<TerminalSize> terminal = terminalSizeOf(STDOUT_FILENO);
  const OutputSettings settings{format, nullText, terminal ? terminal->columns : 0,
                                terminal && colorWanted()};
  std::string text;
  // Several statements: each result says which statement it belongs to.
  if (labelled && format == OutputFormat::Table) text += "-- " + summary(result.statement) + "\n";
  text += formatResult(result, settings);
  return text;
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
  // The database's own words and the statement, as the user would have typed them, unless they
  // may not leave the machine: a database's error can quote a value.
  FailedStatement failed = *failure_;
  Status consent =
      consentToSend("the statement and its error (" +
                    std::to_string(failed.statement.size() + failed.error.size()) + " bytes)");
  if (consent.kind() == Status::Kind::kCancelled) return consent;
  if (!consent) {
    failed = {withoutQuotedValues(failed.statement), withoutQuotedValues(failed.error)};
    display_.note("the quoted values of the statement and its error stay here (/share)");
  }
  failure_.reset();  // asked once; the model's fix is the next thing to run
  return ask("This statement failed on the " + engine_ + " database:\n\n```sql\n" +
                 failed.statement + "\n```\n\nThe database's error: " + failed.error +
                 "\n\nExplain the error briefly and give a corrected statement.",
             true);
}

void Conversation::reset() {
  memory_->startNewConversation();
  forced_.clear();
  blocks_ = SqlBlocks();
  failure_.reset();
  reportWriteFailure();
  applyScope("");
}

Result<std::vector<QORModelEntry>> Conversation::catalogue() {
  std::pair<std::vector<QORModelEntry>, std::string> listing;
  const std::uint64_t before = pool_->exchangesEnded();
  bool interrupted = false;
  bool timedOut = false;
  {
    ExchangeWatch watch(pool_, spinnerWanted(), {}, "listing the models", questionDeadline());
    const AttemptLabel label(attempts_, watch);
    if (auto* catalogue = dynamic_cast<IQORModelCatalogue*>(assistant_.get())) {
      listing = catalogue->obtainModelCatalogue();
    } else {
      auto names = assistant_->obtainAvailableModels();
      for (std::string& name : names.first)
        listing.first.push_back(QORModelEntry{std::move(name), -1, {}});
      listing.second = std::move(names.second);
    }
    interrupted = watch.interrupted();
    timedOut = watch.timedOut();
  }
  if (listing.second.empty()) return std::move(listing.first);
  const Status status =
      timedOut ? Status::timedOut("no listing within " + std::to_string(options_.timeoutSeconds) +
                                  " s (--timeout)")
               : failureOf(listing.second, before, interrupted);
  reportExchangeFailure(display_, "cannot list the models of " + std::string(service_.name), status,
                        service_, reachedThrough());
  return status;
}

Result<std::vector<std::string>> Conversation::models() {
  Result<std::vector<QORModelEntry>> entries = catalogue();
  if (!entries) return entries.status();
  std::vector<std::string> names;
  for (QORModelEntry& entry : *entries)
    names.push_back(std::move(entry.name));
  return names;
}

Status Conversation::chooseModel() {
  if (!model_.empty()) return Status::ok();
  const Result<std::string> folder = stateFolder();
  if (folder) {
    if (std::string remembered = rememberedModel(*folder, service_.name); !remembered.empty()) {
      setModel(remembered);
      return Status::ok();
    }
  }
  Result<std::vector<QORModelEntry>> listed = catalogue();
  if (!listed) return listed.status();
  const std::vector<std::string> chat = chatModels(*listed);
  if (chat.empty()) {
    Status none =
        Status::service(std::string(service_.name) + " lists no chat model" +
                        (listed->empty() ? "" : " among its " + std::to_string(listed->size())) +
                        "; pass --model NAME");
    display_.note(none.message());
    return none;
  }
  setModel(chat.front());
  display_.note("using model " + model_ + " (the newest chat model " + std::string(service_.name) +
                (options_.mode == Mode::Converse
                     ? " lists; /models lists the others, /model NAME switches)"
                     : " lists; --model NAME chooses another)"));
  remember();
  return Status::ok();
}

void Conversation::remember() {
  // Only a conversation of the user's own remembers: one question or a dry run changes nothing.
  if (options_.mode != Mode::Converse) return;
  const Result<std::string> folder = stateFolder();
  const Status kept = folder ? rememberModel(*folder, service_.name, model_) : folder.status();
  if (!kept) display_.warn(kept.message() + "; the model is not remembered for the next run");
}

Status Conversation::switchModel(const std::string& name) {
  const Result<std::vector<std::string>> listed = models();
  // Ollama lists a model pulled as "llama3.2" under "llama3.2:latest".
  if (listed && std::find(listed->begin(), listed->end(), name) == listed->end() &&
      std::find(listed->begin(), listed->end(), name + ":latest") != listed->end()) {
    return switchModel(name + ":latest");
  }
  if (listed && std::find(listed->begin(), listed->end(), name) == listed->end()) {
    std::string message = std::string(service_.name) + " lists no model '" + name + "'";
    const std::vector<std::string> near = nearNames(name, *listed);
    for (std::size_t i = 0; i < near.size(); ++i)
      message += (i == 0 ? "; did you mean " : i + 1 == near.size() ? " or " : ", ") + near[i];
    message += near.empty() ? "; /models lists them" : "?";
    display_.note(message);
    return Status::invalidInput(message);
  }
  if (!listed) display_.warn("the model list could not be read; using '" + name + "' unchecked");
  setModel(name);
  remember();
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

Status Conversation::setTemperature(double wanted) {
  temperatureSet_ = true;
  assistant_->updateProperties(
      [&](IQORProperties* properties) { properties->setValue("temperature", YLVariant(wanted)); });
  // The library brings a value into the service's range; say so rather than change it unseen.
  if (const std::optional<double> now = temperature(); now && std::abs(*now - wanted) > 1e-9) {
    display_.warn(std::string(service_.name) + " takes temperatures in a narrower range: using " +
                  text::shortNumber(*now));
  }
  return Status::ok();
}

std::string Conversation::schemaText() {
  refreshStructure();
  const std::unique_ptr<IQORProperties, FreeObject> properties(assistant_->obtainProperties());
  return treeText(properties->obtainValue("db_structure"));
}

Status Conversation::describe(std::string_view name) {
  refreshStructure();
  const std::optional<std::size_t> relation = findRelation(structure_, name);
  if (!relation) {
    Status status = Status::invalidInput("no table or view '" + std::string(name) +
                                         "': /schema lists what the model sees");
    display_.note(status.message());
    return status;
  }
  display_.showOutside(relationText(structure_, *relation));
  if (!appliedChoice_.empty() && !appliedChoice_[*relation]) {
    display_.out() << "-- not in what the model sees now; a question that names it brings it in\n";
  }
  return Status::ok();
}

void Conversation::showResumed() {
  const std::optional<Exchange> last = memory_->lastExchange();
  if (!last) return;
  display_.out() << "Last time you asked: ";
  display_.showOutside(ResultTable::fitted(text::oneLine(last->question), kResumedQuestionWidth));
  display_.out() << "\n";
  showReply(last->reply, true);
}

Status Conversation::forget() {
  Status status = memory_->forgetConversation();
  if (!status) {
    display_.note(status.message());
    return status;
  }
  blocks_ = SqlBlocks();
  failure_.reset();
  lastReplyCut_ = false;
  applyScope("");
  return Status::ok();
}

Result<std::vector<StoredConversation>> Conversation::storedConversations() const {
  return memory_->storedConversations();
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
  // The request of a streamed reply, when a real run would stream it.
  auto* streaming =
      options_.stream ? dynamic_cast<IQORStreamingAssistant*>(assistant_.get()) : nullptr;
  const auto result = streaming != nullptr ? streaming->addMessageStreaming(question, {})
                                           : assistant_->addMessage(question);
  QORFreeObject(result.first);
  if (!captured->seen) {
    display_.fail("the assistant prepared no request", result.second);
    return Status::service(result.second);
  }
  display_.showOutside(captured->method + " " + captured->url + "\n" + captured->body + "\n");
  return Status::ok();
}

}  // namespace qorchat
