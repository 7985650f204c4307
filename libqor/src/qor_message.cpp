#include "qor_message.h"

#include <ctime>
#include <memory>

#include "qor_message_text_section.h"

QORMessage::~QORMessage() {
  for (IQORMessageSection* section : sections)
    delete section;
}

QORMessage* QORMessage::makeTextReply(std::string text) {
  auto message = std::make_unique<QORMessage>();
  // The C runtime's clock, which hosts compare the stamp with: glibc's time() reads a coarse clock
  // that lags the precise one by up to a tick, so a stamp from the precise clock could lie a second
  // ahead of a time() read after it.
  message->creationTime = std::time(nullptr);
  auto section = std::make_unique<QORMessageTextSection>();
  section->text = std::move(text);
  message->sections.reserve(1);
  message->sections.push_back(section.release());
  return message.release();
}
