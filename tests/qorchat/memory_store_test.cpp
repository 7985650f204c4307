// Tests that MemoryStore keeps conversations in a real SQLite file across reopening, concurrent
// processes and a process killed outright.

#include "memory_store.h"

#include "helpers.h"

namespace {

namespace fs = std::filesystem;
using qorchat::kNoTextReply;
using qorchat::MemoryStore;

std::vector<std::string> textsOf(const std::vector<QORHistoryEntry>& entries) {
  std::vector<std::string> texts;
  texts.reserve(entries.size());
  for (const QORHistoryEntry& entry : entries)
    texts.push_back(entry.text);
  return texts;
}

class MemoryStoreTest : public ::testing::Test {
 protected:
  qortest::TempDir dir_;
  const std::string path_ = (dir_.path / "history.db").string();
};

TEST_F(MemoryStoreTest, ConversationsAreResumedPerKeyUntilANewOneStarts) {
  {
    MemoryStore store(path_, "shop");
    EXPECT_EQ(store.resumedEntryCount(), 0u);
    store.setDatabaseStructure("[1]");
    store.addHistoryEntry(kChatRoleUser, "how many customers?");
    store.addHistoryEntry(kChatRoleAssistant, "SELECT count(*) FROM customers");
    MemoryStore(path_, "crm").addHistoryEntry(kChatRoleUser, "list leads");
  }
  {
    MemoryStore store(path_, "shop");
    EXPECT_EQ(store.resumedEntryCount(), 2u);
    EXPECT_EQ(store.obtainDatabaseStructure(), "[1]");
    const std::vector<QORHistoryEntry> history = store.obtainHistory(0);
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].role, kChatRoleUser);
    EXPECT_EQ(history[1].role, kChatRoleAssistant);
    EXPECT_EQ(history[1].text, "SELECT count(*) FROM customers");

    store.startNewConversation();
    EXPECT_TRUE(store.obtainHistory(0).empty());
    EXPECT_EQ(store.obtainDatabaseStructure(), "[1]");
    store.addHistoryEntry(kChatRoleUser, "and products?");
  }
  MemoryStore store(path_, "shop");
  EXPECT_EQ(textsOf(store.obtainHistory(20)), std::vector<std::string>{"and products?"});
  EXPECT_EQ(store.obtainDatabaseStructure(), "[1]");
  store.setDatabaseStructure("");
  EXPECT_EQ(MemoryStore(path_, "crm").resumedEntryCount(), 1u);
  EXPECT_EQ(MemoryStore(path_, "shop").obtainDatabaseStructure(), "");
  EXPECT_EQ(qortest::sqlite(path_, "SELECT count(*) FROM conversations"), "3");
}

TEST_F(MemoryStoreTest, HistoryLimitAndBlankReplies) {
  MemoryStore store(":memory:", "k");
  for (int i = 0; i < 5; ++i)
    store.addHistoryEntry(kChatRoleUser, std::to_string(i));
  EXPECT_EQ(textsOf(store.obtainHistory(2)), (std::vector<std::string>{"3", "4"}));
  EXPECT_EQ(store.obtainHistory(-1).size(), 5u);
  EXPECT_EQ(store.obtainHistory(9).size(), 5u);

  MemoryStore file(path_, "k");
  file.addHistoryEntry(kChatRoleAssistant, " \n\t");
  file.addHistoryEntry(kChatRoleUser, " ");
  EXPECT_EQ(textsOf(file.obtainHistory(0)), (std::vector<std::string>{kNoTextReply, " "}));
  EXPECT_EQ(qortest::sqlite(path_, "SELECT text FROM entries ORDER BY id LIMIT 1"), kNoTextReply);
}

TEST_F(MemoryStoreTest, AFileItCannotUseIsRefusedOrReportedOnce) {
  const std::string unwritable = (dir_.path / "no such folder" / "history.db").string();
  try {
    MemoryStore store(unwritable, "k");
    ADD_FAILURE() << "opened a file in a missing folder";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(unwritable), std::string::npos) << error.what();
  }
  const std::string text = (dir_.path / "notes.txt").string();
  std::ofstream(text) << "not a database, but long enough to be read as one: "
                      << std::string(99, 'x');
  EXPECT_THROW(MemoryStore(text, "k"), std::runtime_error);
  // Someone's own database is not taken over as a history file.
  const std::string own = (dir_.path / "own.db").string();
  qortest::sqlite(own, "CREATE TABLE customers (id INTEGER)");
  EXPECT_THROW(MemoryStore(own, "k"), std::runtime_error);
  EXPECT_EQ(qortest::sqlite(own, "SELECT count(*) FROM sqlite_master"), "1");

  // A file removed under a session: said once, and the session goes on in memory.
  MemoryStore store(path_, "k");
  store.addHistoryEntry(kChatRoleUser, "saved");
  EXPECT_EQ(store.takeWriteFailure(), "");
  fs::remove(path_);
  store.addHistoryEntry(kChatRoleUser, "kept in memory");
  const std::string failure = store.takeWriteFailure();
  EXPECT_NE(failure.find(path_), std::string::npos) << failure;
  EXPECT_EQ(failure.find('\n'), std::string::npos);
  store.addHistoryEntry(kChatRoleUser, "still kept");
  EXPECT_EQ(store.takeWriteFailure(), "");
  EXPECT_EQ(store.obtainHistory(0).size(), 3u);
}

// Two processes on one file, both open before either writes so that the writes overlap; then a
// process killed outright after its writes.
TEST_F(MemoryStoreTest, ConcurrentAndKilledProcessesLoseNothing) {
  constexpr int kEach = 200;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    // Nothing but an exit status may leave the child: the test framework belongs to the parent.
    try {
      close(ready[1]);
      MemoryStore store(path_, "same key");
      char go = 0;
      if (read(ready[0], &go, 1) != 1) _exit(3);
      for (int i = 0; i < kEach; ++i) {
        store.addHistoryEntry(kChatRoleUser, "child");
        usleep(200);
      }
      _exit(store.takeWriteFailure().empty() ? 0 : 1);
    } catch (...) {
      _exit(2);
    }
  }
  {
    MemoryStore store(path_, "same key");
    ASSERT_EQ(write(ready[1], "x", 1), 1);
    for (int i = 0; i < kEach; ++i) {
      store.addHistoryEntry(kChatRoleAssistant, "parent");
      usleep(200);  // lets the other process in between these writes, not only after them
    }
    EXPECT_EQ(store.takeWriteFailure(), "");
  }
  close(ready[0]);
  close(ready[1]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(qortest::sqlite(path_, "SELECT count(*) FROM entries"), std::to_string(2 * kEach));
  EXPECT_EQ(qortest::sqlite(path_, "PRAGMA integrity_check"), "ok");

  if (fork() == 0) {
    MemoryStore store(path_, "killed");
    store.setDatabaseStructure("[]");
    for (int i = 0; i < 10; ++i)
      store.addHistoryEntry(kChatRoleUser, std::to_string(i));
    raise(SIGKILL);
    _exit(1);
  }
  ASSERT_GT(wait(&status), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  MemoryStore store(path_, "killed");
  EXPECT_EQ(store.resumedEntryCount(), 10u);
  EXPECT_EQ(store.obtainHistory(1)[0].text, "9");
  EXPECT_EQ(store.obtainDatabaseStructure(), "[]");
}

}  // namespace
