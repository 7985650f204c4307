#include "qor_message.h"

#include <chrono>
#include <memory>

#include "qor_message_text_section.h"

QORMessage::~QORMessage() {
  for (IQORMessageSection* section : sections)
    delete section;
}

QORMessage* QORMessage::makeTextReply(std::string text) {
  auto message = std::make_unique<QORMessage>();
  message->creationTime = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
  auto section = std::make_unique<QORMessageTextSection>();
  section->text = std::move(text);
  message->sections.reserve(1);
  message->sections.push_back(section.release());
  return message.release();
}
