// Input on a real terminal: the real program on tmux against the loopback service, with the
// sample shop beside it. Pastes, continued lines, Tab, Ctrl-C at the prompt and the spinner.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "helpers.h"
#include "support/loopback_server.h"
#include "support/raw_server.h"
#include "yl/yl.h"

namespace qortest {
namespace {

using std::chrono::milliseconds;

class QorchatTerminal : public ::testing::Test {
 protected:
  void TearDown() override { tmux("kill-server"); }

  int tmux(const std::string& command) const {
    const std::string socket = "qorchat-input-" + std::to_string(getpid());
    return std::system(("tmux -L " + socket + " " + command + " >/dev/null 2>&1").c_str());
  }
  // qorchat on a terminal this many columns wide; the model answers after the delay.
  void start(int columns, milliseconds delay = milliseconds(0), const std::string& env = "",
             const std::string& text = "the answer", const std::string& doneReason = "stop") {
    server_.answer("POST", "/api/chat", ollamaReply(text, delay, doneReason));
    const std::string command = "env " + env + " HOME=" + state_.path.string() +
                                " XDG_STATE_HOME=" + state_.path.string() + " " + QORCHAT_BINARY +
                                " --service ollama --model m --host " + server_.baseUrl() +
                                "; echo EXIT=$?; sleep 30";
    ASSERT_EQ(
        tmux("new-session -d -s q -x " + std::to_string(columns) + " -y 30 '" + command + "'"), 0);
    ASSERT_TRUE(shows("qorchat>")) << screen();
  }
  void keys(const std::string& keys) const { tmux("send-keys -t q " + keys); }
  void paste(const std::string& text) const {
    const std::filesystem::path file = state_.path / "paste";
    std::ofstream(file) << text;
    tmux("load-buffer " + file.string());
    tmux("paste-buffer -p -t q");  // bracketed, as a terminal sends a paste
  }
  std::string screen() const {
    const std::filesystem::path file = state_.path / "screen";
    const std::string socket = "qorchat-input-" + std::to_string(getpid());
    std::system(("tmux -L " + socket + " capture-pane -p -t q > " + file.string()).c_str());
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool shows(const std::string& text) const {
    return Program::waitFor([&] { return has(screen(), text); });
  }
  bool requests(std::size_t count) const {
    return Program::waitFor([&] { return server_.requestCount() == count; });
  }

  TempDir state_;
  LoopbackServer server_;
};

// A paste of several lines, lines continued by a backslash and an open fence each make one
// question; Ctrl-C abandons what was typed and the program stays; the up arrow recalls a
// question kept in the input history; Ctrl-D leaves.
TEST_F(QorchatTerminal, QuestionsSpanLinesAndCtrlCAbandonsOne) {
  start(100);
  paste("Which customers\nordered twice?");
  ASSERT_TRUE(shows("ordered twice?")) << screen();
  EXPECT_EQ(server_.requestCount(), 0U);  // the paste waits for Enter
  keys("Enter");
  ASSERT_TRUE(requests(1));
  EXPECT_TRUE(has(server_.lastRequest().body, "Which customers\\nordered twice?"));

  keys("'first \\' Enter second Enter");
  ASSERT_TRUE(requests(2));
  EXPECT_TRUE(has(server_.lastRequest().body, "first \\nsecond\"")) << server_.lastRequest().body;
  EXPECT_TRUE(has(screen(), "    ...> second")) << screen();

  keys("'Explain ```sql' Enter 'SELECT 1' Enter '```' Enter");
  ASSERT_TRUE(requests(3));
  EXPECT_TRUE(has(server_.lastRequest().body, "Explain ```sql\\nSELECT 1\\n```\""));

  keys("'abandoned words'");
  ASSERT_TRUE(shows("qorchat> abandoned words")) << screen();
  keys("C-c");
  std::this_thread::sleep_for(milliseconds(200));  // a signal: typing on at once could race it
  keys("'kept question' Enter");
  ASSERT_TRUE(requests(4));
  EXPECT_TRUE(has(server_.lastRequest().body, "kept question"));
  EXPECT_FALSE(has(server_.lastRequest().body, "abandoned"));
  ASSERT_TRUE(shows("the answer")) << screen();
  // The up arrow brings the question back from the input history, kept in the state folder.
  keys("Up");
  std::this_thread::sleep_for(milliseconds(200));
  const std::string recalled = screen();
  EXPECT_NE(recalled.rfind("qorchat> kept question"), recalled.find("qorchat> kept question"))
      << recalled;
  keys("C-c");
  std::this_thread::sleep_for(milliseconds(300));
  keys("C-d");
  EXPECT_TRUE(shows("EXIT=0")) << screen();
  std::ifstream history(state_.path / "qorchat" / "input_history");
  // libedit writes a space as \040.
  EXPECT_TRUE(has(std::string(std::istreambuf_iterator<char>(history), {}), "kept\\040question"));
}

// Tab completes a command, a view and a column of the sample shop, and lists what several names
// share.
TEST_F(QorchatTerminal, TabCompletesCommandsAndNames) {
  start(100);
  keys("/hel Tab");
  EXPECT_TRUE(shows("qorchat> /help")) << screen();
  keys("C-u 'Sum customer_t' Tab");
  EXPECT_TRUE(shows("qorchat> Sum customer_totals")) << screen();
  keys("C-u 'When retu' Tab");
  EXPECT_TRUE(shows("qorchat> When returned_on")) << screen();
  keys("C-u '/format c' Tab");
  EXPECT_TRUE(shows("qorchat> /format csv")) << screen();
  keys("C-u '/describe order_i' Tab");  // tables only: no order_id column in the way
  EXPECT_TRUE(shows("qorchat> /describe order_item")) << screen();
  keys("C-u 'Count order_it' Tab");
  EXPECT_TRUE(shows("qorchat> Count order_item")) << screen();
  keys("Tab");
  EXPECT_TRUE(shows("order_item_returns  order_items")) << screen();
  EXPECT_EQ(server_.requestCount(), 0U);
}

// At 40 columns the spinner's line is cut to fit and redrawn in place, never a new line a tick.
TEST_F(QorchatTerminal, SpinnerStaysOnOneLineOfANarrowTerminal) {
  start(40, milliseconds(1500));
  keys("'How many orders?' Enter");
  ASSERT_TRUE(shows("waiting for")) << screen();
  std::this_thread::sleep_for(milliseconds(700));
  const std::string during = screen();
  EXPECT_TRUE(has(during, "(Ctrl-C cancels)")) << during;
  std::size_t spinnerLines = 0;
  for (std::size_t at = during.find("waiting"); at != std::string::npos;
       at = during.find("waiting", at + 1))
    ++spinnerLines;
  EXPECT_EQ(spinnerLines, 1U) << during;
  EXPECT_TRUE(shows("the answer")) << screen();
}

// A block of a reply cut at the length limit runs only when confirmed: Ctrl-C at the question is
// a no.
TEST_F(QorchatTerminal, ACutOffReplysBlockRunsOnlyWhenConfirmed) {
  start(100, milliseconds(0), "", "```sql\nSELECT 42 AS answer;\n```", "length");
  keys("'Which?' Enter");
  ASSERT_TRUE(shows("(/run 1)")) << screen();
  keys("'/run 1' Enter");
  ASSERT_TRUE(shows("Run it anyway? [y/N]")) << screen();
  keys("C-c");
  EXPECT_TRUE(shows("not run: the reply was cut off")) << screen();
  keys("'/run 1' Enter");
  std::this_thread::sleep_for(milliseconds(300));
  keys("y Enter");
  EXPECT_TRUE(shows("(1 row)")) << screen();
}

// Rows on a real terminal: a row too wide for 40 columns turns vertical, and what is taller than
// the terminal goes through $PAGER, here a script that keeps what it is given.
TEST_F(QorchatTerminal, WideRowsTurnVerticalAndLongOutputIsPaged) {
  const std::filesystem::path pager = state_.path / "pager.sh", paged = state_.path / "paged";
  std::ofstream(pager) << "#!/bin/sh\ncat > " << paged.string() << "\n";
  std::filesystem::permissions(pager, std::filesystem::perms::owner_all);
  start(40, milliseconds(0), "PAGER=" + pager.string());
  keys("'/sql SELECT * FROM customers WHERE id = 1' Enter");
  EXPECT_TRUE(shows("-[ RECORD 1 ]")) << screen();
  keys(
      "'/sql WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60) "
      "SELECT i FROM n' Enter");
  EXPECT_TRUE(Program::waitFor([&] {
    std::ifstream in(paged);
    return has(std::string(std::istreambuf_iterator<char>(in), {}), "\n60\n(60 rows)\n");
  }));
  EXPECT_FALSE(has(screen(), "(60 rows)")) << screen();
}

// The spinner, then each block as it arrives, before the service has sent the rest; Ctrl-C in
// mid reply leaves the text shown and the history as it was; /usage adds up the replies.
TEST_F(QorchatTerminal, RepliesStreamAndCtrlCKeepsTheHistory) {
  RawServer raw;
  KeptBody kept;
  const std::string command = "env XDG_STATE_HOME=" + state_.path.string() + " " + QORCHAT_BINARY +
                              " --no-history --service ollama --model m --host " + raw.baseUrl() +
                              "; sleep 30";
  ASSERT_EQ(tmux("new-session -d -s q -x 100 -y 40 '" + command + "'"), 0);
  ASSERT_TRUE(shows("qorchat>")) << screen();
  // A block shows once the line after it starts another; the last waits for the end.
  raw.enqueue(ollamaStream({"First block.\n\nSecond block.\n", "\nThird."}, milliseconds(1500)));
  keys("'First question' Enter");
  EXPECT_TRUE(shows("waiting for the model")) << screen();
  ASSERT_TRUE(shows("First block.")) << screen();
  const std::string early = screen();
  EXPECT_FALSE(has(early, "Second") || has(early, "waiting for the model")) << early;
  EXPECT_TRUE(shows("Third.\n(412 tokens in, 96 out)")) << screen();

  raw.enqueue(ollamaStream({"Partial text.\n\nMore\n", "\nnever shown."}, milliseconds(1500)));
  keys("'Doomed question' Enter");
  ASSERT_TRUE(shows("Partial text.")) << screen();
  keys("C-c");
  EXPECT_TRUE(shows("cancelled; the conversation is as it was")) << screen();
  std::this_thread::sleep_for(milliseconds(2000));  // past the piece that would have come
  EXPECT_TRUE(has(screen(), "Partial text.") && !has(screen(), "never shown")) << screen();

  raw.enqueue(ollamaStream({"Third answer."}, milliseconds(10), &kept));
  keys("'Third question' Enter /usage Enter");
  EXPECT_TRUE(shows("tokens since the start: 824 tokens in, 192 out over 2 replies")) << screen();
  EXPECT_TRUE(has(kept.text(), "First question") && !has(kept.text(), "Doomed")) << kept.text();
}

}  // namespace
}  // namespace qortest
