// qorchat end to end: the real binary against the loopback service, through pipes and signals.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "program.h"
#include "support/loopback_server.h"
#include "yl/yl.h"

namespace qortest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr const char* kKey = "sk-test-4f9a0c1d2e3b";

std::string ollamaReply(const std::string& text) {
  return R"({"model":"m","message":{"role":"assistant","content":")" + text + R"("},"done":true})";
}

class QorchatProgram : public ::testing::Test {
 protected:
  void SetUp() override {
    state_ = fs::temp_directory_path() /
             ("qorchat-test-" + std::to_string(getpid()) + "-" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(state_);
    fs::create_directories(state_);
  }
  void TearDown() override { fs::remove_all(state_); }

  // The test's own state folder and no key of the developer's.
  std::map<std::string, std::string> env(std::map<std::string, std::string> extra = {}) const {
    std::map<std::string, std::string> vars{{"XDG_STATE_HOME", state_.string()},
                                            {"HOME", state_.string()}};
    for (const char* name : {"OPENAI_API_KEY", "GEMINI_API_KEY", "DEEPSEEK_API_KEY", "XAI_API_KEY",
                             "ANTHROPIC_API_KEY", "DASHSCOPE_API_KEY"}) {
      vars[name] = "";
    }
    for (auto& [name, value] : extra)
      vars[name] = value;
    return vars;
  }

  std::vector<std::string> ollama(const LoopbackServer& server,
                                  std::vector<std::string> more = {}) const {
    std::vector<std::string> args{"--service",      "ollama",  "--host",
                                  server.baseUrl(), "--model", "m"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }

  fs::path state_;
};

struct ServiceCase {
  const char* name;
  const char* keyVariable;
  const char* chatPath;
};

// The dry run prints exactly what a real run sends: the same path, query and body, the key
// masked.
TEST_F(QorchatProgram, PrintRequestShowsWhatARealRunSendsForEveryService) {
  const ServiceCase cases[] = {
      {"openai", "OPENAI_API_KEY", "/v1/chat/completions"},
      {"google", "GEMINI_API_KEY", "/v1beta/models/gemini-x:generateContent"},
      {"deepseek", "DEEPSEEK_API_KEY", "/chat/completions"},
      {"ollama", "", "/api/chat"},
      {"x", "XAI_API_KEY", "/v1/chat/completions"},
      {"anthropic", "ANTHROPIC_API_KEY", "/v1/messages"},
      {"alibaba", "DASHSCOPE_API_KEY", "/compatible-mode/v1/chat/completions"},
  };
  for (const ServiceCase& service : cases) {
    SCOPED_TRACE(service.name);
    LoopbackServer server;
    const std::vector<std::string> common{"--service",      service.name, "--host",
                                          server.baseUrl(), "--model",    "gemini-x",
                                          "--temperature",  "0.5"};
    std::map<std::string, std::string> vars = env();
    if (service.keyVariable[0] != '\0') vars[service.keyVariable] = kKey;

    auto dry = common;
    dry.insert(dry.end(), {"--print-request", "Which customers never ordered?"});
    const Outcome printed = runQorchat(dry, vars);
    ASSERT_EQ(printed.status, 0) << printed.err;
    EXPECT_EQ(server.requestCount(), 0u);

    auto real = common;
    real.insert(real.end(), {"--ask", "Which customers never ordered?"});
    runQorchat(real, vars);  // the service answers 404; only the request matters here
    ASSERT_EQ(server.requestCount(), 1u);
    const RecordedRequest sent = server.lastRequest();
    EXPECT_EQ(sent.path, service.chatPath);

    const std::size_t lineEnd = printed.out.find('\n');
    ASSERT_NE(lineEnd, std::string::npos);
    std::string expectedUrl = "POST " + server.baseUrl() + sent.path;
    if (!sent.query.empty()) {
      std::string query = sent.query;
      if (const auto at = query.find(kKey); at != std::string::npos)
        query.replace(at, std::string(kKey).size(), "****");
      expectedUrl += "?" + query;
    }
    EXPECT_EQ(printed.out.substr(0, lineEnd), expectedUrl);
    EXPECT_EQ(printed.out.substr(lineEnd + 1), sent.body + "\n");
    EXPECT_NE(sent.body.find("CREATE TABLE `order_items`"), std::string::npos);
    EXPECT_EQ(printed.out.find(kKey), std::string::npos);
    EXPECT_EQ(printed.err.find(kKey), std::string::npos);
  }
}

TEST_F(QorchatProgram, AskPrintsTheReplyAndTakesTheFirstListedModel) {
  LoopbackServer server;
  server.answer("GET", "/api/tags", {200, readWireFile("ollama/models.json")});
  server.answer("POST", "/api/chat", {200, ollamaReply("SELECT name FROM customers;")});
  const Outcome run = runQorchat({"--host", server.baseUrl(), "--ask", "Who?"}, env());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "SELECT name FROM customers;\n");
  EXPECT_NE(run.err.find("using model "), std::string::npos);
  const std::string chatBody = server.lastRequest().body;

  const Outcome listed = runQorchat({"--host", server.baseUrl(), "--list-models"}, env());
  ASSERT_EQ(listed.status, 0) << listed.err;
  const std::string first = listed.out.substr(0, listed.out.find('\n'));
  EXPECT_NE(run.err.find("using model " + first + " "), std::string::npos);
  EXPECT_NE(chatBody.find("\"model\":\"" + first + "\""), std::string::npos) << chatBody;
}

TEST_F(QorchatProgram, FailuresGiveOneLineAndTheRightStatus) {
  LoopbackServer server;
  server.answer("POST", "/api/chat", {404, readWireFile("ollama/error_404_unknown_model.json")});

  // The service's own text, status 1.
  Outcome run = runQorchat(ollama(server, {"--ask", "Hi"}), env());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("qorchat: ollama failed: "), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("not found"), std::string::npos) << run.err;

