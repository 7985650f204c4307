// The server's two threads: this one reads lines (polling, so that a cancellation reaches a
// running statement) and answers what is quick; one worker runs tool calls in order.
#include "mcp_server.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

#include "display.h"
#include "instructions.h"
#include "mcp_json.h"
#include "mcp_protocol.h"
#include "mcp_tool_definitions.h"
#include "mcp_tools.h"

namespace qorchat::mcp {
namespace {

// How often the reader wakes without input: to end again a statement whose cancellation came
// before the statement had begun.
constexpr int kPollMilliseconds = 100;

class Session {
 public:
  Session(Tools& tools, int input, std::ostream& out, std::ostream& err, std::string instructions)
      : tools_(tools),
        input_(input),
        out_(out),
        err_(err),
        instructions_(std::move(instructions)) {}

  void run() {
    std::thread worker([this] { work(); });
    readInput();
    {
      const std::lock_guard lock(mutex_);
      inputEnded_ = true;
    }
    wake_.notify_all();
    std::unique_lock lock(mutex_);
    while (!workerDone_) {
      if (wake_.wait_for(lock, std::chrono::milliseconds(kPollMilliseconds)) ==
          std::cv_status::timeout)
        interruptCancelled();
    }
    lock.unlock();
    worker.join();
  }

 private:
  // A tool call waiting for the worker: the request, and its id as JSON text, which a
  // cancellation names.
  struct Job {
    std::unique_ptr<YLJson> request;
    std::string idKey;
  };

  void send(const std::string& line) {
    const std::lock_guard lock(outMutex_);
    out_ << line << '\n' << std::flush;
  }
  void note(const std::string& line) {
    const std::lock_guard lock(outMutex_);
    err_ << "qorchat: " << terminalSafe(line) << '\n' << std::flush;
  }

  void readInput();
  void take(std::string_view bytes);
  void handleLine(std::string line);
  void handleRequest(const Message& message, std::unique_ptr<YLJson> document);
  void handleNotification(const Message& message);
  void initialize(const Message& message);
  void queueCall(const Message& message, std::unique_ptr<YLJson> document);
  void cancel(const YLJsonValue* params);
  void interruptCancelled();
  void work();

  Tools& tools_;
  const int input_;
  std::ostream& out_;
  std::ostream& err_;
  const std::string instructions_;
  const YLJson definitions_{toolDefinitions()};
  bool initialized_ = false;
  std::string pending_;      // the line being read
  bool discarding_ = false;  // the rest of an oversized line is being skipped

  std::mutex outMutex_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable wake_;
  std::deque<Job> queue_;
  std::string runningId_;  // empty while no call runs
  bool cancelled_ = false;
  bool inputEnded_ = false;
  bool workerDone_ = false;
};

void Session::readInput() {
  std::array<char, 65536> buffer{};
  while (true) {
    pollfd ready{input_, POLLIN, 0};
    const int polled = poll(&ready, 1, kPollMilliseconds);
    if (polled == 0) interruptCancelled();
    if (polled <= 0) {
      if (polled == 0 || errno == EINTR) continue;
      note(std::string("cannot wait for input: ") + std::strerror(errno));
      break;
    }
    const ssize_t got = read(input_, buffer.data(), buffer.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) break;
    take(std::string_view(buffer.data(), static_cast<std::size_t>(got)));
  }
  if (!pending_.empty() || discarding_)
    note("the input ended in the middle of a message, which is left unanswered");
}

void Session::take(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end);
    if (!discarding_ && pending_.size() + piece.size() > kMaxMessageBytes) {
      send(errorReply(nullptr, kInvalidRequest, "the message is longer than 1 MiB"));
      note("skipped a message longer than 1 MiB");
      pending_.clear();
      discarding_ = true;
    }
    if (!discarding_) pending_.append(piece);
    if (end == std::string_view::npos) return;
    bytes.remove_prefix(end + 1);
    if (!discarding_) handleLine(std::move(pending_));
    pending_.clear();
    discarding_ = false;
  }
}

void Session::handleLine(std::string line) {
  if (line.find_first_not_of(" \t\r") == std::string::npos) return;
  auto document = std::make_unique<YLJson>(std::move(line));
  if (!document->getIsValidJson()) {
    send(errorReply(nullptr, kParseError, "parse error: the line is not one JSON value"));
    return;
  }
  const Message message = readMessage(*document);
  switch (message.kind) {
    case Message::Kind::kRequest:
      handleRequest(message, std::move(document));
      return;
    case Message::Kind::kNotification:
      handleNotification(message);
      return;
    case Message::Kind::kResponse:
      note("ignored a response: this server sends no requests");
      return;
    case Message::Kind::kInvalid:
      send(errorReply(message.id, message.code, message.problem));
      return;
  }
}

