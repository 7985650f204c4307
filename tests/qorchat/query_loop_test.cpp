// The query loop: a scripted model on a loopback port asks for queries, reads their results from
// the requests it receives and answers with what only they hold; the real program in between, on
// SQLite and PostgreSQL, with each sharing setting, the caps, corrections, the step bound, Ctrl-C
// and the one-key consent on a terminal.
#include <cstdlib>
#include <regex>

#include "helpers.h"
#include "postgres_cluster.h"
#include "query_loop.h"

namespace qortest {
namespace {

using std::chrono::milliseconds;
constexpr const char* kSecret = "73121";

// Every request body the model received, in order.
struct Bodies {
  std::vector<std::string> all() {
    const std::lock_guard lock(mutex);
    return bodies;
  }
  std::mutex mutex;
  std::vector<std::string> bodies;
};

// The model: each reply is what the script makes of the request's body, streamed in pieces gap
// apart.
RawBehaviour model(Bodies& bodies,
                   std::function<std::vector<std::string>(const std::string&)> script,
                   milliseconds gap = milliseconds(1)) {
  return [&bodies, script, gap](RawConnection& connection, const RawRequest& request) {
    {
      const std::lock_guard lock(bodies.mutex);
      bodies.bodies.push_back(request.body);
    }
    ollamaStream(script(request.body), gap)(connection, request);
  };
}

std::string runBlock(const std::string& sql) {
  return "Let me look.\n```sql-run\n" + sql + "\n```\n";
}

// Asks for the secret, and answers with the value the results hold (the body's JSON escapes
// line breaks as \n).
std::vector<std::string> secretSeeker(const std::string& body) {
  static const std::regex kResult(R"(secret\\n(\d+)\\n)");
  std::smatch found;
  if (std::regex_search(body, found, kResult)) return {"The secret is " + found[1].str() + "."};
  return {runBlock("SELECT secret FROM vault;")};
}

std::filesystem::path vault(const TempDir& dir) {
  const std::filesystem::path file = dir.path / "vault.db";
  sqlite(file, std::string("CREATE TABLE vault(secret INTEGER); INSERT INTO vault VALUES(") +
                   kSecret + ");");
  return file;
}

std::vector<std::string> modelArgs(const RawServer& server, const std::string& db,
                                   std::vector<std::string> more) {
  std::vector<std::string> args{"--db",           db,        "--service", "ollama",      "--host",
                                server.baseUrl(), "--model", "m",         "--no-history"};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

TEST(QueryLoop, AnswersFromTheResultsOnSqliteAndPostgres) {
  TempDir dir;
  PostgresCluster& cluster = PostgresCluster::shared();
  const std::string database = cluster.createDatabase();
  cluster.execute(
      std::string("CREATE TABLE vault(secret integer); INSERT INTO vault VALUES (") + kSecret + ")",
      database);
  for (const std::string& target : {vault(dir).string(), cluster.readerConninfo(database)}) {
    Bodies bodies;
    RawServer server(model(bodies, secretSeeker));
    const Outcome run = runQorchat(
        modelArgs(server, target, {"--share-results", "always", "--ask", "What is the secret?"}));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run.out, "The secret is 73121.")) << run.out << run.err;
    EXPECT_TRUE(has(run.out, "SELECT secret FROM vault;\n") && has(run.out, "(1 row)")) << run.out;
    ASSERT_EQ(bodies.all().size(), 2U) << target;
    EXPECT_TRUE(has(bodies.all()[0], "labelled sql-run")) << bodies.all()[0];
  }
}

// never: no query runs for the model, no instruction offers them, and /explain-error keeps the
// statement's literal here; without a terminal, ask sends nothing either.
TEST(QueryLoop, NothingOfTheRowsLeavesUnlessSharingAllows) {
  TempDir dir;
  const std::string db = vault(dir).string();
  struct Case {
    std::vector<std::string> sharing;
    bool offered;  // the instruction offers queries
    std::size_t requests;
    std::string said;
  };
  for (const Case& c : {Case{{"--share-results", "never"}, false, 2, "the quoted values"},
                        Case{{}, false, 2, "the quoted values"},
                        Case{{"--share-results", "ask"}, true, 2, "no terminal to ask"},
                        Case{{"--share-results", "always"}, true, 3, ""}}) {
    Bodies bodies;
    RawServer server(model(bodies, secretSeeker));
    const Outcome run =
        runQorchat(modelArgs(server, db, c.sharing), {},
                   "secret?\n/sql SELECT 'hidden-literal' + nope\n/explain-error\n");
    EXPECT_TRUE(has(run.err, c.said)) << run.err;
    const std::vector<std::string> all = bodies.all();
    ASSERT_EQ(all.size(), c.requests) << run.err;
    const bool shared = c.requests == 3;
    for (const std::string& body : all)
      EXPECT_EQ(has(body, kSecret), shared && &body != &all.front()) << body;
    EXPECT_EQ(has(all.back(), "hidden-literal"), shared) << all.back();
    EXPECT_EQ(has(all.front(), "labelled sql-run"), c.offered);
    if (!shared) {
      EXPECT_TRUE(has(run.out, "(/run 1)") && has(all.back(), "'<value>'")) << run.out;
    }
  }
}

// A query that fails comes back with the database's error and is corrected; a model that never
// stops asking is stopped at --max-steps, told so in its last round, its query left for /run.
TEST(QueryLoop, ErrorsGoBackAndTheRoundsAreBounded) {
  TempDir dir;
  const std::string db = vault(dir).string();
  Bodies bodies;
  RawServer server(model(bodies, [](const std::string& body) {
    if (has(body, "no such column: secrt")) return secretSeeker(body);
    return std::vector{runBlock("SELECT secrt FROM vault")};
  }));
  Outcome run =
      runQorchat(modelArgs(server, db, {"--share-results", "always", "--ask", "Secret?"}));
  EXPECT_TRUE(has(run.out, "The secret is 73121.")) << run.out << run.err;
  EXPECT_EQ(bodies.all().size(), 3U);

  Bodies endless;
  RawServer stubborn(model(endless, [](const std::string&) {
    return std::vector{runBlock("SELECT count(*) FROM vault")};
  }));
  run = runQorchat(modelArgs(stubborn, db, {"--share-results", "always", "--max-steps", "2"}), {},
                   "Count?\n");
  EXPECT_TRUE(has(run.err, "after 2 rounds (--max-steps)")) << run.err;
  EXPECT_TRUE(has(run.out, "(/run 1)")) << run.out;
  ASSERT_EQ(endless.all().size(), 3U);
  EXPECT_TRUE(has(endless.all()[2], "the last round") && !has(endless.all()[1], "the last round"));
}

// Ctrl-C while a query runs and while the model answers its results: the loop ends, and the next
// question's request carries the first exchange but nothing of the round that was stopped.
TEST(QueryLoop, CtrlCEndsTheLoopAndKeepsWhatCompleted) {
  TempDir dir;
  const std::string db = vault(dir).string();
  struct Case {
    std::string sql;
    std::size_t requestsBeforeStop;
    std::string said;
  };
  for (const Case& c :
       {Case{"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT max(i) FROM n",
             1, "stopped (Ctrl-C)"},
        Case{"SELECT secret FROM vault", 2, "cancelled"}}) {
    Bodies bodies;
    RawServer server(model(
        bodies,
        [&c](const std::string& body) {
          if (has(body, "Again?")) return std::vector<std::string>{"Done."};
          if (has(body, "Results of")) return std::vector<std::string>{"Slow", " answer"};
          return std::vector{runBlock(c.sql)};
        },
        milliseconds(1500)));
    Program program(modelArgs(server, db, {"--share-results", "always"}), {});
    program.write("Secret?\n");
    ASSERT_TRUE(program.waitForError("for the model")) << program.err();
    ASSERT_TRUE(Program::waitFor([&] { return bodies.all().size() == c.requestsBeforeStop; }));
    std::this_thread::sleep_for(milliseconds(500));
    program.signal(SIGINT);
    ASSERT_TRUE(program.waitForError(c.said)) << program.err();
    program.write("Again?\n");
    ASSERT_TRUE(Program::waitFor([&] { return bodies.all().size() == c.requestsBeforeStop + 1; }));
    const std::string last = bodies.all().back();
    EXPECT_TRUE(has(last, "Secret?") && has(last, "sql-run\\n")) << last;
    EXPECT_FALSE(has(last, "Results of your")) << last;
    EXPECT_EQ(program.finish(), 0);
  }
}

// On a terminal the default asks, one key: Ctrl-C at the question sends nothing, a then sends
// this round and every later one without asking.
TEST(QueryLoop, ConsentIsOneKeyOnATerminal) {
  TempDir dir;
  Bodies bodies;
  RawServer server(model(bodies, secretSeeker));
  const std::string socket = "qorchat-loop-" + std::to_string(getpid());
  const auto tmux = [&](const std::string& command) {
    return std::system(("tmux -L " + socket + " " + command + " >/dev/null 2>&1").c_str());
  };
  const auto screen = [&] {
    const std::filesystem::path file = dir.path / "screen";
    std::system(("tmux -L " + socket + " capture-pane -p -t q > " + file.string()).c_str());
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const auto shows = [&](const std::string& text) {
    return Program::waitFor([&] { return has(screen(), text); });
  };
  const std::string command = "env XDG_STATE_HOME=" + dir.path.string() + " " + QORCHAT_BINARY +
                              " --db " + vault(dir).string() +
                              " --no-history --service ollama --model m --host " +
                              server.baseUrl() + "; sleep 30";
  ASSERT_EQ(tmux("new-session -d -s q -x 120 -y 40 '" + command + "'"), 0);
  ASSERT_TRUE(shows("qorchat>")) << screen();
  tmux("send-keys -t q 'Secret?' Enter");
  ASSERT_TRUE(shows("Send 1 row (")) << screen();
  EXPECT_TRUE(
      has(screen(), "bytes) of results to ollama at " + server.baseUrl() + "? [y/n/a=always]"))
      << screen();
  tmux("send-keys -t q C-c");
  EXPECT_TRUE(shows("nothing was sent")) << screen();
  tmux("send-keys -t q 'Secret, again?' Enter");
  ASSERT_TRUE(Program::waitFor([&] {
    const std::string now = screen();
    return now.find("[y/n/a=always]") != now.rfind("[y/n/a=always]");
  })) << screen();
  tmux("send-keys -t q a");
  EXPECT_TRUE(shows("The secret is 73121.")) << screen();
  tmux("send-keys -t q '/share' Enter");
  EXPECT_TRUE(shows("sent to the service: always")) << screen();
  EXPECT_EQ(bodies.all().size(), 3U);
  tmux("kill-server");
}

TEST(QueryLoop, ResultsAreCappedAndValuesTakenOut) {
  qorchat::StatementResult wide{"SELECT * FROM t", {"id", "note"}, {}, 1000, true, {}};
  for (int i = 0; i < 1000; ++i)
    wide.rows.push_back({std::to_string(i), std::string(300, 'x') + "|\n"});
  const qorchat::ResultsTurn turn = qorchat::resultsTurn({wide}, {}, false);
  EXPECT_LE(turn.text.size(), 8192U);
  EXPECT_TRUE(
      has(turn.text, "1000 rows; the first 50:\nid|note\n0|" + std::string(200, 'x') + "…\n"));
  EXPECT_TRUE(has(turn.text, "capped at 8192 bytes"));
  EXPECT_LT(turn.rows, 50U);
  qorchat::StatementResult narrow{"SELECT id", {"id"}, {}, 1000, true, {}};
  for (int i = 0; i < 1000; ++i)
    narrow.rows.push_back({i % 2 == 0 ? std::optional<std::string>() : "a|b\nc"});
  EXPECT_EQ(qorchat::resultsTurn({narrow}, {}, true).rows, 50U);
  EXPECT_TRUE(has(qorchat::resultsTurn({narrow}, {}, true).text, "id\nNULL\na\\|b\\nc\n"));

  EXPECT_EQ(qorchat::runRequests("```sql-run\nSELECT 1\n```\n```sql\nSELECT 2\n```\n"
                                 "  ~~~SQL-RUN\n  SELECT 3\n  ~~~\n```sql-run\n```"),
            (std::vector<std::string>{"SELECT 1", "SELECT 3"}));
  EXPECT_EQ(qorchat::runBlocksAsSql("a\n```sql-run\nSELECT 1\n```"), "a\n```sql\nSELECT 1\n```");
  const std::pair<const char*, const char*> redactions[] = {
      {"WHERE email = 'a@b.c' AND n = 'it''s'", "WHERE email = '<value>' AND n = '<value>'"},
      {R"(invalid input syntax for type integer: "abc")",
       R"(invalid input syntax for type integer: "<value>")"},
      {"DETAIL: Key (email)=(a@b.c) already exists.",
       "DETAIL: Key (email)=(<value>) already exists."},
      {"Failing row contains (1, secret (x)).", "Failing row contains (<value>)."},
  };
  for (const auto& [original, redacted] : redactions)
    EXPECT_EQ(qorchat::withoutQuotedValues(original), redacted);
}

}  // namespace
}  // namespace qortest