  // A missing key is caught before any request, naming the variable.
  const std::size_t before = server.requestCount();
  run = runQorchat({"--service", "openai", "--host", server.baseUrl(), "--ask", "Hi"}, env());
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("OPENAI_API_KEY"), std::string::npos) << run.err;
  EXPECT_EQ(server.requestCount(), before);

  // A missing database names its path and creates nothing.
  const fs::path missing = state_ / "nowhere.db";
  run = runQorchat(ollama(server, {"--db", missing.string(), "--ask", "Hi"}), env());
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find(missing.string()), std::string::npos) << run.err;
  EXPECT_FALSE(fs::exists(missing));

  // Usage errors: one line each, status 2.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--service", "nosuch"},
        {"--host", "not a url"},
        {"--temperature", "warm"},
        {"--api-key-file", (state_ / "nokey").string(), "--service", "openai", "--ask", "Hi"}}) {
    run = runQorchat(args, env());
    EXPECT_EQ(run.status, 2) << args[0];
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
}

TEST_F(QorchatProgram, AnUnreachableServiceSaysHowToReachOne) {
  const std::string host = "http://127.0.0.1:" + std::to_string(closedLoopbackPort());
  const Outcome run = runQorchat({"--host", host}, env(), "Hello\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("Couldn't connect to server"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("ollama serve"), std::string::npos);
  EXPECT_NE(run.err.find("--print-request"), std::string::npos);
}

// A conversation through a pipe: commands, history sent along, resumed by the next run.
TEST_F(QorchatProgram, AConversationThroughAPipeLastsAcrossRuns) {
  LoopbackServer server;
  server.answer("POST", "/api/chat", {200, ollamaReply("first answer")});
  Outcome run = runQorchat(ollama(server), env(), "/schema\n/bogus\nFirst question\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("CREATE TABLE `customers`"), std::string::npos);
  EXPECT_NE(run.out.find(" bytes, about "), std::string::npos);
  EXPECT_NE(run.err.find("unknown command /bogus: type /help"), std::string::npos);
  EXPECT_NE(run.out.find("first answer\n"), std::string::npos);

  server.answer("POST", "/api/chat", {200, ollamaReply("second answer")});
  run = runQorchat(ollama(server), env(), "Second question\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("resuming the conversation"), std::string::npos) << run.err;
  const std::string body = server.lastRequest().body;
  const auto first = body.find("First question");
  const auto answer = body.find("first answer");
  const auto second = body.find("Second question");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(answer, std::string::npos);
  EXPECT_LT(first, answer);
  EXPECT_LT(answer, second);

  // /reset: the next question goes alone.
  run = runQorchat(ollama(server), env(), "/reset\nThird question\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(server.lastRequest().body.find("First question"), std::string::npos);

  // --no-history neither reads nor writes the stored conversation.
  run = runQorchat(ollama(server, {"--no-history"}), env(), "Fourth question\n");
  EXPECT_EQ(server.lastRequest().body.find("Third question"), std::string::npos);
  run = runQorchat(ollama(server), env(), "Fifth question\n");
  EXPECT_NE(server.lastRequest().body.find("Third question"), std::string::npos);
  EXPECT_EQ(server.lastRequest().body.find("Fourth question"), std::string::npos);
}

TEST_F(QorchatProgram, AKilledProcessLosesNoAnsweredQuestion) {
  LoopbackServer server;
  server.answer("POST", "/api/chat", {200, ollamaReply("kept answer")});
  {
    Program program(ollama(server), env());
    program.write("Question before the kill\n");
    ASSERT_TRUE(program.waitForOutput("kept answer"));
    program.signal(SIGKILL);
    EXPECT_EQ(program.finish(), 128 + SIGKILL);
  }
  const Outcome run = runQorchat(ollama(server), env(), "After the kill\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("(2 earlier entries)"), std::string::npos) << run.err;
  const std::string body = server.lastRequest().body;
  EXPECT_NE(body.find("Question before the kill"), std::string::npos);
  EXPECT_NE(body.find("kept answer"), std::string::npos);
}

TEST_F(QorchatProgram, CtrlCAbandonsTheExchangeAndKeepsTheConversation) {
  LoopbackServer server;
  ScriptedReply stalled{200, ollamaReply("too late")};
  stalled.delay = std::chrono::seconds(4);
  server.answer("POST", "/api/chat", stalled);

  Program program(ollama(server), env());
  program.write("Slow question\n");
  ASSERT_TRUE(program.waitFor([&] { return server.requestCount() == 1; }));
  const auto sent = std::chrono::steady_clock::now();
  program.signal(SIGINT);
  ASSERT_TRUE(program.waitForError("cancelled"));
  EXPECT_LT(std::chrono::steady_clock::now() - sent, milliseconds(1000));

  // Still running, and the cancelled question is not part of the conversation.
  server.answer("POST", "/api/chat", {200, ollamaReply("quick answer")});
  program.write("Quick question\n");
  ASSERT_TRUE(program.waitForOutput("quick answer"));
  EXPECT_EQ(server.lastRequest().body.find("Slow question"), std::string::npos);
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.out.find("too late"), std::string::npos);
}

// Ctrl-C while qorchat waits for input ends it.
TEST_F(QorchatProgram, CtrlCAtThePromptEndsTheProgram) {
  LoopbackServer server;
  Program program(ollama(server), env());
  std::this_thread::sleep_for(milliseconds(300));
  program.signal(SIGINT);
  EXPECT_EQ(program.finish(std::chrono::seconds(5)), 0);
}

}  // namespace
}  // namespace qortest

namespace qortest {
namespace {

TEST_F(QorchatProgram, AnUnwritableStateFolderFallsBackToMemory) {
  LoopbackServer server;
  server.answer("POST", "/api/chat", {200, ollamaReply("still answered")});
  const fs::path blocker = state_ / "file";
  { std::ofstream(blocker) << "not a folder"; }
  const Outcome run =
      runQorchat(ollama(server), env({{"XDG_STATE_HOME", blocker.string()}}), "Question\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("warning: cannot create"), std::string::npos) << run.err;
  EXPECT_NE(run.out.find("still answered"), std::string::npos);
}

// On a real terminal: the prompt, line editing with the input history, the spinner while the
// service stalls, and Ctrl-C at the prompt leaving the program.
TEST_F(QorchatProgram, OnATerminalItEditsLinesShowsProgressAndLeavesOnCtrlC) {
  LoopbackServer server;
  ScriptedReply slow{200, ollamaReply("terminal answer")};
  slow.delay = milliseconds(1500);
  server.answer("POST", "/api/chat", slow);

  const std::string socket = "qorchat-test-" + std::to_string(getpid());
  const auto tmux = [&](const std::string& args) {
    return std::system(("tmux -L " + socket + " " + args + " >/dev/null 2>&1").c_str());
  };
  const auto screen = [&] {
    const std::string file = (state_ / "screen").string();
    std::system(("tmux -L " + socket + " capture-pane -p -t q > " + file + " 2>/dev/null").c_str());
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const auto waitForScreen = [&](const std::string& text) {
    for (int i = 0; i < 100; ++i) {
      if (screen().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(milliseconds(50));
    }
    return false;
  };
  std::string command = "env XDG_STATE_HOME=" + state_.string() + " " + QORCHAT_BINARY +
                        " --service ollama --model m --host " + server.baseUrl() +
                        "; echo EXIT=$?; sleep 30";
  ASSERT_EQ(tmux("new-session -d -s q -x 120 -y 30 '" + command + "'"), 0);
  const auto stop = [&] { tmux("kill-server"); };
  ASSERT_TRUE(waitForScreen("qorchat>")) << screen();
  tmux("send-keys -t q 'How many orders?' Enter");
  EXPECT_TRUE(waitForScreen("waiting for the model")) << screen();
  EXPECT_TRUE(waitForScreen("terminal answer")) << screen();
  // The up arrow brings the question back from the input history.
  tmux("send-keys -t q Up");
  std::this_thread::sleep_for(milliseconds(200));
  const std::string recalled = screen();
  EXPECT_NE(recalled.rfind("qorchat> How many orders?"), recalled.find("qorchat> How many orders?"))
      << recalled;
  tmux("send-keys -t q C-c");
  EXPECT_TRUE(waitForScreen("EXIT=0")) << screen();
  stop();
  std::ifstream history(state_ / "qorchat" / "input_history");
  const std::string saved(std::istreambuf_iterator<char>(history), {});
  EXPECT_NE(saved.find("How"), std::string::npos);
}

}  // namespace
}  // namespace qortest

namespace qortest {
namespace {

// A reply of the Ollama service whose text may hold anything: quotes, line breaks, backticks.
std::string ollamaReplyEscaped(const std::string& text) {
  YLJson reply;
  reply.addKeyValue("model")->setStringValue("m");
  IYLJsonValue* message = reply.addKeyValue("message");
  message->addKeyValue("role")->setStringValue("assistant");
  message->addKeyValue("content")->setStringValue(text);
  reply.addKeyValue("done")->setBoolValue(true);
  return reply.obtainJsonString();
}

void createDatabase(const fs::path& path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char* error = nullptr;
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
  const std::string message = error != nullptr ? error : "";
  sqlite3_free(error);
  sqlite3_close(db);
  ASSERT_EQ(rc, SQLITE_OK) << message;
}

std::string queryOne(const fs::path& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::string value;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_exec(
        db, sql.c_str(),
        [](void* out, int, char** values, char**) {
          *static_cast<std::string*>(out) = values[0] != nullptr ? values[0] : "NULL";
          return 0;
        },
        &value, nullptr);
  }
  sqlite3_close(db);
  return value;
}

class QorchatRun : public QorchatProgram {
 protected:
  void SetUp() override {
    QorchatProgram::SetUp();
    database_ = state_ / "people.db";
    createDatabase(database_,
                   "CREATE TABLE people (id INTEGER PRIMARY KEY, name TEXT, note TEXT);"
                   "INSERT INTO people VALUES (1, 'Ann', NULL), (2, 'Bob', '" +
                       std::string(30, 'x') + wide_ + "'), (3, NULL, 'short');");
  }

  std::vector<std::string> args(const LoopbackServer& server, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--db", database_.string()});
    return ollama(server, more);
  }

  fs::path database_;
  // 30 characters of two bytes each: a cell cut by bytes would show 20 of them.
  const std::string wide_ = [] {
    std::string text;
    for (int i = 0; i < 30; ++i)
      text += "é";
    return text;
  }();
};

TEST_F(QorchatRun, RunShowsTheRowsOfTheLastReplysBlocks) {
  LoopbackServer server;
  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped(
                          "Two queries:\n```sql\nSELECT id, name, note FROM people ORDER BY id;\n"
                          "```\nand\n```\nWITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                          "FROM n WHERE i < 150) SELECT i FROM n;\n```\n")});
  const Outcome run =
      runQorchat(args(server), env(), "/run\nWho is there?\n/run\n/run 2\n/run 3\n/run x\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("qorchat: the last reply holds no SQL block to run\n"), std::string::npos)
      << run.err;

  // The blocks, numbered after the reply.
  EXPECT_NE(run.out.find("[1] SELECT id, name, note FROM people ORDER BY id;  (/run 1)\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("[2] WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n …  "
                         "(/run 2)\n"),
            std::string::npos)
      << run.out;

  // Widths from the data, NULL as such, the wide value cut at 40 characters.
  std::string cut = std::string(30, 'x');
  for (int i = 0; i < 9; ++i)
    cut += "é";
  cut += "…";
  const std::string table =
      "id | name | note\n"
      "---+------+-" +
      std::string(40, '-') +
      "\n"
      "1  | Ann  | NULL\n"
      "2  | Bob  | " +
      cut +
      "\n"
      "3  | NULL | short\n"
      "(3 rows)\n";
  EXPECT_NE(run.out.find(table), std::string::npos) << run.out;

  // At most 100 rows, and how many more there were.
  EXPECT_NE(run.out.find("\n99\n100\n(50 more rows not shown; 150 in all)\n"), std::string::npos)
      << run.out;
  EXPECT_EQ(run.out.find("\n101\n"), std::string::npos);
  EXPECT_NE(run.err.find("there is no block 3: the last reply has 2 (/run 1 to /run 2)"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("'x' is not a block number"), std::string::npos) << run.err;
}

TEST_F(QorchatRun, AFailedStatementShowsTheDatabasesErrorAndCanBeExplained) {
  LoopbackServer server;
  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped("```sql\nSELECT nosuch FROM people;\n```")});
  const Outcome run =
      runQorchat(args(server), env(), "/explain-error\nList them\n/run 1\n/explain-error\n");
  ASSERT_EQ(run.status, 0) << run.err;
  const std::size_t hint = run.err.find("qorchat: no statement has failed: ");
  ASSERT_NE(hint, std::string::npos) << run.err;
  EXPECT_LT(run.err.find('\n', hint), run.err.find("qorchat:", hint + 1));  // one line
  EXPECT_NE(run.err.find("qorchat: the statement failed: no such column: nosuch\n"),
            std::string::npos)
      << run.err;

  // The fix is asked as the next question of the conversation: the error and the statement go
  // along, after the earlier exchange.
  ASSERT_EQ(server.requestCount(), 2u);
  const std::string body = server.lastRequest().body;
  const std::size_t earlier = body.find("List them");
  const std::size_t error = body.find("no such column: nosuch");
  ASSERT_NE(earlier, std::string::npos) << body;
  ASSERT_NE(error, std::string::npos) << body;
  EXPECT_LT(earlier, error);
  EXPECT_NE(body.find("SELECT nosuch FROM people;"), std::string::npos);
}

TEST_F(QorchatRun, AskRunsTheFirstBlockAndAWriteIsRefused) {
  LoopbackServer server;
  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped("```sql\nSELECT name FROM people WHERE id = 1;\n```\n"
                                         "```sql\nSELECT 'second';\n```")});
  Outcome run = runQorchat(args(server, {"--ask", "Who?", "--run"}), env());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("name\n----\nAnn\n(1 row)\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("second\n"), std::string::npos);

  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped("```sql\nSELECT count(*) AS n FROM people;\n"
                                         "INSERT INTO people (name) VALUES ('Eve');\n"
                                         "SELECT 'not reached';\n```")});
  run = runQorchat(args(server, {"--ask", "Add Eve", "--run"}), env());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.out.find("-- SELECT count(*) AS n FROM people;\nn\n-\n3\n(1 row)\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.err.find("qorchat: the statement failed: attempt to write a readonly database"),
            std::string::npos)
      << run.err;
  // The statement after the failure never ran: one result only.
  EXPECT_EQ(run.out.find("(1 row)", run.out.find("(1 row)") + 1), std::string::npos) << run.out;
  EXPECT_EQ(queryOne(database_, "SELECT count(*) FROM people"), "3");

  // A reply without SQL, and --run without --ask.
  server.answer("POST", "/api/chat", {200, ollamaReplyEscaped("No query needed.")});
  run = runQorchat(args(server, {"--ask", "Hi", "--run"}), env());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("holds no SQL block"), std::string::npos) << run.err;
  run = runQorchat(args(server, {"--run"}), env());
  EXPECT_EQ(run.status, 2);
}

TEST_F(QorchatRun, AStatementPastItsTimeoutIsStopped) {
  LoopbackServer server;
  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped("```sql\nWITH RECURSIVE c(x) AS (SELECT 1 UNION ALL "
                                         "SELECT x + 1 FROM c) SELECT count(*) FROM c;\n```")});
  const Outcome run =
      runQorchat(args(server, {"--statement-timeout", "1", "--ask", "Count", "--run"}), env());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("qorchat: the statement failed: statement timeout: stopped after 1 s"),
            std::string::npos)
      << run.err;
}