void Session::handleRequest(const Message& message, std::unique_ptr<YLJson> document) {
  if (!message.problem.empty()) {
    send(errorReply(message.id, message.code, message.problem));
  } else if (message.method == "initialize") {
    initialize(message);
  } else if (message.method == "ping") {
    send(resultReply(message.id));
  } else if (!initialized_) {
    send(errorReply(message.id, kInvalidRequest,
                    "the session is not initialized: send initialize first"));
  } else if (message.method == "tools/list") {
    send(resultReply(message.id, [this](YLJsonValue& result) {
      copyJson(definitions_, *result.addKeyValue("tools"));
    }));
  } else if (message.method == "tools/call") {
    queueCall(message, std::move(document));
  } else {
    send(errorReply(message.id, kMethodNotFound, "unknown method '" + message.method + "'"));
  }
}

void Session::initialize(const Message& message) {
  const YLJsonValue* version =
      message.params != nullptr ? message.params->obtainKeyValue("protocolVersion") : nullptr;
  if (version == nullptr || version->obtainType() != YLJsonValueType::String) {
    send(errorReply(message.id, kInvalidParams, "initialize needs params.protocolVersion"));
    return;
  }
  initialized_ = true;
  send(resultReply(message.id, [&](YLJsonValue& result) {
    result.addKeyValue("protocolVersion")
        ->setStringValue(negotiatedVersion(version->obtainStringView()));
    result.addKeyValue("capabilities")
        ->addKeyValue("tools")
        ->addKeyValue("listChanged")
        ->setBoolValue(false);
    YLJsonValue* server = result.addKeyValue("serverInfo");
    server->addKeyValue("name")->setStringValue("qorchat");
    server->addKeyValue("version")->setStringValue(QORCHAT_VERSION);
    result.addKeyValue("instructions")->setStringValue(instructions_);
  }));
}

void Session::handleNotification(const Message& message) {
  if (!message.problem.empty()) {
    note("ignored a notification: " + message.problem);
  } else if (message.method == "notifications/cancelled") {
    cancel(message.params);
  }
  // notifications/initialized and any other notification need nothing.
}

void Session::queueCall(const Message& message, std::unique_ptr<YLJson> document) {
  const YLJsonValue* name =
      message.params != nullptr ? message.params->obtainKeyValue("name") : nullptr;
  if (name == nullptr || name->obtainType() != YLJsonValueType::String) {
    send(errorReply(message.id, kInvalidParams, "tools/call needs params.name, a string"));
    return;
  }
  if (!Tools::has(name->obtainStringView())) {
    send(errorReply(message.id, kInvalidParams,
                    "unknown tool '" + std::string(name->obtainStringView()) + "'"));
    return;
  }
  std::string idKey = message.id->obtainJsonString();
  {
    const std::lock_guard lock(mutex_);
    queue_.push_back(Job{std::move(document), std::move(idKey)});
  }
  wake_.notify_all();
}

void Session::cancel(const YLJsonValue* params) {
  const YLJsonValue* id = params != nullptr ? params->obtainKeyValue("requestId") : nullptr;
  if (id == nullptr) return;
  const std::string idKey = id->obtainJsonString();
  const std::lock_guard lock(mutex_);
  if (idKey == runningId_) {
    cancelled_ = true;
    tools_.interrupt();
    return;
  }
  std::erase_if(queue_, [&idKey](const Job& job) { return job.idKey == idKey; });
}

void Session::interruptCancelled() {
  const std::lock_guard lock(mutex_);
  if (cancelled_ && !runningId_.empty()) tools_.interrupt();
}

void Session::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return !queue_.empty() || inputEnded_; });
    if (queue_.empty()) break;
    const Job job = std::move(queue_.front());
    queue_.pop_front();
    runningId_ = job.idKey;
    cancelled_ = false;
    lock.unlock();
    const YLJsonValue* params = job.request->obtainKeyValue("params");
    const std::string reply =
        resultReply(job.request->obtainKeyValue("id"), [&](YLJsonValue& result) {
          tools_.call(params->obtainKeyValue("name")->obtainStringView(),
                      params->obtainKeyValue("arguments"), result);
        });
    lock.lock();
    // A cancelled request is not answered.
    if (!cancelled_) send(reply);
    runningId_.clear();
  }
  workerDone_ = true;
  wake_.notify_all();
}

}  // namespace

int serve(Database& database, int input, std::ostream& out, std::ostream& err) {
  // Without a stamp, the first call that reads the structure reads it again.
  Result<std::string> stamp = database.structureStamp();
  Result<Structure> structure = database.describe();
  if (!structure) {
    err << "qorchat: " << terminalSafe(structure.status().message()) << "\n";
    return 1;
  }
  Tools tools(database, std::move(*structure), stamp ? std::move(*stamp) : std::string());
  const std::string engine = database.engineDescription();
  const std::string instructions =
      "Read-only access to the " + engine + " database " + database.displayName() +
      ": list_tables and schema show what it holds, describe gives the CREATE statements of "
      "named tables, query runs one read-only query (writes are refused), explain plans one "
      "without running it. Write SQL in " +
      std::string(engineName(engine)) + "'s dialect.";
  Session(tools, input, out, err, instructions).run();
  return 0;
}

}  // namespace qorchat::mcp
