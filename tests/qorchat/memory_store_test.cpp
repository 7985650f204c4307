// Tests that MemoryStore keeps conversations safe and private in an SQLite file of its own.
#include "memory_store.h"

#include <sys/stat.h>

#include <latch>

#include "helpers.h"

namespace {

namespace fs = std::filesystem;
using qorchat::MemoryStore;
using Kind = qorchat::Status::Kind;
using Texts = std::vector<std::string>;

// The conversation called name about the database called database.db.
qorchat::ConversationKey keyOf(const std::string& database, const std::string& name = "") {
  return {"ollama", "/data/" + database + ".db", database + ".db", name};
}

std::unique_ptr<MemoryStore> open(const std::string& path, const std::string& database,
                                  const std::string& name = "") {
  return qortest::opened(MemoryStore::open(path, keyOf(database, name)));
}

Texts textsOf(const std::vector<QORHistoryEntry>& entries) {
  Texts texts;
  for (const QORHistoryEntry& entry : entries)
    texts.push_back(std::string(entry.role == kChatRoleUser ? "u:" : "a:") + entry.text);
  return texts;
}

unsigned modeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class MemoryStoreTest : public ::testing::Test {
 protected:
  qortest::TempDir dir_;
  const std::string path_ = (dir_.path / "history.db").string();
};

TEST_F(MemoryStoreTest, ConversationsAreResumedPerKeyUntilANewOneStarts) {
  {
    auto store = open(path_, "shop");
    store->setDatabaseStructure("[1]");
    store->addHistoryEntry(kChatRoleUser, "how many?");
    store->addHistoryEntry(kChatRoleAssistant, " \n\t");
    store->addHistoryEntry(kChatRoleUser, " ");  // only a blank reply is replaced
    open(path_, "crm")->addHistoryEntry(kChatRoleUser, "list leads");
  }
  {
    auto store = open(path_, "shop");
    EXPECT_EQ(store->resumedEntryCount(), 3u);
    EXPECT_EQ(store->obtainDatabaseStructure(), "[1]");
    EXPECT_EQ(textsOf(store->obtainHistory(0)),
              (Texts{"u:how many?", "a:" + std::string(qorchat::kNoTextReply), "u: "}));
    EXPECT_EQ(textsOf(store->obtainHistory(1)), Texts{"u: "});
    EXPECT_TRUE(store->obtainHistory(-1).size() == 3 && store->obtainHistory(9).size() == 3);
    store->startNewConversation();
    EXPECT_TRUE(store->obtainHistory(0).empty());
    store->addHistoryEntry(kChatRoleUser, "and products?");
  }
  auto store = open(path_, "shop");
  EXPECT_EQ(textsOf(store->obtainHistory(0)), Texts{"u:and products?"});
  EXPECT_EQ(store->obtainDatabaseStructure(), "[1]");  // the same database, so the same structure
  store->setDatabaseStructure("");
  EXPECT_EQ(open(path_, "crm")->resumedEntryCount(), 1u);
  EXPECT_EQ(open(path_, "shop")->obtainDatabaseStructure(), "");
  const auto memory = open(":memory:", "k");
  memory->addHistoryEntry(kChatRoleUser, "x");
  EXPECT_EQ(textsOf(memory->obtainHistory(0)), Texts{"u:x"});
  EXPECT_FALSE(fs::exists(":memory:"));
}

// Several conversations per database, told apart by name; listed, forgotten and taken up again.
TEST_F(MemoryStoreTest, NamedConversationsAreListedForgottenAndResumed) {
  const auto listed = [](MemoryStore& store, std::size_t limit = qorchat::kListedConversations) {
    Texts rows;
    const auto conversations = store.storedConversations(limit);
    for (const qorchat::StoredConversation& c : conversations.value()) {
      EXPECT_LE(std::time(nullptr) - c.lastEntryAt, 60) << c.lastEntryAt;
      rows.push_back(c.databaseName + "|" + c.service + "|" + c.name + "|" + c.firstQuestion + "|" +
                     std::to_string(c.entryCount) + (c.current ? "|current" : ""));
    }
    return rows;
  };
  {
    auto shop = open(path_, "shop"), q3 = open(path_, "shop", "q3"), crm = open(path_, "crm", "q3");
    shop->addHistoryEntry(kChatRoleUser, "how many?");
    shop->addHistoryEntry(kChatRoleAssistant, "```sql\nSELECT 1\n```");
    q3->addHistoryEntry(kChatRoleUser, "revenue?");
    for (const char* text : {"leads?", "these", "and more?"})
      crm->addHistoryEntry(text[0] == 't' ? kChatRoleAssistant : kChatRoleUser, text);
    q3->addHistoryEntry(kChatRoleAssistant, "by month");
    open(path_, "empty", "new");                     // holds nothing, so not listed
    EXPECT_EQ(crm->lastExchange()->reply, "these");  // the last question has no reply yet
  }
  auto q3 = open(path_, "shop", "q3");
  EXPECT_EQ(q3->resumedEntryCount(), 2u);
  EXPECT_EQ(q3->lastExchange()->question + "/" + q3->lastExchange()->reply, "revenue?/by month");
  EXPECT_EQ(listed(*q3), (Texts{"shop.db|ollama|q3|revenue?|2|current", "crm.db|ollama|q3|leads?|3",
                                "shop.db|ollama||how many?|2"}));
  EXPECT_EQ(listed(*q3, 1).size(), 1u);

  EXPECT_TRUE(q3->forgetConversation().isOk());
  EXPECT_TRUE(q3->obtainHistory(0).empty() && !q3->lastExchange());
  EXPECT_EQ(open(path_, "shop", "q3")->resumedEntryCount(), 0u);
  EXPECT_EQ(open(path_, "shop")->resumedEntryCount(), 2u);
  EXPECT_EQ(listed(*q3).size(), 2u);
}

// A file an earlier qorchat wrote, one conversation per key, is brought up to date in place.
TEST_F(MemoryStoreTest, AnEarlierFileIsUpgradedInPlace) {
  qortest::sqlite(path_, R"(
    CREATE TABLE conversations (id INTEGER PRIMARY KEY, "key" TEXT NOT NULL,
      started_at INTEGER NOT NULL, structure TEXT NOT NULL DEFAULT '');
    CREATE INDEX conversations_by_key ON conversations ("key", id);
    CREATE TABLE entries (id INTEGER PRIMARY KEY, conversation_id INTEGER NOT NULL
      REFERENCES conversations (id), role INTEGER NOT NULL, text TEXT NOT NULL,
      created_at INTEGER NOT NULL);
    CREATE INDEX entries_by_conversation ON entries (conversation_id, id);
    INSERT INTO conversations VALUES (1, 'ollama' || char(10) || '/data/shop.db', 0, '[1]'),
      (2, 'ollama' || char(10) || '/data/crm.db', 0, '');
    INSERT INTO entries VALUES (1, 1, 0, 'old question', 0), (2, 1, 1, 'old reply', 0),
      (3, 2, 0, 'crm question', 0);
    PRAGMA user_version = 1;)");
  auto store = open(path_, "shop");
  EXPECT_EQ(textsOf(store->obtainHistory(0)), (Texts{"u:old question", "a:old reply"}));
  EXPECT_EQ(store->obtainDatabaseStructure(), "[1]");
  EXPECT_EQ(qortest::sqlite(path_, "PRAGMA user_version"), "2");
  const auto listed = store->storedConversations().value();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].databaseName + " " + listed[1].databaseName, "/data/crm.db shop.db");
}