TEST_F(QorchatRun, CtrlCStopsARunningStatementAndTheConversationGoesOn) {
  LoopbackServer server;
  server.answer("POST", "/api/chat",
                {200, ollamaReplyEscaped("```sql\nWITH RECURSIVE c(x) AS (SELECT 1 UNION ALL "
                                         "SELECT x + 1 FROM c) SELECT count(*) FROM c;\n```")});
  Program program(args(server, {"--statement-timeout", "0"}), env());
  program.write("Count\n");
  ASSERT_TRUE(program.waitForOutput("(/run 1)"));
  program.write("/run\n");
  std::this_thread::sleep_for(milliseconds(300));
  const auto sent = std::chrono::steady_clock::now();
  program.signal(SIGINT);
  ASSERT_TRUE(program.waitForError("qorchat: the statement failed: interrupted")) << program.err;
  EXPECT_LT(std::chrono::steady_clock::now() - sent, milliseconds(1000));
  program.write("/schema\n");
  EXPECT_TRUE(program.waitForOutput("CREATE TABLE `people`"));
  EXPECT_EQ(program.finish(), 0);
}

// 2,000 tables in chains of ten, each table referencing the one before it: t0000 <- t0001 <- ...
// <- t0009, t0010 <- ... About 330 kB of digest.
class QorchatScope : public QorchatProgram {
 protected:
  void SetUp() override {
    QorchatProgram::SetUp();
    database_ = state_ / "large.db";
    std::string sql = "BEGIN;";
    char name[8];
    char previous[8];
    for (int i = 0; i < 2000; ++i) {
      std::snprintf(name, sizeof name, "t%04d", i);
      std::snprintf(previous, sizeof previous, "t%04d", i - 1);
      sql += std::string("CREATE TABLE ") + name +
             " (id INTEGER PRIMARY KEY, name TEXT, created_at TEXT, amount REAL, prev_id INTEGER" +
             (i % 10 != 0 ? std::string(" REFERENCES ") + previous + "(id)" : "") + ");";
    }
    createDatabase(database_, sql + "COMMIT;");
  }

