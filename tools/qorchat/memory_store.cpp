// Keeps the assistant's conversations and the database structure in an SQLite file.

#include "memory_store.h"

#include <sqlite3.h>

#include <ctime>
#include <stdexcept>
#include <utility>

namespace qorchat {
namespace {

// The layout of the file, kept in its user_version so that a later layout can recognise it.
constexpr int kFormatVersion = 1;
// How long a write waits for another process that is writing the same file.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kCreateTables =
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
    "CREATE INDEX entries_by_conversation ON entries (conversation_id, id);"
    "PRAGMA user_version = 1;";

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

// A statement for the constructor's own reads; failures there are the constructor's to throw.
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

}  // namespace

struct MemoryStore::Statements {
  sqlite3_stmt* addEntry = nullptr;
  sqlite3_stmt* setStructure = nullptr;
  sqlite3_stmt* addConversation = nullptr;

  ~Statements() {
    sqlite3_finalize(addEntry);
    sqlite3_finalize(setStructure);
    sqlite3_finalize(addConversation);
  }
};

MemoryStore::MemoryStore(const std::string& path, std::string key)
    : statements_(std::make_unique<Statements>()), key_(std::move(key)), path_(path) {
  try {
    open();
  } catch (...) {
    statements_.reset();
    sqlite3_close_v2(db_);
    db_ = nullptr;
    throw;
  }
}

MemoryStore::~MemoryStore() {
  statements_.reset();
  sqlite3_close_v2(db_);
}

void MemoryStore::open() {
  if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    throwOpenFailure();
  }
  // SQLite falls back to reading a file it may not write; a store that cannot keep anything is
  // better refused now than discovered after the first answer.
  if (sqlite3_db_readonly(db_, "main") == 1) {
    throw std::runtime_error("cannot write the history file " + quoted(path_));
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
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
    throwOpenFailure();
  }
  prepareLayout();

  Query latest(db_,
               "SELECT id, structure FROM conversations WHERE \"key\" = ?1 ORDER BY id DESC "
               "LIMIT 1");
  Query entries(db_, "SELECT role, text FROM entries WHERE conversation_id = ?1 ORDER BY id");
  if (!latest.ok() || !entries.ok()) throwOpenFailure();
  bindText(latest.get(), 1, key_);
  rc = sqlite3_step(latest.get());
  if (rc == SQLITE_ROW) {
    conversationId_ = sqlite3_column_int64(latest.get(), 0);
    structure_ = columnText(latest.get(), 1);
    sqlite3_bind_int64(entries.get(), 1, conversationId_);
    while ((rc = sqlite3_step(entries.get())) == SQLITE_ROW) {
      entries_.push_back(
          QORHistoryEntry{sqlite3_column_int(entries.get(), 0), columnText(entries.get(), 1)});
    }
    if (rc != SQLITE_DONE) throwOpenFailure();
    resumedEntries_ = entries_.size();
  } else if (rc != SQLITE_DONE) {
    throwOpenFailure();
  }

  const auto prepare = [this](const char* sql, sqlite3_stmt** statement) {
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) !=
        SQLITE_OK) {
      throwOpenFailure();
    }
  };
  prepare("INSERT INTO entries (conversation_id, role, text, created_at) VALUES (?1, ?2, ?3, ?4)",
          &statements_->addEntry);
  prepare("UPDATE conversations SET structure = ?1 WHERE id = ?2", &statements_->setStructure);
  prepare("INSERT INTO conversations (\"key\", started_at, structure) VALUES (?1, ?2, ?3)",
          &statements_->addConversation);

  if (conversationId_ == 0) {
    sqlite3_stmt* statement = bindConversation();
    if (sqlite3_step(statement) != SQLITE_DONE) throwOpenFailure();
    sqlite3_reset(statement);
    conversationId_ = sqlite3_last_insert_rowid(db_);
  }
}

void MemoryStore::prepareLayout() {
  const auto readState = [this](int& objects, int& version, bool& hasTables) {
    Query count(db_, "SELECT count(*) FROM sqlite_master");
    Query userVersion(db_, "PRAGMA user_version");
    Query ours(db_,
               "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN "
               "('conversations', 'entries')");
    if (!count.ok() || !userVersion.ok() || !ours.ok() || sqlite3_step(count.get()) != SQLITE_ROW ||
        sqlite3_step(userVersion.get()) != SQLITE_ROW || sqlite3_step(ours.get()) != SQLITE_ROW) {
      throwOpenFailure();
    }
    objects = sqlite3_column_int(count.get(), 0);
    version = sqlite3_column_int(userVersion.get(), 0);
    hasTables = sqlite3_column_int(ours.get(), 0) == 2;
  };

  int objects = 0;
  int version = 0;
  bool hasTables = false;
  readState(objects, version, hasTables);
  if (objects == 0) {
    // Another process may be creating the same new file: decide again under the write lock.
    if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
      throwOpenFailure();
    }
    readState(objects, version, hasTables);
    if (objects == 0 && sqlite3_exec(db_, kCreateTables, nullptr, nullptr, nullptr) != SQLITE_OK) {
      const std::string reason = sqlite3_errmsg(db_);
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
      throw std::runtime_error("cannot create the history file " + quoted(path_) + ": " + reason);
    }
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) throwOpenFailure();
    readState(objects, version, hasTables);
  }
  if (version > kFormatVersion) {
    throw std::runtime_error("the history file " + quoted(path_) +
                             " was written by a newer qorchat (format " + std::to_string(version) +
                             ")");
  }
  // Anything else is somebody's database, handed over by mistake: it is not ours to add to.
  if (version != kFormatVersion || !hasTables) {
    throw std::runtime_error(quoted(path_) + " is not a qorchat history file");
  }
}

void MemoryStore::throwOpenFailure() const {
  if (db_ != nullptr && (sqlite3_errcode(db_) & 0xff) == SQLITE_NOTADB) {
    throw std::runtime_error(quoted(path_) + " is not an SQLite database");
  }
  const std::string reason = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
  throw std::runtime_error("cannot open the history file " + quoted(path_) + ": " + reason);
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
  if (writeFailure_.empty()) writeFailure_ = std::move(message) + "; going on without saving";
}

sqlite3_stmt* MemoryStore::bindConversation() {
  sqlite3_stmt* statement = statements_->addConversation;
  bindText(statement, 1, key_);
  sqlite3_bind_int64(statement, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
  bindText(statement, 3, structure_);
  return statement;
}

void MemoryStore::startNewConversation() {
  entries_.clear();
  resumedEntries_ = 0;
  // The structure stays: it describes the same database, which the new conversation is about.
  if (run(bindConversation())) conversationId_ = sqlite3_last_insert_rowid(db_);
}

std::string MemoryStore::takeWriteFailure() {
  return std::exchange(writeFailure_, {});
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
