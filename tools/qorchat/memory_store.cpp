// Keeps the assistant's conversations and the database structure in an SQLite file.

#include "memory_store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

namespace qorchat {
namespace {

// The layout of the file, kept in its user_version so that a later layout can recognise it.
constexpr int kFormatVersion = 2;
// How long a write waits for another process that is writing the same file.
constexpr int kBusyTimeoutMs = 5000;
// The conversations quote the user's questions and data: only their owner may read them.
constexpr mode_t kPrivateMode = 0600;
constexpr const char* kInMemory = ":memory:";

// What brings the layout of each version to the next; a new file takes every step. The key is the
// service and the database's identity on two lines.
constexpr const char* kUpgrades[kFormatVersion] = {
    // 1: one conversation after another per key.
    "CREATE TABLE conversations ("
    " id INTEGER PRIMARY KEY,"
    " \"key\" TEXT NOT NULL,"
    " started_at INTEGER NOT NULL,"
    " structure TEXT NOT NULL DEFAULT '');"
    "CREATE INDEX conversations_by_key ON conversations (\"key\", id);"
    "CREATE TABLE entries ("
    " id INTEGER PRIMARY KEY,"
    " conversation_id INTEGER NOT NULL REFERENCES conversations (id),"
    " role INTEGER NOT NULL,"
    " text TEXT NOT NULL,"
    " created_at INTEGER NOT NULL);"
    "CREATE INDEX entries_by_conversation ON entries (conversation_id, id);",
    // 2: conversations told apart by a name, and the database's name for listings (until the
    // database is opened again, its identity).
    "ALTER TABLE conversations ADD COLUMN name TEXT NOT NULL DEFAULT '';"
    "ALTER TABLE conversations ADD COLUMN database_name TEXT NOT NULL DEFAULT '';"
    "UPDATE conversations SET database_name = substr(\"key\", instr(\"key\", char(10)) + 1);"
    "DROP INDEX conversations_by_key;"
    "CREATE INDEX conversations_by_name ON conversations (\"key\", name, id);",
};

// For each key and name, the conversation that name takes up, if it holds entries.
constexpr const char* kListQuery =
    "SELECT c.id, c.\"key\", c.name, c.database_name, max(e.created_at), count(*), "
    "(SELECT f.text FROM entries f WHERE f.conversation_id = c.id AND f.role = ?2 "
    "ORDER BY f.id LIMIT 1) "
    "FROM conversations c JOIN entries e ON e.conversation_id = c.id "
    "WHERE c.id = (SELECT max(l.id) FROM conversations l WHERE l.\"key\" = c.\"key\" AND "
    "l.name = c.name) "
    "GROUP BY c.id ORDER BY max(e.id) DESC LIMIT ?1";

std::string quoted(const std::string& path) {
  return "'" + path + "'";
}

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\n\r\f\v") == std::string::npos;
}

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  if (data == nullptr) return {};
  return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

// A statement for the reads made while opening; a failure there fails the opening.
class Query {
 public:
  Query(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) statement_ = nullptr;
  }
  ~Query() { sqlite3_finalize(statement_); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  bool ok() const { return statement_ != nullptr; }
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

std::string systemError(const std::string& what, const std::string& path, int error) {
  return what + " " + quoted(path) + ": " + std::strerror(error);
}

// Makes a missing store file private from its start. SQLite would create it with 0644 less the
// umask; the -wal, -shm and -journal files it makes later take the mode of this one.
Status createPrivately(const std::string& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, kPrivateMode);
  if (fd < 0) {
    if (errno == EEXIST) return Status::ok();
    return Status::ioError(systemError("cannot open the history file", path, errno));
  }
  // The umask may have taken the owner's write away too, which would leave SQLite a file it can
  // only read. Closed before SQLite opens the file: closing any descriptor of a file drops the
  // process's locks on it, SQLite's among them.
  const bool narrowed = fchmod(fd, kPrivateMode) == 0;
  const int error = errno;
  close(fd);
  if (!narrowed) return Status::ioError(systemError("cannot create the history file", path, error));
  return Status::ok();
}

// Narrows a store already known to be ours, and SQLite's files beside it, to their owner: the
// file may come from before qorchat kept it private, and the -wal and -shm files of a process
// that ended without closing keep the mode they were made with.
Status keepPrivate(const std::string& path) {
  for (const std::string& file : {path, path + "-wal", path + "-shm", path + "-journal"}) {
    struct stat info {};
    if (stat(file.c_str(), &info) != 0 || (info.st_mode & 07777) == kPrivateMode) continue;
    // One that was removed meanwhile needs nothing.
    if (chmod(file.c_str(), kPrivateMode) != 0 && errno != ENOENT) {
      return Status::ioError("cannot make " + quoted(file) + " private: " + std::strerror(errno));
    }
  }
  return Status::ok();
}

}  // namespace