  static bool lists(const std::string& text, int table) {
    char name[16];
    std::snprintf(name, sizeof name, "`t%04d` (", table);
    return text.find(name) != std::string::npos;
  }

  fs::path database_;
};

TEST_F(QorchatScope, TheQuestionsTablesAndTheirNeighboursGoWithinTheBudget) {
  LoopbackServer server;
  const Outcome printed =
      runQorchat(ollama(server, {"--db", database_.string(), "--print-request",
                                 "How many rows has T1855, and what is in main.t1733?"}),
                 env());
  ASSERT_EQ(printed.status, 0) << printed.err;
  // The named tables and their whole chains, through references in both directions.
  for (int table = 1850; table < 1860; ++table)
    EXPECT_TRUE(lists(printed.out, table)) << table;
  for (int table = 1730; table < 1740; ++table)
    EXPECT_TRUE(lists(printed.out, table)) << table;
  // The rest in their order, as far as the budget goes.
  EXPECT_TRUE(lists(printed.out, 0));
  EXPECT_FALSE(lists(printed.out, 1999));
  EXPECT_FALSE(lists(printed.out, 1849));
  EXPECT_NE(printed.out.find("The database has 2,000 tables and views; the structure lists "),
            std::string::npos);
  EXPECT_NE(printed.out.find(" of them. Ask for others by name."), std::string::npos);

  // Everything goes, and nothing is said of a scope, when there is no limit or it fits.
  for (const char* budget : {"0", "1000000"}) {
    const Outcome whole = runQorchat(ollama(server, {"--db", database_.string(), "--schema-budget",
                                                     budget, "--print-request", "Hi"}),
                                     env());
    ASSERT_EQ(whole.status, 0) << whole.err;
    EXPECT_TRUE(lists(whole.out, 1999)) << budget;
    EXPECT_EQ(whole.out.find("Ask for others by name"), std::string::npos) << budget;
  }
}