// A new file, and one of ours left readable by others, end up owner-only, with SQLite's beside.
TEST_F(MemoryStoreTest, FilesArePrivateWhateverTheUmask) {
  struct Umask {
    mode_t saved = umask(0);
    ~Umask() { umask(saved); }
  } nothingMasked;
  for (const bool existing : {false, true}) {
    if (existing) chmod(path_.c_str(), 0666);
    auto store = open(path_, "k");
    store->addHistoryEntry(kChatRoleUser, "secret");
    for (const std::string suffix : {"", "-wal", "-shm"})
      EXPECT_EQ(modeOf(path_ + suffix), 0600u) << suffix << (existing ? " existing" : " new");
  }
}

TEST_F(MemoryStoreTest, FilesItCannotUseAreRefusedAndLeftAlone) {
  const std::string text = (dir_.path / "notes.txt").string(), own = (dir_.path / "own.db");
  std::ofstream(text) << "long enough to be read as a database " << qortest::repeated("x", 99);
  qortest::sqlite(own, "CREATE TABLE customers (id INTEGER)");
  chmod(own.c_str(), 0644);
  qortest::sqlite(path_,
                  "CREATE TABLE conversations (id); CREATE TABLE entries (id);"
                  "PRAGMA user_version = 3");
  const std::tuple<std::string, Kind, const char*> cases[] = {
      {(dir_.path / "no such folder" / "history.db").string(), Kind::kIoError, "cannot open"},
      {text, Kind::kInvalidInput, "is not an SQLite database"},
      {own, Kind::kInvalidInput, "is not a qorchat history file"},
      {path_, Kind::kInvalidInput, "was written by a newer qorchat"},
  };
  for (const auto& [path, kind, says] : cases) {
    const qorchat::Status failure = MemoryStore::open(path, keyOf("k")).status();
    EXPECT_EQ(failure.kind(), kind) << path;
    EXPECT_TRUE(qortest::has(failure.message(), says) && qortest::has(failure.message(), path))
        << failure.message();
  }
  // Someone's own database keeps its tables, its journal and its mode.
  EXPECT_EQ(qortest::sqlite(own, "SELECT count(*) FROM sqlite_master"), "1");
  EXPECT_EQ(qortest::sqlite(own, "PRAGMA journal_mode"), "delete");
  EXPECT_EQ(modeOf(own), 0644u);
}

