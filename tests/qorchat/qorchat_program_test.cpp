// qorchat end to end: the real binary against the loopback service, through pipes, signals and
// a terminal.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "helpers.h"
#include "support/loopback_server.h"
#include "yl/yl.h"

namespace qortest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Args = std::vector<std::string>;

constexpr const char* kKey = "sk-test-4f9a0c1d2e3b";

// Whether every part is in the text, each after the one before it.
::testing::AssertionResult inOrder(const std::string& text,
                                   std::initializer_list<const char*> parts) {
  std::size_t from = 0;
  for (const char* part : parts) {
    from = text.find(part, from);
    if (from == std::string::npos) return ::testing::AssertionFailure() << part << " in " << text;
  }
  return ::testing::AssertionSuccess();
}

class QorchatProgram : public ::testing::Test {
 protected:
  // The test's own state folder and no key of the developer's, under these variables.
  std::map<std::string, std::string> env(std::map<std::string, std::string> vars = {}) const {
    vars.insert({{"XDG_STATE_HOME", state_.path.string()},
                 {"XDG_CONFIG_HOME", state_.path.string()},
                 {"HOME", state_.path.string()}});
    for (const char* name : {"OPENAI_API_KEY", "GEMINI_API_KEY", "DEEPSEEK_API_KEY", "XAI_API_KEY",
                             "ANTHROPIC_API_KEY", "DASHSCOPE_API_KEY"}) {
      vars.insert({name, ""});
    }
    return vars;
  }
  Args ollama(Args more = {}) const {
    more.insert(more.begin(), {"--service", "ollama", "--host", server_.baseUrl(), "--model", "m"});
    return more;
  }
  void reply(const std::string& text) { server_.answer("POST", "/api/chat", ollamaReply(text)); }

  TempDir state_;
  LoopbackServer server_;
};

// The dry run prints exactly what a real run sends: the same path, query and body, the key
// masked.
TEST_F(QorchatProgram, PrintRequestShowsWhatARealRunSendsForEveryService) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"openai", "OPENAI_API_KEY", "/v1/chat/completions"},
      {"google", "GEMINI_API_KEY", "/v1beta/models/gemini-x:streamGenerateContent"},
      {"deepseek", "DEEPSEEK_API_KEY", "/chat/completions"},
      {"ollama", "", "/api/chat"},
      {"x", "XAI_API_KEY", "/v1/chat/completions"},
      {"anthropic", "ANTHROPIC_API_KEY", "/v1/messages"},
      {"alibaba", "DASHSCOPE_API_KEY", "/compatible-mode/v1/chat/completions"},
  };
  for (const auto& [service, keyVariable, chatPath] : cases) {
    SCOPED_TRACE(service);
    const auto run = [&](const char* how) {
      std::map<std::string, std::string> vars = env();
      if (keyVariable[0] != '\0') vars[keyVariable] = kKey;
      return runQorchat({"--service", service, "--host", server_.baseUrl(), "--model", "gemini-x",
                         "--temperature", "0.5", how, "Which customers never ordered?"},
                        vars);
    };
    const std::size_t before = server_.requestCount();
    const Outcome printed = run("--print-request");
    ASSERT_EQ(printed.status, 0) << printed.err;
    run("--ask");  // the service answers 404; only the request matters here
    ASSERT_EQ(server_.requestCount(), before + 1);  // the dry run sent nothing
    const RecordedRequest sent = server_.lastRequest();
    EXPECT_EQ(sent.path, chatPath);
    std::string query = sent.query;
    if (const auto at = query.find(kKey); at != std::string::npos)
      query.replace(at, std::strlen(kKey), "****");
    EXPECT_EQ(printed.out, "POST " + server_.baseUrl() + sent.path +
                               (query.empty() ? "" : "?" + query) + "\n" + sent.body + "\n");
    EXPECT_TRUE(has(sent.body, "CREATE TABLE `order_items`"));
    // The engine, the dialect, NOT NULL in a column's type and the unique keys go along.
    EXPECT_TRUE(has(sent.body, "The database is SQLite 3.") &&
                has(sent.body, "`email` TEXT NOT NULL") && has(sent.body, "customers(email)"))
        << sent.body;
    EXPECT_EQ(has(sent.body, "\"max_tokens\":8192"), std::string(service) == "anthropic");
    EXPECT_FALSE(has(printed.out + printed.err, kKey));
  }
}

