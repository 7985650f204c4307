#pragma once

#include <string>

#include "qor.h"

// The text part of a reply; text is the only kind of section.
class QORMessageTextSection final : public IQORMessageSection {
 public:
  QORMessageTextSection() = default;

  QORMessageSectionType obtainSectionType() const override { return kQORMessageSectionText; }
  std::string_view obtainText() const override { return text; }

  // Filled by the adapter that builds the reply.
  std::string text;
};