TEST_F(MemoryStoreTest, AWriteFailureIsReportedOnceAndTheSessionGoesOnInMemory) {
  auto store = open(path_, "k");
  store->addHistoryEntry(kChatRoleUser, "saved");
  fs::remove(path_);
  store->addHistoryEntry(kChatRoleUser, "kept in memory");
  const qorchat::Status failure = store->takeWriteFailure();
  EXPECT_EQ(failure.kind(), Kind::kIoError);
  EXPECT_TRUE(qortest::has(failure.message(), path_)) << failure.message();
  store->addHistoryEntry(kChatRoleUser, "still kept");
  EXPECT_TRUE(store->takeWriteFailure().isOk());
  EXPECT_EQ(store->obtainHistory(0).size(), 3u);
}

// Two writers whose writes interleave on one file; then a process killed after its writes.
TEST_F(MemoryStoreTest, ConcurrentWritersAndAKilledProcessLoseNothing) {
  std::latch opened(2);
  const auto write = [&] {
    auto store = MemoryStore::open(path_, keyOf("same key"));
    opened.arrive_and_wait();
    ASSERT_TRUE(store) << store.status().message();
    for (int i = 0; i < 200; ++i) {
      (*store)->addHistoryEntry(kChatRoleUser, "turn");
      usleep(200);  // lets the other writer in between these writes, not only after them
    }
    EXPECT_EQ((*store)->takeWriteFailure().message(), "");
  };
  std::thread other(write);
  write();
  other.join();
  EXPECT_EQ(qortest::sqlite(path_, "SELECT count(*) FROM entries"), "400");

  if (fork() == 0) {  // only the way it ends leaves the child: the test is the parent's
    if (auto store = MemoryStore::open(path_, keyOf("killed"))) {
      (*store)->setDatabaseStructure("[]");
      for (const char* text : {"0", "1", "2"})
        (*store)->addHistoryEntry(kChatRoleUser, text);
      raise(SIGKILL);
    }
    _exit(1);
  }
  int status = 0;
  ASSERT_GT(wait(&status), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  auto store = open(path_, "killed");
  EXPECT_EQ(textsOf(store->obtainHistory(0)), (Texts{"u:0", "u:1", "u:2"}));
  EXPECT_EQ(store->obtainDatabaseStructure(), "[]");
}

}  // namespace