TEST_F(QorchatProgram, AskPrintsTheReplyAndTakesTheFirstListedModel) {
  server_.answer("GET", "/api/tags", {200, readWireFile("ollama/models.json")});
  reply("SELECT name FROM customers;");
  const Outcome listed = runQorchat({"--host", server_.baseUrl(), "--list-models"}, env());
  ASSERT_EQ(listed.status, 0) << listed.err;
  const std::string first = listed.out.substr(0, listed.out.find('\n'));
  const Outcome run = runQorchat({"--host", server_.baseUrl(), "--ask", "Who?"}, env());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "SELECT name FROM customers;\n");
  EXPECT_TRUE(has(run.err, "using model " + first + " ")) << run.err;
  EXPECT_TRUE(has(server_.lastRequest().body, "\"model\":\"" + first + "\""));
}

// Without --model: the newest chat model, never an embedding one, undated listings included; the
// choice is remembered, so the next run lists nothing.
TEST_F(QorchatProgram, TheDefaultModelIsAChatModelAndIsRemembered) {
  const std::pair<const char*, const char*> listings[] = {
      {R"({"object":"list","data":[
          {"id":"text-embedding-3-large","object":"model","created":1705953180},
          {"id":"gpt-4o","object":"model","created":1715367049},
          {"id":"omni-moderation-latest","object":"model","created":1731689265}]})",
       "gpt-4o"},
      {R"({"object":"list","data":[{"id":"tts-1","object":"model"},{"id":"local-chat"}]})",
       "local-chat"},
  };
  for (const auto& [listing, chosen] : listings) {
    SCOPED_TRACE(chosen);
    const TempDir state;
    auto vars = env({{"OPENAI_API_KEY", kKey}});
    vars["XDG_STATE_HOME"] = state.path.string();
    server_.answer("GET", "/v1/models", {200, listing});
    const Args args{"--service", "openai", "--host", server_.baseUrl()};
    const Outcome first = runQorchat(args, vars, "/model\n");
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_TRUE(has(first.out, std::string("model: ") + chosen + "\n")) << first.out;
    const std::size_t before = server_.requestCount();
    const Outcome again = runQorchat(args, vars, "/model\n");
    EXPECT_TRUE(has(again.out, std::string("model: ") + chosen + "\n")) << again.err;
    EXPECT_EQ(server_.requestCount(), before);
    // A name the service doesn't list is refused with the near ones.
    const Outcome typo = runQorchat(args, vars, std::string("/model ") + chosen + "x\n");
    EXPECT_TRUE(has(typo.err, std::string("did you mean ") + chosen + "?")) << typo.err;
  }
}

// --timeout bounds the whole question, retries included, and says it timed out; a service that
// keeps failing is asked three times in all.
TEST_F(QorchatProgram, TimeoutBoundsTheWholeQuestionWithItsRetries) {
  const std::tuple<ScriptedReply, const char*, std::size_t> cases[] = {
      {ollamaReply("late", milliseconds(8000)), "no reply within 2 s (--timeout)", 1},
      {{503, R"({"error":"busy"})"}, "busy", 3},
  };
  for (const auto& [scripted, message, requests] : cases) {
    server_.answer("POST", "/api/chat", scripted);
    const std::size_t before = server_.requestCount();
    const auto started = std::chrono::steady_clock::now();
    const Outcome run = runQorchat(ollama({"--timeout", "2", "--ask", "Hi"}), env());
    EXPECT_LT(std::chrono::steady_clock::now() - started, milliseconds(3500));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(has(run.err, message)) << run.err;
    EXPECT_FALSE(has(run.err, "Nothing answered")) << run.err;
    EXPECT_EQ(server_.requestCount() - before, requests);
  }
}

