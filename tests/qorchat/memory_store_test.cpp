// Tests that MemoryStore keeps conversations in a real SQLite file across reopening, concurrent
// processes and a process killed outright.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "memory_store.h"

namespace {

namespace fs = std::filesystem;
using qorchat::kNoTextReply;
using qorchat::MemoryStore;

std::vector<std::string> textsOf(const std::vector<QORHistoryEntry>& entries) {
  std::vector<std::string> texts;
  for (const QORHistoryEntry& entry : entries)
    texts.push_back(entry.text);
  return texts;
}

class MemoryStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "qorchat-memory-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = (dir_ / "history.db").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  // One text value of the file, read by a connection of its own.
  std::string query(const std::string& sql) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    std::string value;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      value = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return value;
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(MemoryStoreTest, ConversationsAreResumedPerKeyUntilANewOneStarts) {
  {
    MemoryStore store(path_, "shop");
    EXPECT_EQ(store.resumedEntryCount(), 0u);
    store.setDatabaseStructure("[1]");
    store.addHistoryEntry(kChatRoleUser, "how many customers?");
    store.addHistoryEntry(kChatRoleAssistant, "SELECT count(*) FROM customers");
    MemoryStore other(path_, "crm");
    other.addHistoryEntry(kChatRoleUser, "list leads");
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
  EXPECT_EQ(query("SELECT count(*) FROM conversations"), "3");
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
  EXPECT_EQ(query("SELECT text FROM entries ORDER BY id LIMIT 1"), kNoTextReply);
}

TEST_F(MemoryStoreTest, ARemovedFileIsReportedOnceAndTheSessionGoesOn) {
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

TEST_F(MemoryStoreTest, RefusesWhatItCannotOpen) {
  const std::string unwritable = (dir_ / "no such folder" / "history.db").string();
  try {
    MemoryStore store(unwritable, "k");
    ADD_FAILURE() << "opened a file in a missing folder";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(unwritable), std::string::npos) << error.what();
  }
  const std::string text = (dir_ / "notes.txt").string();
  std::ofstream(text) << "not a database, but long enough to be read as one: "
                      << std::string(99, 'x');
  EXPECT_THROW(MemoryStore(text, "k"), std::runtime_error);
  // Someone's own database is not taken over as a history file.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE customers (id INTEGER)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  EXPECT_THROW(MemoryStore(path_, "k"), std::runtime_error);
  EXPECT_EQ(query("SELECT count(*) FROM sqlite_master"), "1");
}

TEST_F(MemoryStoreTest, TwoProcessesWriteTheSameFile) {
  constexpr int kEach = 200;
  // Both open the file before either writes, so that the writes overlap.
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
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(query("SELECT count(*) FROM entries"), std::to_string(2 * kEach));
  EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
}

TEST_F(MemoryStoreTest, AKilledProcessLosesNothingAlreadyAdded) {
  const pid_t child = fork();
  if (child == 0) {
    MemoryStore store(path_, "k");
    store.setDatabaseStructure("[]");
    for (int i = 0; i < 10; ++i)
      store.addHistoryEntry(kChatRoleUser, std::to_string(i));
    raise(SIGKILL);
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  MemoryStore store(path_, "k");
  EXPECT_EQ(store.resumedEntryCount(), 10u);
  EXPECT_EQ(store.obtainHistory(1)[0].text, "9");
  EXPECT_EQ(store.obtainDatabaseStructure(), "[]");
}

}  // namespace