struct MemoryStore::Statements {
  sqlite3_stmt* addEntry = nullptr;
  sqlite3_stmt* setStructure = nullptr;
  sqlite3_stmt* addConversation = nullptr;
  sqlite3_stmt* forgetEntries = nullptr;

  ~Statements() {
    sqlite3_finalize(addEntry);
    sqlite3_finalize(setStructure);
    sqlite3_finalize(addConversation);
    sqlite3_finalize(forgetEntries);
  }
};

MemoryStore::MemoryStore(std::string path, ConversationKey key)
    : statements_(std::make_unique<Statements>()),
      path_(std::move(path)),
      key_(key.service + "\n" + key.database),
      parts_(std::move(key)) {}

MemoryStore::~MemoryStore() {
  statements_.reset();
  sqlite3_close_v2(db_);
}

Result<std::unique_ptr<MemoryStore>> MemoryStore::open(const std::string& path,
                                                       ConversationKey key) {
  // Not make_unique: the constructor is private so that no store exists unopened.
  std::unique_ptr<MemoryStore> store(new MemoryStore(path, std::move(key)));
  if (Status status = store->load(); !status) return status;
  return store;
}

Status MemoryStore::load() {
  const bool inFile = path_ != kInMemory;
  if (inFile) {
    if (Status status = createPrivately(path_); !status) return status;
  }
  if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    return openFailure();
  }
  // SQLite falls back to reading a file it may not write; a store that cannot keep anything is
  // better refused now than discovered after the first answer.
  if (sqlite3_db_readonly(db_, "main") == 1) {
    return Status::ioError("cannot write the history file " + quoted(path_));
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // The layout is checked before anything is changed, so that a database that is not ours is
  // left exactly as it was: neither its mode nor its journal is touched.
  Status status = prepareLayout();
  if (status && inFile) status = keepPrivate(path_);
  if (status) status = useWriteAheadLog();
  if (status) status = nameDatabase();
  if (status) status = resumeLatest();
  if (status) status = prepareStatements();
  if (status && conversationId_ == 0) {
    sqlite3_stmt* statement = bindConversation();
    if (sqlite3_step(statement) != SQLITE_DONE) status = openFailure();
    sqlite3_reset(statement);
    conversationId_ = sqlite3_last_insert_rowid(db_);
  }
  return status;
}

Status MemoryStore::useWriteAheadLog() {
  // Write-ahead logging lets a second process read and append while this one writes, and a
  // commit reaches the file before the call returns; NORMAL syncing loses nothing to a killed
  // process, only possibly the last commits to a power cut. Switching a new file to it takes a
  // lock without the busy wait, which another process creating the same file may hold: wait here.
  int rc = SQLITE_BUSY;
  for (int waited = 0; (rc & 0xff) == SQLITE_BUSY && waited <= kBusyTimeoutMs; waited += 5) {
    rc = sqlite3_exec(db_, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    if ((rc & 0xff) == SQLITE_BUSY) sqlite3_sleep(5);
  }
  if (rc != SQLITE_OK ||
      sqlite3_exec(db_, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return openFailure();
  }
  return Status::ok();
}

// The database's name as it is now, for the listings: it may have been its identity, or the file
// may have been reached by another name.
Status MemoryStore::nameDatabase() {
  Query rename(db_,
               "UPDATE conversations SET database_name = ?1 WHERE \"key\" = ?2 AND "
               "database_name <> ?1");
  if (!rename.ok()) return openFailure();
  bindText(rename.get(), 1, parts_.databaseName);
  bindText(rename.get(), 2, key_);
  if (sqlite3_step(rename.get()) != SQLITE_DONE) return openFailure();
  return Status::ok();
}

Status MemoryStore::resumeLatest() {
  Query latest(db_,
               "SELECT id, structure FROM conversations WHERE \"key\" = ?1 AND name = ?2 "
               "ORDER BY id DESC LIMIT 1");
  Query entries(db_, "SELECT role, text FROM entries WHERE conversation_id = ?1 ORDER BY id");
  if (!latest.ok() || !entries.ok()) return openFailure();
  bindText(latest.get(), 1, key_);
  bindText(latest.get(), 2, parts_.name);
  int rc = sqlite3_step(latest.get());
  if (rc == SQLITE_DONE) return Status::ok();
  if (rc != SQLITE_ROW) return openFailure();
  conversationId_ = sqlite3_column_int64(latest.get(), 0);
  structure_ = columnText(latest.get(), 1);
  sqlite3_bind_int64(entries.get(), 1, conversationId_);
  while ((rc = sqlite3_step(entries.get())) == SQLITE_ROW) {
    entries_.push_back(
        QORHistoryEntry{sqlite3_column_int(entries.get(), 0), columnText(entries.get(), 1)});
  }
  if (rc != SQLITE_DONE) return openFailure();
  resumedEntries_ = entries_.size();
  return Status::ok();
}

Status MemoryStore::prepareStatements() {
  const std::pair<const char*, sqlite3_stmt**> statements[] = {
      {"INSERT INTO entries (conversation_id, role, text, created_at) VALUES (?1, ?2, ?3, ?4)",
       &statements_->addEntry},
      {"UPDATE conversations SET structure = ?1 WHERE id = ?2", &statements_->setStructure},
      {"INSERT INTO conversations (\"key\", started_at, structure, name, database_name) "
       "VALUES (?1, ?2, ?3, ?4, ?5)",
       &statements_->addConversation},
      {"DELETE FROM entries WHERE conversation_id = ?1", &statements_->forgetEntries},
  };
  for (const auto& [sql, statement] : statements) {
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) !=
        SQLITE_OK) {
      return openFailure();
    }
  }
  return Status::ok();
}