// Through a pipe, a streamed reply prints what the same reply unstreamed prints, hostile bytes
// made safe and blanks alone shown as no text; the token counts follow on standard error.
TEST_F(QorchatProgram, APipedReplyPrintsTheSameStreamedOrNot) {
  const std::vector<std::string> replies[] = {
      {"Total: 42 €, 中文 😀", "\n\n```sql\nSELECT 1;\n```"},
      {"\x1B[2J hostile ", "\a bell \xE2\x80\xAE"},
      {"  ", "\n"},
  };
  RawServer raw;
  for (const std::vector<std::string>& fragments : replies) {
    std::string whole;
    for (const std::string& fragment : fragments)
      whole += fragment;
    SCOPED_TRACE(whole);
    const Args args{"--service", "ollama", "--host", raw.baseUrl(), "--model", "m", "--ask", "Q"};
    raw.enqueue(ollamaStream({whole}, milliseconds(0)));
    Args unstreamedArgs = args;
    unstreamedArgs.push_back("--no-stream");
    const Outcome unstreamed = runQorchat(unstreamedArgs, env());
    KeptBody kept;
    raw.enqueue(ollamaStream(fragments, milliseconds(5), &kept));
    const Outcome streamed = runQorchat(args, env());
    EXPECT_TRUE(has(kept.text(), "\"stream\":true")) << kept.text();
    EXPECT_EQ(streamed.out, unstreamed.out);
    EXPECT_EQ(streamed.out.find('\x1B'), std::string::npos);
    for (const Outcome* run : {&streamed, &unstreamed})
      EXPECT_EQ(run->err, "(412 tokens in, 96 out)\n");
  }
}

