#pragma once
// libqor: a chat assistant for database tools.
//
// The host creates one assistant for one service with QORCreateAssistant, sets its properties
// inside updateProperties, and sends the user's texts with addMessage. Everything the library hands
// out is freed with QORFreeObject. Failures come back as texts: an empty text means success.
//
// A failure text can be as long as the largest reply the settings accept: most services' error
// bodies are passed on whole when they hold no message of their own, so a service that answers a
// 400 with 60 MiB of HTML gives a failure text of 60 MiB (YLRestGlobalSettings::maxResponseBytes,
// 64 MiB by default, bounds it). A host cuts a failure text to a sensible length before it shows
// it.
//
// Threads. Separate assistants, each with a pool of its own, may run at the same time, one thread
// each, and so may the objects they hand out (messages, property copies) on the thread that uses
// them. Each assistant is used by one thread at a time: two threads never call into the same
// assistant, its property copies or its memory at once, and two assistants never share a pool.
// YLHTTPPoolCenter::cancel() is the exception: any thread or a signal handler may call it while
// the pool's assistant runs an exchange. QORSetHTTPSettings and QORRegisterCallback change what
// every assistant reads: call them only while nothing else of the library runs, on any thread.
//
// Strings, lists, pairs and function objects cross the boundary by value, so the host must be
// built with the same standard library as the library.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qor_version.h"
#include "yl/yl.h"

#if defined(_WIN32)
#define QOR_EXPORT __declspec(dllexport)
#else
#define QOR_EXPORT __attribute__((visibility("default")))
#endif

// The services. The numbers are fixed: hosts store and pass them.
enum class QORAssistantType : std::int32_t {
  OPENAI_v1 = 0,
  GOOGLE = 1,
  DEEPSEEK = 2,
  OLLAMA = 3,
  X = 4,
  ANTHROPIC = 5,
  ALIBABA = 6,
};

// Who spoke a turn: 0 the user, 1 the assistant.
using ChatRole = std::int32_t;
inline constexpr ChatRole kChatRoleUser = 0;
inline constexpr ChatRole kChatRoleAssistant = 1;

// The kind of a message section; text is the only kind.
using QORMessageSectionType = std::int32_t;
inline constexpr QORMessageSectionType kQORMessageSectionText = 0;

// One turn of a conversation.
struct QORHistoryEntry {
  ChatRole role = kChatRoleUser;
  std::string text;
};

// The root of everything the host may free with QORFreeObject.
class IQORObject {
 public:
  virtual ~IQORObject() = default;
};

// What outlives one exchange: the database structure (a JSON text) and the conversation.
// A host may bring its own store; otherwise the assistant keeps one in memory.
class IQORAssistantMemory : public IQORObject {
 public:
  // Replaces the stored text; the empty text clears it.
  virtual void setDatabaseStructure(const std::string& structure) = 0;
  // The stored text; empty when none is set.
  virtual std::string obtainDatabaseStructure() = 0;
  // Appends one turn.
  virtual void addHistoryEntry(ChatRole role, const std::string& text) = 0;
  // The turns, oldest first. The assistants ask for 20 and send whatever comes back, uncut; a
  // store may use the figure to bound what it gives.
  virtual std::vector<QORHistoryEntry> obtainHistory(std::int32_t limit) = 0;
};

// Properties read and written by key. Keys: "api_host", "model", "temperature",
// "user_instructions", "system_instructions", "db_structure", "combined_instructions" (read
// only), and "max_tokens" on the live record of an Anthropic assistant.
class IQORProperties : public IQORObject {
 public:
  // The keys this record understands, each with a short description of its value, in order.
  virtual std::vector<std::pair<std::string, std::string>> obtainPropertyCatalogue() = 0;
  // The value under the key; a null variant for an unknown key.
  virtual YLVariant obtainValue(const std::string& key) = 0;
  // Stores the value; false when the key is unknown, read only or the value has the wrong type.
  virtual bool setValue(const std::string& key, const YLVariant& value) = 0;
};

// One part of a message. Sections belong to their message: the host never frees one.
class IQORMessageSection {
 public:
  virtual ~IQORMessageSection() = default;
  virtual QORMessageSectionType obtainSectionType() const = 0;
  // The text with its length; it may hold any bytes. Valid while the message lives.
  virtual std::string_view obtainText() const = 0;
};

// A reply of the model.
class IQORMessage : public IQORObject {
 public:
  // Seconds since 1970-01-01 UTC at which the reply was read.
  virtual std::int64_t obtainCreationTime() const = 0;
  virtual ChatRole obtainRole() const = 0;
  virtual const std::vector<IQORMessageSection*>& obtainSections() const = 0;
};

class IQORAssistant : public IQORObject {
 public:
  // Hands the duty of deleting the memory to the caller; the assistant keeps using it.
  virtual IQORAssistantMemory* detachMemory() = 0;
  // Uses another memory from now on, which stays the caller's. Must not be null.
  virtual void attachMemory(IQORAssistantMemory* memory) = 0;
  // The service's model names, or an empty list and the text of what failed (which may be a
  // service's whole error body: see the top of this file).
  virtual std::pair<std::vector<std::string>, std::string> obtainAvailableModels() = 0;
  // Calls the function once with the live properties, then brings the values into the service's
  // range. Returns the empty text. An empty function throws std::bad_function_call.
  virtual std::string updateProperties(std::function<void(IQORProperties*)> update) = 0;
  // A copy of the properties, owned by the caller. It shares the memory with the assistant.
  virtual IQORProperties* obtainProperties() = 0;
  // Sends one user text. Gives the reply, owned by the caller, and an empty text; or null and the
  // text of what failed (which may be a service's whole error body, up to the largest reply
  // accepted: cut it for display). The history grows only after a successful exchange.
  virtual std::pair<IQORMessage*, std::string> addMessage(std::string text) = 0;
};

