#pragma once
// The conversation store: the assistant's memory kept in an SQLite file, so that a conversation
// survives the process. Conversations are kept per database and service, told apart by a name;
// every entry is committed as it is added, so a process killed at any moment loses nothing
// already answered.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qor.h"
#include "status.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qorchat {

// What an assistant turn without text is stored and shown as: services reject a history that holds
// an empty assistant turn, which would break every later question of the conversation.
inline constexpr const char* kNoTextReply = "the model returned no text";

// How many of the latest entries a question is sent with: the assistants ask for this many, so
// anything qorchat derives from the history should look at the same ones.
inline constexpr std::int32_t kHistoryEntries = 20;

// How many conversations a listing gives at most.
inline constexpr std::size_t kListedConversations = 50;

// Which conversation a store holds.
struct ConversationKey {
  std::string service;       // the service's name
  std::string database;      // the database's identity: the same database across runs
  std::string databaseName;  // the database's name for people
  std::string name;          // told apart by the user; empty for the default conversation
};

// A conversation of the file, as a listing shows it. Every text is stored as it came: the
// caller makes it safe for a terminal.
struct StoredConversation {
  std::string databaseName;
  std::string service;
  std::string name;
  std::int64_t lastEntryAt = 0;  // seconds since the epoch
  std::string firstQuestion;     // the first user entry; empty when there is none
  std::size_t entryCount = 0;
  bool current = false;  // the one this store holds
};

// A question and the reply that followed it.
struct Exchange {
  std::string question;
  std::string reply;
};

class MemoryStore final : public IQORAssistantMemory {
 public:
  // Opens (creating if needed) the store at path and takes up the latest conversation under key.
  // The path ":memory:" keeps everything in this process only. The file and SQLite's files beside
  // it are kept private to their owner (mode 0600). A file of an earlier layout is brought up to
  // date in place. A failure names the path in one line.
  static Result<std::unique_ptr<MemoryStore>> open(const std::string& path, ConversationKey key);
  ~MemoryStore() override;
  MemoryStore(const MemoryStore&) = delete;
  MemoryStore& operator=(const MemoryStore&) = delete;

  // The number of entries the conversation had when it was taken up (0 for a new one).
  std::size_t resumedEntryCount() const { return resumedEntries_; }
  // Starts a new, empty conversation under the same key; the old one stays in the file.
  void startNewConversation();
  // Deletes the entries of the conversation, in the file too, leaving it empty.
  Status forgetConversation();
  // The conversations of the file, of every database and service: for each database, service and
  // name the one that name takes up, when it holds entries; the latest entry first.
  Result<std::vector<StoredConversation>> storedConversations(
      std::size_t limit = kListedConversations) const;
  // The latest question that has its reply, and that reply; nothing before the first.
  std::optional<Exchange> lastExchange() const;
  // The first write failure since the last call; ok when there was none. The library records
  // each turn through addHistoryEntry, which returns nothing, so a failure cannot travel back
  // with the call that met it: it waits here to be asked for. The store goes on in memory after
  // a failure so that the session is not lost.
  Status takeWriteFailure();

  void setDatabaseStructure(const std::string& structure) override;
  std::string obtainDatabaseStructure() override;
  // A blank assistant text is stored as kNoTextReply.
  void addHistoryEntry(ChatRole role, const std::string& text) override;
  // The latest `limit` entries, oldest first (all of them for a limit below 1).
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t limit) override;

 private:
  struct Statements;
  MemoryStore(std::string path, ConversationKey key);
  Status load();
  Status prepareLayout();
  Status upgradeLayout(int fromVersion);
  Status nameDatabase();
  Status useWriteAheadLog();
  Status resumeLatest();
  Status prepareStatements();
  Status openFailure() const;
  sqlite3_stmt* bindConversation();
  // Runs one write; on failure records it and stops writing. False when nothing was written.
  bool run(sqlite3_stmt* statement);
  void recordFailure(std::string message);

  sqlite3* db_ = nullptr;
  std::unique_ptr<Statements> statements_;
  std::string path_;
  std::string key_;  // the service and the database's identity, on two lines
  ConversationKey parts_;
  std::int64_t conversationId_ = 0;
  std::size_t resumedEntries_ = 0;
  std::string structure_;
  // The conversation as this process holds it. Reads come from here, so that the session goes on
  // unchanged when the file stops accepting writes.
  std::vector<QORHistoryEntry> entries_;
  bool writable_ = true;
  Status writeFailure_;
};

}  // namespace qorchat
