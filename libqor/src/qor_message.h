#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qor.h"

// A reply handed to the host: a time stamp, the assistant's role and its sections, which it owns;
// and, for a host that asks, how the reply ended and what it cost.
class QORMessage final : public IQORMessage, public IQORReplyDetails {
 public:
  QORMessage() = default;
  QORMessage(const QORMessage&) = delete;
  QORMessage& operator=(const QORMessage&) = delete;
  ~QORMessage() override;

  std::int64_t obtainCreationTime() const override { return creationTime; }
  ChatRole obtainRole() const override { return role; }
  const std::vector<IQORMessageSection*>& obtainSections() const override { return sections; }

  QORReplyEnd obtainReplyEnd() const override { return replyEnd; }
  std::string obtainReplyEndText() const override { return replyEndText; }
  QORTokenUsage obtainUsage() const override { return usage; }

  // A message with one text section holding the text, stamped with time(nullptr).
  static QORMessage* makeTextReply(std::string text);

  std::int64_t creationTime = 0;
  ChatRole role = kChatRoleAssistant;
  // Owned: deleted in order by the destructor, null entries skipped.
  std::vector<IQORMessageSection*> sections;
  // As the service's reply says them; unknown until a reader fills them.
  QORReplyEnd replyEnd = QORReplyEnd::Unknown;
  std::string replyEndText;
  QORTokenUsage usage;
};
