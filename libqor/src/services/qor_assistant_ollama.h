#pragma once

#include "qor_assistant.h"
#include "qor_service_exchange.h"

// An Ollama server, by default on this machine: no credential at all, "stream" false, and one
// "message" in the reply, which must be the assistant's text.
class QORAssistant_OLLAMA final : public QORAssistant {
 public:
  // The loopback host and port of a local server. Like every host without a scheme it is reached
  // over https; a plain-http server needs its host given with "http://".
  static constexpr const char* kDefaultHost = "localhost:11434";

  QORAssistant_OLLAMA(IYLHTTPPoolCenter* pool, const std::string& host,
                      IQORAssistantMemory* memory);

  std::pair<std::vector<std::string>, std::string> obtainAvailableModels() override;
  std::pair<IQORMessage*, std::string> addMessage(std::string text) override;
  std::pair<std::vector<QORModelEntry>, std::string> obtainModelCatalogue() override;

  std::pair<IQORMessage*, std::string> addMessageStreaming(
      std::string text, std::function<void(std::string_view fragment)> onFragment) override;

  static bool readMessage(const YLJsonValue& reply, std::string& text);
  // One line of a stream: the message's text (its thinking is not reply text), the end and the
  // counts; "done" true ends it and an "error" key is the stream's failure.
  static void readLine(std::string_view name, const YLJsonValue& line,
                       QORExchange::StreamReader& reader);

 private:
  std::pair<IQORMessage*, std::string> converse(const std::string& text,
                                                const QORExchange::FragmentSink* fragments);
};