// What /schema shows is computed from the assistant's properties, as the model gets it: within
// the budget, and following the conversation.
TEST_F(QorchatScope, TheChoiceFollowsTheConversationAndStaysWithinTheBudget) {
  LoopbackServer server;
  server.answer("POST", "/api/chat", {200, ollamaReply("ok")});
  const Outcome run =
      runQorchat(ollama(server, {"--db", database_.string(), "--schema-budget", "60000"}), env(),
                 "Tell me about t1855\n/schema\nAnd t0999?\n/schema\n");
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<std::string> sections;
  std::vector<std::size_t> sizes;
  std::size_t start = 0;
  for (std::size_t at = run.out.find("\n-- "); at != std::string::npos;
       at = run.out.find("\n-- ", at + 1)) {
    const std::size_t end = run.out.find('\n', at + 1);
    const std::string line = run.out.substr(at + 1, end - at - 1);
    if (line.find(" bytes, about ") == std::string::npos) continue;
    sections.push_back(run.out.substr(start, at - start));
    sizes.push_back(std::stoul(line.substr(3)));
    start = end;
  }
  ASSERT_EQ(sections.size(), 2u) << run.out;
  for (const std::size_t size : sizes) {
    EXPECT_LE(size, 60000u);
    EXPECT_GT(size, 55000u);  // the budget is used, not merely respected
  }
  EXPECT_TRUE(lists(sections[0], 1855));
  EXPECT_FALSE(lists(sections[0], 999));
  // The second question brings its table; the first one's stays, named in the history.
  EXPECT_TRUE(lists(sections[1], 999));
  EXPECT_TRUE(lists(sections[1], 1855));
  EXPECT_NE(run.out.find("-- The database has 2,000 tables and views; the structure lists "),
            std::string::npos)
      << run.out;
}

}  // namespace
}  // namespace qortest