namespace {

// What the file holds before anything is changed.
struct LayoutState {
  int objects = 0;
  int version = 0;
  bool hasTables = false;

  bool read(sqlite3* db) {
    Query count(db, "SELECT count(*) FROM sqlite_master");
    Query userVersion(db, "PRAGMA user_version");
    Query ours(db,
               "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN "
               "('conversations', 'entries')");
    if (!count.ok() || !userVersion.ok() || !ours.ok() || sqlite3_step(count.get()) != SQLITE_ROW ||
        sqlite3_step(userVersion.get()) != SQLITE_ROW || sqlite3_step(ours.get()) != SQLITE_ROW) {
      return false;
    }
    objects = sqlite3_column_int(count.get(), 0);
    version = sqlite3_column_int(userVersion.get(), 0);
    hasTables = sqlite3_column_int(ours.get(), 0) == 2;
    return true;
  }
  // A new file, or one of ours of an earlier layout.
  bool needsUpgrade() const {
    return objects == 0 || (version >= 1 && version < kFormatVersion && hasTables);
  }
};

}  // namespace

Status MemoryStore::prepareLayout() {
  LayoutState state;
  if (!state.read(db_)) return openFailure();
  if (state.needsUpgrade()) {
    // Another process may be creating or upgrading the same file: decide again under the write
    // lock.
    if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK ||
        !state.read(db_)) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
      return openFailure();
    }
    if (state.needsUpgrade()) {
      if (Status upgraded = upgradeLayout(state.objects == 0 ? 0 : state.version); !upgraded) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return upgraded;
      }
    }
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK || !state.read(db_))
      return openFailure();
  }
  if (state.version > kFormatVersion) {
    return Status::invalidInput("the history file " + quoted(path_) +
                                " was written by a newer qorchat (format " +
                                std::to_string(state.version) + ")");
  }
  // Anything else is somebody's database, handed over by mistake: it is not ours to add to.
  if (state.version != kFormatVersion || !state.hasTables) {
    return Status::invalidInput(quoted(path_) + " is not a qorchat history file");
  }
  return Status::ok();
}

