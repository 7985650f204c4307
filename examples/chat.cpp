// The shortest complete host: create an assistant, describe a database, list models, ask once
// and print the answer as it streams in.
//
//   qor_example_chat [SERVICE [HOST [MODEL]]]
//
// SERVICE is one of openai, google, deepseek, ollama (the default), x, anthropic, alibaba; HOST
// the service's URL (default: the service's own, http://localhost:11434 for ollama); MODEL the
// model (default: the first one the service lists). The key is read from QOR_API_KEY.

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "qor.h"

namespace {

// In the order of QORAssistantType's numbers.
constexpr std::string_view kServices[] = {"openai", "google",    "deepseek", "ollama",
                                          "x",      "anthropic", "alibaba"};

constexpr const char* kUsage =
    "usage: qor_example_chat [SERVICE [HOST [MODEL]]]\n"
    "  SERVICE  openai, google, deepseek, ollama (default), x, anthropic or alibaba\n"
    "  HOST     the service's URL (default: its own; http://localhost:11434 for ollama)\n"
    "  MODEL    default: the first model the service lists\n"
    "The key is read from the variable QOR_API_KEY.\n";

}  // namespace

int main(int argc, char** argv) {
  const std::string_view first = argc > 1 ? argv[1] : "ollama";
  if (first == "--help" || first == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  int service = -1;
  for (int i = 0; i < static_cast<int>(std::size(kServices)); ++i) {
    if (kServices[i] == first) service = i;
  }
  if (service < 0 || argc > 4) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string host = argc > 2 ? argv[2] : first == "ollama" ? "http://localhost:11434" : "";
  std::string model = argc > 3 ? argv[3] : "";
  const char* key = std::getenv("QOR_API_KEY");

  // The settings apply to every assistant from its next request on. A busy service is asked
  // again up to twice.
  YLRestGlobalSettings settings;
  settings.totalTimeoutMs = 120000;
  settings.maxRetries = 2;
  QORSetHTTPSettings(settings);

  // The assistant takes the pool once it exists; a null memory makes it keep its own.
  auto pool = std::make_unique<YLHTTPPoolCenter>();
  IQORAssistant* assistant = QORCreateAssistant(static_cast<QORAssistantType>(service), pool.get(),
                                                key ? key : "", host, nullptr);
  if (assistant == nullptr) return 1;
  pool.release();

  auto [models, listFailure] = assistant->obtainAvailableModels();
  if (!listFailure.empty()) std::fprintf(stderr, "models: %s\n", listFailure.c_str());
  for (const std::string& name : models)
    std::printf("model: %s\n", name.c_str());
  if (model.empty() && !models.empty()) model = models.front();

  assistant->updateProperties([&](IQORProperties* properties) {
    properties->setValue("model", YLVariant(model));
    properties->setValue("temperature", YLVariant(0.2));
    properties->setValue("user_instructions", YLVariant("Answer with one SQL statement."));
    properties->setValue("db_structure", YLVariant(R"~([{"catalog_name": "shop", "schemas": [{
        "schema_name": "sales",
        "tables": [{"name": "orders", "fields": [{"name": "id", "type": "int"},
                                                  {"name": "total", "type": "decimal(10,2)"}],
                    "pkeys": ["id"]}]}]}])~"));
  });

  // The answer is printed as the service writes it; every assistant can stream.
  auto* streaming = dynamic_cast<IQORStreamingAssistant*>(assistant);
  auto [reply, failure] =
      streaming->addMessageStreaming("What is the largest order?", [](std::string_view fragment) {
        std::fwrite(fragment.data(), 1, fragment.size(), stdout);
        std::fflush(stdout);
      });
  if (reply == nullptr) {
    std::fprintf(stderr, "\nchat: %s\n", failure.c_str());
  } else {
    std::printf("\n");
    // How the reply ended and what it cost, where the service says.
    if (const auto* details = dynamic_cast<const IQORReplyDetails*>(reply)) {
      if (details->obtainReplyEnd() == QORReplyEnd::LengthLimit)
        std::fprintf(stderr, "(the reply was cut at the length limit)\n");
      const QORTokenUsage usage = details->obtainUsage();
      if (usage.inputTokens >= 0 && usage.outputTokens >= 0)
        std::fprintf(stderr, "(%lld tokens in, %lld out)\n",
                     static_cast<long long>(usage.inputTokens),
                     static_cast<long long>(usage.outputTokens));
    }
    QORFreeObject(reply);
  }

  QORFreeObject(assistant);  // also deletes the pool
  return reply == nullptr ? 1 : 0;
}
