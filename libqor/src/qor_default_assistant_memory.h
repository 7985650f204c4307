#pragma once

#include <string>
#include <vector>

#include "qor.h"

// The memory an assistant keeps when the host brings none: everything in the process's memory,
// forgotten at destruction. It ignores the limit of obtainHistory and gives the whole history.
class QORDefaultAssistantMemory final : public IQORAssistantMemory {
 public:
  QORDefaultAssistantMemory() = default;

  void setDatabaseStructure(const std::string& structure) override {
    databaseStructure = structure;
  }
  std::string obtainDatabaseStructure() override { return databaseStructure; }
  void addHistoryEntry(ChatRole role, const std::string& text) override {
    history.push_back(QORHistoryEntry{role, text});
  }
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t /*limit*/) override { return history; }

  std::string databaseStructure;
  std::vector<QORHistoryEntry> history;  // oldest first
};