// Takes the steps from fromVersion to the current layout, inside the caller's transaction.
Status MemoryStore::upgradeLayout(int fromVersion) {
  for (int version = fromVersion; version < kFormatVersion; ++version) {
    if (sqlite3_exec(db_, kUpgrades[version], nullptr, nullptr, nullptr) != SQLITE_OK) {
      return Status::ioError("cannot " + std::string(fromVersion == 0 ? "create" : "upgrade") +
                             " the history file " + quoted(path_) + ": " + sqlite3_errmsg(db_));
    }
  }
  const std::string setVersion = "PRAGMA user_version = " + std::to_string(kFormatVersion);
  if (sqlite3_exec(db_, setVersion.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    return openFailure();
  return Status::ok();
}

Status MemoryStore::openFailure() const {
  if (db_ != nullptr && (sqlite3_errcode(db_) & 0xff) == SQLITE_NOTADB) {
    return Status::invalidInput(quoted(path_) + " is not an SQLite database");
  }
  const std::string reason = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
  return Status::ioError("cannot open the history file " + quoted(path_) + ": " + reason);
}

bool MemoryStore::run(sqlite3_stmt* statement) {
  if (!writable_) return false;
  // A removed or renamed file still takes writes on its old inode, which nobody will ever read
  // again: treat that as the failure it is.
  int moved = 0;
  if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved) {
    recordFailure("the history file " + quoted(path_) + " was removed or moved");
    sqlite3_reset(statement);
    return false;
  }
  const int rc = sqlite3_step(statement);
  if (rc != SQLITE_DONE) {
    recordFailure("cannot save the conversation in " + quoted(path_) + ": " + sqlite3_errmsg(db_));
  }
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  return rc == SQLITE_DONE;
}

void MemoryStore::recordFailure(std::string message) {
  // From now on the session lives in memory only: writing part of it after a gap would leave a
  // conversation in the file that never took place.
  writable_ = false;
  writeFailure_ = Status::ioError(std::move(message));
}

sqlite3_stmt* MemoryStore::bindConversation() {
  sqlite3_stmt* statement = statements_->addConversation;
  bindText(statement, 1, key_);
  sqlite3_bind_int64(statement, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
  bindText(statement, 3, structure_);
  bindText(statement, 4, parts_.name);
  bindText(statement, 5, parts_.databaseName);
  return statement;
}

void MemoryStore::startNewConversation() {
  entries_.clear();
  resumedEntries_ = 0;
  // The structure stays: it describes the same database, which the new conversation is about.
  if (run(bindConversation())) conversationId_ = sqlite3_last_insert_rowid(db_);
}

Status MemoryStore::forgetConversation() {
  entries_.clear();
  resumedEntries_ = 0;
  if (!writable_) {
    return Status::ioError("the history file " + quoted(path_) +
                           " stopped taking writes: the conversation's entries stay in it");
  }
  sqlite3_stmt* statement = statements_->forgetEntries;
  sqlite3_bind_int64(statement, 1, conversationId_);
  return run(statement) ? Status::ok() : takeWriteFailure();
}

Result<std::vector<StoredConversation>> MemoryStore::storedConversations(std::size_t limit) const {
  Query list(db_, kListQuery);
  if (!list.ok())
    return Status::ioError("cannot read " + quoted(path_) + ": " + sqlite3_errmsg(db_));
  sqlite3_bind_int64(list.get(), 1, static_cast<sqlite3_int64>(limit));
  sqlite3_bind_int(list.get(), 2, kChatRoleUser);
  std::vector<StoredConversation> conversations;
  int rc = SQLITE_ROW;
  while ((rc = sqlite3_step(list.get())) == SQLITE_ROW) {
    const std::string key = columnText(list.get(), 1);
    StoredConversation& conversation = conversations.emplace_back();
    conversation.current = sqlite3_column_int64(list.get(), 0) == conversationId_;
    conversation.service = key.substr(0, key.find('\n'));
    conversation.name = columnText(list.get(), 2);
    conversation.databaseName = columnText(list.get(), 3);
    conversation.lastEntryAt = sqlite3_column_int64(list.get(), 4);
    conversation.entryCount = static_cast<std::size_t>(sqlite3_column_int64(list.get(), 5));
    conversation.firstQuestion = columnText(list.get(), 6);
  }
  if (rc != SQLITE_DONE)
    return Status::ioError("cannot read " + quoted(path_) + ": " + sqlite3_errmsg(db_));
  return conversations;
}

std::optional<Exchange> MemoryStore::lastExchange() const {
  for (std::size_t i = entries_.size(); i >= 2; --i) {
    const QORHistoryEntry& reply = entries_[i - 1];
    const QORHistoryEntry& question = entries_[i - 2];
    if (reply.role == kChatRoleAssistant && question.role == kChatRoleUser)
      return Exchange{question.text, reply.text};
  }
  return std::nullopt;
}

Status MemoryStore::takeWriteFailure() {
  return std::exchange(writeFailure_, Status::ok());
}

void MemoryStore::setDatabaseStructure(const std::string& structure) {
  if (structure == structure_) return;
  structure_ = structure;
  sqlite3_stmt* statement = statements_->setStructure;
  bindText(statement, 1, structure_);
  sqlite3_bind_int64(statement, 2, conversationId_);
  run(statement);
}

std::string MemoryStore::obtainDatabaseStructure() {
  return structure_;
}

void MemoryStore::addHistoryEntry(ChatRole role, const std::string& text) {
  const bool blankReply = role == kChatRoleAssistant && isBlank(text);
  entries_.push_back(QORHistoryEntry{role, blankReply ? std::string(kNoTextReply) : text});
  sqlite3_stmt* statement = statements_->addEntry;
  sqlite3_bind_int64(statement, 1, conversationId_);
  sqlite3_bind_int(statement, 2, role);
  bindText(statement, 3, entries_.back().text);
  sqlite3_bind_int64(statement, 4, static_cast<sqlite3_int64>(std::time(nullptr)));
  run(statement);
}

std::vector<QORHistoryEntry> MemoryStore::obtainHistory(std::int32_t limit) {
  if (limit < 1 || static_cast<std::size_t>(limit) >= entries_.size()) return entries_;
  return std::vector<QORHistoryEntry>(entries_.end() - limit, entries_.end());
}

}  // namespace qorchat
