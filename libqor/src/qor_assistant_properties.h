#pragma once

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qor.h"

// The property record of an assistant: what the host set, read and written by key.
//
// changedKeys remembers every key the host has set: a value whose key is not in it never reaches
// a service, so that the defaults (a temperature of 1.0) are never sent by themselves.
class QORAssistantProperties : public IQORProperties {
 public:
  // defaultHost is the service's public host, without a scheme; a blank "api_host" restores it.
  explicit QORAssistantProperties(IQORAssistantMemory* memory, std::string defaultHost = {});
  QORAssistantProperties(const QORAssistantProperties& other) = default;
  QORAssistantProperties& operator=(const QORAssistantProperties& other) = default;
  ~QORAssistantProperties() override = default;

  std::vector<std::pair<std::string, std::string>> obtainPropertyCatalogue() override;
  YLVariant obtainValue(const std::string& key) override;
  bool setValue(const std::string& key, const YLVariant& value) override;

  // Trims value; a blank one gives fallback instead. Puts "https://" in front unless the text
  // starts with "http://" or "https://" (lower case only), and stores it in apiHost.
  void normaliseHost(std::string_view value, std::string_view fallback);

  // The database structure of the memory as ready-made statements: one catalog map per accepted
  // catalog, unnamed catalogs first.
  YLVariantList obtainDatabaseTree() const;
  // The same as lines of text, each ended by a line feed.
  std::string obtainDatabaseInstructions() const;
  // The standing instructions of a request: user instructions, system instructions, digest.
  std::string obtainCombinedInstructions() const;

  bool hasChanged(std::string_view key) const { return changedKeys.find(key) != changedKeys.end(); }

  std::set<std::string, std::less<>> changedKeys;
  // Not owned. Copies share it, so the database structure set through a copy is the assistant's.
  IQORAssistantMemory* memory = nullptr;
  std::string apiHost;
  std::string model;
  double temperature = 1.0;
  std::string userInstructions;
  YLVariantMap systemInstructions;
  // The service's public host, kept so that an emptied host can go back to it.
  std::string defaultHost;
};