// Optional interfaces. The objects the library hands out also implement these; a host that wants
// one asks with dynamic_cast and gets null from an object that lacks it. A host that never asks
// sees the library exactly as without them.

// How a reply ended, as the service said.
enum class QORReplyEnd : std::int32_t {
  Unknown = 0,      // the service said nothing, or a word the library does not know
  Complete = 1,     // the model finished its answer
  LengthLimit = 2,  // cut at the service's length limit (max_tokens and the like)
  Filtered = 3,     // stopped by the service's content filter or safety check
};

// Token counts as the service reports them; -1 where it reports none.
struct QORTokenUsage {
  std::int64_t inputTokens = -1;
  std::int64_t outputTokens = -1;
};

// What a reply says about itself besides its text: messages from addMessage implement it.
class IQORReplyDetails {
 public:
  virtual ~IQORReplyDetails() = default;
  virtual QORReplyEnd obtainReplyEnd() const = 0;
  // The service's own word for the end ("stop", "length", "max_tokens", "MAX_TOKENS"...); empty
  // when it gave none.
  virtual std::string obtainReplyEndText() const = 0;
  // The token counts, -1 in a field the service did not report.
  virtual QORTokenUsage obtainUsage() const = 0;
};

// Replies read as the service writes them: assistants implement it.
class IQORStreamingAssistant {
 public:
  virtual ~IQORStreamingAssistant() = default;
  // Sends one user text as addMessage does and hands each fragment of the reply's text to
  // onFragment as it arrives, on the calling thread (thinking is not reply text; an empty
  // function receives nothing). Gives what addMessage gives for the same exchange: the message with
  // the whole text and, through IQORReplyDetails, the end and the usage the stream reported; or
  // null and the text of what failed, the stream's own error or cut included. The history grows
  // only after a successful exchange. A cancel of the pool ends it with the usual cancelled
  // failure; fragments handed over stay handed over. onFragment must not throw.
  virtual std::pair<IQORMessage*, std::string> addMessageStreaming(
      std::string text, std::function<void(std::string_view fragment)> onFragment) = 0;
};

// One model as the service lists it.
struct QORModelEntry {
  std::string name;
  // Seconds since 1970-01-01 UTC at which the model was made, or -1 when the listing gives none.
  std::int64_t created = -1;
  // What the service says the model can do, in its own words (Google's generation methods such
  // as "generateContent" or "embedContent", Ollama's "completion" or "embedding"); empty when
  // the listing says nothing.
  std::vector<std::string> capabilities;
};

// The whole model listing, undated entries included: assistants implement it.
class IQORModelCatalogue {
 public:
  virtual ~IQORModelCatalogue() = default;
  // Every model the service lists, in the listing's order, or an empty list and the text of what
  // failed, as obtainAvailableModels gives it.
  virtual std::pair<std::vector<QORModelEntry>, std::string> obtainModelCatalogue() = 0;
};

// The record passed to the host's callback under the key "QORLocalizeString". The host looks up
// the English sentence at source and copies its translation into translation, NUL-terminated
// (at most 1023 bytes of text); writing nothing keeps the English.
struct QORCallbackLocalizationInfo {
  const char* source = nullptr;
  char translation[1024] = {};

  QORCallbackLocalizationInfo() = default;
  QORCallbackLocalizationInfo(const QORCallbackLocalizationInfo&) = default;
  // Both copy source and all 1024 bytes of translation; the moved-from record stays as it was.
  QOR_EXPORT QORCallbackLocalizationInfo& operator=(const QORCallbackLocalizationInfo& other);
  // NOLINTNEXTLINE(performance-noexcept-move-constructor): hosts compile against this declaration.
  QOR_EXPORT QORCallbackLocalizationInfo& operator=(QORCallbackLocalizationInfo&& other);
};

// The host's callback: a key, then a pointer to the record that the key names.
using QORCallback = void (*)(const char* key, void* record);

// Builds an assistant for a service. The pool passes into the assistant's ownership (one pool per
// assistant); an empty host means the service's public host; a null memory makes the assistant
// keep its own. A type outside the table gives null, allocates nothing and leaves the pool the
// caller's. The Ollama assistant ignores the key.
QOR_EXPORT IQORAssistant* QORCreateAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                             const std::string& apiKey, const std::string& host,
                                             IQORAssistantMemory* memory);

// Destroys anything the library handed out. Null is ignored.
QOR_EXPORT void QORFreeObject(IQORObject* object);

// Sets the callback that translates the library's own sentences; null removes it. Call while no
// other call into the library runs, on any thread: not while an assistant works on another one.
QOR_EXPORT void QORRegisterCallback(QORCallback callback);

// Copies the REST settings used by every assistant from its next exchange on. Call while no other
// call into the library runs, on any thread: not while an assistant works on another one.
QOR_EXPORT void QORSetHTTPSettings(const YLRestGlobalSettings& settings);