// Each failure is one line: status 1 when the service says no, 2 for what is wrong before
// anything is asked.
TEST_F(QorchatProgram, FailuresGiveOneLineAndTheRightStatus) {
  server_.answer("POST", "/api/chat", {404, readWireFile("ollama/error_404_unknown_model.json")});
  Outcome run = runQorchat(ollama({"--ask", "Hi"}), env());
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(has(run.err, "qorchat: ollama failed: ") && has(run.err, "not found")) << run.err;

  // Where nothing listens: how to start a service, or to do without one.
  const std::string closed = "http://127.0.0.1:" + std::to_string(closedLoopbackPort());
  run = runQorchat({"--host", closed}, env(), "Hello\n");
  EXPECT_EQ(run.status, 1);
  for (const char* part : {"Couldn't connect to server", "ollama serve", "--print-request"})
    EXPECT_TRUE(has(run.err, part)) << run.err;

  // A missing key is caught before any request, naming the variable.
  const std::size_t before = server_.requestCount();
  run = runQorchat({"--service", "openai", "--host", server_.baseUrl(), "--ask", "Hi"}, env());
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(has(run.err, "OPENAI_API_KEY")) << run.err;
  EXPECT_EQ(server_.requestCount(), before);

  // A missing database names its path and creates nothing.
  const fs::path missing = state_.path / "nowhere.db";
  run = runQorchat(ollama({"--db", missing.string(), "--ask", "Hi"}), env());
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(has(run.err, missing.string())) << run.err;
  EXPECT_FALSE(fs::exists(missing));

  for (const Args& args : {Args{"--service", "nosuch"}, Args{"--host", "not a url"},
                           Args{"--temperature", "warm"}, Args{"--run"},  // without --ask
                           Args{"--api-key-file", (state_.path / "nokey").string(), "--service",
                                "openai", "--ask", "Hi"}}) {
    run = runQorchat(args, env());
    EXPECT_EQ(run.status, 2) << args[0];
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  run = runQorchat({"--help"}, env());
  EXPECT_TRUE(run.status == 0 && has(run.out, "--schema-budget") && has(run.out, "OPENAI_API_KEY"))
      << run.out;
  run = runQorchat({"--version"}, env());
  EXPECT_TRUE(run.status == 0 && run.out.rfind("qorchat ", 0) == 0) << run.out;

  // Output that never reached its file is a failure.
  const std::string full = "XDG_CONFIG_HOME=" + state_.path.string() + " " + QORCHAT_BINARY +
                           " --print-request Hi >/dev/full 2>/dev/null";
  EXPECT_EQ(WEXITSTATUS(std::system(full.c_str())), 1);
}

// A conversation through a pipe: commands, history sent along, resumed by the next run even when
// the first was killed outright.
TEST_F(QorchatProgram, AConversationThroughAPipeLastsAcrossRuns) {
  reply("first answer\n```sql\nSELECT count(*) AS n FROM customers;\n```");
  {
    Program program(ollama(), env());
    program.write("/schema\n/bogus\nFirst question\n");
    ASSERT_TRUE(program.waitForOutput("first answer\n"));
    program.signal(SIGKILL);
    EXPECT_EQ(program.finish(), 128 + SIGKILL);
    EXPECT_TRUE(has(program.out(), "CREATE TABLE `customers`") &&
                has(program.out(), " bytes, about "));
    EXPECT_TRUE(has(program.err(), "unknown command /bogus: type /help")) << program.err();
  }
  reply("second answer");
  // Taken up: the last exchange is shown, and its block runs as /run 1.
  Outcome run = runQorchat(ollama(), env(), "/run 1\nSecond question\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(has(run.err, "resuming the conversation") && has(run.err, "(2 earlier entries)"))
      << run.err;
  EXPECT_TRUE(has(run.out, "Last time you asked: First question\nfirst answer") &&
              has(run.out, "(1 row)"))
      << run.out;
  EXPECT_TRUE(
      inOrder(server_.lastRequest().body, {"First question", "first answer", "Second question"}));

  // /reset: the next question goes alone.
  ASSERT_EQ(runQorchat(ollama(), env(), "/reset\nThird question\n").status, 0);
  EXPECT_FALSE(has(server_.lastRequest().body, "First question"));
  // --no-history neither reads nor writes the stored conversation.
  runQorchat(ollama({"--no-history"}), env(), "Fourth question\n");
  EXPECT_FALSE(has(server_.lastRequest().body, "Third question"));
  runQorchat(ollama(), env(), "Fifth question\n");
  EXPECT_TRUE(has(server_.lastRequest().body, "Third question"));
  EXPECT_FALSE(has(server_.lastRequest().body, "Fourth question"));

  // A state folder that cannot be made: a warning, and the conversation is kept in memory.
  const fs::path blocker = state_.path / "file";
  std::ofstream(blocker) << "not a folder";
  run = runQorchat(ollama(), env({{"XDG_STATE_HOME", blocker.string()}}), "Question\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(has(run.err, "warning: cannot create")) << run.err;
  EXPECT_TRUE(has(run.out, "second answer"));
}

// /notes edits the database's own notes, which every later question sends, in this run and the
// next; --notes FILE takes another file instead.
TEST_F(QorchatProgram, NotesGoWithEveryQuestion) {
  reply("noted");
  const fs::path editor = state_.path / "editor.sh";
  std::ofstream(editor) << "#!/bin/sh\nprintf 'Amounts are in cents.\\n' >> \"$1\"\n";
  fs::permissions(editor, fs::perms::owner_all);
  const Outcome edited =
      runQorchat(ollama(), env({{"VISUAL", editor.string()}}), "/notes\nFirst\n");
  ASSERT_EQ(edited.status, 0) << edited.err;
  EXPECT_TRUE(has(server_.lastRequest().body, "Amounts are in cents.")) << edited.out;
  runQorchat(ollama({"--no-history"}), env(), "Second\n");
  EXPECT_TRUE(has(server_.lastRequest().body, "Amounts are in cents."));
  const fs::path other = state_.path / "other.md";
  std::ofstream(other) << "Prices include VAT.";
  runQorchat(ollama({"--notes", other.string()}), env(), "Third\n");
  EXPECT_TRUE(has(server_.lastRequest().body, "Prices include VAT.") &&
              !has(server_.lastRequest().body, "cents"));

  // Notes written in a conversation take their share of the budget at once: a structure that
  // went whole is cut for the next question.
  std::string tables;
  for (int i = 0; i < 40; ++i)
    tables += "CREATE TABLE t" + std::to_string(i) + " (id INTEGER PRIMARY KEY, label TEXT);";
  const std::string db = (state_.path / "forty.db").string();
  sqlite(db, tables);
  std::ofstream(editor) << "#!/bin/sh\nprintf '%01800d\\n' 0 >> \"$1\"\n";
  const std::size_t before = server_.requestCount();
  runQorchat(ollama({"--db", db, "--schema-budget", "4000"}), env({{"VISUAL", editor.string()}}),
             "First\n/notes\nSecond\n");
  EXPECT_TRUE(has(server_.lastRequest().body, "the structure lists"));
  EXPECT_FALSE(has(server_.requests().at(before).body, "the structure lists"));
}

// A table made in another window while qorchat runs reaches /describe and the next question; a
// change that leaves the structure as it was is not told.
TEST_F(QorchatProgram, TheStructureIsReadAgainWhenTheDatabaseChanged) {
  reply("first answer");
  const std::string db = (state_.path / "live.db").string();
  sqlite(db, "CREATE TABLE kept (id integer);");
  Program program(ollama({"--db", db}), env());
  program.write("First\n");
  ASSERT_TRUE(program.waitForOutput("first answer"));
  EXPECT_FALSE(has(server_.lastRequest().body, "refunds"));
  sqlite(db, "CREATE TABLE scratch (x); DROP TABLE scratch;");
  program.write("/schema\n");
  ASSERT_TRUE(program.waitForOutput("CREATE TABLE `kept`"));
  sqlite(db, "CREATE TABLE refunds (amount integer);");
  reply("second answer");
  program.write("/describe refunds\nSecond\n");
  ASSERT_TRUE(program.waitForOutput("second answer"));
  EXPECT_TRUE(has(program.out(), "CREATE TABLE `refunds`"));
  EXPECT_TRUE(has(server_.lastRequest().body, "refunds"));
  EXPECT_EQ(program.finish(), 0);
  const std::string told = "the structure of live.db changed; the model gets it as it is now";
  EXPECT_EQ(program.err().find(told), program.err().rfind(told)) << program.err();
  EXPECT_TRUE(has(program.err(), told)) << program.err();
}

// Ctrl-C while the service is slow abandons the exchange, which the conversation forgets; at the
// prompt it ends the program, whose input is still open.
TEST_F(QorchatProgram, CtrlCAbandonsTheExchangeOrEndsTheProgram) {
  server_.answer("POST", "/api/chat", ollamaReply("too late", std::chrono::seconds(4)));
  Program program(ollama(), env());
  program.write("Slow question\n");
  ASSERT_TRUE(program.waitFor([&] { return server_.requestCount() == 1; }));
  const auto sent = std::chrono::steady_clock::now();
  program.signal(SIGINT);
  ASSERT_TRUE(program.waitForError("cancelled"));
  EXPECT_LT(std::chrono::steady_clock::now() - sent, milliseconds(1000));

  reply("quick answer");
  program.write("Quick question\n");
  ASSERT_TRUE(program.waitForOutput("quick answer"));
  EXPECT_FALSE(has(server_.lastRequest().body, "Slow question"));
  std::this_thread::sleep_for(milliseconds(300));
  program.signal(SIGINT);
  EXPECT_EQ(program.finish(std::chrono::seconds(5), false), 0);
  EXPECT_FALSE(has(program.out(), "too late"));
}

// A conversation about a table of people, whose replies hold SQL blocks to run.
class QorchatRun : public QorchatProgram {
 protected:
  void SetUp() override {
    sqlite(database_,
           "CREATE TABLE people (id INTEGER PRIMARY KEY, name TEXT, note TEXT);"
           "INSERT INTO people VALUES (1, 'Zoë', NULL), (2, 'Bob', '" +
               std::string(30, 'x') + repeated("é", 30) + "'), (3, NULL, 'short');");
  }
  Args args(Args more = {}) const {
    more.insert(more.begin(), {"--db", database_.string()});
    return ollama(more);
  }

  const fs::path database_ = state_.path / "people.db";
};

TEST_F(QorchatRun, RunShowsTheRowsOfTheLastReplysBlocks) {
  reply(
      "Two queries:\n```sql\nSELECT id, name, note FROM people ORDER BY id;\n```\nand\n```\n"
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 150) "
      "SELECT i FROM n;\n```\n");
  const Outcome run =
      runQorchat(args(), env(), "/run\nWho is there?\n/run\n/run 2\n/run 3\n/run x\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(has(run.err, "qorchat: the last reply holds no SQL block to run\n")) << run.err;
  // The blocks, numbered after the reply.
  EXPECT_TRUE(has(run.out, "[1] SELECT id, name, note FROM people ORDER BY id;  (/run 1)\n"));
  EXPECT_TRUE(has(
      run.out, "[2] WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n …  (/run 2)\n"))
      << run.out;
  // Through a pipe nothing is cut; NULL as the --null text, numbers to the right.
  EXPECT_TRUE(has(run.out, "id | name   | note\n---+--------+" + std::string(61, '-') +
                               "\n 1 | Zoë    | <null>\n 2 | Bob    | " + std::string(30, 'x') +
                               repeated("é", 30) + "\n 3 | <null> | short\n(3 rows)\n"))
      << run.out;
  // At most 100 rows, and how many there were.
  EXPECT_TRUE(has(run.out, "\n 99\n100\n(first 100 of 150 rows)\n")) << run.out;
  EXPECT_FALSE(has(run.out, "\n101\n"));
  EXPECT_TRUE(has(run.err, "there is no block 3: the last reply has 2 (/run 1 to /run 2)"));
  EXPECT_TRUE(has(run.err, "'x' is not a block number")) << run.err;
}

TEST_F(QorchatRun, AFailedStatementShowsTheDatabasesErrorAndCanBeExplained) {
  reply("```sql\nSELECT nosuch FROM people;\n```");
  const Outcome run =
      runQorchat(args(), env(), "/explain-error\nList them\n/run 1\n/explain-error\n");
  ASSERT_EQ(run.status, 0) << run.err;
  const std::size_t hint = run.err.find("qorchat: no statement has failed: ");
  ASSERT_NE(hint, std::string::npos) << run.err;
  EXPECT_LT(run.err.find('\n', hint), run.err.find("qorchat:", hint + 1));  // one line
  EXPECT_TRUE(has(run.err, "qorchat: the statement failed: no such column: nosuch\n")) << run.err;
  // The fix is asked as the next question of the conversation: the error and the statement go
  // along, after the earlier exchange. Each reply also failed the check and was sent back once.
  ASSERT_EQ(server_.requestCount(), 4u);
  EXPECT_TRUE(inOrder(server_.lastRequest().body,
                      {"List them", "SELECT nosuch FROM people;", "no such column: nosuch"}));
}

TEST_F(QorchatRun, AskRunsTheFirstBlock) {
  reply("```sql\nSELECT name FROM people WHERE id = 1;\n```\n```sql\nSELECT 'second';\n```");
  Outcome run = runQorchat(args({"--ask", "Who?", "--run"}), env());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(has(run.out, "name\n----\nZoë\n(1 row)\n")) << run.out;
  EXPECT_FALSE(has(run.out, "second\n"));

  reply("```sql\nDELETE FROM people;\n```");
  EXPECT_EQ(runQorchat(args({"--ask", "Empty it", "--run"}), env()).status, 1);
  // A reply without a block, or cut at the length limit, runs nothing without asking.
  for (const auto& [scripted, says] :
       {std::pair{ollamaReply("No query needed."), "holds no SQL block"},
        {ollamaReply("```sql\nSELECT name FROM people WHERE", milliseconds(0), "length"),
         "the reply was cut at the service's length limit"}}) {
    server_.answer("POST", "/api/chat", scripted);
    run = runQorchat(args({"--ask", "Hi", "--run"}), env());
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(has(run.err, says)) << run.err;
  }
  EXPECT_TRUE(has(run.err, "not run: the reply was cut off")) << run.err;
}

// A statement past its time limit, or stopped by Ctrl-C, fails alone: the session goes on.
TEST_F(QorchatRun, ATimeoutOrCtrlCStopsTheStatementAndTheSessionGoesOn) {
  reply(
      "```sql\nWITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) "
      "SELECT count(*) FROM c;\n```");
  Program program(args({"--statement-timeout", "1"}), env());
  program.write("Count\n");
  ASSERT_TRUE(program.waitForOutput("(/run 1)"));
  program.write("/run\n");
  ASSERT_TRUE(
      program.waitForError("qorchat: the statement failed: statement timeout: stopped after 1 s"))
      << program.err();
  program.write("/run\n");
  std::this_thread::sleep_for(milliseconds(300));
  const auto sent = std::chrono::steady_clock::now();
  program.signal(SIGINT);
  ASSERT_TRUE(program.waitForError("qorchat: the statement was stopped (Ctrl-C)")) << program.err();
  EXPECT_LT(std::chrono::steady_clock::now() - sent, milliseconds(1000));
  program.write("/schema\n");
  EXPECT_TRUE(program.waitForOutput("CREATE TABLE `people`"));
  EXPECT_EQ(program.finish(), 0);
}

// Text from outside reaches the terminal made safe on every path: the reply, a service's error,
// the database's error, names in /schema, a result cell, the file name, model names. No escape
// or C1 control passes, and the user sees that something was there.
TEST_F(QorchatRun, NothingHostileReachesTheTerminal) {
  const std::string esc =
      "\x1b]52;c;aGk=\x07\x1b[2J\xc2\x9b"
      "31m\xe2\x80\xae";
  sqlite(database_, "CREATE TABLE \"t" + esc + "\" (\"c" + esc +
                        "\" TEXT);"
                        "INSERT INTO \"t" +
                        esc + "\" VALUES ('v" + esc + "');");
  // The model's listing is JSON, as a service sends it: escaped.
  std::string listing = readWireFile("ollama/models.json");
  listing.insert(listing.find("\"name\": \"") + 9, "\\u001b]0;x\\u0007\\u009b31m\\u202e");
  server_.answer("GET", "/api/tags", {200, listing});
  const struct {
    std::string name;
    ScriptedReply chat;
    Args args;
    std::string input;
  } paths[] = {
      {"reply", ollamaReply("Here" + esc), args({"--ask", "Hi"}), ""},
      {"service error", {404, "{\"error\": \"no" + esc + "\"}"}, args({"--ask", "Hi"}), ""},
      {"database error and cell",
       ollamaReply("```sql\nSELECT * FROM \"t" + esc + "\";\nSELECT \"x" + esc + "\";\n```"),
       args(), "Go\n/run\n"},
      {"names in /schema", {}, args(), "/schema\n"},
      {"file name", {}, ollama({"--db", (state_.path / ("x" + esc)).string(), "--ask", "Hi"}), ""},
      {"model names", {}, ollama({"--list-models"}), ""},
  };
  for (const auto& path : paths) {
    SCOPED_TRACE(path.name);
    server_.answer("POST", "/api/chat", path.chat);
    const Outcome run = runQorchat(path.args, env(), path.input);
    const std::string shown = run.out + run.err;
    EXPECT_TRUE(has(shown, "␛")) << shown;
    for (const char* hostile : {"\x1b", "\xc2\x9b", "\xe2\x80\xae", "\x07"})
      EXPECT_FALSE(has(shown, hostile)) << shown;
  }
}

// A database of 2,000 tables in chains of ten, each table referencing the one before it: t0000 <-
// t0001 <- ... <- t0009, t0010 <- ... About 330 kB of digest. What the model gets of it (/schema,
// computed from the assistant's properties) is the question's tables and their neighbours, then
// the rest, within the budget and following the conversation.
TEST_F(QorchatProgram, ALargeDatabaseIsScopedToTheQuestionWithinTheBudget) {
  const auto name = [](int table) {
    char text[16];
    std::snprintf(text, sizeof text, "t%04d", table);
    return std::string(text);
  };
  const auto lists = [&](const std::string& text, int table) {
    return has(text, "`" + name(table) + "` (");
  };
  const fs::path database = state_.path / "large.db";
  std::string sql = "BEGIN;";
  for (int i = 0; i < 2000; ++i) {
    sql += "CREATE TABLE " + name(i) +
           " (id INTEGER PRIMARY KEY, name TEXT, created_at TEXT, amount REAL, prev_id INTEGER" +
           (i % 10 != 0 ? " REFERENCES " + name(i - 1) + "(id)" : "") + ");";
  }
  sqlite(database, sql + "COMMIT;");

  reply("ok");
  const Outcome run = runQorchat(ollama({"--db", database.string(), "--schema-budget", "60000"}),
                                 env(), "Tell me about T1855\n/schema\nAnd t0999?\n/schema\n");
  ASSERT_EQ(run.status, 0) << run.err;
  // Each /schema ends with "-- N bytes, about ..."; the digest is what comes before.
  std::vector<std::string> sections;
  std::size_t start = 0;
  for (std::size_t at = run.out.find("\n-- "); at != std::string::npos;
       at = run.out.find("\n-- ", at + 1)) {
    const std::size_t end = run.out.find('\n', at + 1);
    if (!has(run.out.substr(at, end - at), " bytes, about ")) continue;
    sections.push_back(run.out.substr(start, at - start));
    const std::size_t size = std::stoul(run.out.substr(at + 4));
    EXPECT_LE(size, 60000u);
    EXPECT_GT(size, 55000u);  // the budget is used, not merely respected
    start = end;
  }
  ASSERT_EQ(sections.size(), 2u) << run.out;
  // The named table, its neighbours and theirs, through references in both directions (a name in
  // any case); then the rest in their order, as far as the budget goes.
  for (int hop = -2; hop <= 2; ++hop)
    EXPECT_TRUE(lists(sections[0], 1855 + hop)) << hop;
  EXPECT_TRUE(lists(sections[0], 0) && !lists(sections[0], 999) && !lists(sections[0], 1849));
  // The second question brings its table; the first one's stays, named in the history.
  EXPECT_TRUE(lists(sections[1], 999) && lists(sections[1], 1855));
  EXPECT_TRUE(has(run.out, "-- The database has 2,000 tables and views; the structure lists ") &&
              has(run.out, " of them. Ask for others by name."));
}

}  // namespace
}  // namespace qortest
