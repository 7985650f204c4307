#pragma once

#include "qor_assistant.h"
#include "qor_service_exchange.h"

// Google's generative language service: the key as the query parameter "key" (never a header),
// the model in the URL, "contents" of "parts", and the reply in "candidates".
class QORAssistant_GOOGLE final : public QORAssistant {
 public:
  QORAssistant_GOOGLE(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                      IQORAssistantMemory* memory);

  std::pair<std::vector<std::string>, std::string> obtainAvailableModels() override;
  std::pair<IQORMessage*, std::string> addMessage(std::string text) override;
  std::pair<std::vector<QORModelEntry>, std::string> obtainModelCatalogue() override;

  std::pair<IQORMessage*, std::string> addMessageStreaming(
      std::string text, std::function<void(std::string_view fragment)> onFragment) override;

  // One event of a stream, a whole reply of its own: its candidates' text, the end and the usage.
  // The stream has no end event: it is whole once an event with candidates came.
  static void readEvent(std::string_view name, const YLJsonValue& reply,
                        QORExchange::StreamReader& reader);
  // The string at error.message, else empty: this service's raw body is never shown.
  static std::string obtainErrorMessage(const YLRestResourceResponse* response);
  static bool readCandidates(const YLJsonValue& reply, std::string& text);
  // Models that can generate content, without the "models/" prefix of their names.
  static bool readModel(const YLJsonValue* item, QORExchange::ModelEntry& entry);

  std::string apiKey;

 private:
  std::pair<IQORMessage*, std::string> converse(const std::string& text,
                                                const QORExchange::FragmentSink* fragments);
  // The request of the listing and of the catalogue, with the key.
  QORExchange::ListingRules listingRules() const;
};
