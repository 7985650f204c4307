// A host in a few lines: create an assistant, describe the database, chat, list models.
//
//   qor_example_chat [service-number host api-key model]
//
// Without arguments it talks to a local server at http://localhost:11434 (service 3).

#include <cstdio>
#include <string>

#include "qor.h"

int main(int argc, char** argv) {
  const int service = argc > 1 ? std::stoi(argv[1]) : 3;
  const std::string host = argc > 2 ? argv[2] : "http://localhost:11434";
  const std::string key = argc > 3 ? argv[3] : "";
  const std::string model = argc > 4 ? argv[4] : "llama3.2";

  // The settings apply to every assistant from its next request on.
  YLRestGlobalSettings settings;
  settings.totalTimeoutMs = 120000;
  QORSetHTTPSettings(settings);

  // The assistant takes the pool; a null memory makes it keep its own.
  IQORAssistant* assistant = QORCreateAssistant(static_cast<QORAssistantType>(service),
                                                new YLHTTPPoolCenter, key, host, nullptr);
  if (assistant == nullptr) {
    std::fprintf(stderr, "no such service: %d\n", service);
    return 2;
  }

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

  auto [models, listFailure] = assistant->obtainAvailableModels();
  if (!listFailure.empty()) std::fprintf(stderr, "models: %s\n", listFailure.c_str());
  for (const std::string& name : models)
    std::printf("model: %s\n", name.c_str());

  auto [reply, failure] = assistant->addMessage("What is the largest order?");
  if (reply == nullptr) {
    std::fprintf(stderr, "chat: %s\n", failure.c_str());
  } else {
    for (const IQORMessageSection* section : reply->obtainSections()) {
      const std::string_view text = section->obtainText();
      std::printf("%.*s\n", static_cast<int>(text.size()), text.data());
    }
    QORFreeObject(reply);
  }

  QORFreeObject(assistant);  // also deletes the pool
  return reply == nullptr ? 1 : 0;
}
