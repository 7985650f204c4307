#pragma once

#include "qor_assistant.h"
#include "qor_service_exchange.h"

// Anthropic's messages service: the key and the version in two session headers, "max_tokens" in
// every request, the instructions in "system", the reply in content blocks, and models sorted by
// their "created_at" date.
class QORAssistant_ANTHROPIC final : public QORAssistant {
 public:
  QORAssistant_ANTHROPIC(IYLHTTPPoolCenter* pool, const std::string& host,
                         const std::string& apiKey, IQORAssistantMemory* memory);

  std::pair<std::vector<std::string>, std::string> obtainAvailableModels() override;
  std::pair<IQORMessage*, std::string> addMessage(std::string text) override;
  std::pair<std::vector<QORModelEntry>, std::string> obtainModelCatalogue() override;

  std::pair<IQORMessage*, std::string> addMessageStreaming(
      std::string text, std::function<void(std::string_view fragment)> onFragment) override;

  // The text of every block of type "text", joined.
  static bool readContentBlocks(const YLJsonValue& reply, std::string& text);
  // One event of a stream: text deltas (thinking is not reply text), the usage of message_start,
  // the end and usage of message_delta; message_stop ends it and an error event fails it.
  static void readEvent(std::string_view name, const YLJsonValue& event,
                        QORExchange::StreamReader& reader);

  std::string apiKey;

 private:
  std::pair<IQORMessage*, std::string> converse(const std::string& text,
                                                const QORExchange::FragmentSink* fragments);
};
